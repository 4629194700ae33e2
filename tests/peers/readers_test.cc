// Files that this library writes, read by programs of others: they find the same pixels.
#include <gtest/gtest.h>

#include <algorithm>

#include "shown.h"

namespace {

using test::runs_picture;
using test::samples_of;

struct Peer {
  const char* name;
  const char* program;
  std::vector<std::string> arguments;  // FILE stands for the file's name
  int format, type;
  const char* extension;
  std::string header;      // of what the program prints
  std::size_t components;  // in its pixels
  bool is_big;             // byte order of its samples
};

class WrittenFile : public testing::TestWithParam<Peer> {};

TEST_P(WrittenFile, IsReadByAPeer) {
  const Peer& peer = GetParam();
  const std::string program = test::find_program(peer.program);
  if (program.empty()) GTEST_SKIP() << peer.program << " is not installed";
  const test::Scratch scratch;
  const std::string path = scratch.path(std::string("picture.") + peer.extension);
  const test::Image image = runs_picture(peer.type, 301, 5);
  ASSERT_EQ(test::write_image(path, peer.format, image.get()), IMG_ERR_NONE);
  test::Program call{.arguments = peer.arguments};
  for (std::string& argument : call.arguments) {
    if (argument == "FILE") argument = path;
  }
  const test::Outcome outcome = test::run(program, call);
  EXPECT_EQ(outcome.status, 0) << outcome.err;
  ASSERT_EQ(outcome.out.substr(0, peer.header.size()), peer.header) << outcome.err;
  EXPECT_TRUE(outcome.out.substr(peer.header.size()) ==
              samples_of(image.get(), peer.components, peer.is_big));
}

const std::string kBytes = "P6\n301 5\n255\n", kWords = "P6\n301 5\n65535\n";
const std::vector<std::string> kNetpbm = {"FILE"}, kWhole = {"-byrow", "FILE"};  // all 16 bits
const std::vector<std::string> kRgbaBytes = {"FILE", "-depth", "8", "rgba:-"};
const std::vector<std::string> kRgbaWords = {"FILE", "-endian", "LSB", "-depth", "16", "rgba:-"};

const std::vector<Peer> kPeers = {
    {"tif", "tifftopnm", kNetpbm, IMG_FORMAT_TIF, IMG_TYPE_RGB, "tif", kBytes, 3, false},
    {"tifu", "tifftopnm", kNetpbm, IMG_FORMAT_TIFU, IMG_TYPE_RGB, "tif", kBytes, 3, false},
    {"tif16_3", "tifftopnm", kWhole, IMG_FORMAT_TIF16_3, IMG_TYPE_RGB_16, "tif", kWords, 3, true},
    {"tif16_3u", "tifftopnm", kWhole, IMG_FORMAT_TIF16_3U, IMG_TYPE_RGB_16, "tif", kWords, 3, true},
    {"bmp", "bmptopnm", kNetpbm, IMG_FORMAT_BMP, IMG_TYPE_RGB, "bmp", kBytes, 3, false},
    {"bmp_alpha", "bmptopnm", kNetpbm, IMG_FORMAT_BMP, IMG_TYPE_RGBA, "bmp", kBytes, 3, false},
    {"tif_alpha", "convert", kRgbaBytes, IMG_FORMAT_TIF, IMG_TYPE_RGBA, "tif", "", 4, false},
    {"tifu_alpha", "convert", kRgbaBytes, IMG_FORMAT_TIFU, IMG_TYPE_RGBA, "tif", "", 4, false},
    {"tif16_alpha", "convert", kRgbaWords, IMG_FORMAT_TIF16, IMG_TYPE_RGBA_16, "tif", "", 4, false},
    {"tif16u_alpha", "convert", kRgbaWords, IMG_FORMAT_TIF16U, IMG_TYPE_RGBA_16, "tif", "", 4,
     false},
    {"targa", "tgatoppm", kNetpbm, IMG_FORMAT_TGA, IMG_TYPE_RGBA, "tga", kBytes, 3, false},
    {"sgi", "sgitopnm", kNetpbm, IMG_FORMAT_RGB, IMG_TYPE_RGB, "rgb", kBytes, 3, false},
};
INSTANTIATE_TEST_SUITE_P(Peers, WrittenFile, testing::ValuesIn(kPeers), test::row_name<Peer>);

// libtiff tells what it does not expect as a warning; it decodes every strip here.
TEST(WrittenTiff, LeavesNothingToWarnOf) {
  const std::string program = test::find_program("tiffinfo");
  if (program.empty()) GTEST_SKIP() << "tiffinfo is not installed";
  for (const auto& [format, type] : {std::pair{IMG_FORMAT_TIF, IMG_TYPE_RGBA},
                                     {IMG_FORMAT_TIFU, IMG_TYPE_RGBA_FP},
                                     {IMG_FORMAT_TIF16, IMG_TYPE_RGBA_16},
                                     {IMG_FORMAT_TIF, IMG_TYPE_RGBA_FP}}) {
    const test::Scratch scratch;
    const test::Image image = runs_picture(type, 301, 5);
    ASSERT_EQ(test::write_image(scratch.path("a.tif"), format, image.get()), IMG_ERR_NONE);
    const auto outcome = test::run(program, {.arguments = {"-D", scratch.path("a.tif")}});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.err, "");
  }
}

// Strips, planes and byte orders as libtiff arranges them anew.
TEST(WrittenTiff, IsReadAfterItWasCopied) {
  const std::string program = test::find_program("tiffcp");
  if (program.empty()) GTEST_SKIP() << "tiffcp is not installed";
  using Options = std::vector<std::string>;
  const std::vector<Options> copies = {{"-c", "none", "-r", "3"},
                                       {"-c", "packbits", "-r", "2", "-B"},
                                       {"-c", "none", "-p", "separate", "-r", "5"},
                                       {"-c", "none", "-p", "separate", "-r", "1", "-B"},
                                       {"-c", "packbits", "-p", "separate", "-r", "2"}};
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA, IMG_TYPE_RGB_16, IMG_TYPE_RGBA_FP}) {
    const test::Image image = runs_picture(type, 301, 5);
    for (const Options& options : copies) {
      const bool is_planar = std::ranges::find(options, "separate") != options.end();
      if (is_planar && ka_img_nbits[type] != 8) continue;  // tiffcp cannot
      const test::Scratch scratch;
      const std::string original = scratch.path("a.tif"), copy = scratch.path("b.tif");
      ASSERT_EQ(test::write_image(original, IMG_FORMAT_TIF, image.get()), IMG_ERR_NONE);
      Options arguments = options;
      arguments.insert(arguments.end(), {original, copy});
      const auto outcome = test::run(program, {.arguments = arguments});
      ASSERT_EQ(outcome.status, 0) << outcome.err;
      const test::Image read = test::read_image(copy, IMG_TYPE_FILE);
      ASSERT_TRUE(read);
      EXPECT_EQ(read->type, type);
      const auto all = std::size_t(image->components);
      EXPECT_TRUE(samples_of(read.get(), all, false) == samples_of(image.get(), all, false))
          << type << ": " << testing::PrintToString(options);
    }
  }
}

}  // namespace
