// What damaged headers cost: lines that the file cannot hold, lines without pixels.
#include <gtest/gtest.h>

#include <algorithm>

#include "pictures.h"

namespace {

using test::be;
using test::bytes;
using test::le;

constexpr int kColumns = 100'000'000;
const std::string kSides = std::to_string(kColumns) + " 1";

std::string bmp(int bits) {
  return "BM" + std::string(12, '\0') + le(4, 40) + le(4, kColumns) + le(4, 1) + le(2, 1) +
         le(2, bits) + std::string(40, '\0');
}

std::string lwi(int width, const std::string& packets) {
  return bytes({21, 0, 22, 0, 23, 0, 24, 0, 19, 25, 0, 0, 0, 0}) + be(4, width) + be(4, 1) +
         bytes({17}) + std::string(12, '\0') + packets;
}

std::string tiff(int compression, int samples) {
  const auto entry = [](int tag, std::int64_t value) {
    return be(2, tag) + be(2, 4) + be(4, 1) + be(4, value);
  };
  return "MM" + be(2, 42) + be(4, 8) + be(2, 7) + entry(256, kColumns) + entry(257, 1) +
         entry(258, 8) + entry(259, compression) + entry(262, samples == 1 ? 1 : 2) +
         entry(273, 8) + entry(277, samples) + std::string(300, '\0');
}

struct Claim {
  const char* name;
  std::string bytes;
  int error;
};
const Claim kClaims[] = {
    {"P3", "P3\n" + kSides + "\n255\n1 2 3 4", IMG_ERR_CORRUPT},
    {"P6", "P6\n" + kSides + "\n255\nabc", IMG_ERR_READ},
    {"PF", "PF\n" + kSides + "\n0 1\n1 2 3 4", IMG_ERR_READ},
    {"PostScript",
     "%!PS-Adobe-3.0\n%%Creator: Lumora\n% lu image data " + kSides + " color\nluimage\nffff\n",
     IMG_ERR_CORRUPT},
    {"Bmp", bmp(24), IMG_ERR_READ},
    {"BmpOfBits", bmp(1), IMG_ERR_READ},
    {"Lwi", lwi(kColumns, std::string(400, '\xff')), IMG_ERR_READ},
    {"Tiff", tiff(1, 1), IMG_ERR_READ},
    {"TiffOfColors", tiff(1, 3), IMG_ERR_READ},
};

// No buffer is made for such a line, whatever its type is.
TEST(Cost, LinesThatTheFileCannotHoldFailWithoutABuffer) {
  for (const Claim& claim : kClaims) {
    SCOPED_TRACE(claim.name);
    for (const int type : {int(IMG_TYPE_FILE), int(IMG_TYPE_RGBA), int(IMG_TYPE_RGB_FP)}) {
      const test::Scratch scratch;
      test::Handle file;
      ASSERT_TRUE(ka_img_open(file, scratch.write("a", claim.bytes).c_str(), type));
      const test::Line line(ka_img_line_alloc(file));
      EXPECT_TRUE(std::ranges::all_of(line->offset, [](auto offset) { return offset == 0; }));
      for (int i = 0; i < 2; ++i) {
        file->error = IMG_ERR_NONE;
        EXPECT_FALSE(ka_img_line_read(file, line.get()));
        EXPECT_EQ(file->error, claim.error);
        EXPECT_EQ(file->os_error, 0);
        EXPECT_EQ(file->line_count, i + 1);
      }
      EXPECT_EQ(file->conversion, nullptr);
    }
  }
}

// 600 packets of 255 pixels twice, which is all of the file.
TEST(Cost, LongLinesThatTheFileHoldsAreRead) {
  std::string packets;
  for (int i = 0; i < 1200; ++i) packets += bytes({255, i & 255, 2, 3});
  for (const std::string& file :
       {lwi(1200 * 255, packets), "P6\n306000 1\n255\n" + std::string(918'000, 'a')}) {
    test::OpenFile picture(file, IMG_TYPE_RGBA);
    EXPECT_TRUE(picture.read_line());
    EXPECT_EQ(picture.planes()[3], std::vector<std::uint32_t>(306'000, 255));
  }
}

// Their number costs nothing, neither time nor a table.
TEST(Cost, LinesWithoutPixelsAreReadAtOnce) {
  test::OpenFile file("P6\n0 1000000\n255\n", IMG_TYPE_RGBA);
  const test::Image image(ka_img_image_alloc(file));
  ASSERT_TRUE(image);
  EXPECT_TRUE(ka_img_image_read(file, image.get()));
  EXPECT_EQ(file->line_count, 1'000'000);
  const auto* const table = reinterpret_cast<const img_image_line*>(image.get() + 1);
  EXPECT_EQ(table[999'999].offset[0], 0u);
}

}  // namespace
