// TIFF images: the bytes that are written.
#include <gtest/gtest.h>

#include "formats/drivers.h"
#include "mode.h"
#include "pictures.h"

namespace {

using test::bytes, test::le;

struct Header {
  int compression = 1, width = 1, height = 1, components = 3, bits = 8, alpha = 0, format = 1;
  std::size_t count;  // bytes of the strip
};

std::string entry(int tag, int type, int count, int value) {
  return le(2, tag) + le(2, type) + le(4, count) + le(4, value);
}
std::string four(int value) { return bytes({value, 0, value, 0, value, 0, value, 0}); }

std::string header(const Header& h) {
  return bytes({'I', 'I', 42, 0, 10, 0, 0, 0, 0, 0, 13, 0}) + entry(254, 4, 1, 0) +
         entry(256, 4, 1, h.width) + entry(257, 4, 1, h.height) + entry(258, 3, h.components, 184) +
         entry(259, 3, 1, h.compression) + entry(262, 3, 1, 2) + entry(273, 4, 1, 204) +
         entry(277, 3, 1, h.components) + entry(278, 4, 1, h.height) +
         entry(279, 4, 1, int(h.count)) + entry(284, 3, 1, 1) +
         entry(338, 3, h.components == 4, h.alpha) + entry(339, 3, h.components, 196) +
         std::string(16, 0) + four(h.bits) + std::string(4, 0) + four(h.format);
}

const std::string k3 = bytes({1, 2, 3}), k4 = bytes({1, 2, 3, 4});
const std::string k16 = bytes({1, 0, 2, 0, 3, 0, 4, 0});
const std::string k32 = bytes({1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0});
// 1 0 2 0 3 0 are single bytes; of three zeros and of two between others the first are a run, the
// second join the literal
const std::string kPacked32 = bytes({0, 1, 254, 0, 0, 2, 254, 0, 0, 3, 254, 0});

const Header kPackedDeep = {.compression = 32773, .bits = 16, .count = 7};

// Samples 1 to 4 in a pixel. Floats hold small whole numbers as their bits.
TEST(TiffFile, IsWrittenInAllKinds) {
  struct Kind {
    int format, type;
    Header header;
    std::string pixels;
  };
  const auto kind = [](int format, int type, const Header& header, const std::string& pixels) {
    return Kind{format, type, header, pixels};
  };
  const Kind kinds[] = {
      kind(IMG_FORMAT_TIF3, IMG_TYPE_RGB, {.compression = 32773, .count = 4}, bytes({2}) + k3),
      kind(IMG_FORMAT_TIF3U, IMG_TYPE_RGB, {.count = 3}, k3),
      kind(IMG_FORMAT_TIFU, IMG_TYPE_RGBA, {.components = 4, .alpha = 2, .count = 4}, k4),
      kind(IMG_FORMAT_TIFU, IMG_TYPE_RGBA_FP,
           {.components = 4, .bits = 32, .alpha = 2, .format = 3, .count = 16}, k32),
      kind(IMG_FORMAT_TIF3U, IMG_TYPE_RGB_FP, {.bits = 32, .format = 3, .count = 12},
           k32.substr(0, 12)),
      kind(IMG_FORMAT_TIF3, IMG_TYPE_RGB_FP,
           {.compression = 32773, .bits = 32, .format = 3, .count = 12}, kPacked32),
      kind(IMG_FORMAT_TIF16, IMG_TYPE_RGB_16, kPackedDeep, bytes({5}) + k16.substr(0, 6)),
      kind(IMG_FORMAT_TIF16U, IMG_TYPE_RGBA_16,
           {.components = 4, .bits = 16, .alpha = 2, .count = 8}, k16),
      kind(IMG_FORMAT_TIF16_3, IMG_TYPE_RGB_16, kPackedDeep, bytes({5}) + k16.substr(0, 6)),
      kind(IMG_FORMAT_TIF16_3U, IMG_TYPE_RGB_16, {.bits = 16, .count = 6}, k16.substr(0, 6)),
  };
  const test::Mode mode({.premultiply = 1});
  for (const auto& [format, type, expected, pixels] : kinds) {
    SCOPED_TRACE(ka_img_format_name(format));
    test::Planes planes = {{1}, {2}, {3}, {4}};
    planes.resize(std::size_t(ka_img_ncomp[type]));
    EXPECT_EQ(test::written(format, type, {planes}), header(expected) + pixels);
  }
}

TEST(TiffFile, HasTheseBytes) {
  EXPECT_EQ(test::written(IMG_FORMAT_TIF, IMG_TYPE_RGB, {test::flat(3, {7, 7, 7})}),
            header({.compression = 32773, .width = 3, .count = 2}) + bytes({248, 7}));
  const test::Mode mode({});  // alpha that is not multiplied
  EXPECT_EQ(test::written(IMG_FORMAT_TIFU, IMG_TYPE_RGBA, {{{1}, {2}, {3}, {4}}}),
            header({.components = 4, .alpha = 1, .count = 4}) + k4);
  // the top line first
  const test::Lines lines = {{{1}, {2}, {3}}, {{4}, {5}, {6}}};
  EXPECT_EQ(test::written(IMG_FORMAT_TIFU, IMG_TYPE_RGB, lines).substr(204),
            bytes({4, 5, 6, 1, 2, 3}));
  EXPECT_EQ(test::written(IMG_FORMAT_TIF, IMG_TYPE_RGB, lines).substr(204),
            bytes({2, 4, 5, 6, 2, 1, 2, 3}));
}

// The first of two lines can be read while the file is being written; the file then goes on.
TEST(TiffFile, CanBeReadAfterAFlush) {
  test::NewFile file(IMG_FORMAT_TIF, IMG_TYPE_RGB, 2, 2);
  for (std::size_t slot = 0; slot < 3; ++slot) {
    test::set_samples<std::uint8_t>(test::plane(file.line(), slot), {4, 4});
  }
  ASSERT_TRUE(file.write_line());
  ASSERT_TRUE(ka::img_flush_tiff(file));
  const std::string flushed = file.contents();
  EXPECT_EQ(flushed.substr(128, 4), le(4, 2));
  EXPECT_EQ(flushed.substr(204), bytes({251, 4}));
  test::OpenFile in(flushed);
  EXPECT_TRUE(in.read_line());
  EXPECT_EQ(in.planes(), test::flat(2, {4, 4, 4}));
  EXPECT_FALSE(in.read_line());
  ASSERT_TRUE(file.write_line());
  ASSERT_TRUE(file.close());
  EXPECT_EQ(file.contents().substr(128, 4), le(4, 4));
  EXPECT_EQ(file.contents().substr(204), bytes({251, 4, 251, 4}));
}

}  // namespace
