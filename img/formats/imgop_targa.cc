// Targa images: color-mapped, true-color and greyscale, plain or in packets, bottom or top line
// first; written as plain 32-bit true color, bottom line first. Layout: docs/formats.md, "Targa",
// which is that of the Truevision manual of TGA files, version 2.0; of its extensions only texts are read. Numbers
// are little-endian.
#include <errno.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "palette.h"
#include "rle.h"
#include "rows.h"

namespace ka {

namespace {

constexpr std::size_t kHeaderBytes = 18;
constexpr int kLargestOrigin = 4095;
constexpr int kLargestSide = 9998;    // pixels
constexpr int kLargestField = 65535;  // what the header can hold
constexpr int kOpaque = 255;
constexpr std::uint8_t kTopFirst = 0x20;  // bit of the descriptor

// Only for the entries of the header: nothing in there changes the picture.
constexpr std::size_t kFooterBytes = 26, kExtensionBytes = 495;
constexpr std::string_view kSignature("TRUEVISION-XFILE.\0", 18);

enum ImageType : std::uint8_t { kMapped = 1, kTrueColor = 2, kGrey = 3 };
constexpr std::uint8_t kPacked = 8;  // bit of the image type: lines are run-length packets

struct Header {
  std::uint8_t id_length;     // bytes between header and color map
  std::uint8_t map_type;      // 1: a color map is present
  std::uint8_t image_type;    // ImageType, and kPacked
  std::uint16_t first_entry;  // index of the map's first color
  std::uint16_t map_length;   // colors
  std::uint8_t entry_bits;
  std::uint16_t x, y, width, height;
  std::uint8_t depth;  // bits per stored pixel
  std::uint8_t descriptor;

  [[nodiscard]] std::uint8_t kind() const { return image_type & ~kPacked; }
  [[nodiscard]] bool is_packed() const { return (image_type & kPacked) != 0; }
  [[nodiscard]] std::size_t pixel_bytes() const { return (depth + 1U) / 8; }
  [[nodiscard]] std::size_t row_bytes() const { return width * pixel_bytes(); }
  [[nodiscard]] std::size_t entry_bytes() const { return (entry_bits + 1U) / 8; }
  [[nodiscard]] std::size_t map_offset() const { return kHeaderBytes + id_length; }
  [[nodiscard]] bool has_map() const { return map_type == 1; }
  [[nodiscard]] std::size_t map_bytes() const { return has_map() ? map_length * entry_bytes() : 0; }
  // Whether 8-bit pixels are indexes. In files that are not color-mapped a map of 15 or 16 bits,
  // and an empty one, says nothing about them.
  [[nodiscard]] bool maps_pixels() const {
    return has_map() && (kind() == kMapped || (entry_bits >= 24 && map_length > 0));
  }
};

struct TargaState {
  Header header;
  Palette palette;
  FileReader pixels;
  Buffer row;  // stored pixels of a packed line
  FileWriter out;
};

// The planes of a line.
using Planes = std::array<std::uint8_t*, 4>;

Header parse_header(std::span<const std::uint8_t> head) {
  ByteCursor in(head);
  Header header;
  header.id_length = in.u8();
  header.map_type = in.u8();
  header.image_type = in.u8();
  header.first_entry = in.le16();
  header.map_length = in.le16();
  header.entry_bits = in.u8();
  header.x = in.le16();
  header.y = in.le16();
  header.width = in.le16();
  header.height = in.le16();
  header.depth = in.u8();
  header.descriptor = in.u8();
  return header;
}

bool is_one_of(int value, std::initializer_list<int> values) {
  return std::ranges::find(values, value) != values.end();
}

bool is_targa(const Header& header) {
  if (!is_one_of(header.image_type, {1, 2, 3, 9, 10, 11})) return false;
  if (header.x > kLargestOrigin || header.y > kLargestOrigin) return false;
  const auto is_side = [](int side) { return side >= 1 && side <= kLargestSide; };
  if (!is_side(header.width) || !is_side(header.height)) return false;
  if (header.map_type == 0) return is_one_of(header.depth, {8, 15, 16, 24, 32});
  return header.map_type == 1 && is_one_of(header.entry_bits, {15, 16, 24, 32});
}

// Returns 1, or 0 with the handle's error.
int check_header(img_file* handle, const Header& header) {
  if (!is_one_of(header.depth, {8, 15, 16, 24, 32})) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "%d bits per pixel are not read; 8, 15, 16, 24 and 32 are", header.depth);
  }
  if (header.kind() != kMapped || (header.depth == 8 && header.entry_bits >= 24)) return 1;
  return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                    "indexes of %d bits to colors of %d are not read; 8 bits to 24 or 32 are",
                    header.depth, header.entry_bits);
}

