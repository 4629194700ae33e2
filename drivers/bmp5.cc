// BMP files that the built-in driver refuses: longer headers, bit fields, 2 and 16 bits, run-length
// packets, the top line first. Layout: docs/formats.md, "BMP with newer headers", which is that of the
// Windows headers of 40, 52, 56, 108 and 124 bytes and the OS/2 headers of 12, 16 and 64 bytes. Numbers
// are little-endian.
#include <ka/imgbytes.h>
#include <ka/imgheader.h>

#include <errno.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdlib>
#include <span>

#include "drivers.h"

namespace {

using drivers::refuse;

constexpr std::size_t kFileHeader = 14;  // bytes
constexpr std::size_t kOffsetField = 10;
constexpr std::uint32_t kCoreHeader = 12, kInfoHeader = 40, kOs2Header = 64;
constexpr std::uint32_t kAlphaMask = 56;  // headers from which on it is inside
constexpr std::array<std::uint32_t, 8> kHeaders = {12, 16, 40, 52, 56, 64, 108, 124};

enum Compression : std::uint32_t { kNone, kRle8, kRle4, kFields, kJpeg, kPng, kAlphaFields };

struct Header {
  std::uint32_t bytes;  // of the header that follows the file header
  std::int32_t width, height;
  std::uint16_t bits;  // of a pixel
  std::uint32_t compression;
  std::uint32_t colors;                // of the palette, 0: all
  std::array<std::uint32_t, 4> masks;  // red, green, blue, alpha
  std::uint64_t palette_offset, pixel_offset;

  [[nodiscard]] bool has_palette() const { return bits <= 8; }
  [[nodiscard]] std::size_t color_bytes() const { return bytes == kCoreHeader ? 3 : 4; }
  [[nodiscard]] bool is_packed() const { return compression == kRle8 || compression == kRle4; }
  [[nodiscard]] bool has_fields() const {
    return bytes != kOs2Header && (compression == kFields || compression == kAlphaFields);
  }
};

// A component's bits in a pixel. Those of up to 8 bits have their samples in a table.
struct Field {
  unsigned shift = 0;
  std::uint32_t largest = 0;
  std::array<std::uint8_t, 256> samples{};

