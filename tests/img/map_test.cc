// Memory-mapped textures: the bytes that are written, files of the other byte order, damaged levels
// and tables, images in mappings and how long they live.
#include <errno.h>
#include <gtest/gtest.h>
#include <ka/message.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <numeric>

#include "cached.h"
#include "imgmap.h"
#include "imgpyramid.h"
#include "pictures.h"

namespace {

using test::le, test::Lines;

constexpr std::size_t kHeader = 64, kTable = 184;                   // of the base, bytes
constexpr std::size_t kLevels = kHeader + 4, kEntry = kHeader + 8;  // the level directory
constexpr std::size_t kWidth = kHeader + 88, kBits = kHeader + 96, kComponents = kHeader + 100;
constexpr std::size_t kFlags = kHeader + 104, kType = kHeader + 108;

// Samples from 1 on that are finite floats, too.
test::Image picture(int type, int width, int height) {
  test::Image image = test::make_image(type, width, height);
  Lines lines = test::lines_of(image.get());
  std::uint32_t next = 1;
  for (auto& planes : lines) {
    for (auto& plane : planes) std::iota(plane.begin(), plane.end(), std::exchange(next, next + 7));
  }
  return test::make_picture(type, width, lines);
}

// A file whose handle asks for levels, or for none.
std::string map_file(img_image* image, int pyramid = 0) {
  const test::Scratch scratch;
  test::Handle file;
  file->file_type = std::uint8_t(image->type);
  file->pyramid = pyramid;
  EXPECT_TRUE(ka_img_create(file, scratch.path("a").c_str(), image->type, IMG_FORMAT_MAP,
                            image->width, image->height));
  EXPECT_TRUE(ka_img_image_write(file, image)) << file->error;
  EXPECT_TRUE(ka_img_close(file));
  return test::read_file(scratch.path("a"));
}
std::string map_file(int type, int width, int height, int pyramid = 0) {
  return map_file(picture(type, width, height).get(), pyramid);
}

std::uint32_t word(const std::string& file, std::size_t at) {
  std::uint32_t value;
  file.copy(reinterpret_cast<char*>(&value), sizeof value, at);
  return value;
}
std::string with_word(std::string file, std::size_t at, std::int64_t value) {
  return file.replace(at, 4, le(4, value));
}

// The same plain picture, from a host of the other byte order.
std::string swapped(std::string file, int height) {
  const std::size_t sample = (word(file, kBits) + 7) / 8,
                    planes = kTable + std::size_t(height) * 16;
  test::swap_words(file, 0, kFlags);
  test::swap_words(file, kType, planes);
  test::swap_words(file, planes, file.size() / sample * sample, sample);
  return file;
}

// Every word is turned, and nothing after them; the flag bytes stay.
TEST(MapFile, HeadersComeFromTheOtherByteOrder) {
  std::string file = map_file(IMG_TYPE_S_16, 4, 4, 1) + "after";
  for (std::size_t at = kFlags; at < kFlags + 16; ++at) file[at] = char(at);
  file.replace(kType, 4, le(4, IMG_TYPE_S_16));
  std::string other = file;
  test::swap_words(other, 0, kFlags);
  test::swap_words(other, kType, kTable + 4 * 16);
  ka::MapHead head{};
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(other.data());
  ASSERT_EQ(ka::parse_map_head({bytes, kTable}, std::int64_t(file.size()), head), IMG_ERR_NONE);
  EXPECT_TRUE(head.swapped);
  EXPECT_EQ(head.type, IMG_TYPE_S_16);
  const std::string image(reinterpret_cast<const char*>(&head.image), sizeof head.image);
  EXPECT_EQ(image, file.substr(kHeader, sizeof head.image));
  ka::swap_map_level(reinterpret_cast<img_image*>(other.data() + kHeader), 4);
  EXPECT_EQ(other.substr(kHeader), file.substr(kHeader));
}

class EveryType : public testing::TestWithParam<int> {};

// 184 bytes of headers, then four offsets for each line, then 5 * 3 samples for each component.
TEST_P(EveryType, HasItsPlanesWhereTheTableSays) {
  constexpr int height = 3;
  const int type = GetParam();
  const auto components = std::uint32_t(ka_img_ncomp[type]);
  const auto sample = std::uint32_t(ka_img_nbits[type] + 7) / 8;
  const std::string file = map_file(type, 5, height);
  EXPECT_EQ(file.size(), (kTable + (16 + 5 * components * sample) * height + 3) / 4 * 4);
  EXPECT_EQ(file.substr(0, 12), "xtAK" + le(4, type) + le(4, 1));
  EXPECT_EQ(file.substr(kWidth, 24), le(4, 5) + le(4, 3) + le(4, ka_img_nbits[type]) +
                                         le(4, components) + le(4, 0) + le(4, type));
  const bool has_slot_3 = type == IMG_TYPE_A || type == IMG_TYPE_A_16 || type == IMG_TYPE_S ||
                          type == IMG_TYPE_S_16 || type == IMG_TYPE_S_FP;
  std::uint32_t next = 120 + 16 * height;
  for (std::size_t at = kTable; at < kTable + 16 * height; at += 4) {
    const std::size_t slot = (at - kTable) / 4 % 4;
    const bool present = has_slot_3 ? slot == 3 : slot < components;
    EXPECT_EQ(word(file, at), present ? next : 0) << at;
    if (present) next += 5 * sample;
  }
  const std::string first = file.substr(kTable + 16 * height, sample);
  EXPECT_EQ(first, le(int(sample), 1));
}

TEST_P(EveryType, IsReadFromTheOtherByteOrder) {
  const test::Image image = picture(GetParam(), 5, 3);
  const std::string file = swapped(map_file(image.get()), 3);
  test::expect_picture({"", file, IMG_FORMAT_MAP, GetParam(), test::lines_of(image.get())});
  test::OpenFile in(file);
  const test::MessageLog log;
  EXPECT_EQ(ka_img_mmap_address(in), nullptr);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(log.lines()[0].ends_with("cannot be mapped, wrong byte order"));
}

// The levels are those that an image in memory gets. The picture in the mapping is written again,
// and converted to its own type: its bits and float alphas are in another slot than in lines.
TEST_P(EveryType, IsUsedInItsMappingWithAllLevels) {
  const int type = GetParam();
  const test::Image image = picture(type, 5, 7);
  img_file shape{};
  shape.type = type;
  shape.width = 5;
  shape.height = 7;
  shape.pyramid = -3;
  const test::Image expected(ka_img_image_alloc(&shape));
  std::copy_n(test::plane(image.get(), 0, ka::first_slot(type)),
              ka::plane_bytes(type, 5 * 7) * std::size_t(image->components),
              test::plane(expected.get(), 0, ka::first_slot(type)));
  ka_img_pyramid_filter_levels(expected.get());

  const std::string file = map_file(image.get(), -3);
  test::OpenFile in(file);
  EXPECT_EQ(in->pyramid, -3);
  const test::Image mapped(ka_img_mmap_address(in));
  ASSERT_TRUE(mapped) << in->error;
  ka_img_close(in);  // the image stays
  ASSERT_EQ(mapped->levels, 3);
  for (int k = 0; k < mapped->levels; ++k) {
    img_image *level = nullptr, *model = nullptr;
    ka_img_pyramid_set_level(&level, mapped.get(), k);
    ka_img_pyramid_set_level(&model, expected.get(), k);
    EXPECT_EQ(test::lines_of(level), test::lines_of(model)) << k;
    EXPECT_EQ(level->filter, -3.0F);
  }
  EXPECT_EQ(map_file(mapped.get(), -3), file);
  const test::Image line = test::make_image(type, 5, 1);
  img_line record{};
  test::point_at(record, line.get(), 0);
  int components = 0, bits = 0;
  EXPECT_EQ(ka_img_convert(&record, &components, &bits, mapped.get(), 4, type), 1);
  EXPECT_EQ(test::planes_of(line.get(), 0), test::planes_of(image.get(), 4));
}

INSTANTIATE_TEST_SUITE_P(Types, EveryType, testing::Range(0, int{IMG_TYPE_COUNT}));

TEST(MapFile, HeadersAndTablesThatContradictThemselvesAreRefused) {
  const std::string plain = map_file(IMG_TYPE_RGB_16, 3, 2), levels = map_file(IMG_TYPE_S, 4, 4, 1);
  const auto filter = [&](std::uint32_t value) { return with_word(plain, kHeader, value); };
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
      {"HeaderCutOff", plain.substr(0, kTable - 1), IMG_ERR_SIZE},
      {"OneLevelWithoutTheOthers", with_word(plain, kLevels, 1), IMG_ERR_SIZE},
      {"PlaneInTheTable", with_word(plain, kTable + 16, 120 + 31), IMG_ERR_CORRUPT, 1},
      {"PlanePastTheLevel", with_word(plain, kTable + 16, 120 + 32 + 32), IMG_ERR_CORRUPT, 1},
      {"PlaneInsideASample", with_word(plain, kTable + 16, 120 + 33), IMG_ERR_CORRUPT, 1},
      {"PlaneMissing", with_word(plain, kTable + 24, 0), IMG_ERR_CORRUPT, 1},
      {"PlaneTooMany", with_word(plain, kTable + 28, 120 + 32), IMG_ERR_CORRUPT, 1},
      {"TwoPlacesForOnePlane", with_word(levels, kTable + 16, 120 + 64), IMG_ERR_CORRUPT, 1},
  });
  // the stored pyramid word: 2^31, the float before it, not a number
  for (const auto& [bits, pyramid] : {std::pair{0x4f000000U, 0},
                                      {0x4effffffU, 0x7fffff80},
                                      {0x7fc00000U, 0},
                                      {0xc0700000U, -3}}) {
    EXPECT_EQ(test::OpenFile(filter(bits))->pyramid, pyramid);
  }
}

