// SGI images: the name in their header, floats, what a file is before it is closed, the end of the
// row tables.
#include <errno.h>
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstring>

#include "pictures.h"

namespace {

constexpr int kSgi = IMG_FORMAT_RGB, k8 = IMG_TYPE_RGB;

// Headers hold up to 80 characters of the name as it was given.
TEST(Sgi, WritesTheseBytes) {
  constexpr std::size_t name_offset = 24, name_bytes = 80;
  for (const std::string golden : {"written", "written_16_bits"}) {
    const std::string golden_path = LUMORA_CORPUS "/rgb/" + golden + ".case";
    const test::Image image = test::read_image(golden_path, IMG_TYPE_FILE);
    for (const std::size_t length : {std::size_t{1}, name_bytes + 10}) {
      const test::Scratch scratch;
      const std::string path = scratch.path(std::string(length, 'n'));
      ASSERT_EQ(test::write_image(path, kSgi, image.get()), IMG_ERR_NONE);
      std::string expected = test::read_file(golden_path);
      const std::string name = path.substr(0, name_bytes);
      EXPECT_EQ(test::read_file(path), expected.replace(name_offset, name.size(), name));
    }
  }
}

// Files of 4 GiB take long to write: the offset of the next row is found in the driver's state, where
// nothing else has its value, and moved.
void move_next_row(img_file* handle, std::uint64_t from, std::uint64_t to) {
  auto* word = static_cast<unsigned char*>(handle->data.p);
  while (std::memcmp(word, &from, sizeof from) != 0) word += sizeof from;
  std::memcpy(word, &to, sizeof to);
}

TEST(Sgi, TablesEndAt4GiB) {
  constexpr std::uint64_t first_row = 512 + 8 * 3 * 2, line_bytes = 3 * 3, most = 0xffffffff;
  for (const std::uint64_t past : {std::uint64_t{0}, std::uint64_t{1}}) {
    test::NewFile file(kSgi, k8, 2, 2);
    ASSERT_TRUE(file.write_line());
    move_next_row(file, first_row + line_bytes, most - line_bytes + past);
    EXPECT_EQ(file.write_line(), past == 0);
    EXPECT_EQ(std::pair(file->error, file->os_error),
              past == 0 ? std::pair(0, 0) : std::pair(int(IMG_ERR_WRITE), EFBIG));
  }
}

TEST(Sgi, FloatsBecomeSamplesOf16Bits) {
  const auto number = [](float value) { return std::bit_cast<std::uint32_t>(value); };
  const test::Planes floats = {{0, number(1), number(0.5F), number(2)},
                               {number(-1), number(NAN), number(INFINITY), number(-INFINITY)},
                               {0, 0, 0, 0}};
  // 0.5 * 65535 = 32767.5
  test::expect_picture({"",
                        test::written(kSgi, IMG_TYPE_RGB_FP, {floats}),
                        kSgi,
                        IMG_TYPE_RGB_16,
                        {{{0, 65535, 32767, 65535}, {0, 0, 65535, 0}, {0, 0, 0, 0}}}});
}

// A file is no picture before it is closed; lines that were not written are corrupt then.
TEST(Sgi, FilesAreWholeWhenTheyAreClosed) {
  for (const int lines : {1, 2, 3}) {
    SCOPED_TRACE(lines);
    test::NewFile file(kSgi, k8, 1, 2);
    for (int y = 0; y < lines; ++y) EXPECT_EQ(file.write_line(), y < 2);
    EXPECT_EQ(file->error, lines > 2 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    EXPECT_FALSE(test::exists(file.path()) && test::OpenFile(file.contents()).is_open());
    file.close();
    ASSERT_EQ(test::exists(file.path()), lines <= 2);
    const int second = lines == 1 ? IMG_ERR_CORRUPT : IMG_ERR_NONE;
    if (lines > 2) continue;
    EXPECT_EQ(test::line_errors(file.contents()), (std::vector<int>{IMG_ERR_NONE, second}));
  }
}

}  // namespace
