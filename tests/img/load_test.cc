// Files as images in one call, and planes by component.
#include <ka/imgload.h>
#include <ka/mem.h>

#include "pictures.h"

namespace {

TEST(Load, GivesTheWholeImageOrNothing) {
  const test::Scratch scratch;
  const std::string path = scratch.write("two.ppm", "P3\n1 2\n255\n1 2 3 4 5 6\n");
  const test::Image image(ka_img_load(path.c_str(), IMG_TYPE_RGB_16));
  ASSERT_TRUE(image);
  EXPECT_EQ(test::lines_of(image.get()),
            (test::Lines{{{1024}, {1280}, {1536}}, {{256}, {512}, {768}}}));
  scratch.write("two.ppm", "P6 1 2 255\nabc");
  const test::MessageLog log;
  const auto before = ka_mem_getsize();
  EXPECT_EQ(ka_img_load(path.c_str(), IMG_TYPE_FILE), nullptr);
  EXPECT_EQ(ka_mem_getsize(), before);
  EXPECT_EQ(log.lines().size(), 1U);
}

}  // namespace
