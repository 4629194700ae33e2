// The formats null and lwi take lines and keep none of them.
#include <gtest/gtest.h>

#include "imgcall.h"
#include "pictures.h"

namespace {

TEST(Lwi, TakesLinesAndWritesNothing) {
  EXPECT_EQ(test::written(IMG_FORMAT_LWI, IMG_TYPE_RGB, {test::flat(2, {1, 3, 5})}), "");
}

TEST(Null, TakesLinesOfEveryTypeAndLeavesNoFile) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", "something");
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    const test::MessageLog log;
    const test::Image image = test::make_image(type, 3, 2);
    EXPECT_EQ(test::write_image(path, IMG_FORMAT_NULL, image.get()), IMG_ERR_NONE) << type;
    EXPECT_EQ(log.lines(), std::vector<std::string>{}) << type;  // no type has to be replaced
    EXPECT_FALSE(test::exists(path));
  }
}

TEST(Null, LeavesLinksAndDevices) {
  const test::Scratch scratch;
  std::filesystem::create_symlink(scratch.write("target", "something"), scratch.path("link"));
  const test::Image image = test::make_image(IMG_TYPE_RGBA, 1, 1);
  for (const std::string& path : {scratch.path("link"), std::string("/dev/null")}) {
    EXPECT_EQ(test::write_image(path, IMG_FORMAT_NULL, image.get()), IMG_ERR_NONE);
    EXPECT_TRUE(test::exists(path));
  }
}

// It accepts whatever it is asked about, and yet no file is one of its own.
TEST(Null, OpensNothing) {
  test::expect_refusal({"", "anything", IMG_ERR_FORMAT});
  const ka::img_driver& driver = ka::img_format_at(IMG_FORMAT_NULL).driver;
  const std::uint8_t head[IMG_HEAD_SIZE] = {};
  img_file handle{};
  EXPECT_TRUE(driver.test(&handle, head));
  EXPECT_FALSE(driver.open(&handle, head));
  EXPECT_EQ(handle.error, IMG_ERR_OPEN);
}

}  // namespace
