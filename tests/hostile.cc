#include "hostile.h"

#include <cstddef>
#include <cstdint>
#include <utility>

namespace test {
namespace {

constexpr std::uint32_t kMany = 100000000;  // columns or lines

std::string little(std::uint32_t value, int bytes) {
  std::string text;
  for (; bytes > 0; --bytes, value >>= 8) text += static_cast<char>(value & 0xff);
  return text;
}

std::string big(std::uint32_t value, int bytes) {
  const std::string text = little(value, bytes);
  return {text.rbegin(), text.rend()};
}

std::string repeated(std::size_t count, const std::string& text) {
  std::string result;
  result.reserve(count * text.size());
  for (std::size_t i = 0; i < count; ++i) result += text;
  return result;
}

// Headers that claim two sides.

template <char kind>
std::string portable(std::uint32_t width, std::uint32_t height) {
  return std::string("P") + kind + "\n" + std::to_string(width) + " " + std::to_string(height) +
         (kind == 'F' ? "\n0.0 1.0\n" : "\n255\n");
}

std::string postscript(std::uint32_t width, std::uint32_t height) {
  return "%!PS-Adobe-3.0\n%%Creator: Lumora\n% lu image data " + std::to_string(width) + " " +
         std::to_string(height) + " color\nluimage\n";
}

std::string hdr(std::uint32_t width, std::uint32_t height) {
  return "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y " + std::to_string(height) + " +X " +
         std::to_string(width) + "\n";
}

std::string bmp(std::uint32_t width, std::uint32_t height) {
  return "BM" + std::string(12, '\0') + little(40, 4) + little(width, 4) + little(height, 4) +
         little(1, 2) + little(24, 2) + std::string(24, '\0');
}

// Records of types 21 to 24 without contents, then the size record.
std::string lwi(std::uint32_t width, std::uint32_t height) {
  std::string text;
  for (const std::uint32_t type : {21U, 22U, 23U, 24U}) text += big(type, 1) + big(0, 1);
  return text + big(19, 1) + big(25, 1) + big(0, 4) + big(width, 4) + big(height, 4) + big(17, 1) +
         std::string(12, '\0');
}

struct Tiff {
  std::uint32_t width, height;
  std::uint32_t bits = 8, compression = 1, photometric = 1, samples = 1;
  std::uint32_t planar = 1;
  std::vector<std::uint32_t> strips = {};  // offsets from the end of header and tables
  std::string data = {};
};

constexpr std::uint32_t kPackBits = 32773;
constexpr char kNoOp = '\x80';

// The directory stands after the header, the offsets of the strips after the directory.
std::string tiff(const Tiff& tiff) {
  constexpr std::uint32_t directory = 8, entries = 9, bits_of_samples = 4;
  const std::uint32_t bits_at = directory + 2 + entries * 12 + 4;
  const std::uint32_t strips_at = bits_at + 2 * bits_of_samples;
  const auto count = std::uint32_t(tiff.strips.size());
  const std::uint32_t data_at = strips_at + 4 * count;
  const auto entry = [](std::uint32_t tag, std::uint32_t values, std::uint32_t value) {
    return little(tag, 2) + little(4, 2) + little(values, 4) + little(value, 4);
  };
  std::string text = "II" + little(42, 2) + little(directory, 4) + little(entries, 2);
  text += entry(256, 1, tiff.width) + entry(257, 1, tiff.height);
  text += little(258, 2) + little(3, 2) + little(tiff.samples, 4) +
          little(tiff.samples > 2 ? bits_at : tiff.bits, 4);
  text += entry(259, 1, tiff.compression) + entry(262, 1, tiff.photometric);
  text += entry(273, count, count > 1 ? strips_at : data_at + tiff.strips[0]);
  text += entry(277, 1, tiff.samples) + entry(278, 1, count > 1 ? 1 : tiff.height);
  text += entry(284, 1, tiff.planar) + little(0, 4);
  text += repeated(bits_of_samples, little(tiff.bits, 2));
  for (const std::uint32_t offset : tiff.strips) text += little(data_at + offset, 4);
  return text + tiff.data;
}

// Each of the rows ends with a packet of one byte, which no-ops precede.
std::string tiff_of_no_ops(std::uint32_t width, std::size_t no_ops, std::size_t rows) {
  return tiff({.width = width,
               .height = std::uint32_t(rows),
               .compression = kPackBits,
               .strips = {0},
               .data = repeated(rows, std::string(no_ops, kNoOp) + std::string(2, '\0'))});
}

// Rows that lie at `offsets` in turns, a strip each: of one byte, or packed.
std::string tiff_of_strips(Tiff picture, const std::vector<std::uint32_t>& offsets,
                           const std::string& data) {
  picture.strips.clear();
  for (std::uint32_t i = 0; i < picture.height * (picture.planar == 2 ? picture.samples : 1); ++i)
    picture.strips.push_back(offsets[i % offsets.size()]);
  picture.data = data;
  return tiff(picture);
}

// A grey picture of the SGI format. Rows of 126 pixels to a packet, which all lines share; the
// offsets of odd lines lead to a copy `distance` bytes further on.
std::string sgi(std::uint32_t width, std::uint32_t height, std::uint32_t distance) {
  const std::string row = repeated(width / 126, std::string("\x7e\x55", 2)) + std::string(1, '\0');
  const std::uint32_t rows_at = 512 + 8 * height;
  std::string text =
      big(474, 2) + big(1, 1) + big(1, 1) + big(2, 2) + big(width, 2) + big(height, 2) + big(1, 2);
  text.resize(512);
  for (std::uint32_t y = 0; y < height; ++y) text += big(rows_at + y % 2 * distance, 4);
  text += repeated(height, big(std::uint32_t(row.size()), 4));
  if (distance == 0) return text + row;
  return text + row + std::string(distance - row.size(), '\0') + row;
}

std::string segment(std::uint32_t marker, const std::string& contents) {
  return big(0xff00 | marker, 2) + big(std::uint32_t(contents.size()) + 2, 2) + contents;
}

// A JPEG file up to its first scan. `frame`: 0xc2 progressive, 0xc9 arithmetic, 0xca both.
std::string jpeg_head(std::uint32_t frame, std::uint32_t width, std::uint32_t height,
                      std::uint32_t components = 1, std::uint32_t sampling = 0x11) {
  std::string contents = big(8, 1) + big(height, 2) + big(width, 2) + big(components, 1);
  for (std::uint32_t c = 0; c < components; ++c)
    contents += big(c, 1) + big(sampling, 1) + big(0, 1);
  return big(0xffd8, 2) + segment(0xe0, std::string("JFIF\0\1\2\0\0\1\0\1\0\0", 14)) +
         segment(0xdb, std::string(1, '\0') + std::string(64, '\1')) + segment(frame, contents);
}

// The header of a scan of coefficients `first` to `last`.
std::string jpeg_scan(std::uint32_t first, std::uint32_t last, std::uint32_t component = 0) {
  return segment(
      0xda, big(1, 1) + big(component, 1) + big(0, 1) + big(first, 1) + big(last, 1) + big(0, 1));
}

const std::string kEndOfImage = "\xff\xd9";

// The AC table has one code, of one bit: a run of 16384 empty blocks, with 14 more bits of 0.
std::string jpeg_of_empty_scans(std::uint32_t side, std::size_t scans) {
  const std::size_t blocks = std::size_t{side} * side / 64, runs = blocks / 16384 + 1;
  return jpeg_head(0xc2, side, side) +
         segment(0xc4, big(0x10, 1) + big(1, 1) + std::string(15, '\0') + big(0xe0, 1)) +
         repeated(scans, jpeg_scan(1, 63) + std::string((runs * 15 + 7) / 8, '\0')) + kEndOfImage;
}

// Wide rows of blocks of which many are in use at a time, and a bit for each block.
std::string jpeg_of_wide_rows(std::uint32_t width, std::uint32_t height) {
  std::string text = jpeg_head(0xc2, width, height, 3, 0x44) +
                     segment(0xc4, big(0, 1) + big(1, 1) + std::string(16, '\0'));
  const std::string bits(std::size_t{(width + 7) / 8} * ((height + 7) / 8) / 8 + 1, '\0');
  for (std::uint32_t c = 0; c < 3; ++c) text += jpeg_scan(0, 0, c) + bits;
  return text + kEndOfImage;
}

// No scan has data: an arithmetic decoder goes on without.
std::string jpeg_without_data(std::uint32_t frame, std::uint32_t side, std::size_t scans) {
  return jpeg_head(frame, side, side) + repeated(scans, jpeg_scan(frame == 0xca ? 1 : 0, 63)) +
         kEndOfImage;
}

// An IFF picture of one tile of equal floats.
std::string iff_of_one_tile(std::uint32_t width, std::uint32_t height) {
  constexpr std::uint32_t color_and_alpha = 3, float_depth = 3, pixel_bytes = 16;
  const auto chunk = [](const char* name, const std::string& contents) {
    return name + big(std::uint32_t(contents.size()), 4) + contents;
  };
  const std::string header = big(width, 4) + big(height, 4) + big(1, 2) + big(1, 2) +
                             big(color_and_alpha, 4) + big(float_depth, 2) + big(1, 2) + big(1, 4) +
                             big(0, 4) + big(0, 4);
  const std::string tile =
      big(0, 4) + big(width - 1, 2) + big(height - 1, 2) +
      repeated(std::size_t{width} * height * pixel_bytes / 128, std::string("\xff\x3f", 2));
  return chunk("FOR4",
               "CIMG" + chunk("TBHD", header) + chunk("FOR4", "TBMP" + chunk("RGBA", tile)));
}

}  // namespace

std::vector<HostilePair> hostile_pairs() {
  std::vector<HostilePair> pairs;
  const auto add = [&pairs](const std::string& name, const std::string& bytes) {
    pairs.push_back({name, bytes, bytes});
  };
  constexpr std::pair<const char*, std::string (*)(std::uint32_t, std::uint32_t)> formats[] = {
      {"p6", portable<'6'>}, {"p3", portable<'3'>}, {"pf", portable<'F'>}, {"ps", postscript},
      {"hdr", hdr},          {"bmp", bmp},          {"lwi", lwi}};
  for (const auto& [format, make] : formats) {
    const std::string name = format;
    add(name + "_columns", make(kMany, 1));
    add(name + "_columns_and_lines", make(kMany, 2000000000));
    add(name + "_some_columns", make(kMany / 10, 10) + std::string(3000, '0'));  // digits, packets
    add(name + "_lines_of_no_width", make(0, kMany));
    add(name + "_lines", make(1, kMany));
    pairs.push_back({name + "_two_sizes", make(kMany, 1), make(kMany, 2)});
  }

  const Tiff wide = {.width = kMany, .height = 1, .strips = {0}, .data = "ab"};
  Tiff bits = wide, planes = wide, packed = wide;
  bits.bits = 1;
  planes.photometric = planes.planar = 2;
  planes.samples = 3;
  planes.strips = {0, 0, 0};
  packed.compression = kPackBits;
  packed.width = 19000000;
  packed.data = std::string(300000, '\0');
  add("tiff_columns", tiff(wide));
  add("tiff_bits", tiff(bits));
  add("tiff_planes", tiff(planes));
  add("tiff_packed_columns", tiff(packed));
  packed.width = 512 * 150000;
  packed.bits = 1;
  packed.data = repeated(150000, std::string("\x81\x55", 2));
  add("tiff_packed_bits", tiff(packed));
  constexpr std::uint32_t size = 400000, end = size - 16;
  const std::string zeroes(size, '\0'), no_ops = std::string(220000, kNoOp) + std::string(2, '\0');
  const Tiff narrow = {.width = 1, .height = 40000};
  Tiff narrow_packed = narrow, narrow_planes = planes;
  narrow_packed.compression = kPackBits;
  narrow_planes.width = 1;
  narrow_planes.height = 20000;
  add("tiff_strips_back_and_forth", tiff_of_strips(narrow, {0, end, size / 2}, zeroes));
  add("tiff_packed_strips_back_and_forth",
      tiff_of_strips(narrow_packed, {0, end, size / 2}, zeroes));
  add("tiff_distant_planes", tiff_of_strips(narrow_planes, {0, end}, zeroes));
  narrow_packed.height = 20000;
  add("tiff_shared_no_ops", tiff_of_strips(narrow_packed, {0}, no_ops));
  add("tiff_no_ops_in_a_row", tiff_of_no_ops(2, 300000, 1));
  add("tiff_no_ops_in_all_rows", tiff_of_no_ops(1, 300, 1000));

  // What follows a picture makes the file large enough for its blocks.
  const std::string rest(257 << 10, '\0');
  add("jpeg_empty_scans", jpeg_of_empty_scans(11776, 100) + rest);
  add("jpeg_thousands_of_scans", jpeg_of_empty_scans(1024, 4000));
  add("jpeg_wide_rows", jpeg_of_wide_rows(65500, 168));
  add("jpeg_arithmetic_without_data", jpeg_without_data(0xc9, 32700, 1));
  add("jpeg_arithmetic_scans", jpeg_without_data(0xca, 11776, 100) + rest);

  add("lwi_longest_runs", lwi(255 * 250000, 1) + repeated(250000, "\xff\1\2\3") + "\1\1\1\1");
  add("iff_one_tile", iff_of_one_tile(8192, 1024));
  add("sgi_rows_back_and_forth", sgi(126, 20000, 200000));
  pairs.push_back({"sgi_two_sizes", sgi(5040, 5000, 0), sgi(5040, 4999, 0)});
  return pairs;
}

}  // namespace test
