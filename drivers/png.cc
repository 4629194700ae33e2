// PNG pictures: ISO/IEC 15948, "Portable Network Graphics (PNG)", second edition. All
// kinds are read, the first picture of an animation; numbers are big-endian. docs/formats.md has what
// is refused.
#include "png.h"
#include "pngheader.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include <ka/imgbytes.h>

namespace drivers {
namespace {

constexpr std::size_t kHeaderBytes = 13;
constexpr std::size_t kPaletteBytes = 3 * 256;
constexpr int kLongWidth = 1 << 18;  // pixels; longer lines are checked against the file's size

struct PngState {
  PngShape shape;
  bool has_alpha, keyed;  // in the line; from a transparent color
  std::size_t line_pixel_bytes;
  std::array<std::uint8_t, 4 * 256> table;  // red, green, blue, alpha of palette and grey values
  unsigned entries;                         // of the table, 0: samples are copied
  std::array<std::uint8_t, 6> key;          // the transparent color as it is in a row
  std::int64_t data_offset;                 // of the first IDAT chunk
  PngBytes line, part;                      // pixels of a line, of one pass of it
  std::unique_ptr<PngRows> rows;
};

// What chunks before the pixels say.
struct Preamble {
  std::array<std::uint8_t, kPaletteBytes> palette, transparency;
  std::size_t palette_bytes, transparency_bytes;
  bool has_header, has_damage;
};

struct Chunk {
  std::uint32_t length, type;
  std::array<std::uint8_t, kPaletteBytes> front;  // the first bytes
  bool is_sound;