TEST(MapFile, LinesMayShareAPlane) {
  const std::string file = with_word(map_file(IMG_TYPE_S, 2, 2), kTable + 12, 120 + 32 + 2);
  test::expect_picture({"", file, IMG_FORMAT_MAP, IMG_TYPE_S, {{{8, 9}}, {{8, 9}}}});
}

// Lines of the base can be read; the mapping is refused.
TEST(MapFile, LevelsThatContradictTheBaseAreNotMapped) {
  // 4 * (4 + 16) + 120 = 200, 2 * (2 + 16) + 120 = 156
  const std::string file = map_file(IMG_TYPE_S, 4, 4, 1);
  ASSERT_EQ(file.size(), 64U + 200 + 156 + 140);
  const std::size_t second = kHeader + 200, third = second + 156;
  const struct {
    const char* name;
    std::string file;
    bool is_directory = false;  // the directory alone is wrong
  } rows[] = {
      {"DirectoryStartsElsewhere", with_word(map_file(IMG_TYPE_S, 4, 4) + "more", kEntry, 4), true},
      {"LevelsOverlap", with_word(file, kEntry + 4, 196), true},
      {"LevelInsideAWord", with_word(file + "xx", kEntry + 8, 358), true},
      {"LevelBeforeTheOneAbove", with_word(file, kEntry + 8, 196), true},
      {"LevelPastTheEnd", with_word(file, kEntry + 8, 360), true},
      {"LevelFarPastTheEnd", with_word(file, kEntry + 8, 0xfffffffc), true},
      {"FileEndsInALevel", file.substr(0, file.size() - 1), true},
      {"HeldByTheCache", with_word(file, kFlags, 1 << 16)},
      {"OtherTypeInTheHeader", with_word(file, kType, IMG_TYPE_A)},
      {"OtherTypeInALevel", with_word(file, second + 108, 1000)},
      {"OtherWidthOfALevel", with_word(file, second + 88, 4)},
      {"OtherCountInALevel", with_word(file, second + 4, 3)},
      {"OtherDirectoryInALevel", with_word(file, second + 12, 152)},
      {"PlaneOfALevelPastIt", with_word(file, third + 120 + 12, 140)},
      {"OneLineInAnotherSlot",
       with_word(with_word(file, kTable + 16, word(file, kTable + 28)), kTable + 28, 0)},
  };
  const test::MessageLog log;  // some have more bytes than their picture
  for (const auto& [name, damaged, is_directory] : rows) {
    SCOPED_TRACE(name);
    ka::MapHead head{};
    const auto* const bytes = reinterpret_cast<const std::uint8_t*>(damaged.data());
    const auto size = std::int64_t(damaged.size());
    ASSERT_EQ(ka::parse_map_head({bytes, kTable}, size, head), IMG_ERR_NONE);
    EXPECT_NE(ka::map_levels(head, size).has_value(), is_directory);
    test::OpenFile in(damaged);
    ASSERT_TRUE(in.is_open());
    EXPECT_EQ(ka_img_mmap_address(in), nullptr);
    EXPECT_EQ(in->error, IMG_ERR_CORRUPT);
    for (int y = 0; y < 4; ++y) EXPECT_TRUE(in.read_line()) << y;
  }
}

