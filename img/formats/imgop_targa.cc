// Targa images: colour-mapped, true-colour and greyscale, plain or in packets, bottom or top line
// first; written as plain 32-bit true colour, bottom line first. Layout: docs/formats.md, "Targa",
// which is that of the Truevision manual of TGA files, version 2.0, without its extensions. Numbers
// are little-endian.
#include <errno.h>

#include <algorithm>
#include <array>
#include <optional>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "rows.h"

namespace {

constexpr std::size_t kHeaderBytes = 18;
constexpr int kLargestOrigin = 4095;
constexpr int kLargestSide = 9998;    // pixels
constexpr int kLargestField = 65535;  // what the header can hold
constexpr int kOpaque = 255;
constexpr std::uint8_t kTopFirst = 0x20;  // bit of the descriptor

enum ImageType : std::uint8_t { kMapped = 1, kTrueColor = 2, kGrey = 3 };
constexpr std::uint8_t kPacked = 8;  // bit of the image type: lines are run-length packets

struct Header {
  std::uint8_t id_length;     // bytes between header and colour map
  std::uint8_t map_type;      // 1: a colour map is present
  std::uint8_t image_type;    // ImageType, and kPacked
  std::uint16_t first_entry;  // index of the map's first colour
  std::uint16_t map_length;   // colours
  std::uint8_t entry_bits;
  std::uint16_t x, y, width, height;
  std::uint8_t depth;  // bits per stored pixel
  std::uint8_t descriptor;

  [[nodiscard]] std::uint8_t kind() const { return image_type & ~kPacked; }
  [[nodiscard]] bool is_packed() const { return (image_type & kPacked) != 0; }
  [[nodiscard]] std::size_t pixel_bytes() const { return (depth + 1U) / 8; }
  [[nodiscard]] std::size_t entry_bytes() const { return (entry_bits + 1U) / 8; }
  [[nodiscard]] std::size_t map_offset() const { return kHeaderBytes + id_length; }
  [[nodiscard]] bool has_map() const { return map_type == 1; }
  [[nodiscard]] std::size_t map_bytes() const { return has_map() ? map_length * entry_bytes() : 0; }
  // Whether 8-bit pixels are indexes. In files that are not colour-mapped a map of 15 or 16 bits,
  // and an empty one, tells nothing about them.
  [[nodiscard]] bool maps_pixels() const {
    return has_map() && (kind() == kMapped || (entry_bits >= 24 && map_length > 0));
  }
};

struct Color {
  std::uint8_t r, g, b, a;
};

struct TargaState {
  Header header;
  ka::vector<Color> map;  // from index header.first_entry on
  ka::FileReader pixels;
  ka::FileWriter out;
};

// The planes of a line from some pixel on.
struct Target {
  std::array<std::uint8_t*, 4> planes;

