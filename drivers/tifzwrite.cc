// TIFF files as libtiff writes them: Deflate with a predictor, in strips.
#include <algorithm>

#include "tifz.h"

namespace drivers::tifz {

namespace {

constexpr std::size_t kStripBytes = std::size_t{256} << 10;
constexpr int kLevel = 4;                                            // of Deflate
constexpr std::uint64_t kClassicBytes = std::uint64_t{4'000} << 20;  // of pixels; above it BigTIFF

bool state_layout(const img_file* handle, TIFF* tif, std::uint32_t rows) {
  const bool is_float = handle->bits == 32;
  const std::uint16_t alpha = EXTRASAMPLE_UNASSALPHA;
  return TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, std::uint32_t(handle->width)) &&
         TIFFSetField(tif, TIFFTAG_IMAGELENGTH, std::uint32_t(handle->height)) &&
         TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, handle->bits) &&
         TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, handle->components) &&
         TIFFSetField(tif, TIFFTAG_SAMPLEFORMAT,
                      is_float ? SAMPLEFORMAT_IEEEFP : SAMPLEFORMAT_UINT) &&
         TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB) &&
         TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG) &&
         TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT) &&
         TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_ADOBE_DEFLATE) &&
         TIFFSetField(tif, TIFFTAG_PREDICTOR,
                      is_float ? PREDICTOR_FLOATINGPOINT : PREDICTOR_HORIZONTAL) &&
         TIFFSetField(tif, TIFFTAG_ZIPQUALITY, kLevel) &&
         TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, rows) &&
         (handle->components == 3 || TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &alpha));
}

// Compresses the rows that are in memory: libtiff is much faster with a strip at once than row by row.
bool write_strip(State& state) {
  if (state.rows == 0) return true;
  const std::size_t bytes = state.rows * (state.band.size() / state.band_rows);
  state.rows = 0;
  const auto number = std::uint32_t(++state.band_number);
  return TIFFWriteEncodedStrip(state.tif.get(), number, state.band.data(), tmsize_t(bytes)) >= 0;
}

}  // namespace

int create(img_file* handle) try {
  if (handle->width == 0 || handle->height == 0) {
    return refuse(handle, IMG_ERR_SUBTYPE, "a picture without pixels");
  }
  auto state = std::make_unique<State>();
  state->type = handle->file_type;
  const auto row_bytes =
      std::size_t(handle->width) * std::size_t(handle->components * handle->bits / 8);
  state->band_rows = std::uint32_t(
      std::clamp<std::size_t>(kStripBytes / row_bytes, 1, std::size_t(handle->height)));
  state->band.resize(state->band_rows * row_bytes);
  state->file.handle = handle;
  state->file.out.reset(ka_img_writer_alloc(handle));
  const bool is_big = std::uint64_t(handle->height) * row_bytes > kClassicBytes;
  state->tif.reset(state->file.open(is_big ? "w8" : "w", 0));
  if (!state->tif || !state_layout(handle, state->tif.get(), state->band_rows)) {
    return state->file.fail(IMG_ERR_WRITE);
  }
  handle->data.p = state.release();
  return 1;
} catch (const std::bad_alloc&) {
  return refuse(handle, IMG_ERR_SUBTYPE, "not enough memory");
}

int write_line(img_file* handle, img_line* line) {
  auto& state = state_of<State>(handle);
  if (handle->line_count >= handle->height)
    return ka_img_custom_format_error(handle, IMG_ERR_WRITE, 0);
  const std::size_t row_bytes = state.band.size() / state.band_rows;
  ka_img_line_pack(line, state.type, &state.band[state.rows * row_bytes], handle->width,
                   IMG_ORDER_HOST);
  state.file.forget();
  if (++state.rows < state.band_rows || write_strip(state)) return 1;
  return state.file.fail(IMG_ERR_WRITE);
}

int close(img_file* handle) {
  const auto state = take_state<State>(handle);
  if (!state) return 1;
  if (!state->file.out) return 1;
  state->file.forget();
  const bool is_written = write_strip(*state) && TIFFFlush(state->tif.get()) != 0;
  state->tif.reset();
  const int failure = ka_img_writer_flush(state->file.out.get());
  if (failure != 0) return ka_img_custom_format_error(handle, IMG_ERR_WRITE, failure);
  return is_written ? 1 : state->file.fail(IMG_ERR_WRITE);
}

}  // namespace drivers::tifz
