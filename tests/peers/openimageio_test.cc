// IFF, RLA and PIC files between this library and OpenImageIO: both find the same pixels. Pictures
// travel as SGI files where OpenImageIO does not read or write what is tested.
#include <gtest/gtest.h>

#include <fstream>

#include "shown.h"

namespace {

constexpr int kWidth = 301, kHeight = 130;  // several tiles in both directions

struct Exchange {
  const char* name;
  const char* extension;
  int format, type;
  std::vector<const char*> compressions = {"none", "rle"};  // of what is written there
};

class OpenImageIo : public testing::TestWithParam<Exchange> {
 protected:
  void SetUp() override {
    program_ = test::find_program("oiiotool");
    if (program_.empty()) GTEST_SKIP() << "oiiotool is not installed";
  }
  void convert(std::vector<std::string> arguments) const {
    const test::Outcome outcome = test::run(program_, {.arguments = std::move(arguments)});
    EXPECT_EQ(outcome.status, 0) << outcome.out << outcome.err;
  }
  // Whether a file has the pixels of an image.
  static void expect_same(const std::string& path, int format, const img_image* image) {
    test::Handle file;
    ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
    EXPECT_EQ(file->format, format);
    ASSERT_EQ(file->width, kWidth);
    ASSERT_EQ(file->height, kHeight);
    const test::Image read(ka_img_image_alloc(file));
    ASSERT_TRUE(ka_img_image_read(file, read.get()));
    ASSERT_EQ(read->bits, image->bits);
    const auto components = std::size_t(image->components);
    EXPECT_TRUE(test::samples_of(read.get(), components, false) ==
                test::samples_of(image, components, false));
  }

  std::string program_;
  test::Scratch scratch_;
};

using WrittenHere = OpenImageIo;
TEST_P(WrittenHere, IsReadThere) {
  const auto& [name, extension, format, type, compressions] = GetParam();
  const std::string ours = scratch_.path(std::string("a.") + extension),
                    copy = scratch_.path("b.sgi");
  const test::Image image = test::runs_picture(type, kWidth, kHeight);
  ASSERT_EQ(test::write_image(ours, format, image.get()), IMG_ERR_NONE);
  convert({ours, "-o", copy});
  expect_same(copy, IMG_FORMAT_RGB, image.get());
}
const std::vector<Exchange> kWritten = {
    {"IffColours", "iff", IMG_FORMAT_IFF, IMG_TYPE_RGB},
    {"IffWithAlpha", "iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA},
    {"IffColours16", "iff", IMG_FORMAT_IFF, IMG_TYPE_RGB_16},
    {"IffWithAlpha16", "iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA_16},
    {"Rla", "rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA},
    {"Pic", "pic", IMG_FORMAT_PIC, IMG_TYPE_RGBA},
};
INSTANTIATE_TEST_SUITE_P(Files, WrittenHere, testing::ValuesIn(kWritten), test::row_name<Exchange>);

// Channels of 16 bits are marked there as another type of storage.
void clear_storage_types(const std::string& path) {
  constexpr std::size_t of_colours = 18, of_matte = 660;  // byte offsets, 16 bits each
  std::string text = test::read_file(path);
  for (const std::size_t at : {of_colours, of_matte}) text.replace(at, 2, 2, '\0');
  const std::filesystem::path name(path);
  std::filesystem::remove(name);
  std::ofstream(name, std::ios::binary) << text;
}

using WrittenThere = OpenImageIo;
TEST_P(WrittenThere, IsReadHere) {
  const auto& [name, extension, format, type, compressions] = GetParam();
  const std::string ours = scratch_.path("a.sgi"),
                    copy = scratch_.path(std::string("b.") + extension);
  const test::Image image = test::runs_picture(type, kWidth, kHeight);
  ASSERT_EQ(test::write_image(ours, IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
  for (const char* const compression : compressions) {
    SCOPED_TRACE(compression);
    convert({ours, "--compression", compression, "--attrib", "oiio:ColorSpace", "GammaCorrected",
             "--attrib", "oiio:Gamma", "2.2", "-o", copy});
    if (format == IMG_FORMAT_RLA) clear_storage_types(copy);
    expect_same(copy, format, image.get());
  }
}
const std::vector<Exchange> kRead = {
    {"IffColours", "iff", IMG_FORMAT_IFF, IMG_TYPE_RGB},
    {"IffWithAlpha", "iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA},
    // raw samples of 16 bits are stored there with the higher byte first
    {"IffColours16", "iff", IMG_FORMAT_IFF, IMG_TYPE_RGB_16, {"rle"}},
    {"RlaColours", "rla", IMG_FORMAT_RLA, IMG_TYPE_RGB},
    {"RlaWithAlpha", "rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA},
    {"RlaColours16", "rla", IMG_FORMAT_RLA, IMG_TYPE_RGB_16},
    {"RlaWithAlpha16", "rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA_16},
};
INSTANTIATE_TEST_SUITE_P(Files, WrittenThere, testing::ValuesIn(kRead), test::row_name<Exchange>);

}  // namespace
