// IFF, RLA and PIC files between this library and OpenImageIO: both find the same pixels. Pictures
// travel as SGI files where OpenImageIO does not read or write what is tested.
#include <gtest/gtest.h>

#include "shown.h"

namespace {

// Channels of 16 bits are marked there as another type of storage.
void clear_storage_types(const test::Scratch& scratch, const std::string& name) {
  constexpr std::size_t of_colors = 18, of_matte = 660;  // byte offsets, 16 bits each
  std::string text = test::read_file(scratch.path(name));
  for (const std::size_t at : {of_colors, of_matte}) text.replace(at, 2, 2, '\0');
  scratch.write(name, text);
}

TEST(OpenImageIo, HasTheSamePixels) {
  if (test::find_program("oiiotool").empty()) GTEST_SKIP() << "oiiotool is not installed";
  const test::Scratch scratch;
  const struct {
    const char* name;
    int format, type;
    bool read_there, written_there;
  } rows[] = {
      {"a.iff", IMG_FORMAT_IFF, IMG_TYPE_RGB, true, true},
      {"a.iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA, true, true},
      {"a.iff", IMG_FORMAT_IFF, IMG_TYPE_RGB_16, true, true},
      {"a.iff", IMG_FORMAT_IFF, IMG_TYPE_RGBA_16, true, false},
      {"a.rla", IMG_FORMAT_RLA, IMG_TYPE_RGB, false, true},
      {"a.rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA, true, true},
      {"a.rla", IMG_FORMAT_RLA, IMG_TYPE_RGB_16, false, true},
      {"a.rla", IMG_FORMAT_RLA, IMG_TYPE_RGBA_16, false, true},
      {"a.pic", IMG_FORMAT_PIC, IMG_TYPE_RGBA, true, false},
  };
  for (const auto& [name, format, type, read_there, written_there] : rows) {
    SCOPED_TRACE(std::string(name) + " " + ka_img_type_name(type));
    const std::string file = scratch.path(name), sgi = scratch.path("a.sgi");
    const test::Image image = test::runs_picture(type, 301, 130);  // several tiles both ways
    if (read_there) {
      ASSERT_EQ(test::write_image(file, format, image.get()), IMG_ERR_NONE);
      test::shell("oiiotool " + file + " -o " + sgi);
      test::expect_equal(test::read_image(sgi, IMG_TYPE_FILE), image);
    }
    ASSERT_EQ(test::write_image(sgi, IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
    for (const std::string compression : {"none", "rle"}) {
      // Raw samples of 16 bits are stored there with the higher byte first.
      const bool is_swapped = type == IMG_TYPE_RGB_16 && format == IMG_FORMAT_IFF;
      if (!written_there || (is_swapped && compression == "none")) continue;
      test::shell("oiiotool " + sgi + " --compression " + compression +
                  " --attrib oiio:ColorSpace GammaCorrected --attrib oiio:Gamma 2.2 -o " + file);
      if (format == IMG_FORMAT_RLA) clear_storage_types(scratch, name);
      test::expect_equal(test::read_image(file, IMG_TYPE_FILE), image);
    }
  }
}

}  // namespace
