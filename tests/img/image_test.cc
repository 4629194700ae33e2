// Image buffers: their sizes, reading and writing them whole, lines in other types.
#include <errno.h>
#include <gtest/gtest.h>

#include "pictures.h"

namespace {

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

// Tables of lines without pixels, and lines of a format whose packing is not known here.
TEST(ImageBuffer, HeightsOfShortFilesHaveALimit) {
  const struct {
    int format, width;
    bool accepted;
  } rows[] = {{IMG_FORMAT_TIF, 1, false}, {IMG_FORMAT_TIF, 0, true}, {IMG_FORMAT_CUSTOM, 1, true}};
  for (const auto& [format, width, accepted] : rows) {
    img_file shape{};
    shape.format = format;
    shape.width = width;
    shape.height = 1 << 17;
    shape.file_size = 100;
    EXPECT_EQ(ka_img_image_size(&shape) != 0, accepted) << format << " " << width;
  }
}

TEST(ImageBuffer, TypesOutOfRangeHaveNoLayout) {
  const test::Image image = test::make_image(IMG_TYPE_S, 1, 1);
  for (const int type : {-1, int(IMG_TYPE_COUNT), int(IMG_TYPE_FILE)}) {
    img_file shape{};
    img_line line{};
    int components, bits;
    shape.type = type;
    EXPECT_EQ(ka_img_image_alloc(&shape), nullptr);
    EXPECT_EQ(shape.error, IMG_ERR_ARGUMENT);
    EXPECT_EQ(ka_img_line_alloc(&shape), nullptr);
    EXPECT_FALSE(ka_img_convert(&line, &components, &bits, image.get(), 0, type));
  }
}

// Without a message about types that nothing converts to.
TEST(ImageBuffer, LinesOfCompatibleTypesAreCopied) {
  const test::MessageLog log;
  for (const auto& [from, to] : {std::pair{IMG_TYPE_A, IMG_TYPE_S},
                                 {IMG_TYPE_S_16, IMG_TYPE_A_16},
                                 {IMG_TYPE_VTA, IMG_TYPE_VTS},
                                 {IMG_TYPE_VTS, IMG_TYPE_VTA},
                                 {IMG_TYPE_COVERAGE, IMG_TYPE_Z},
                                 {IMG_TYPE_N, IMG_TYPE_M},
                                 {IMG_TYPE_A_FP, IMG_TYPE_S_FP}}) {
    SCOPED_TRACE(from);
    const auto count = std::size_t(ka_img_ncomp[from]);
    const test::Planes planes(count, {0x3f, 0x2f, 0x1f});
    const test::Image source = test::make_picture(from, 3, {planes});
    const test::Image copy = test::make_image(to, 3, 1);
    img_line line;
    test::point_at(line, copy.get(), 0);
    int components, bits;
    EXPECT_TRUE(ka_img_convert(&line, &components, &bits, source.get(), 0, to));
    EXPECT_EQ(test::planes_of(copy.get(), 0), planes);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(ImageFile, LinesBeforeAFailureStay) {
  test::OpenFile file("P6\n1 3\n255\nabcdefgh", IMG_TYPE_RGBA);
  const test::Image image(ka_img_image_alloc(file));
  EXPECT_FALSE(ka_img_image_read(file, image.get()));
  EXPECT_EQ(file->error, IMG_ERR_READ);
  EXPECT_EQ(file->line_count, 3);
  EXPECT_EQ(test::planes_of(image.get(), 2), (test::Planes{{'a'}, {'b'}, {'c'}, {255}}));
  EXPECT_EQ(test::planes_of(image.get(), 1), (test::Planes{{'d'}, {'e'}, {'f'}, {255}}));
  EXPECT_EQ(test::plane(image.get(), 0, test::kR)[0], 0);
}

TEST(ImageFile, WholeImagesStartAtTheFirstLine) {
  const test::Image image = test::make_image(IMG_TYPE_RGB, 1, 2);
  test::OpenFile in("P6\n1 2\n255\nabcdef", IMG_TYPE_RGB);
  EXPECT_TRUE(in.read_line());
  EXPECT_FALSE(ka_img_image_read(in, image.get()));
  EXPECT_EQ(in->error, IMG_ERR_NOT_OPEN);

  test::NewFile out(IMG_FORMAT_PPM, IMG_TYPE_RGB, 1, 2);
  EXPECT_TRUE(out.write_line());
  EXPECT_FALSE(ka_img_image_write(out, image.get()));
  EXPECT_EQ(out->error, IMG_ERR_NOT_OPEN);
  EXPECT_FALSE(test::exists(out.path()));
}

TEST(ImageFile, LinesAreConvertedToTheFilesType) {
  const test::Scratch scratch;
  const std::string path = scratch.path("a");
  const test::Image image = test::make_picture(IMG_TYPE_RGBA, 1, {{{'w'}, {'x'}, {'y'}, {'z'}}});
  test::Handle file;
  file->file_type = IMG_TYPE_RGB;
  ASSERT_TRUE(ka_img_create(file, path.c_str(), IMG_TYPE_RGBA, IMG_FORMAT_PPM, 1, 1));
  EXPECT_TRUE(ka_img_image_write(file, image.get()));
  EXPECT_TRUE(ka_img_close(file));
  EXPECT_EQ(test::read_file(path).substr(44), "wxy");
}

}  // namespace
