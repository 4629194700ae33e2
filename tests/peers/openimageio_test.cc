// IFF, RLA and PIC files between this library and OpenImageIO: both find the same pixels. Pictures
// travel as SGI files where OpenImageIO does not read or write what is tested.
#include <gtest/gtest.h>

#include <fstream>

#include "shown.h"

namespace {

struct Exchange {
  const char* extension;
  int format, type;
};
constexpr int kWidth = 301, kHeight = 130;  // several tiles in both directions

TEST(OpenImageIo, ReadsWhatIsWritten) {
  const std::string program = test::find_program("oiiotool");
  if (program.empty()) GTEST_SKIP() << "oiiotool is not installed";
  const test::Scratch scratch;
  for (const auto& [extension, format, type] : {Exchange{"iff", IMG_FORMAT_IFF, IMG_TYPE_RGB},
                                                {"iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA},
                                                {"iff", IMG_FORMAT_IFF, IMG_TYPE_RGB_16},
                                                {"iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA_16},
                                                {"rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA},
                                                {"pic", IMG_FORMAT_PIC, IMG_TYPE_RGBA}}) {
    SCOPED_TRACE(std::string(extension) + " " + ka_img_type_name(type));
    const std::string ours = scratch.path(std::string("a.") + extension),
                      copy = scratch.path("b.sgi");
    const test::Image image = test::runs_picture(type, kWidth, kHeight);
    ASSERT_EQ(test::write_image(ours, format, image.get()), IMG_ERR_NONE);
    test::run_well(program, {ours, "-o", copy});
    test::expect_equal(test::read_image(copy, IMG_TYPE_FILE), image);
  }
}

// Channels of 16 bits are marked there as another type of storage.
void clear_storage_types(const test::Scratch& scratch, const std::string& name) {
  constexpr std::size_t of_colours = 18, of_matte = 660;  // byte offsets, 16 bits each
  std::string text = test::read_file(scratch.path(name));
  for (const std::size_t at : {of_colours, of_matte}) text.replace(at, 2, 2, '\0');
  scratch.write(name, text);
}

TEST(OpenImageIo, WritesWhatIsRead) {
  const std::string program = test::find_program("oiiotool");
  if (program.empty()) GTEST_SKIP() << "oiiotool is not installed";
  const test::Scratch scratch;
  const std::string ours = scratch.path("a.sgi");
  for (const auto& [extension, format, type] : {Exchange{"iff", IMG_FORMAT_IFF, IMG_TYPE_RGB},
                                                {"iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA},
                                                {"iff", IMG_FORMAT_IFF, IMG_TYPE_RGB_16},
                                                {"rla", IMG_FORMAT_RLA, IMG_TYPE_RGB},
                                                {"rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA},
                                                {"rla", IMG_FORMAT_RLA, IMG_TYPE_RGB_16},
                                                {"rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA_16}}) {
    const test::Image image = test::runs_picture(type, kWidth, kHeight);
    ASSERT_EQ(test::write_image(ours, IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
    for (const std::string compression : {"none", "rle"}) {
      SCOPED_TRACE(std::string(extension) + " " + ka_img_type_name(type) + " " + compression);
      // Raw samples of 16 bits are stored there with the higher byte first.
      if (format == IMG_FORMAT_IFF && image->bits == 16 && compression == "none") continue;
      const std::string name = std::string("b.") + extension;
      test::run_well(program,
                     {ours, "--compression", compression, "--attrib", "oiio:ColorSpace",
                      "GammaCorrected", "--attrib", "oiio:Gamma", "2.2", "-o", scratch.path(name)});
      if (format == IMG_FORMAT_RLA) clear_storage_types(scratch, name);
      test::expect_equal(test::read_image(scratch.path(name), IMG_TYPE_FILE), image);
    }
  }
}

}  // namespace
