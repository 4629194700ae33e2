// TIFF files as libtiff writes them: Deflate with a predictor, in strips.
#include <algorithm>

#include "tifz.h"

namespace drivers::tifz {

namespace {

constexpr std::size_t kStripBytes = std::size_t{256} << 10;
constexpr int kFastLevel = 3;  // of Deflate: larger ones take much longer for little
constexpr std::uint64_t kClassicBytes = std::uint64_t{4'000} << 20;  // of pixels; above it BigTIFF

bool state_layout(const img_file* handle, TIFF* tif, std::size_t row_bytes) {
  const bool is_float = handle->bits == 32;
  const std::size_t rows =
      std::clamp<std::size_t>(kStripBytes / row_bytes, 1, std::size_t(handle->height));
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
         TIFFSetField(tif, TIFFTAG_ZIPQUALITY, kFastLevel) &&
         TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, std::uint32_t(rows)) &&
         (handle->components == 3 || TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &alpha));
}

}  // namespace

int create(img_file* handle) try {
  if (handle->width == 0 || handle->height == 0) {
    return refuse(handle, IMG_ERR_SUBTYPE, "a picture without pixels");
  }
  auto state = std::make_unique<State>();
  state->type = handle->file_type;
  const auto pixel_bytes = std::size_t(handle->components * handle->bits / 8);
  state->band.resize(std::size_t(handle->width) * pixel_bytes);
  state->file.handle = handle;
  state->file.out.reset(ka_img_writer_alloc(handle));
  const bool is_big = std::uint64_t(handle->height) * state->band.size() > kClassicBytes;
  state->tif.reset(state->file.open(is_big ? "w8" : "w", 0));
  if (!state->tif || !state_layout(handle, state->tif.get(), state->band.size())) {
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
  ka_img_line_pack(line, state.type, state.band.data(), handle->width, IMG_ORDER_HOST);
  state.file.forget();
  const auto y = std::uint32_t(handle->line_count);
  if (TIFFWriteScanline(state.tif.get(), state.band.data(), y, 0) > 0) return 1;
  return state.file.fail(IMG_ERR_WRITE);
}

int close(img_file* handle) {
  const auto state = take_state<State>(handle);
  if (!state) return 1;
  if (!state->file.out) return 1;
  state->file.forget();
  const bool is_written = TIFFFlush(state->tif.get()) != 0;
  state->tif.reset();
  const int failure = ka_img_writer_flush(state->file.out.get());
  if (failure != 0) return ka_img_custom_format_error(handle, IMG_ERR_WRITE, failure);
  return is_written ? 1 : state->file.fail(IMG_ERR_WRITE);
}

}  // namespace drivers::tifz
