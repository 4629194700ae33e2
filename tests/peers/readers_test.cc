// Files that this library writes, read by programs of others: they find the same pixels.
#include <gtest/gtest.h>

#include "shown.h"

namespace {

// Its own name: other programs are called convert as well.
constexpr char kImageMagick[] = "convert-im6.q16";

struct Peer {
  const char *name, *program;
  int format, type;
};

class WrittenFile : public testing::TestWithParam<Peer> {};

TEST_P(WrittenFile, IsReadByAPeer) {
  const auto& [name, program, format, type] = GetParam();
  if (test::find_program(program).empty()) GTEST_SKIP() << program << " is not installed";
  const test::Scratch scratch;
  const std::string path = scratch.path("picture");
  const test::Image image = test::runs_picture(type, 301, 5);
  ASSERT_EQ(test::write_image(path, format, image.get()), IMG_ERR_NONE);
  const bool is_wide = image->bits == 16;
  if (program == std::string(kImageMagick)) {
    const std::string depth = is_wide ? " -endian LSB -depth 16" : " -depth 8";
    EXPECT_TRUE(test::shell(program + (" " + path) + depth + " rgba:-") ==
                test::samples_of(image.get(), 4));
  } else {
    const std::string option = is_wide ? " -byrow " : " ";  // with all 16 bits
    EXPECT_TRUE(test::shell(program + option + path) ==
                (is_wide ? "P6\n301 5\n65535\n" : "P6\n301 5\n255\n") +
                    test::samples_of(image.get(), 3, is_wide));
  }
}

const std::vector<Peer> kPeers = {
    {"tif", "tifftopnm", IMG_FORMAT_TIF, IMG_TYPE_RGB},
    {"tifu", "tifftopnm", IMG_FORMAT_TIFU, IMG_TYPE_RGB},
    {"tif16_3", "tifftopnm", IMG_FORMAT_TIF16_3, IMG_TYPE_RGB_16},
    {"tif16_3u", "tifftopnm", IMG_FORMAT_TIF16_3U, IMG_TYPE_RGB_16},
    {"tif_alpha", kImageMagick, IMG_FORMAT_TIF, IMG_TYPE_RGBA},
    {"tifu_alpha", kImageMagick, IMG_FORMAT_TIFU, IMG_TYPE_RGBA},
    {"tif16_alpha", kImageMagick, IMG_FORMAT_TIF16, IMG_TYPE_RGBA_16},
    {"tif16u_alpha", kImageMagick, IMG_FORMAT_TIF16U, IMG_TYPE_RGBA_16},
    {"bmp", "bmptopnm", IMG_FORMAT_BMP, IMG_TYPE_RGB},
    {"bmp_alpha", "bmptopnm", IMG_FORMAT_BMP, IMG_TYPE_RGBA},
    {"targa", "tgatoppm", IMG_FORMAT_TGA, IMG_TYPE_RGBA},
    {"sgi", "sgitopnm", IMG_FORMAT_RGB, IMG_TYPE_RGB},
};
INSTANTIATE_TEST_SUITE_P(Peers, WrittenFile, testing::ValuesIn(kPeers), test::row_name<Peer>);

// Strips, planes and byte orders as libtiff arranges them anew. It says what it does not expect as
// a warning.
TEST(WrittenTiff, IsReadAfterItWasCopiedWithoutWarnings) {
  if (test::find_program("tiffcp").empty() || test::find_program("tiffinfo").empty()) {
    GTEST_SKIP() << "tiffcp and tiffinfo are not installed";
  }
  const test::Scratch scratch;
  const std::string original = scratch.path("a.tif"), copy = scratch.path("b.tif");
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA, IMG_TYPE_RGB_16, IMG_TYPE_RGBA_FP}) {
    const test::Image image = test::runs_picture(type, 301, 5);
    ASSERT_EQ(test::write_image(original, IMG_FORMAT_TIF, image.get()), IMG_ERR_NONE);
    EXPECT_EQ(test::shell("tiffinfo -D " + original + " 2>&1 >/dev/null"), "");
    for (const std::string options :
         {"-c none -r 3", "-c packbits -r 2 -B", "-c none -r 5 -p separate",
          "-c none -r 1 -B -p separate", "-c packbits -r 2 -p separate"}) {
      if (options.ends_with("separate") && image->bits != 8) continue;  // tiffcp cannot
      SCOPED_TRACE(options + " " + ka_img_type_name(type));
      test::shell("tiffcp " + options + " " + original + " " + copy);
      test::expect_equal(test::read_image(copy, IMG_TYPE_FILE), image);
    }
  }
}

}  // namespace