  void put(std::size_t i, Color color) const {
    planes[0][i] = color.r;
    planes[1][i] = color.g;
    planes[2][i] = color.b;
    planes[3][i] = color.a;
  }
  [[nodiscard]] Target from(std::size_t i) const {
    return {{planes[0] + i, planes[1] + i, planes[2] + i, planes[3] + i}};
  }
};

Header parse_header(std::span<const std::uint8_t> head) {
  ka::ByteCursor in(head);
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

bool is_supported(const Header& header) {
  if (!is_one_of(header.depth, {8, 15, 16, 24, 32})) return false;
  return header.kind() != kMapped || (header.depth == 8 && header.entry_bits >= 24);
}

Color from_15_bits(const std::uint8_t* pixel, std::uint8_t alpha) {
  const unsigned low = pixel[0], high = pixel[1];
  return {.r = static_cast<std::uint8_t>(high * 2 & 248),
          .g = static_cast<std::uint8_t>((low / 4 & 56) | (high & 3) * 64),
          .b = static_cast<std::uint8_t>(low * 8),
          .a = alpha};
}

// A colour map's entries; of 15 and 16 bits, which no pixel may refer to, nothing is kept.
ka::vector<Color> convert_map(std::span<const std::uint8_t> bytes, std::size_t entry_bytes) {
  ka::vector<Color> map;
  if (entry_bytes < 3) return map;
  map.reserve(bytes.size() / entry_bytes);
  for (; bytes.size() >= entry_bytes; bytes = bytes.subspan(entry_bytes)) {
    map.push_back(
        {bytes[2], bytes[1], bytes[0], entry_bytes > 3 ? bytes[3] : std::uint8_t{kOpaque}});
  }
  return map;
}

// Looks up every index; false for one outside the map.
bool convert_mapped(const TargaState& state, const std::uint8_t* indexes, const Target& to,
                    std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const int entry = indexes[i] - state.header.first_entry;
    if (entry < 0 || std::size_t(entry) >= state.map.size()) return false;
    to.put(i, state.map[std::size_t(entry)]);
  }
  return true;
}

void convert_grey(const std::uint8_t* levels, const Target& to, std::size_t count) {
  for (std::size_t c = 0; c < 3; ++c) std::copy_n(levels, count, to.planes[c]);
  std::fill_n(to.planes[3], count, std::uint8_t{kOpaque});
}

void convert_16_bits(const std::uint8_t* pixels, const Target& to, std::size_t count,
                     bool has_alpha) {
  for (std::size_t i = 0; i < count; ++i, pixels += 2) {
    const bool opaque = !has_alpha || (pixels[1] & 0x80);
    to.put(i, from_15_bits(pixels, opaque ? std::uint8_t{kOpaque} : std::uint8_t{0}));
  }
}

// Converts stored pixels; false for an index outside the colour map.
bool convert(const TargaState& state, const std::uint8_t* pixels, const Target& to,
             std::size_t count) {
  const auto& [r, g, b, a] = to.planes;
  switch (state.header.depth) {
    case 8:
      if (state.header.maps_pixels()) return convert_mapped(state, pixels, to, count);
      convert_grey(pixels, to, count);
      return true;
    case 15:
    case 16:
      convert_16_bits(pixels, to, count, state.header.depth == 16);
      return true;
    case 24:
      ka::split<std::uint8_t, 3>(pixels, {b, g, r}, count);
      std::fill_n(a, count, std::uint8_t{kOpaque});
      return true;
    default:
      ka::split<std::uint8_t, 4>(pixels, {b, g, r, a}, count);
      return true;
  }
}

// Reads `count` stored pixels. Returns 1, or 0 with the handle's error.
int read_targa(img_file* handle, Target to, std::size_t count) {
  auto& state = ka::state_of<TargaState>(handle);
  const std::size_t bytes = count * state.header.pixel_bytes();
  const auto pixels = state.pixels.take(bytes);
  if (pixels.size() != bytes) return img_error(handle, IMG_ERR_READ, errno);
  return convert(state, pixels.data(), to, count) ? 1 : img_error(handle, IMG_ERR_CORRUPT, 0);
}

void repeat(const Target& to, Color color, std::size_t count) {
  std::fill_n(to.planes[0], count, color.r);
  std::fill_n(to.planes[1], count, color.g);
  std::fill_n(to.planes[2], count, color.b);
  std::fill_n(to.planes[3], count, color.a);
}

// A line of packets: up to 128 pixels as they are, or one that is repeated.
int uncompress(img_file* handle, const Target& line) {
  auto& state = ka::state_of<TargaState>(handle);
  const auto width = static_cast<std::size_t>(handle->width);
  for (std::size_t done = 0; done < width;) {
    const int packet = state.pixels.get();
    if (packet == ka::FileReader::kEnd) return img_error(handle, IMG_ERR_READ, errno);
    const std::size_t count = (static_cast<unsigned>(packet) & 0x7f) + 1;
    if (count > width - done) return img_error(handle, IMG_ERR_CORRUPT, 0);
    const Target to = line.from(done);
    if (packet < 128) {
      if (!read_targa(handle, to, count)) return 0;
    } else {
      Color color;
      if (!read_targa(handle, {{&color.r, &color.g, &color.b, &color.a}}, 1)) return 0;
      repeat(to, color, count);
    }
    done += count;
  }
  return 1;
}

Target line_target(const img_line* line) { return {ka::plane_pointers<std::uint8_t, 4>(line)}; }

// Reads the colour map, which may not reach past the end of the file. The reader stands behind it
// then.
bool read_map(TargaState& state) {
  const Header& header = state.header;
  state.pixels.seek(header.map_offset());
  errno = 0;
  if (state.pixels.left() < header.map_bytes()) return false;
  ka::vector<std::uint8_t> bytes(header.map_bytes());
  if (!state.pixels.read(bytes)) return false;
  state.map = convert_map(bytes, header.entry_bytes());
  return true;
}

}  // namespace

int img_test_targa(img_file* /*handle*/, const std::uint8_t* head) {
  return is_targa(parse_header({head, IMG_HEAD_SIZE}));
}

int img_open_targa(img_file* handle, const std::uint8_t* head) {
  auto state = ka::make_state<TargaState>(handle);
  const Header& header = state->header = parse_header({head, IMG_HEAD_SIZE});
  if (!is_supported(header)) return img_error(handle, IMG_ERR_SUBTYPE, 0);
  handle->width = header.width;
  handle->height = header.height;
  handle->topdown = (header.descriptor & kTopFirst) != 0;
  state->pixels.start(handle, header.map_offset());
  if (!read_map(*state)) return img_error(handle, IMG_ERR_READ, errno);
  handle->data.p = state.release();
  return 1;
}

int img_create_targa(img_file* handle) {
  if (handle->width > kLargestField || handle->height > kLargestField) {
    return img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  }
  auto state = ka::make_state<TargaState>(handle);
  state->out.start(handle);
  ka::ByteWriter out(state->out.put(kHeaderBytes));
  out.zeros(2);
  out.u8(kTrueColor);
  out.zeros(9);  // no colour map, origin 0
  out.le16(static_cast<std::uint32_t>(handle->width));
  out.le16(static_cast<std::uint32_t>(handle->height));
  out.u8(32);
  out.u8(0);  // bottom line first
  handle->data.p = state.release();
  return 1;
}

int img_read_targa(img_file* handle, img_line* line) {
  const Target target = line_target(line);
  if (ka::state_of<TargaState>(handle).header.is_packed()) return uncompress(handle, target);
  return read_targa(handle, target, static_cast<std::size_t>(handle->width));
}

int img_write_targa(img_file* handle, img_line* line) {
  auto& out = ka::state_of<TargaState>(handle).out;
  const auto [r, g, b, a] = line_target(line).planes;
  const std::array planes = {b, g, r, a};
  if (!ka::write_row(out, planes, static_cast<std::size_t>(handle->width))) {
    return img_error(handle, IMG_ERR_WRITE, out.error());
  }
  return 1;
}

int img_close_targa(img_file* handle) {
  const auto state = ka::take_state<TargaState>(handle);
  return state ? ka::finish_file(handle, state->out, IMG_ERR_WRITE) : 1;
}