TEST(MapFile, MessagesSayWhatIsUnusual) {
  const std::string plain = map_file(IMG_TYPE_RGBA_16, 1, 1),
                    levels = map_file(IMG_TYPE_S, 4, 4, 1);
  enum { kOpen, kMap, kMapLevels, kCache, kCacheLevels };
  const struct {
    std::string file;
    int type, step;
    const char* text;
  } rows[] = {
      {plain + "x", IMG_TYPE_FILE, kOpen, "mmap image \"%\" file larger than expected"},
      {levels + "xy", IMG_TYPE_FILE, kOpen,
       "pyramid mmap image \"%\" file has nonstandard size 562, expected 560; probably created "
       "with "
       "vel_copy -c"},
      {plain, IMG_TYPE_RGBA, kMap, "image file % cannot be mapped, contains rgba_16, need rgba"},
      {plain, IMG_TYPE_FILE, kMapLevels, "image file % cannot be mapped, it isn't prefiltered"},
      {plain, IMG_TYPE_RGBA, kCache, "image file % cannot be cached, contains rgba_16, need rgba"},
      {plain, IMG_TYPE_FILE, kCacheLevels, "image file % cannot be cached, it isn't prefiltered"},
  };
  for (const auto& [file, type, step, text] : rows) {
    SCOPED_TRACE(text);
    const test::MessageLog log(KA_ERROR | KA_WARNING | KA_INFO);
    test::OpenFile in(file, type);
    ASSERT_TRUE(in.is_open()) << in->error;
    in->pyramid = step == kMapLevels || step == kCacheLevels;
    std::uint32_t tag = 0;
    const bool caches = step == kCache || step == kCacheLevels;
    EXPECT_TRUE(!caches || ka::img_cache_map(in, &tag) == 0);
    EXPECT_TRUE(caches || step == kOpen || !ka_img_mmap_address(in));
    std::string expected = text;
    expected.replace(expected.find('%'), 1, in->display_name);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_TRUE(log.lines()[0].ends_with(": " + expected)) << log.lines()[0];
    EXPECT_EQ(in->error, IMG_ERR_NONE);
  }
  const test::MessageLog log(KA_ERROR);
  test::NewFile out(IMG_FORMAT_MAP, IMG_TYPE_S, 1, 1);
  EXPECT_EQ(ka_img_mmap_address(out), nullptr);
  EXPECT_TRUE(log.lines()[0].ends_with("attempting to access a not opened MAP file"));
}

