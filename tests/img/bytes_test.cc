// Bytes to numbers and back, and products that do not fit.
#include "bytes.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

// A field that is cut off reads as 0, and so does everything behind it.
TEST(ByteCursor, ReadsBothByteOrdersUpToTheEnd) {
  const Bytes bytes = {0xff, 0x12, 0x34, 0x12, 0x34, 0x81, 2, 3, 4, 0x81, 2, 3, 4, 5, 6};
  ka::ByteCursor in(bytes);
  EXPECT_EQ(in.u8(), 0xff);
  EXPECT_EQ(in.be16(), 0x1234);
  EXPECT_EQ(in.le16(), 0x3412);
  EXPECT_EQ(in.be32(), 0x81020304);
  EXPECT_EQ(in.le32(), 0x04030281u);
  EXPECT_EQ(in.left(), 2u);
  EXPECT_TRUE(in.take(3).empty());
  EXPECT_FALSE(in);
  EXPECT_EQ(in.u8(), 0);
  EXPECT_EQ(in.left(), 0u);
}

TEST(ByteWriter, WritesBothByteOrdersAndTexts) {
  Bytes bytes(23, 0xee);
  ka::ByteWriter out(bytes);
  out.u8(0x1ff);  // fields keep the bits that they have room for
  out.be16(0x1234);
  out.le16(0x1234);
  out.be32(0x81020304);
  out.le32(0x81020304);
  out.text("abc", 2);
  out.text("abc", 3);
  out.text("d", 3);
  out.zeros(1);
  EXPECT_EQ(bytes, (Bytes{0xff, 0x12, 0x34, 0x34, 0x12, 0x81, 2,   3, 4, 4, 3,   2,
                          0x81, 'a',  'b',  'a',  'b',  'c',  'd', 0, 0, 0, 0xee}));
}

TEST(CheckedProduct, IsEmptyWhenItDoesNotFit) {
  constexpr std::uint64_t most = std::numeric_limits<std::uint64_t>::max();
  EXPECT_EQ(ka::checked_product(3, std::uint8_t{4}, 5L), 60u);
  EXPECT_EQ(ka::checked_product(1U << 31, 1U << 31, 3), std::uint64_t{3} << 62);
  EXPECT_EQ(ka::checked_product(1U << 31, 1U << 31, 4), std::nullopt);
  EXPECT_EQ(ka::checked_product(-1, 1), std::nullopt);
  EXPECT_EQ(ka::checked_product(most, 2, 0), std::nullopt);  // before the 0 it did not fit
}

}  // namespace