  void set(std::uint32_t mask) {
    shift = mask == 0 ? 0 : unsigned(std::countr_zero(mask));
    largest = mask >> shift;
    for (std::uint32_t i = 1; i <= std::min(largest, 255U); ++i) samples[i] = scaled(i);
  }
  [[nodiscard]] std::uint8_t scaled(std::uint32_t value) const {
    return std::uint8_t((std::uint64_t{value} * 255 + largest / 2) / largest);
  }
  [[nodiscard]] std::uint8_t sample(std::uint32_t pixel) const {
    const std::uint32_t value = pixel >> shift & largest;
    return largest <= 255 ? samples[value] : scaled(value);
  }
};

using Color = std::array<std::uint8_t, 3>;

struct Bmp5State {
  Header header;
  std::uint64_t row_bytes;  // padding included; of a file without packets
  std::array<Color, 256> palette;
  std::size_t colors;  // of the palette that are there
  std::array<Field, 4> fields;
  std::uint32_t lines_to_skip;  // packets: lines that nothing is stored of
  std::size_t column;           // packets: where the next line begins
  bool has_ended;               // packets: no more follow
  drivers::Reader in;
};

using Planes = std::array<std::uint8_t*, 4>;

// Fields that a header lacks are 0.
Header parse_header(std::span<const std::uint8_t> head) {
  ka::ByteCursor in(head);
  in.skip(kOffsetField);
  Header header{};
  header.pixel_offset = in.le32();
  header.bytes = in.le32();
  const bool is_core = header.bytes == kCoreHeader;
  header.width = std::int32_t(is_core ? in.le16() : in.le32());
  header.height = std::int32_t(is_core ? in.le16() : in.le32());
  in.skip(2);  // planes
  header.bits = in.le16();
  if (header.bytes >= kInfoHeader) {
    header.compression = in.le32();
    in.skip(12);  // bytes of the rows, resolution
    header.colors = in.le32();
    in.skip(4);  // important colors
  }
  header.palette_offset = kFileHeader + header.bytes;
  if (header.bytes >= kInfoHeader && header.bytes != kOs2Header) {
    for (std::uint32_t& mask : header.masks) mask = in.le32();
  }
  const bool has_alpha = header.bytes >= kAlphaMask || header.compression == kAlphaFields;
  if (!has_alpha) header.masks[3] = 0;
  if (header.bytes == kInfoHeader && header.has_fields()) {
    header.palette_offset += header.compression == kAlphaFields ? 16 : 12;
  }
  return header;
}

bool are_bits(const Header& header, std::initializer_list<int> readable) {
  return std::ranges::find(readable, int{header.bits}) != readable.end();
}

// Returns 1, or 0 with the handle's error.
int check_compression(img_file* handle, const Header& header) {
  const std::uint32_t compression = header.compression;
  if (header.bytes == kOs2Header && compression > kRle4) {
    return refuse(handle, IMG_ERR_SUBTYPE, "compression %u of OS/2 is not read; 0 to 2 are",
                  compression);
  }
  if (compression > kAlphaFields || compression == kJpeg || compression == kPng) {
    return refuse(handle, IMG_ERR_SUBTYPE, "compression %u%s is not read; 0 to 3 and 6 are",
                  compression,
                  compression == kJpeg  ? " (JPEG)"
                  : compression == kPng ? " (PNG)"
                                        : "");
  }
  const bool fits = header.has_fields()    ? are_bits(header, {16, 32})
                    : compression == kRle8 ? are_bits(header, {8})
                    : compression == kRle4 ? are_bits(header, {4})
                                           : are_bits(header, {1, 2, 4, 8, 16, 24, 32});
  if (fits) return 1;
  return refuse(handle, IMG_ERR_SUBTYPE, "%d bits per pixel are not read with compression %u",
                header.bits, compression);
}

int check_header(img_file* handle, const Header& header) {
  if (handle->file_size < std::int64_t(kFileHeader + sizeof header.bytes)) {
    return refuse(handle, IMG_ERR_READ, "the file ends in the header");
  }
  if (std::ranges::find(kHeaders, header.bytes) == kHeaders.end()) {
    return refuse(
        handle, IMG_ERR_SUBTYPE,
        "a header of %u bytes is not read; those of 12, 16, 40, 52, 56, 64, 108 and 124 are",
        header.bytes);
  }
  if (std::uint64_t(handle->file_size) < header.palette_offset) {
    return refuse(handle, IMG_ERR_READ, "the file ends in the header");
  }
  if (header.width <= 0 || header.height == 0 || header.height == INT32_MIN) {
    return refuse(handle, IMG_ERR_SUBTYPE, "width %d, height %d are not read", header.width,
                  header.height);
  }
  if (header.is_packed() && header.height < 0) {
    return refuse(handle, IMG_ERR_SUBTYPE, "packets with the top line first are not read");
  }
  return check_compression(handle, header);
}

// Without bit fields a pixel of 32 bits has alpha as in files of the built-in driver; headers that
// have a mask for it say whether.
void set_default_masks(Header& header) {
  if (header.has_fields()) return;
  if (header.bits == 16) {
    header.masks = {0x7c00, 0x3e0, 0x1f, 0};
  } else {
    const bool has_alpha =
        header.bits == 32 &&
        (header.bytes <= kInfoHeader || header.bytes == kOs2Header || header.masks[3] != 0);
    header.masks = {0xff0000, 0xff00, 0xff, has_alpha ? 0xff000000U : 0U};
  }
}

// The bits of a field follow one another inside the pixel. Returns 1, or 0 with the handle's error.
int set_fields(img_file* handle, Bmp5State& state) {
  set_default_masks(state.header);
  for (std::size_t i = 0; i < state.fields.size(); ++i) {
    const std::uint32_t mask = state.header.masks[i];
    const std::uint32_t bits = mask == 0 ? 0 : mask >> unsigned(std::countr_zero(mask));
    if ((bits & (bits + 1)) != 0 || (state.header.bits == 16 && mask > 0xffff)) {
      return refuse(handle, IMG_ERR_SUBTYPE, "a component in the bits 0x%08x of %d", mask,
                    state.header.bits);
    }
    state.fields[i].set(mask);
  }
  return 1;
}

// The palette ends where the rows begin, whatever the header says.
int read_palette(img_file* handle, Bmp5State& state) {
  Header& header = state.header;
  const std::size_t all = std::size_t{1} << header.bits;
  const std::uint64_t stated = header.colors == 0 ? all : header.colors;
  std::uint64_t entries = stated;
  if (header.pixel_offset >= header.palette_offset) {
    entries =
        std::min(entries, (header.pixel_offset - header.palette_offset) / header.color_bytes());
  } else {
    header.pixel_offset = header.palette_offset + stated * header.color_bytes();
  }
  state.colors = std::size_t(std::min<std::uint64_t>(entries, all));
  ka_img_reader_seek(state.in.get(), std::int64_t(header.palette_offset));
  for (std::size_t i = 0; i < state.colors; ++i) {
    const std::uint8_t* const color = ka_img_reader_take(state.in.get(), header.color_bytes());
    if (!color) return refuse(handle, IMG_ERR_READ, "the file ends in the palette");
    state.palette[i] = {color[2], color[1], color[0]};
  }
  return 1;
}

int short_read(img_file* handle) { return ka_img_custom_format_error(handle, IMG_ERR_READ, errno); }

int refuse_index(img_file* handle, const Bmp5State& state) {
  return refuse(handle, IMG_ERR_CORRUPT, "a pixel outside the palette of %zu colors", state.colors);
}

// Stores `count` pixels of one color.
int fill(img_file* handle, const Bmp5State& state, const Planes& planes, std::size_t at,
         std::size_t count, std::size_t index) {
  if (index >= state.colors) return refuse_index(handle, state);
  for (std::size_t c = 0; c < 3; ++c) std::fill_n(planes[c] + at, count, state.palette[index][c]);
  return 1;
}

// Stores the colors of packed indexes. Several share a byte from its highest bits down.
int look_up(img_file* handle, const Bmp5State& state, const Planes& planes, std::size_t at,
            std::size_t count, const std::uint8_t* row) {
  const unsigned bits = state.header.bits, mask = (1U << bits) - 1;
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t bit = i * bits;
    const std::size_t index = row[bit / 8] >> (8 - bits - bit % 8) & mask;
    if (index >= state.colors) return refuse_index(handle, state);
    for (std::size_t c = 0; c < 3; ++c) planes[c][at + i] = state.palette[index][c];
  }
  return 1;
}

