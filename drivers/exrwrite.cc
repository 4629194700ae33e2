// OpenEXR files of scanlines under ZIP compression. Layout: docs/formats.md, "OpenEXR".
#include "exrwrite.h"

#include <libdeflate.h>

#include <array>
#include <bit>
#include <climits>
#include <string>
#include <string_view>
#include <vector>

#include <ka/imgbytes.h>

#include "drivers.h"
#include "exrpixels.h"

namespace drivers {

namespace {

constexpr std::size_t kChunkLines = 16;
constexpr int kLevel = 4;  // of libdeflate, up to 12
constexpr std::uint32_t kMagic = 20000630, kVersion = 2;
constexpr std::uint32_t kHalf = 1, kFloat = 2;  // types of samples
constexpr std::uint32_t kZip = 3;               // compression

struct FreeCompressor {
  void operator()(libdeflate_compressor* deflate) const { libdeflate_free_compressor(deflate); }
};

struct ExrWriter {
  Writer out;
  std::unique_ptr<libdeflate_compressor, FreeCompressor> deflate;
  std::string channels;  // in the order of the file, by letter
  bool is_float = false;
  std::size_t row_bytes = 0;  // of one channel
  std::size_t lines = 0;      // in `chunk`
  std::vector<std::uint8_t> chunk, parts, packed;
  std::int64_t table = 0;              // where the offsets of chunks are
  std::vector<std::uint64_t> offsets;  // of chunks that were written
};

// Bytes of a header, little-endian.
class Fields {
 public:
  Fields& word(std::uint32_t value) {
    for (unsigned shift = 0; shift < 32; shift += 8) bytes_ += char(value >> shift & 255);
    return *this;
  }
  Fields& number(float value) { return word(std::bit_cast<std::uint32_t>(value)); }
  Fields& byte(std::uint32_t value) {
    bytes_ += char(value);
    return *this;
  }
  Fields& text(std::string_view text) {
    bytes_ += text;
    return byte(0);
  }
  Fields& attribute(std::string_view name, std::string_view type, const Fields& value) {
    text(name).text(type).word(std::uint32_t(value.bytes_.size()));
    bytes_ += value.bytes_;
    return *this;
  }
  [[nodiscard]] const std::string& bytes() const { return bytes_; }

