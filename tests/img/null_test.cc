// The null format: every line is taken, of every pixel type, and nothing is left.
#include <gtest/gtest.h>

#include "imgcall.h"
#include "pictures.h"

namespace {

TEST(Null, TakesLinesOfEveryTypeAndLeavesNoFile) {
  const test::Scratch scratch;
  const std::string path = scratch.path("a");
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    SCOPED_TRACE(type);
    const test::MessageLog log;
    test::Handle file;
    file->file_type = std::uint8_t(type);
    ASSERT_TRUE(ka_img_create(file, path.c_str(), type, IMG_FORMAT_NULL, 3, 2));
    EXPECT_EQ(file->file_type, type);
    EXPECT_EQ(log.lines(), std::vector<std::string>{});  // no type has to be replaced
    const test::Image image = test::make_image(type, 3, 2);
    EXPECT_TRUE(ka_img_image_write(file, image.get()));
    EXPECT_EQ(file->line_count, 2);
    EXPECT_EQ(test::read_file(path), "");
    EXPECT_TRUE(ka_img_close(file));
    EXPECT_FALSE(test::exists(path));
  }
}

// What a picture is written over is gone, as with any other format.
TEST(Null, ReplacesAFile) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", "something");
  const test::Image image = test::make_image(IMG_TYPE_RGBA, 1, 1);
  EXPECT_EQ(test::write_image(path, IMG_FORMAT_NULL, image.get()), IMG_ERR_NONE);
  EXPECT_FALSE(test::exists(path));
}

TEST(Null, LeavesLinksAndDevices) {
  const test::Scratch scratch;
  const std::string target = scratch.write("target", "something"), link = scratch.path("link");
  std::filesystem::create_symlink(target, link);
  const test::Image image = test::make_image(IMG_TYPE_RGBA, 1, 1);
  for (const std::string& path : {link, std::string("/dev/null")}) {
    EXPECT_EQ(test::write_image(path, IMG_FORMAT_NULL, image.get()), IMG_ERR_NONE);
    EXPECT_TRUE(test::exists(path));
  }
}

// It accepts whatever it is asked about, and yet no file is one of its own.
TEST(Null, OpensNothing) {
  const test::Scratch scratch;
  int error = IMG_ERR_NONE;
  EXPECT_FALSE(test::read_image(scratch.write("a", "anything"), IMG_TYPE_RGBA, &error));
  EXPECT_EQ(error, IMG_ERR_FORMAT);

  const img_driver& driver = img_format_at(IMG_FORMAT_NULL).driver;
  const std::uint8_t head[IMG_HEAD_SIZE] = {};
  img_file handle{};
  EXPECT_TRUE(driver.test(&handle, head));
  EXPECT_FALSE(driver.open(&handle, head));
  EXPECT_EQ(handle.error, IMG_ERR_OPEN);
  img_line line{};
  EXPECT_TRUE(driver.read(&handle, &line));
}

}  // namespace