void convert_grey(const std::uint8_t* levels, const Planes& planes, std::size_t count) {
  for (std::size_t c = 0; c < 3; ++c) std::copy_n(levels, count, planes[c]);
  std::fill_n(planes[3], count, std::uint8_t{kOpaque});
}

void convert_16_bits(const std::uint8_t* pixels, const Planes& planes, std::size_t count,
                     bool has_alpha) {
  const auto [r, g, b, a] = planes;
  for (std::size_t i = 0; i < count; ++i, pixels += 2) {
    const unsigned low = pixels[0], high = pixels[1];
    r[i] = std::uint8_t(high * 2 & 248);
    g[i] = std::uint8_t((low / 4 & 56) | (high & 3) * 64);
    b[i] = std::uint8_t(low * 8);
    a[i] = !has_alpha || (high & 0x80) ? std::uint8_t{kOpaque} : std::uint8_t{0};
  }
}

// Converts stored pixels; false for an index outside the color map.
bool convert(const TargaState& state, const std::uint8_t* pixels, const Planes& planes,
             std::size_t count) {
  const auto& [r, g, b, a] = planes;
  switch (state.header.depth) {
    case 8:
      if (state.header.maps_pixels()) return state.palette.look_up(pixels, 8, count, planes);
      convert_grey(pixels, planes, count);
      return true;
    case 15:
    case 16:
      convert_16_bits(pixels, planes, count, state.header.depth == 16);
      return true;
    case 24:
      split<std::uint8_t, 3>(pixels, {b, g, r}, count);
      std::fill_n(a, count, std::uint8_t{kOpaque});
      return true;
    default:
      split<std::uint8_t, 4>(pixels, {b, g, r, a}, count);
      return true;
  }
}

// The stored pixels of a plain line.
std::span<const std::uint8_t> read_targa(img_file* handle, TargaState& state) {
  const auto pixels = state.pixels.take(state.header.row_bytes());
  if (pixels.empty()) img_error(handle, IMG_ERR_READ, errno);
  return pixels;
}

// The stored pixels of a packed line. Packets end with their line.
std::span<const std::uint8_t> uncompress(img_file* handle, TargaState& state) {
  const std::span row(state.row.data(), state.row.size());
  const std::size_t pixel_bytes = state.header.pixel_bytes();
  const auto packets = state.pixels.ahead(pixels_bound(std::size_t(handle->width), pixel_bytes));
  const int failure = errno;
  const auto [end, used, filled] = expand_pixels(packets, row, pixel_bytes);
  if (end != RowEnd::kWhole) {
    const bool is_short = end == RowEnd::kShort;
    if (is_short) {
      img_error(handle, IMG_ERR_READ, failure);
    } else {
      img_refuse(handle, IMG_ERR_CORRUPT, 0, "a packet passes the end of the line");
    }
    return {};
  }
  (void)state.pixels.take(used);
  return row;
}

// Reads the color map, which may not reach past the end of the file; of 15 and 16 bits, which no
// pixel may refer to, nothing is kept. The reader stands after it then.
bool read_map(TargaState& state) {
  const Header& header = state.header;
  const std::size_t entry_bytes = header.entry_bytes();
  state.pixels.seek(header.map_offset());
  errno = 0;
  if (state.pixels.left() < header.map_bytes()) return false;
  for (std::size_t i = 0; header.has_map() && entry_bytes >= 3 && i < header.map_length; ++i) {
    const auto entry = state.pixels.take(entry_bytes);
    if (entry.empty()) return false;
    const auto alpha = entry_bytes > 3 ? entry[3] : std::uint8_t{kOpaque};
    state.palette.set(header.first_entry + i, {entry[2], entry[1], entry[0], alpha});
  }
  state.pixels.seek(header.map_offset() + header.map_bytes());
  return true;
}

void put_ratio(HeaderEntries& out, const char* name, ByteCursor& in) {
  const double numerator = in.le16(), denominator = in.le16();
  if (denominator != 0) out.numbers(name, numerator / denominator);
}

