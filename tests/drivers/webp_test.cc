// WebP pictures.
#include <ka/drivers.h>

#include <bit>

#include "pixels.h"

namespace {

using test::little;

std::string chunk(const std::string& name, const std::string& content) {
  return name + little(content.size(), 4) + content + std::string(content.size() % 2, '\0');
}

std::string riff(const std::string& chunks) {
  return "RIFF" + little(chunks.size() + 4, 4) + "WEBP" + chunks;
}

// The file of a picture, without its container.
std::string written(const test::Scratch& scratch, img_image* image) {
  EXPECT_EQ(test::write_image(scratch.path("w"), KA_DRIVERS_WEBP, image), IMG_ERR_NONE);
  return test::read_file(scratch.path("w")).substr(12);
}

TEST(Webp, ReadsWhatItWrites) {
  const test::Scratch scratch;
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA}) {
    const test::Image image = test::runs_picture(type, 301, 17);
    ASSERT_EQ(test::write_image(scratch.path("a"), KA_DRIVERS_WEBP, image.get()), IMG_ERR_NONE);
    const test::Image again = test::read_image(scratch.path("a"), IMG_TYPE_FILE);
    test::expect_equal(again, image);
    EXPECT_EQ(again->type, type);
  }
}

TEST(Webp, IsLossyWithAQuality) {
  const test::Scratch scratch;
  const test::Image image = test::runs_picture(IMG_TYPE_RGB, 64, 64);
  const auto path = scratch.path("a");
  test::Handle file;
  file->file_type = IMG_TYPE_RGB;
  ASSERT_TRUE(ka_img_create(file, path.c_str(), IMG_TYPE_RGB, KA_DRIVERS_WEBP, 64, 64));
  file->parameters[0] = std::bit_cast<std::uint32_t>(50.0F);
  EXPECT_TRUE(ka_img_image_write(file, image.get()) && ka_img_close(file));
  EXPECT_EQ(test::read_file(path).substr(12, 4), "VP8 ");
  EXPECT_EQ(test::decode(path).lines, 64);
}

TEST(Webp, GivesTheLinesBeforeTheEndOfAShortFile) {
  const test::Scratch scratch;
  const test::Image image = test::runs_picture(IMG_TYPE_RGB, 301, 200);
  const std::string file = riff(written(scratch, image.get()));
  const std::string whole = test::decode(scratch.write("a", file)).pixels;
  const auto cut = test::decode(scratch.write("b", file.substr(0, file.size() / 2)));
  EXPECT_EQ(cut.error, IMG_ERR_READ);
  EXPECT_GT(cut.lines, 0);
  EXPECT_EQ(cut.pixels, whole.substr(0, cut.pixels.size()));
}

// Two pixels in the lower right corner of a canvas, 2 to the right and 2 down.
TEST(Webp, PutsTheFirstFrameOnItsCanvas) {
  const test::Scratch scratch;
  const test::Image image = test::make_image(IMG_TYPE_RGB, 2, 1);
  for (const std::size_t slot : {test::kR, test::kG, test::kB})
    test::plane(image.get(), 0, slot)[1] = 9;
  const std::string picture = written(scratch, image.get());
  const auto animation = [&](std::size_t canvas_width, std::size_t left) {
    const std::string frame = little(left / 2, 3) + little(1, 3) + little(1, 3) + little(0, 3) +
                              little(100, 3) + '\0' + picture;
    const std::string canvas =
        std::string("\2\0\0\0", 4) + little(canvas_width - 1, 3) + little(2, 3);
    return scratch.write(
        "a", riff(chunk("VP8X", canvas) + chunk("ICCP", "abc") + chunk("ANIM", "123456") +
                  chunk("ANMF", frame) + chunk("ANMF", frame)));
  };
  const auto got = test::decode(animation(4, 2));
  const std::string clear(32, '0');
  EXPECT_EQ(got.pixels, clear + ' ' + clear + ' ' + clear.substr(16) + "000000ff090909ff ");
  EXPECT_EQ(got.error, IMG_ERR_NONE);
  test::Handle file;
  EXPECT_TRUE(ka_img_open(file, scratch.path("a").c_str(), IMG_TYPE_FILE));
  EXPECT_NE(file->profile, 0U);
  EXPECT_EQ(test::decode(animation(4, 4)).error, IMG_ERR_CORRUPT);
  EXPECT_EQ(test::decode(animation(std::size_t{1} << 24, 2)).error, IMG_ERR_READ);
}

TEST(Webp, RefusesWhatIsNoPictureOrCostsTooMuch) {
  const test::Scratch scratch;
  EXPECT_EQ(test::decode(scratch.write("a", riff(""))).error, IMG_ERR_READ);
  EXPECT_EQ(test::decode(scratch.write("a", riff(chunk("VP8L", "abcdefghijkl")))).error,
            IMG_ERR_CORRUPT);
  // A lossless header: 14 bits of width and height less one, then the picture
  const std::string large = std::string("\x2f\xff\xff\xff\x0f", 5) + std::string(16, '\0');
  EXPECT_EQ(test::decode(scratch.write("a", riff(chunk("VP8L", large)))).error, IMG_ERR_SUBTYPE);
}

}  // namespace