void unpack_fields(const Bmp5State& state, const Planes& planes, std::size_t width,
                   const std::uint8_t* row) {
  const std::size_t pixel_bytes = state.header.bits / 8;
  const std::size_t components = state.header.masks[3] != 0 && planes[3] ? 4 : 3;
  for (std::size_t x = 0; x < width; ++x) {
    std::uint32_t pixel = 0;
    for (std::size_t byte = 0; byte < pixel_bytes; ++byte) {
      pixel |= std::uint32_t{row[x * pixel_bytes + byte]} << 8 * byte;
    }
    for (std::size_t c = 0; c < components; ++c) planes[c][x] = state.fields[c].sample(pixel);
  }
}

int read_row(img_file* handle, Bmp5State& state, const Planes& planes) {
  const auto before = ka::checked_product(handle->line_count, state.row_bytes);
  errno = 0;
  if (!before || *before > std::uint64_t(handle->file_size)) return short_read(handle);
  ka_img_reader_seek(state.in.get(), std::int64_t(state.header.pixel_offset + *before));
  const std::uint8_t* const row = ka_img_reader_take(state.in.get(), state.row_bytes);
  if (!row) return short_read(handle);
  const auto width = std::size_t(handle->width);
  if (state.header.has_palette()) return look_up(handle, state, planes, 0, width, row);
  unpack_fields(state, planes, width, row);
  return 1;
}

// A packet of `count` equal pixels; with four bits, of two indexes in turn.
int repeat(img_file* handle, const Bmp5State& state, const Planes& planes, std::size_t at,
           std::size_t count, std::size_t value) {
  if (state.header.compression == kRle8) return fill(handle, state, planes, at, count, value);
  for (std::size_t i = 0; i < count; ++i) {
    const std::size_t index = i % 2 == 0 ? value >> 4 : value & 15;
    if (!fill(handle, state, planes, at + i, 1, index)) return 0;
  }
  return 1;
}

// Pixels that follow their count, padded to two bytes. Of them `kept` are stored.
int copy(img_file* handle, Bmp5State& state, const Planes& planes, std::size_t at,
         std::size_t count, std::size_t kept) {
  const std::size_t bytes = (count * state.header.bits + 15) / 16 * 2;
  const std::uint8_t* const pixels = ka_img_reader_take(state.in.get(), bytes);
  if (!pixels) return short_read(handle);
  return look_up(handle, state, planes, at, kept, pixels);
}

// Moves past pixels and lines that nothing is stored of.
int jump(img_file* handle, Bmp5State& state, std::size_t& at, std::size_t end) {
  const std::uint8_t* const distance = ka_img_reader_take(state.in.get(), 2);
  if (!distance) return short_read(handle);
  if (distance[0] > end - at) {
    return refuse(handle, IMG_ERR_CORRUPT, "a jump passes the end of the line");
  }
  at += distance[0];
  state.lines_to_skip = distance[1];
  if (state.lines_to_skip > 0) state.column = at;
  return 1;
}

