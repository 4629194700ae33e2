// Softimage PIC images: settings of the handle that the header has.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>

#include "pictures.h"

namespace {

TEST(Pic, HeaderHasTheSettings) {
  const struct {
    float aspect, fields, written_aspect;
    int written_fields;
  } rows[] = {{0, 0, 1, 3},  {1.25F, 1, 1.25F, 1}, {-2, 2.9F, -2, 2},  {1, 4, 1, 0},
              {1, -1, 1, 3}, {1, NAN, 1, 0},       {1, INFINITY, 1, 0}};
  for (const auto& [aspect, fields, written_aspect, written_fields] : rows) {
    test::NewFile out(IMG_FORMAT_PIC, IMG_TYPE_RGBA, 1, 1);
    out->aspect = aspect;
    out->parameters[1] = std::bit_cast<std::uint32_t>(fields);
    ASSERT_TRUE(out.write_line());
    ASSERT_TRUE(out.close());
    EXPECT_EQ(
        out.contents().substr(96, 6),
        test::be(4, std::bit_cast<std::uint32_t>(written_aspect)) + test::be(2, written_fields));
    EXPECT_EQ(test::OpenFile(out.contents())->aspect, aspect > 0 ? aspect : 1);
  }
}

}  // namespace
