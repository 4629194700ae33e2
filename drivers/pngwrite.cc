// Writes PNG pictures row by row: each with the filter that seems to suit it, compressed fast, IDAT
// chunks of kBlockBytes.
#include <algorithm>
#include <cerrno>
#include <cstring>

#include <ka/imgbytes.h>

#include "png.h"

namespace drivers {
namespace {

constexpr std::size_t kBlockBytes = std::size_t{128} << 10;  // of compressed data in a chunk
constexpr int kLevel = 2;                                    // of the compression
constexpr std::array kTried = {kPngNone, kPngSub, kPngUp, kPngPaeth};

struct PngWriterState {
  Writer out;
  z_stream codec;
  PngBytes block;
  PngBytes row, above;                           // after `left` bytes
  std::array<PngBytes, kTried.size()> filtered;  // with the filter's byte
  std::size_t pixel_bytes, row_bytes;
  bool is_open;  // the codec

  PngWriterState() = default;
  ~PngWriterState() {
    if (is_open) deflateEnd(&codec);
  }
  PngWriterState(const PngWriterState&) = delete;
  PngWriterState& operator=(const PngWriterState&) = delete;
};

void put_chunk(img_writer* out, std::uint32_t type, std::span<const std::uint8_t> bytes) {
  std::array<std::uint8_t, kPngChunkHead + kPngCrc> numbers;
  const std::uint8_t* const letters = &numbers[4];
  ka::ByteWriter head(numbers);
  head.be32(std::uint32_t(bytes.size()));
  head.be32(type);
  std::uint32_t crc = libdeflate_crc32(0, letters, 4);
  if (!bytes.empty()) crc = libdeflate_crc32(crc, bytes.data(), bytes.size());
  head.be32(crc);
  ka_img_writer_put(out, numbers.data(), kPngChunkHead);
  ka_img_writer_put(out, bytes.data(), bytes.size());
  ka_img_writer_put(out, &numbers[kPngChunkHead], kPngCrc);
}

void put_header(const img_file* handle, img_writer* out) {
  const bool has_alpha = ka_img_ncomp[handle->file_type] == 4;
  ka_img_writer_put(out, kPngSignature.data(), kPngSignature.size());
  std::array<std::uint8_t, 13> header;
  ka::ByteWriter fields(header);
  fields.be32(std::uint32_t(handle->width));
  fields.be32(std::uint32_t(handle->height));
  fields.u8(std::uint32_t(ka_img_nbits[handle->file_type]));
  fields.u8(has_alpha ? kPngRgba : kPngRgb);
  fields.zeros(3);  // compression, filters, interlacing
  put_chunk(out, png_chunk("IHDR"), header);
}

void put_block(PngWriterState& state) {
  const std::size_t count = kBlockBytes - state.codec.avail_out;
  if (count > 0) put_chunk(state.out.get(), png_chunk("IDAT"), {state.block.get(), count});
  state.codec.next_out = state.block.get();
  state.codec.avail_out = uInt(kBlockBytes);
}

// Compresses bytes; with Z_FINISH the end of the data as well.
void compress(PngWriterState& state, const std::uint8_t* bytes, std::size_t count, int flush) {
  do {
    const auto portion = uInt(std::min<std::size_t>(count, std::size_t{1} << 30));
    state.codec.next_in = bytes;
    state.codec.avail_in = portion;
    while (true) {
      const int result = deflate(&state.codec, flush);
      if (state.codec.avail_out == 0) {
        put_block(state);
      } else if (result != Z_OK || flush != Z_FINISH) {
        break;
      }
    }
    bytes += portion;
    count -= portion;
  } while (count > 0);
}

// The sum of the samples' distances from 0: rows with a small one are mostly compressed well.
std::uint64_t weight(const std::uint8_t* bytes, std::size_t count) {
  constexpr std::size_t block = 256;  // whose sum fits 16 bits
  std::uint64_t sum = 0;
  for (; count > 0;) {
    const std::size_t part = std::min(count, block);
    std::uint16_t partial = 0;
    for (std::size_t i = 0; i < part; ++i) {
      partial = std::uint16_t(partial + std::min<std::uint8_t>(bytes[i], std::uint8_t(-bytes[i])));
    }
    sum += partial;
    bytes += part;
    count -= part;
  }
  return sum;
}

// The filter that a row is written with.
std::size_t choose_filter(PngWriterState& state) {
  std::size_t best = 0;
  std::uint64_t least = UINT64_MAX;
  for (std::size_t i = 0; i < kTried.size(); ++i) {
    std::uint8_t* const out = state.filtered[i].get() + 1;
    png_filter(kTried[i], state.pixel_bytes, state.row.get(), state.above.get(), state.row_bytes,
               out);
    const std::uint64_t found = weight(out, state.row_bytes);
    if (found < least) best = i;
    least = std::min(least, found);
  }
  return best;
}

}  // namespace

int create_png(img_file* handle) {
  if (handle->width < 1 || handle->height < 1) {
    return refuse(handle, IMG_ERR_CREATE, "%d x %d; the format has sides of at least 1",
                  handle->width, handle->height);
  }
  auto state = std::make_unique<PngWriterState>();
  state->pixel_bytes =
      std::size_t(ka_img_ncomp[handle->file_type] * ka_img_nbits[handle->file_type] / 8);
  state->row_bytes = std::size_t(handle->width) * state->pixel_bytes;
  state->is_open =
      deflateInit2(&state->codec, kLevel, Z_DEFLATED, MAX_WBITS, 9, Z_DEFAULT_STRATEGY) == Z_OK;
  if (!state->is_open) return ka_img_custom_format_error(handle, IMG_ERR_COMPRESS, ENOMEM);
  state->block = png_bytes(kBlockBytes);
  state->codec.next_out = state->block.get();
  state->codec.avail_out = uInt(kBlockBytes);
  state->row = png_bytes(state->row_bytes);
  state->above = png_bytes(state->row_bytes);
  std::memset(state->above.get(), 0, state->row_bytes);
  for (std::size_t i = 0; i < kTried.size(); ++i) {
    state->filtered[i] = png_bytes(1 + state->row_bytes);
    *state->filtered[i] = kTried[i];
  }
  state->out.reset(ka_img_writer_alloc(handle));
  put_header(handle, state->out.get());
  handle->data.p = state.release();
  return 1;
}

int write_png(img_file* handle, img_line* line) {
  auto& state = state_of<PngWriterState>(handle);
  ka_img_line_pack(line, handle->file_type, state.row.get(), handle->width, IMG_ORDER_BIG);
  const std::size_t best = choose_filter(state);
  compress(state, state.filtered[best].get(), 1 + state.row_bytes, Z_NO_FLUSH);
  std::swap(state.row, state.above);
  const int failure = ka_img_writer_error(state.out.get());
  return failure == 0 ? 1 : ka_img_custom_format_error(handle, IMG_ERR_WRITE, failure);
}

int close_png_writer(img_file* handle) {
  const auto state = take_state<PngWriterState>(handle);
  if (!state || handle->error != IMG_ERR_NONE) return 1;
  compress(*state, nullptr, 0, Z_FINISH);
  put_block(*state);
  put_chunk(state->out.get(), png_chunk("IEND"), {});
  const int failure = ka_img_writer_flush(state->out.get());
  return failure == 0 ? 1 : ka_img_custom_format_error(handle, IMG_ERR_WRITE, failure);
}

}  // namespace drivers