 private:
  std::string bytes_;
};

Fields channel_list(const ExrWriter& state) {
  Fields list;
  for (const char channel : state.channels) {
    list.text({&channel, 1}).word(state.is_float ? kFloat : kHalf);
    list.word(0).word(1).word(1);  // perceived as it is; a sample for each pixel, both ways
  }
  return list.byte(0);
}

std::string header(const img_file* handle, const ExrWriter& state) {
  Fields window;
  window.word(0).word(0).word(std::uint32_t(handle->width - 1));
  window.word(std::uint32_t(handle->height - 1));
  const float aspect = handle->aspect == 0 ? 1.0F : handle->aspect;
  Fields fields;
  fields.word(kMagic).word(kVersion);
  fields.attribute("channels", "chlist", channel_list(state));
  fields.attribute("compression", "compression", Fields().byte(kZip));
  fields.attribute("dataWindow", "box2i", window);
  fields.attribute("displayWindow", "box2i", window);
  fields.attribute("lineOrder", "lineOrder", Fields().byte(0));  // from the top down
  fields.attribute("pixelAspectRatio", "float", Fields().number(aspect));
  fields.attribute("screenWindowCenter", "v2f", Fields().number(0).number(0));
  fields.attribute("screenWindowWidth", "float", Fields().number(1));
  return fields.byte(0).bytes();
}

void put(ExrWriter& state, std::string_view bytes) {
  ka_img_writer_put(state.out.get(), bytes.data(), bytes.size());
}

// Space for the offsets, which are known later.
void put_table(ExrWriter& state, std::size_t chunks) {
  constexpr std::array<char, 4096> zeros{};
  state.table = ka_img_writer_position(state.out.get());
  for (std::size_t left = 8 * chunks; left > 0;) {
    const std::size_t part = std::min(left, zeros.size());
    put(state, {zeros.data(), part});
    left -= part;
  }
}

// Writes the lines collected so far; those that the last chunk lacks are 0. A chunk that deflating
// does not make smaller is stored.
void put_chunk(const img_file* handle, ExrWriter& state) {
  const std::size_t first = kChunkLines * state.offsets.size();
  const std::size_t lines = std::min(kChunkLines, std::size_t(handle->height) - first);
  const std::size_t line_bytes = state.row_bytes * state.channels.size();
  const std::size_t size = lines * line_bytes;
  std::fill(state.chunk.begin() + std::ptrdiff_t(state.lines * line_bytes),
            state.chunk.begin() + std::ptrdiff_t(size), std::uint8_t{0});
  exr_split_bytes({state.chunk.data(), size}, state.parts.data());
  const std::size_t packed = libdeflate_zlib_compress(state.deflate.get(), state.parts.data(), size,
                                                      state.packed.data(), size - 1);
  state.offsets.push_back(std::uint64_t(ka_img_writer_position(state.out.get())));
  const std::size_t stored = packed == 0 ? size : packed;
  put(state, Fields().word(std::uint32_t(first)).word(std::uint32_t(stored)).bytes());
  const auto& bytes = packed == 0 ? state.chunk : state.packed;
  ka_img_writer_put(state.out.get(), bytes.data(), stored);
  state.lines = 0;
}

void put_offsets(ExrWriter& state) {
  Fields table;
  for (const std::uint64_t offset : state.offsets) {
    table.word(std::uint32_t(offset)).word(std::uint32_t(offset >> 32));
  }
  ka_img_writer_seek(state.out.get(), state.table);
  put(state, table.bytes());
}

}  // namespace

int exr_create(img_file* handle) {
  auto state = std::make_unique<ExrWriter>();
  const int type = handle->file_type;
  state->channels = type == IMG_TYPE_Z ? "Z" : type == IMG_TYPE_RGB_FP ? "BGR" : "ABGR";
  state->is_float = type == IMG_TYPE_Z || handle->parameters[kExrAsFloat] != 0;
  state->row_bytes = std::size_t(handle->width) * (state->is_float ? 4 : 2);
  const auto chunk_bytes =
      ka::checked_product(state->row_bytes, state->channels.size(), kChunkLines);
  if (!chunk_bytes || *chunk_bytes > INT_MAX) {
    return refuse(handle, IMG_ERR_SUBTYPE, "%d pixels in a line are more than a chunk holds",
                  handle->width);
  }
  state->chunk.resize(std::size_t(*chunk_bytes));
  state->parts.resize(std::size_t(*chunk_bytes));
  state->packed.resize(std::size_t(*chunk_bytes));
  state->deflate.reset(libdeflate_alloc_compressor(kLevel));
  state->out.reset(ka_img_writer_alloc(handle));
  put(*state, header(handle, *state));
  put_table(*state, (std::size_t(handle->height) + kChunkLines - 1) / kChunkLines);
  handle->data.p = state.release();
  return 1;
}

int exr_write(img_file* handle, img_line* line) {
  auto& state = state_of<ExrWriter>(handle);
  if (handle->height == 0) return 1;
  constexpr std::string_view slots = "RGBA";
  std::uint8_t* row = state.chunk.data() + state.lines * state.row_bytes * state.channels.size();
  const auto convert = state.is_float ? exr_to_float : exr_to_half;
  for (const char channel : state.channels) {
    const int slot = channel == 'Z' ? 0 : int(slots.find(channel));
    const auto* const plane = static_cast<const float*>(ka_img_line_plane(line, slot));
    convert(plane, row, std::size_t(handle->width));
    row += state.row_bytes;
  }
  ++state.lines;
  const bool is_last = handle->line_count + 1 >= handle->height;
  if (state.lines == kChunkLines || is_last) put_chunk(handle, state);
  const int failure = ka_img_writer_error(state.out.get());
  return failure == 0 ? 1 : ka_img_custom_format_error(handle, IMG_ERR_WRITE, failure);
}

int exr_close_written(img_file* handle) {
  const auto state = take_state<ExrWriter>(handle);
  if (!state || handle->error) return 1;
  if (state->lines > 0) put_chunk(handle, *state);
  put_offsets(*state);
  const int failure = ka_img_writer_flush(state->out.get());
  return failure == 0 ? 1 : ka_img_custom_format_error(handle, IMG_ERR_WRITE, failure);
}

}  // namespace drivers
