// Image buffers: their sizes, what damaged headers cost, reading and writing them whole, lines in other
// types; names of types and formats.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>

#include "hostile.h"
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
              {IMG_TYPE_S, 1, -1, 0},
              {IMG_TYPE_COUNT, 1, 1, 0}};
  for (const auto& [type, width, height, bytes] : rows) {
    img_file shape{};
    shape.type = type;
    shape.width = width;
    shape.height = height;
    EXPECT_EQ(ka_img_image_size(&shape), bytes) << width << " x " << height;
    const bool is_type = type != IMG_TYPE_COUNT;
    EXPECT_EQ(shape.error, bytes ? IMG_ERR_NONE : is_type ? IMG_ERR_SUBTYPE : IMG_ERR_ARGUMENT);
    EXPECT_EQ(shape.os_error, bytes || !is_type ? 0 : EFBIG);
    EXPECT_TRUE(bytes > 0 || !ka_img_image_alloc(&shape));
  }
}

// No buffer is made for such a line, whatever its type is.
TEST(Cost, LinesThatTheFileCannotHoldFailWithoutABuffer) {
  int count = 0;
  for (const auto& [name, bytes, same] : test::hostile_pairs()) {
    if (!name.ends_with("_columns") || name.find("packed") != std::string::npos) continue;
    SCOPED_TRACE(name);
    for (const int type : {int(IMG_TYPE_FILE), int(IMG_TYPE_RGBA), int(IMG_TYPE_RGB_FP)}) {
      const test::Scratch scratch;
      test::Handle file;
      if (!ka_img_open(file, scratch.write("a", bytes).c_str(), type)) continue;
      const test::Line line(ka_img_line_alloc(file));
      EXPECT_TRUE(std::ranges::all_of(line->offset, [](auto offset) { return offset == 0; }));
      for (int i = 0; i < 2; ++i) {
        file->error = IMG_ERR_NONE;
        EXPECT_FALSE(ka_img_line_read(file, line.get()));
        EXPECT_TRUE(file->error == IMG_ERR_READ || file->error == IMG_ERR_CORRUPT) << file->error;
        EXPECT_EQ(file->os_error, 0);
        EXPECT_EQ(file->line_count, i + 1);
      }
      EXPECT_EQ(file->conversion, nullptr);
      ++count;
    }
  }
  EXPECT_GE(count, 3 * 6);
}

TEST(Types, HaveNumbersForNamesOnly) {
  const std::pair<const char*, int> rows[] = {
      {"contour", 23}, {"fb0", 24}, {"fb7", 31}, {"fb8", 21},  {"fb99999999999", 21},
      {"fb", 24},      {"RGB", 21}, {"", 21},    {"rgb ", 21}, {"contours", 21}};
  for (const auto& [name, number] : rows) EXPECT_EQ(ka_img_type_identify(name), number) << name;
  EXPECT_STREQ(ka_img_type_name(23), "contour");
  EXPECT_STREQ(ka_img_type_name(31), "fb7");
  for (const int none : {-1, 21, 22, 32}) EXPECT_EQ(ka_img_type_name(none), nullptr) << none;
}

// What programs pass as a reason stays a line, and goes with the error that it belongs to.
TEST(Reason, OfAProgramsOwnDriverIsCleaned) {
  img_file file{};
  ka_img_custom_format_refuse(&file, IMG_ERR_SUBTYPE, 0, "depth\n\x1b[2J%s \xc3\xa4");
  EXPECT_STREQ(file.reason, "depth??[2J%s ??");
  ka_img_custom_format_refuse(&file, IMG_ERR_SUBTYPE, 0, std::string(500, 'x').c_str());
  EXPECT_EQ(file.reason, std::string(IMG_REASON_SIZE - 1, 'x'));
  ka_img_custom_format_refuse(&file, IMG_ERR_SUBTYPE, 0, file.reason + IMG_REASON_SIZE - 4);
  EXPECT_STREQ(file.reason, "xxx");
  ka_img_custom_format_refuse(&file, IMG_ERR_READ, EIO, "the disk");
  EXPECT_STREQ(file.reason, "");
}

}  // namespace