  [[nodiscard]] std::span<const std::uint8_t> bytes() const {
    return {front.data(), std::min<std::size_t>(length, front.size())};
  }
};

bool describes_color(std::uint32_t type) {
  return type == png_chunk("gAMA") || type == png_chunk("cHRM") || type == png_chunk("sRGB") ||
         type == png_chunk("iCCP");
}

bool is_used(std::uint32_t type) {
  return !png_is_optional(type) || type == png_chunk("tRNS") || describes_color(type);
}

int fail(img_file* handle, const PngFault& fault) {
  if (fault.os_error != 0) return ka_img_custom_format_error(handle, fault.code, fault.os_error);
  return refuse(handle, fault.code, "%s", fault.reason);
}

constexpr PngFault kNoColor = {IMG_ERR_CORRUPT, 0, "a pixel has no color in the palette"};

int fail_reading(img_file* handle) {
  return fail(handle, {IMG_ERR_READ, errno, "the file ends before the pixels"});
}

// Reads a chunk after its head. Returns 1, or 0 with the handle's error.
int read_chunk(img_file* handle, img_reader* in, Chunk& chunk) {
  constexpr std::uint32_t portion = 1 << 16;
  std::array<std::uint8_t, 4> type;
  ka::ByteWriter(type).be32(chunk.type);
  std::uint32_t crc = libdeflate_crc32(0, type.data(), type.size());
  const bool is_profile = describes_color(chunk.type);
  std::uint32_t profile =
      is_profile ? libdeflate_crc32(handle->profile, type.data(), type.size()) : 0;
  for (std::uint32_t done = 0; done < chunk.length;) {
    const std::uint32_t count = std::min(chunk.length - done, portion);
    const std::uint8_t* const bytes = ka_img_reader_take(in, count);
    if (!bytes) return fail_reading(handle);
    crc = libdeflate_crc32(crc, bytes, count);
    if (is_profile) profile = libdeflate_crc32(profile, bytes, count);
    if (done == 0)
      std::copy_n(bytes, std::min<std::size_t>(count, kPaletteBytes), chunk.front.data());
    done += count;
  }
  const std::uint8_t* const stored = ka_img_reader_take(in, kPngCrc);
  if (!stored) return fail_reading(handle);
  chunk.is_sound = ka::ByteCursor({stored, kPngCrc}).be32() == crc;
  if (is_profile) handle->profile = std::max<std::uint32_t>(profile, 1);
  return 1;
}

bool is_depth_of(unsigned color, unsigned bits) {
  switch (color) {
    case kPngGrey:
      return std::has_single_bit(bits) && bits <= 16;
    case kPngPalette:
      return std::has_single_bit(bits) && bits <= 8;
    case kPngRgb:
    case kPngGreyAlpha:
    case kPngRgba:
      return bits == 8 || bits == 16;
    default:
      return false;
  }
}

// Returns 1, or 0 with the handle's error.
int parse_header(img_file* handle, const Chunk& chunk, PngShape& shape) {
  if (chunk.length != kHeaderBytes) {
    return refuse(handle, IMG_ERR_CORRUPT, "a header of %u bytes; it has %zu", chunk.length,
                  kHeaderBytes);
  }
  ka::ByteCursor in(chunk.bytes());
  const std::uint32_t width = in.be32(), height = in.be32();
  const unsigned bits = in.u8(), color = in.u8();
  const unsigned compression = in.u8(), filters = in.u8(), interlace = in.u8();
  if (width - 1 > INT_MAX - 1 || height - 1 > INT_MAX - 1) {
    return refuse(handle, IMG_ERR_CORRUPT, "%u x %u pixels", width, height);
  }
  if (!is_depth_of(color, bits)) {
    return refuse(handle, IMG_ERR_CORRUPT, "color type %u with %u bits per sample", color, bits);
  }
  if (compression != 0 || filters != 0 || interlace > 1) {
    return refuse(handle, IMG_ERR_SUBTYPE,
                  "compression %u, filters %u, interlacing %u; 0, 0 and up to 1 are read",
                  compression, filters, interlace);
  }
  handle->width = shape.width = int(width);
  handle->height = shape.height = int(height);
  shape.bits = bits;
  shape.color = PngColor(color);
  shape.interlaced = interlace != 0;
  shape.find_passes();
  return 1;
}

// Returns 1, or 0 with the handle's error.
int use_chunk(img_file* handle, const Chunk& chunk, Preamble& preamble, PngState& state) {
  const auto bytes = chunk.bytes();
  if (chunk.type == png_chunk("IHDR")) {
    if (preamble.has_header) return refuse(handle, IMG_ERR_CORRUPT, "two headers");
    preamble.has_header = true;
    return parse_header(handle, chunk, state.shape);
  }
  if (chunk.type == png_chunk("PLTE")) {
    if (chunk.length > kPaletteBytes || chunk.length % 3 != 0 || chunk.length == 0) {
      return refuse(handle, IMG_ERR_CORRUPT, "a palette of %u bytes", chunk.length);
    }
    std::ranges::copy(bytes, preamble.palette.begin());
    preamble.palette_bytes = chunk.length;
  } else if (chunk.type == png_chunk("tRNS")) {
    std::ranges::copy(bytes, preamble.transparency.begin());
    preamble.transparency_bytes = bytes.size();
  } else if (chunk.type == png_chunk("acTL")) {
    ka::ByteCursor in(bytes);
    note(handle, "an animation of %u pictures; the first is read", in.be32());
  }
  return 1;
}

// Reads a chunk and judges it. Returns 1, or 0 with the handle's error.
int take_chunk(img_file* handle, img_reader* in, Chunk& chunk, Preamble& preamble,
               PngState& state) {
  std::array<char, 5> name{};
  ka::ByteWriter({reinterpret_cast<std::uint8_t*>(name.data()), 4}).be32(chunk.type);
  const bool is_known = chunk.type == png_chunk("IHDR") || chunk.type == png_chunk("PLTE");
  if (!is_known && !png_is_optional(chunk.type) && chunk.type != png_chunk("IEND")) {
    return refuse(handle, IMG_ERR_SUBTYPE, "chunk %s is not read", name.data());
  }
  if (chunk.length > kPngLongestChunk ||
      !(preamble.has_header || chunk.type == png_chunk("IHDR"))) {
    return refuse(handle, IMG_ERR_CORRUPT, "chunk %s of %u bytes before the header or too long",
                  name.data(), chunk.length);
  }
  if (!read_chunk(handle, in, chunk)) return 0;
  if (chunk.is_sound) {
    if (is_known || chunk.type != png_chunk("IEND"))
      return use_chunk(handle, chunk, preamble, state);
    return refuse(handle, IMG_ERR_CORRUPT, "no pixels");
  }
  if (is_used(chunk.type)) {
    return refuse(handle, IMG_ERR_CORRUPT, "the checksum of chunk %s differs", name.data());
  }
  if (!preamble.has_damage) note(handle, "the checksum of chunk %s differs", name.data());
  preamble.has_damage = true;
  return 1;
}

// Reads the chunks before the pixels. Returns 1, or 0 with the handle's error.
int read_preamble(img_file* handle, Preamble& preamble, PngState& state) {
  const Reader in(ka_img_reader_alloc(handle, kPngSignature.size(), 0));
  Chunk chunk{};
  while (true) {
    const std::uint8_t* const head = ka_img_reader_take(in.get(), kPngChunkHead);
    if (!head) return fail_reading(handle);
    ka::ByteCursor fields({head, kPngChunkHead});
    chunk.length = fields.be32();
    chunk.type = fields.be32();
    if (chunk.type == png_chunk("IDAT") && preamble.has_header) break;
    if (!take_chunk(handle, in.get(), chunk, preamble, state)) return 0;
  }
  state.data_offset = ka_img_reader_position(in.get()) - std::int64_t{kPngChunkHead};
  return 1;
}

// The colors of a palette, the shades of grey values. A transparent shade is one of them.
void fill_table(const Preamble& preamble, PngState& state) {
  const bool is_palette = state.shape.color == kPngPalette;
  const unsigned values = 1U << state.shape.bits;
  state.entries =
      is_palette ? std::min<unsigned>(unsigned(preamble.palette_bytes / 3), values) : values;
  for (unsigned i = 0; i < state.entries; ++i) {
    std::uint8_t* const entry = &state.table[4 * std::size_t{i}];
    const auto shade = std::uint8_t(255 * i / (values - 1));
    for (unsigned c = 0; c < 3; ++c) entry[c] = is_palette ? preamble.palette[3 * i + c] : shade;
    entry[3] = is_palette && i < preamble.transparency_bytes ? preamble.transparency[i] : 255;
  }
  if (is_palette || preamble.transparency_bytes < 2) return;
  const unsigned clear = ka::ByteCursor(preamble.transparency).be16() & (values - 1);
  state.table[4 * std::size_t{clear} + 3] = 0;
}

// Settles what becomes of the samples. Returns 1, or 0 with the handle's error.
int settle_samples(img_file* handle, const Preamble& preamble, PngState& state) {
  const PngShape& shape = state.shape;
  const bool is_grey = shape.color == kPngGrey || shape.color == kPngGreyAlpha;
  const bool in_file = shape.color == kPngGreyAlpha || shape.color == kPngRgba;
  const std::size_t key_bytes = shape.color == kPngPalette ? 1 : is_grey ? 2 : 6;
  const bool is_transparent = !in_file && preamble.transparency_bytes >= key_bytes;
  if (shape.color == kPngPalette && preamble.palette_bytes == 0) {
    return refuse(handle, IMG_ERR_CORRUPT, "no palette");
  }
  state.has_alpha = in_file || is_transparent;
  if (shape.color == kPngPalette || (shape.color == kPngGrey && shape.bits <= 8)) {
    fill_table(preamble, state);
  } else if (is_transparent) {
    state.keyed = true;
    for (std::size_t i = 0; i < key_bytes / 2; ++i) {  // of 16 bits in the chunk
      const std::uint8_t* const value = &preamble.transparency[2 * i];
      if (shape.bits == 16) std::copy_n(value, 2, &state.key[2 * i]);
      if (shape.bits == 8) state.key[i] = value[1];
    }
  }
  const bool is_deep = shape.bits == 16;
  state.line_pixel_bytes = (state.has_alpha ? 4U : 3U) * (is_deep ? 2 : 1);
  state_file_type(handle, state.has_alpha ? (is_deep ? IMG_TYPE_RGBA_16 : IMG_TYPE_RGBA)
                                          : (is_deep ? IMG_TYPE_RGB_16 : IMG_TYPE_RGB));
  return 1;
}

// Whether the file is too short for a single one of its lines, or for the memory that one takes.
bool lacks_lines(const img_file* handle, const PngState& state) {
  constexpr std::uint64_t best_ratio = 1032;  // of the compression
  const auto width = std::uint64_t(handle->width);
  const std::uint64_t row = width * state.shape.pixel_bytes;
  const std::uint64_t held = 6 * row + 2 * width * state.line_pixel_bytes;  // of all passes
  return handle->width > kLongWidth &&
         (row / 8 / best_ratio > std::uint64_t(handle->file_size) || held > memory_limit(handle));
}

// Returns false for a value without a color.
bool look_up(const PngState& state, const std::uint8_t* row, std::size_t count, std::uint8_t* out) {
  const unsigned bits = state.shape.bits, mask = (1U << bits) - 1;
  unsigned largest = 0;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t bit = i * bits;
    const unsigned value = unsigned(row[bit / 8]) >> (8 - bits - bit % 8) & mask;
    std::memcpy(out, &state.table[4 * std::size_t{value}], 4);
    out += state.line_pixel_bytes;
    largest = std::max(largest, value);
  }
  return largest < state.entries;
}

template <std::size_t Bytes, std::size_t Colors>
void expand(const PngState& state, const std::uint8_t* row, std::size_t count, std::uint8_t* out) {
  constexpr std::size_t color_bytes = Bytes * Colors;
  const std::size_t step = state.shape.pixel_bytes, line_step = state.line_pixel_bytes;
  const bool in_file = step > color_bytes;
  for (std::size_t i = 0; i < count; ++i, row += step, out += line_step) {
    for (std::size_t c = 0; c < 3; ++c) {
      std::memcpy(out + c * Bytes, row + (Colors == 3 ? c * Bytes : 0), Bytes);
    }
    if (in_file) std::memcpy(out + 3 * Bytes, row + color_bytes, Bytes);
    if (state.keyed) {
      const bool is_clear = std::memcmp(row, state.key.data(), color_bytes) == 0;
      std::memset(out + 3 * Bytes, is_clear ? 0 : 255, Bytes);
    }
  }
}

// The pixels of a row: the row itself where it has them, else in `out`. Null for a value without a
// color.
const std::uint8_t* pixels_of(const PngState& state, const std::uint8_t* row, std::size_t count,
                              std::uint8_t* out) {
  if (state.entries > 0) return look_up(state, row, count, out) ? out : nullptr;
  const bool is_grey = state.shape.color == kPngGrey || state.shape.color == kPngGreyAlpha;
  if (!is_grey && !state.keyed) return row;
  const bool is_deep = state.shape.bits == 16;
  if (is_grey) {
    (is_deep ? expand<2, 1> : expand<1, 1>)(state, row, count, out);
  } else {
    (is_deep ? expand<2, 3> : expand<1, 3>)(state, row, count, out);
  }
  return out;
}

template <std::size_t Bytes>
void scatter(const PngPass& pass, const std::uint8_t* pixels, std::uint8_t* line) {
  line += pass.x * Bytes;
  for (std::uint64_t i = 0; i < pass.columns; ++i) {
    std::memcpy(line + i * pass.dx * Bytes, pixels + i * Bytes, Bytes);
  }
}

void place(const PngState& state, const PngPass& pass, const std::uint8_t* pixels) {
  std::uint8_t* const line = state.line.get();
  switch (state.line_pixel_bytes) {
    case 3:
      return scatter<3>(pass, pixels, line);
    case 4:
      return scatter<4>(pass, pixels, line);
    case 6:
      return scatter<6>(pass, pixels, line);
    default:
      return scatter<8>(pass, pixels, line);
  }
}

void start_rows(img_file* handle, PngState& state) {
  const std::size_t line_bytes = std::size_t(handle->width) * state.line_pixel_bytes + kPngSlack;
  state.part = png_bytes(line_bytes);
  if (state.shape.interlaced) state.line = png_bytes(line_bytes);
  state.rows = std::make_unique<PngRows>(handle, state.shape, state.data_offset);
}

int test_png(img_file* /*handle*/, const std::uint8_t* head) {
  return std::equal(kPngSignature.begin(), kPngSignature.end(), head);
}

int open_png(img_file* handle, const std::uint8_t* /*head*/) {
  auto state = std::make_unique<PngState>();
  Preamble preamble{};
  if (!read_preamble(handle, preamble, *state) || !settle_samples(handle, preamble, *state))
    return 0;
  handle->lacks_lines = lacks_lines(handle, *state);
  handle->data.p = state.release();
  return 1;
}

int read_png(img_file* handle, img_line* line) {
  if (handle->line_count >= handle->height)
    return ka_img_custom_format_error(handle, IMG_ERR_READ, 0);
  if (handle->lacks_lines)
    return refuse(handle, IMG_ERR_READ, "%d pixels per line need more than the file has",
                  handle->width);
  auto& state = state_of<PngState>(handle);
  if (!state.part) start_rows(handle, state);
  if (!state.rows) return fail(handle, kNoColor);
  const std::uint8_t* pixels = nullptr;
  for (std::size_t i = 0; i < state.shape.pass_count; ++i) {
    const PngPass& pass = state.shape.passes[i];
    if (!pass.has_row(handle->line_count)) continue;
    const std::uint8_t* const row = state.rows->next(i);
    if (!row) return fail(handle, state.rows->fault());
    pixels = pixels_of(state, row, std::size_t(pass.columns), state.part.get());
    if (!pixels) state.rows.reset();  // no line follows, as after any other failure
    if (!pixels) return fail(handle, kNoColor);
    if (state.shape.interlaced) place(state, pass, pixels);
  }
  ka_img_line_unpack(line, handle->file_type, state.shape.interlaced ? state.line.get() : pixels,
                     handle->width, IMG_ORDER_BIG);
  return 1;
}

int close_png(img_file* handle) {
  if (handle->writing) return close_png_writer(handle);
  take_state<PngState>(handle);
  return 1;
}

}  // namespace

int register_png(int format) {
  constexpr std::uint32_t others =
      1U << IMG_TYPE_RGB | 1U << IMG_TYPE_RGB_16 | 1U << IMG_TYPE_RGBA_16;
  return ka_img_custom_format(format, test_png, create_png, open_png, close_png, read_png,
                              write_png, 1, "png", others, IMG_TYPE_RGBA) &&
         ka_img_custom_format_header(format, png_header);
}

}  // namespace drivers