// Reads packets up to the end of the line. Pixels that are passed over have the first color. Some
// programs pack the padding of rows as well.
int read_packets(img_file* handle, Bmp5State& state, const Planes& planes) {
  enum Mark : std::size_t { kEndOfLine, kEndOfPicture, kJump };
  const auto width = std::size_t(handle->width);
  const auto end = std::size_t(state.row_bytes * 8 / state.header.bits);
  if (!fill(handle, state, planes, 0, width, 0)) return 0;
  if (state.lines_to_skip > 0 && --state.lines_to_skip > 0) return 1;
  std::size_t at = state.column;
  state.column = 0;
  while (!state.has_ended && state.lines_to_skip == 0) {
    errno = 0;
    if (at >= width && ka_img_reader_left(state.in.get()) < 2) return 1;  // no mark after the last
    const std::uint8_t* const packet = ka_img_reader_take(state.in.get(), 2);
    if (!packet) return short_read(handle);
    const std::size_t repeats = packet[0], value = packet[1];
    if (repeats == 0 && value == kEndOfLine) return 1;
    if (repeats == 0 && value == kEndOfPicture) state.has_ended = true;
    if (repeats == 0 && value == kJump && !jump(handle, state, at, end)) return 0;
    if (repeats == 0 && value <= kJump) continue;
    const std::size_t count = repeats > 0 ? repeats : value;
    if (count > end - at) {
      return refuse(handle, IMG_ERR_CORRUPT, "a packet passes the end of the line");
    }
    const std::size_t kept = at < width ? std::min(count, width - at) : 0;
    if (!(repeats > 0 ? repeat(handle, state, planes, at, kept, value)
                      : copy(handle, state, planes, at, count, kept))) {
      return 0;
    }
    at += count;
  }
  return 1;
}

int test_bmp5(img_file* /*handle*/, const std::uint8_t* head) {
  return head[0] == 'B' && head[1] == 'M';
}

int open_bmp5(img_file* handle, const std::uint8_t* head) {
  auto state = std::make_unique<Bmp5State>();
  Header& header = state->header = parse_header({head, IMG_HEAD_SIZE});
  if (!check_header(handle, header)) return 0;
  handle->width = header.width;
  handle->height = std::abs(header.height);
  handle->topdown = header.height < 0;
  state->row_bytes = (std::uint64_t(header.width) * header.bits + 31) / 32 * 4;
  if (!header.is_packed() && state->row_bytes > std::uint64_t(handle->file_size)) {
    return refuse(handle, IMG_ERR_READ, "the file is too short for a row of %llu bytes",
                  static_cast<unsigned long long>(state->row_bytes));
  }
  if (!drivers::check_line_memory(handle, 4)) return 0;
  state->in.reset(ka_img_reader_alloc(handle, 0, header.is_packed() ? 0 : state->row_bytes));
  if (header.has_palette()) {
    if (!read_palette(handle, *state)) return 0;
  } else if (!set_fields(handle, *state)) {
    return 0;
  }
  header.pixel_offset = std::max(header.pixel_offset, header.palette_offset);
  ka_img_reader_seek(state->in.get(), std::int64_t(header.pixel_offset));
  const bool has_alpha = !header.has_palette() && header.masks[3] != 0;
  drivers::state_file_type(handle, has_alpha ? IMG_TYPE_RGBA : IMG_TYPE_RGB);
  handle->data.p = state.release();
  return 1;
}

int read_bmp5(img_file* handle, img_line* line) {
  auto& state = drivers::state_of<Bmp5State>(handle);
  errno = 0;
  if (handle->line_count >= handle->height) return short_read(handle);
  Planes planes;
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    planes[std::size_t(slot)] = static_cast<std::uint8_t*>(ka_img_line_plane(line, slot));
  }
  return state.header.is_packed() ? read_packets(handle, state, planes)
                                  : read_row(handle, state, planes);
}

void header_bmp5(img_file* handle, img_header* header) {
  const Header& read = drivers::state_of<Bmp5State>(handle).header;
  ka::HeaderEntries out(header);
  out.numbers("header_bytes", read.bytes);
  out.numbers("pixel_bits", read.bits);
  out.choice("compression", read.has_fields() ? kFields : read.compression,
             {"none", "run-length of 8 bits", "run-length of 4 bits", "bit fields"});
  if (read.has_palette()) out.numbers("palette_colors", read.colors);
  if (read.has_fields()) {
    out.numbers("masks", read.masks[0], read.masks[1], read.masks[2], read.masks[3]);
  }
}

int close_bmp5(img_file* handle) {
  drivers::take_state<Bmp5State>(handle);
  return 1;
}

}  // namespace

int drivers::register_bmp5(int format) {
  return ka_img_custom_format(format, test_bmp5, nullptr, open_bmp5, close_bmp5, read_bmp5, nullptr,
                              1, "bmp5", 0, IMG_TYPE_RGB) &&
         ka_img_custom_format_stand_in(format, IMG_FORMAT_BMP) &&
         ka_img_custom_format_header(format, header_bmp5);
}
