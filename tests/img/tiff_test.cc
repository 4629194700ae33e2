// TIFF images: an error that a handle keeps, files that are read while they are written.
#include <gtest/gtest.h>

#include "formats/drivers.h"
#include "pictures.h"

namespace {

using test::bytes, test::le;

// What a file says about different bits is an error that stays with the handle; pixels are read by
// the first of them.
TEST(Tiff, DifferentBitsAreTold) {
  test::OpenFile in(test::read_file(LUMORA_CORPUS "/tif/different_bits.case"));
  EXPECT_EQ(in->error, IMG_ERR_SUBTYPE);
  ASSERT_TRUE(in.read_line());
  EXPECT_EQ(in.planes(), (test::Planes{{'a'}, {'b'}, {'c'}}));
}

// The first of two lines can be read while the file is being written; the file then goes on.
TEST(TiffFile, CanBeReadAfterAFlush) {
  test::NewFile file(IMG_FORMAT_TIF, IMG_TYPE_RGB, 2, 2);
  for (std::size_t slot = 0; slot < 3; ++slot) {
    test::set_samples<std::uint8_t>(test::plane(file.line(), slot), {4, 4});
  }
  ASSERT_TRUE(file.write_line());
  ASSERT_TRUE(ka::img_flush_tiff(file));
  const std::string flushed = file.contents();
  EXPECT_EQ(flushed.substr(128, 4), le(4, 2));
  EXPECT_EQ(flushed.substr(204), bytes({251, 4}));
  test::OpenFile in(flushed);
  EXPECT_TRUE(in.read_line());
  EXPECT_EQ(in.planes(), test::flat(2, {4, 4, 4}));
  EXPECT_FALSE(in.read_line());
  ASSERT_TRUE(file.write_line());
  ASSERT_TRUE(file.close());
  EXPECT_EQ(file.contents().substr(128, 4), le(4, 4));
  EXPECT_EQ(file.contents().substr(204), bytes({251, 4, 251, 4}));
}

}  // namespace