void put_extension(HeaderEntries& out, ByteCursor in) {
  in.skip(2);  // its size
  out.field("author", in.take(41));
  for (int i = 0; i < 4; ++i) out.field("comment", in.take(81));
  std::array<unsigned, 6> date;
  for (unsigned& part : date) part = in.le16();
  const auto [month, day, year, hour, minute, second] = date;
  if (year != 0) out.numbers("date", year, month, day, hour, minute, second);
  out.field("job", in.take(41));
  in.skip(6);  // time spent on it
  out.field("software", in.take(41));
  in.skip(7);  // version, key color
  put_ratio(out, "aspect", in);
  put_ratio(out, "gamma", in);
}

}  // namespace

int img_test_targa(img_file* /*handle*/, const std::uint8_t* head) {
  return is_targa(parse_header({head, IMG_HEAD_SIZE}));
}

int img_open_targa(img_file* handle, const std::uint8_t* head) {
  auto state = make_state<TargaState>(handle);
  const Header& header = state->header = parse_header({head, IMG_HEAD_SIZE});
  if (!check_header(handle, header)) return 0;
  handle->width = header.width;
  handle->height = header.height;
  handle->topdown = (header.descriptor & kTopFirst) != 0;
  state->pixels.start(handle, header.map_offset());
  if (!read_map(*state)) {
    return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the color map of %d colors",
                      header.map_length);
  }
  if (header.is_packed()) state->row = Buffer(header.row_bytes());
  handle->data.p = state.release();
  return 1;
}

int img_create_targa(img_file* handle) {
  if (!check_sides(handle, kLargestField)) return 0;
  auto state = make_state<TargaState>(handle);
  state->out.start(handle);
  ByteWriter out(state->out.put(kHeaderBytes));
  out.zeros(2);
  out.u8(kTrueColor);
  out.zeros(9);  // no color map, origin 0
  out.le16(std::uint32_t(handle->width));
  out.le16(std::uint32_t(handle->height));
  out.u8(32);
  out.u8(0);  // bottom line first
  handle->data.p = state.release();
  return 1;
}

int img_read_targa(img_file* handle, img_line* line) {
  auto& state = state_of<TargaState>(handle);
  const auto pixels =
      state.header.is_packed() ? uncompress(handle, state) : read_targa(handle, state);
  if (pixels.empty()) return 0;
  const auto width = std::size_t(handle->width);
  if (convert(state, pixels.data(), plane_pointers<std::uint8_t, 4>(line), width)) return 1;
  return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a pixel outside the color map");
}

int img_write_targa(img_file* handle, img_line* line) {
  auto& out = state_of<TargaState>(handle).out;
  const auto [r, g, b, a] = plane_pointers<std::uint8_t, 4>(line);
  const std::array planes = {b, g, r, a};
  if (!write_row(out, planes, std::size_t(handle->width))) {
    return img_error(handle, IMG_ERR_WRITE, out.error());
  }
  return 1;
}

int img_close_targa(img_file* handle) {
  const auto state = take_state<TargaState>(handle);
  return state ? finish_file(handle, state->out, IMG_ERR_WRITE) : 1;
}

void img_header_targa(img_file* handle, img_header* header) {
  const Header& read = state_of<TargaState>(handle).header;
  HeaderEntries out(header);
  FileReader in;
  in.start(handle, kHeaderBytes, kExtensionBytes);
  out.field("id", in.take(read.id_length));
  out.choice("kind", read.kind(), {"none", "color-mapped", "true color", "grey"});
  out.text("compression", read.is_packed() ? "run-length" : "none");
  out.numbers("pixel_bits", read.depth);
  out.numbers("origin", read.x, read.y);
  if (read.has_map()) out.numbers("color_map", read.first_entry, read.map_length, read.entry_bits);
  const auto size = std::uint64_t(handle->file_size);
  if (size < kHeaderBytes + kFooterBytes) return;
  in.seek(size - kFooterBytes);
  const auto footer = in.take(kFooterBytes);
  if (footer.empty() || !std::ranges::equal(footer.subspan(8), kSignature)) return;
  const std::uint32_t extension = ByteCursor(footer).le32();
  in.seek(extension);
  const auto bytes = extension == 0 ? footer.first(0) : in.take(kExtensionBytes);
  if (!bytes.empty()) put_extension(out, ByteCursor(bytes));
}

}  // namespace ka