TEST(MapFile, FilesThatAreShortenedMeanwhileAreErrors) {
  const std::string file = map_file(IMG_TYPE_RGBA_FP, 1000, 20);
  const test::MessageLog log;  // what could not be mapped is reported
  for (const off_t size : {0, 190, 10000}) {
    test::OpenFile in(file);
    ASSERT_EQ(truncate(in.path().c_str(), size), 0);
    EXPECT_EQ(ka_img_mmap_address(in), nullptr);
    EXPECT_EQ(in->error, IMG_ERR_READ);
    EXPECT_FALSE(in.read_line());
    EXPECT_EQ(in->error, IMG_ERR_READ);
  }
}

TEST(MapFile, LinesBeyondTheLastAndFilesWithoutItAreErrors) {
  test::OpenFile in(map_file(IMG_TYPE_S, 1, 1));
  EXPECT_TRUE(in.read_line());
  EXPECT_FALSE(in.read_line());
  EXPECT_EQ(in->error, IMG_ERR_READ);
  for (const int lines : {0, 1, 2, 3}) {
    test::NewFile out(IMG_FORMAT_MAP, IMG_TYPE_S, 1, 2);
    for (int y = 0; y < lines; ++y) EXPECT_EQ(out.write_line(), y < 2);
    EXPECT_EQ(out.close(), lines >= 2);
    EXPECT_EQ(out->error, lines < 2 ? IMG_ERR_CLOSE : lines > 2 ? IMG_ERR_WRITE : IMG_ERR_NONE);
    EXPECT_EQ(test::exists(out.path()), lines == 2);
  }
  EXPECT_EQ(map_file(IMG_TYPE_S, 3, 0, 1).size(), kTable);  // no lines, no levels
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
  const test::MessageLog log(KA_PROGRESS);
  img_image* const first = ka_img_mmap_address(in);
  ASSERT_EQ(log.lines().size(), 1U);
  EXPECT_TRUE(test::matches(log.lines()[0], ".*: memory-mapping texture .* at 0x[0-9a-f]+"));
  img_image* const second = ka_img_mmap_address(in);
  ASSERT_TRUE(first && second);
  EXPECT_NE(first, second);
  const auto* const start = reinterpret_cast<const std::uint8_t*>(first) - kHeader;
  EXPECT_TRUE(is_mapped(start + 2 * page));
  ka_img_image_release(first);
  EXPECT_FALSE(is_mapped(start));
  EXPECT_FALSE(is_mapped(start + 2 * page));
  EXPECT_EQ(second->width, 4);
  EXPECT_EQ(ka::img_munmap_map(second), 1);
  EXPECT_EQ(ka::img_munmap_map(second), 0);
  const test::Image in_memory = test::make_image(IMG_TYPE_S, 1, 1);
  EXPECT_EQ(ka::img_munmap_map(in_memory.get()), 0);
}

TEST(MapFile, ThreadsMapAndReleaseAtTheSameTime) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", map_file(IMG_TYPE_S, 4, 4, 1));
  test::in_threads(4, [&path] {
    for (int i = 0; i < 100; ++i) {
      test::Handle file;
      ASSERT_TRUE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
      img_image* const image = ka_img_mmap_address(file);
      ASSERT_TRUE(image);
      EXPECT_EQ(image->width, 4);
      EXPECT_EQ(ka::img_munmap_map(image), 1);
    }
  });
}

}  // namespace
