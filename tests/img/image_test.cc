// Image buffers: their layout, reading and writing them whole, lines in other types.
#include <errno.h>
#include <gtest/gtest.h>

#include "support.h"

namespace {

constexpr int kAllTypes = IMG_TYPE_COUNT;

// Types whose one plane stands in the last slot.
bool stands_in_alpha(int type) {
  const std::string name = ka_img_type_name(type);
  return name == "a" || name == "a_16" || name == "s" || name == "s_16" || name == "bit" ||
         type == IMG_TYPE_A_FP || type == IMG_TYPE_S_FP;
}

std::uint32_t word(const img_image* image, std::size_t offset) {
  return reinterpret_cast<const std::uint32_t*>(image)[offset / 4];
}

TEST(ImageBuffer, LiesInMemoryAsItStandsInFiles) {
  constexpr int width = 5, height = 3;
  for (int type = 0; type < kAllTypes; ++type) {
    SCOPED_TRACE(type);
    const test::Image image = test::make_image(type, width, height);
    const auto components = std::uint32_t(ka_img_ncomp[type]);
    const std::uint32_t bytes = std::uint32_t(width * ((ka_img_nbits[type] + 7) / 8));
    EXPECT_EQ(word(image.get(), 88), 5u);  // width and height
    EXPECT_EQ(word(image.get(), 92), 3u);
    EXPECT_EQ(word(image.get(), 96), std::uint32_t(ka_img_nbits[type]));
    EXPECT_EQ(word(image.get(), 100), components);
    std::uint32_t next = 120 + 16 * height;
    for (std::size_t y = 0; y < height; ++y) {
      for (std::size_t slot = 0; slot < 4; ++slot) {
        const bool present = stands_in_alpha(type) ? slot == 3 : slot < components;
        EXPECT_EQ(word(image.get(), 120 + 16 * y + 4 * slot), present ? next : 0)
            << y << " " << slot;
        if (present) next += bytes;
      }
    }
  }
}

TEST(ImageBuffer, SizesThatOffsetsCannotReachAreRefused) {
  const struct {
    int type, width, height;
    std::size_t bytes;  // 0: refused
  } rows[] = {{IMG_TYPE_RGBA, 30000, 30000, 30000ull * (4 * 30000 + 16) + 120},
              {IMG_TYPE_RGBA, 32768, 32768, 0},
              {IMG_TYPE_RGBA, 0x7fffffff, 0x7fffffff, 0},
              // 2 * (2147483570 + 16) + 120 = 4294967292; one pixel more is rounded up to 2^32
              {IMG_TYPE_S, 2147483570, 2, 4294967292},
              {IMG_TYPE_S, 2147483571, 2, 0},
              {IMG_TYPE_S, 0, 0, 120},
              {IMG_TYPE_S, -1, 1, 0},
              {IMG_TYPE_S, 1, -1, 0}};
  for (const auto& [type, width, height, bytes] : rows) {
    img_file shape{};
    shape.type = type;
    shape.width = width;
    shape.height = height;
    EXPECT_EQ(ka_img_image_size(&shape), bytes) << width << " x " << height;
    EXPECT_EQ(shape.error, bytes ? IMG_ERR_NONE : IMG_ERR_SUBTYPE);
    EXPECT_EQ(shape.os_error, bytes ? 0 : EFBIG);
    if (bytes > 0) continue;
    EXPECT_EQ(ka_img_image_alloc(&shape), nullptr);
  }
}

class ImageFile : public testing::Test {
 protected:
  test::Scratch scratch;
  test::Handle file;
};

TEST_F(ImageFile, LinesBeforeAFailureStay) {
  const std::string path = scratch.write("a", "P6\n1 3\n255\nabcdefgh");
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_RGBA));
  const test::Image image(ka_img_image_alloc(file));
  EXPECT_FALSE(ka_img_image_read(file, image.get()));
  EXPECT_EQ(file->error, IMG_ERR_READ);
  EXPECT_EQ(file->line_count, 3);
  EXPECT_EQ(test::plane(image.get(), 2, test::kR)[0], 'a');
  EXPECT_EQ(test::plane(image.get(), 1, test::kB)[0], 'f');
  EXPECT_EQ(test::plane(image.get(), 0, test::kR)[0], 0);
}

TEST_F(ImageFile, WholeImagesStartAtTheFirstLine) {
  const std::string path = scratch.write("a", "P6\n1 2\n255\nabcdef");
  const test::Image image = test::make_image(IMG_TYPE_RGB, 1, 2);
  ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_RGB));
  const test::Line line(ka_img_line_alloc(file));
  EXPECT_TRUE(ka_img_line_read(file, line.get()));
  EXPECT_FALSE(ka_img_image_read(file, image.get()));
  EXPECT_EQ(file->error, IMG_ERR_NOT_OPEN);
  ka_img_close(file);

  file->file_type = IMG_TYPE_RGB;
  ASSERT_TRUE(ka_img_create(file, path.c_str(), IMG_TYPE_RGB, IMG_FORMAT_PPM, 1, 2));
  EXPECT_TRUE(ka_img_line_write(file, line.get()));
  EXPECT_FALSE(ka_img_image_write(file, image.get()));
  EXPECT_EQ(file->error, IMG_ERR_NOT_OPEN);
  EXPECT_FALSE(test::exists(path));
}

TEST_F(ImageFile, LinesAreConvertedToTheFilesType) {
  const std::string path = scratch.path("a");
  const test::Image image = test::make_image(IMG_TYPE_RGBA, 1, 1);
  for (std::size_t slot = 0; slot < 4; ++slot) {
    *test::plane(image.get(), 0, slot) = std::uint8_t('w' + slot);
  }
  file->file_type = IMG_TYPE_RGB;
  ASSERT_TRUE(ka_img_create(file, path.c_str(), IMG_TYPE_RGBA, IMG_FORMAT_PPM, 1, 1));
  EXPECT_TRUE(ka_img_image_write(file, image.get()));
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_EQ(test::read_file(path).substr(44), "wxy");
}

}  // namespace
