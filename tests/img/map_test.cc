// Memory-mapped textures: the bytes that are written, files of the other byte order, damaged levels
// and tables, images in mappings and how long they live.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "cached.h"
#include "imgmap.h"
#include "lib/messages.h"
#include "pictures.h"

namespace {

using test::kMapHeader, test::kMapTable, test::le;

constexpr std::size_t kLevels = kMapHeader + 4, kEntry = kMapHeader + 8;  // the level directory
constexpr std::size_t kWidth = kMapHeader + 88, kBits = kMapHeader + 96;
constexpr std::size_t kComponents = kMapHeader + 100;
constexpr std::size_t kFlags = kMapHeader + 104, kType = kMapHeader + 108;

std::string map_file(img_image* image, int pyramid = 0) {
  const test::Scratch scratch;
  test::write_texture(scratch.path("a"), image, pyramid);
  return test::read_file(scratch.path("a"));
}
std::string map_file(int type, int width, int height, int pyramid = 0) {
  return map_file(test::random_image(type, width, height).get(), pyramid);
}

std::uint32_t word(const std::string& file, std::size_t at) {
  std::uint32_t value;
  file.copy(reinterpret_cast<char*>(&value), sizeof value, at);
  return value;
}
std::string with_word(std::string file, std::size_t at, std::int64_t value) {
  return file.replace(at, 4, le(4, value));
}

class EveryType : public testing::TestWithParam<int> {};

// In either byte order.
TEST_P(EveryType, ComesBack) {
  const test::Image image = test::random_image(GetParam(), 5, 3);
  const std::string file = map_file(image.get()), other = test::from_other_host(file);
  for (const std::string& readable : {file, other}) {
    test::expect_picture({"", readable, IMG_FORMAT_MAP, GetParam(), test::lines_of(image.get())});
  }
  test::OpenFile in(other);
  EXPECT_EQ(messages_of([&] { EXPECT_EQ(ka_img_mmap_address(in), nullptr); }, kReports).size(), 1U);
}

// The levels are those that an image in memory gets. The picture in the mapping is written again.
TEST_P(EveryType, IsUsedInItsMappingWithAllLevels) {
  const test::Image image = test::random_image(GetParam(), 5, 7);
  test::OpenFile plain(map_file(image.get()));
  plain->pyramid = -3;
  const test::Image expected(ka_img_image_alloc(plain));
  ASSERT_TRUE(expected && ka_img_image_read(plain, expected.get()));
  const std::string file = map_file(image.get(), -3);
  test::OpenFile in(file);
  EXPECT_EQ(in->pyramid, -3);
  const test::Image mapped(ka_img_mmap_address(in));
  ASSERT_TRUE(mapped) << in->error;
  ka_img_close(in);  // the image stays
  ASSERT_EQ(mapped->levels, 3);
  for (int k = 0; k < mapped->levels; ++k) {
    const img_image* const level = test::level(mapped.get(), k);
    EXPECT_EQ(test::lines_of(level), test::lines_of(test::level(expected.get(), k))) << k;
    EXPECT_EQ(level->filter, -3.0F);
  }
  EXPECT_EQ(map_file(mapped.get(), -3), file);
}

INSTANTIATE_TEST_SUITE_P(Types, EveryType, testing::Range(0, int{IMG_TYPE_COUNT}));

TEST(MapFile, HeadersAndTablesThatContradictThemselvesAreRefused) {
  const std::string plain = map_file(IMG_TYPE_RGB_16, 3, 2), levels = map_file(IMG_TYPE_S, 4, 4, 1);
  test::expect_refusals({
      {"Version", with_word(plain, 8, 2), IMG_ERR_SUBTYPE},
      {"Type", with_word(plain, 4, IMG_TYPE_COUNT), IMG_ERR_CORRUPT},
      {"BitsOfAnotherType", with_word(plain, kBits, 8), IMG_ERR_CORRUPT},
      {"ComponentsOfAnotherType", with_word(plain, kComponents, 4), IMG_ERR_CORRUPT},
      {"NegativeWidth", with_word(plain, kWidth, -3), IMG_ERR_CORRUPT},
      {"MoreThanOffsetsHold", with_word(plain, kWidth, 0x7fffffff), IMG_ERR_CORRUPT},
      {"NegativeLevels", with_word(plain, kLevels, -1), IMG_ERR_CORRUPT},
      {"MoreLevelsThanItsSidesAllow", with_word(levels, kLevels, 4), IMG_ERR_CORRUPT},
      {"OneByteShort", plain.substr(0, plain.size() - 1), IMG_ERR_SIZE},
      {"HeaderCutOff", plain.substr(0, kMapTable - 1), IMG_ERR_SIZE},
      {"OneLevelWithoutTheOthers", with_word(plain, kLevels, 1), IMG_ERR_SIZE},
      {"PlaneInTheTable", with_word(plain, kMapTable + 16, 120 + 31), IMG_ERR_CORRUPT, 1},
      {"PlanePastTheLevel", with_word(plain, kMapTable + 16, 120 + 32 + 32), IMG_ERR_CORRUPT, 1},
      {"PlaneInsideASample", with_word(plain, kMapTable + 16, 120 + 33), IMG_ERR_CORRUPT, 1},
      {"PlaneMissing", with_word(plain, kMapTable + 24, 0), IMG_ERR_CORRUPT, 1},
      {"PlaneTooMany", with_word(plain, kMapTable + 28, 120 + 32), IMG_ERR_CORRUPT, 1},
      {"TwoPlacesForOnePlane", with_word(levels, kMapTable + 16, 120 + 64), IMG_ERR_CORRUPT, 1},
      {"LineBeyondTheLast", plain, IMG_ERR_READ, 2},
  });
  // the stored pyramid word: 2^31, the float before it, not a number
  const std::pair<std::uint32_t, int> filters[] = {
      {0x4f000000, 0}, {0x4effffff, 0x7fffff80}, {0x7fc00000, 0}, {0xc0700000, -3}};
  for (const auto& [bits, pyramid] : filters) {
    EXPECT_EQ(test::OpenFile(with_word(plain, kMapHeader, bits))->pyramid, pyramid);
  }
  // lines may share a plane
  const std::string shared = with_word(map_file(IMG_TYPE_S, 1, 2), kMapTable + 12, 120 + 32 + 1);
  const test::Planes plane = {{std::uint8_t(shared.end()[-3])}};
  test::expect_picture({"", shared, IMG_FORMAT_MAP, IMG_TYPE_S, {plane, plane}});
}

// Lines of the base can be read; the mapping is refused.
TEST(MapFile, LevelsThatContradictTheBaseAreNotMapped) {
  // 4 * (4 + 16) + 120 = 200, 2 * (2 + 16) + 120 = 156
  const std::string file = map_file(IMG_TYPE_S, 4, 4, 1);
  ASSERT_EQ(file.size(), 64U + 200 + 156 + 140);
  const std::size_t second = kMapHeader + 200, third = second + 156;
  const std::pair<const char*, std::string> rows[] = {
      {"DirectoryStartsElsewhere", with_word(map_file(IMG_TYPE_S, 4, 4) + "more", kEntry, 4)},
      {"LevelsOverlap", with_word(file, kEntry + 4, 196)},
      {"LevelInsideAWord", with_word(file + "xx", kEntry + 8, 358)},
      {"LevelBeforeTheOneAbove", with_word(file, kEntry + 8, 196)},
      {"LevelPastTheEnd", with_word(file, kEntry + 8, 360)},
      {"LevelFarPastTheEnd", with_word(file, kEntry + 8, 0xfffffffc)},
      {"FileEndsInALevel", file.substr(0, file.size() - 1)},
      {"HeldByTheCache", with_word(file, kFlags, 1 << 16)},
      {"OtherTypeInTheHeader", with_word(file, kType, IMG_TYPE_A)},
      {"OtherTypeInALevel", with_word(file, second + 108, 1000)},
      {"OtherWidthOfALevel", with_word(file, second + 88, 4)},
      {"OtherCountInALevel", with_word(file, second + 4, 3)},
      {"OtherDirectoryInALevel", with_word(file, second + 12, 152)},
      {"PlaneOfALevelPastIt", with_word(file, third + 120 + 12, 140)},
      {"OneLineInAnotherSlot",
       with_word(with_word(file, kMapTable + 16, word(file, kMapTable + 28)), kMapTable + 28, 0)},
  };
  const test::MessageLog log;  // some have more bytes than their picture
  for (const auto& [name, damaged] : rows) {
    SCOPED_TRACE(name);
    test::OpenFile in(damaged);
    ASSERT_TRUE(in.is_open());
    EXPECT_EQ(ka_img_mmap_address(in), nullptr);
    EXPECT_EQ(in->error, IMG_ERR_CORRUPT);
    for (int y = 0; y < 4; ++y) EXPECT_TRUE(in.read_line()) << y;
  }
}

TEST(MapFile, FilesThatAreShortenedMeanwhileAreErrors) {
  const std::string file = map_file(IMG_TYPE_RGBA_FP, 1000, 20);
  const test::MessageLog log;  // what could not be mapped is reported
  for (const std::uintmax_t size : {0U, 190U, 10000U}) {
    test::OpenFile in(file);
    std::filesystem::resize_file(in.path(), size);
    EXPECT_EQ(ka_img_mmap_address(in), nullptr);
    EXPECT_EQ(in->error, IMG_ERR_READ);
    EXPECT_FALSE(in.read_line());
    EXPECT_EQ(in->error, IMG_ERR_READ);
  }
}

bool is_mapped(const void* address) {
  unsigned char resident;
  return mincore(const_cast<void*>(address), 1, &resident) == 0;
}

// A file with more bytes than its picture is unmapped whole.
TEST(MapFile, ImagesAreUnmappedWhenTheyAreReleased) {
  const auto page = std::size_t(sysconf(_SC_PAGESIZE));
  std::string file = map_file(IMG_TYPE_S, 4, 4, 1);
  file.resize(3 * page);
  test::OpenFile in(file);
  img_image* first = nullptr;
  const Texts told = messages_of([&] { first = ka_img_mmap_address(in); }, KA_PROGRESS);
  EXPECT_TRUE(test::matches(told.at(0), "memory-mapping texture .* at 0x[0-9a-f]+"));
  img_image* const second = ka_img_mmap_address(in);
  ASSERT_TRUE(first && second && first != second);
  const auto* const start = reinterpret_cast<const std::uint8_t*>(first) - kMapHeader;
  EXPECT_TRUE(is_mapped(start + 2 * page));
  ka_img_image_release(first);
  EXPECT_FALSE(is_mapped(start));
  EXPECT_FALSE(is_mapped(start + 2 * page));
  EXPECT_EQ(second->width, 4);
  for (const int is_there : {1, 0}) EXPECT_EQ(ka::img_munmap_map(second), is_there);
  const test::Image in_memory = test::make_image(IMG_TYPE_S, 1, 1);
  EXPECT_EQ(ka::img_munmap_map(in_memory.get()), 0);
}

}  // namespace
