// TIFF images put together from entries and strips: what is read of which file, what is refused.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>

#include "pictures.h"

namespace {

using test::bytes;

constexpr int kShort = 3, kLong = 4;  // types of entries
constexpr unsigned kPackBits = 32773;
constexpr unsigned kWhiteIsZero = 0, kBlackIsZero = 1, kColors = 2, kPalette = 3;

struct Entry {
  int tag, type;
  std::vector<unsigned> values;
};
using Entries = std::vector<Entry>;

struct Tiff {
  Entries entries{};                  // in any order; those of the strips are added
  std::vector<std::string> strips{};  // their bytes
  bool is_big = false;                // byte order
  int strip_type = kLong;             // of both tables
};

// Header, directory, values that do not fit their entry.
std::string directory(const Entries& entries, bool is_big) {
  const auto put = [is_big](std::size_t value, int count) {
    return is_big ? test::be(count, std::int64_t(value)) : test::le(count, std::int64_t(value));
  };
  std::string text = (is_big ? "MM" : "II") + put(42, 2) + put(8, 4) + put(entries.size(), 2);
  std::string values;
  for (const Entry& entry : entries) {
    std::string field;
    for (const unsigned value : entry.values) field += put(value, entry.type == kShort ? 2 : 4);
    if (field.size() > 4) {
      values += field;
      field = put(8 + 2 + 12 * entries.size() + 4 + values.size() - field.size(), 4);
    }
    field.resize(4);
    text += put(std::size_t(entry.tag), 2) + put(std::size_t(entry.type), 2) +
            put(entry.values.size(), 4) + field;
  }
  return text + put(0, 4) + values;
}

std::string tiff(Tiff file) {
  Entry offsets{273, file.strip_type, {}}, counts{279, file.strip_type, {}};
  std::string pixels;
  for (const std::string& strip : file.strips) {
    offsets.values.push_back(unsigned(pixels.size()));
    counts.values.push_back(unsigned(strip.size()));
    pixels += strip;
  }
  const auto text = [&] {
    Entries entries = file.entries;
    if (!file.strips.empty()) entries.insert(entries.end(), {offsets, counts});
    std::ranges::stable_sort(entries, {}, &Entry::tag);
    return directory(entries, file.is_big);
  };
  const auto first = unsigned(text().size());
  for (unsigned& offset : offsets.values) offset += first;
  return text() + pixels;
}

// Entries of a picture of one component, and of red, green, blue and perhaps alpha.
Entries one(unsigned width, unsigned height, unsigned bits, unsigned photometric,
            Entries more = {}) {
  more.insert(more.end(), {{256, kLong, {width}},
                           {257, kLong, {height}},
                           {258, kShort, {bits}},
                           {262, kShort, {photometric}},
                           {277, kShort, {1}}});
  return more;
}
Entries colors(unsigned width, unsigned height, unsigned components, unsigned bits,
               Entries more = {}) {
  more.insert(more.end(), {{256, kLong, {width}},
                           {257, kShort, {height}},
                           {258, kShort, std::vector<unsigned>(components, bits)},
                           {262, kShort, {kColors}},
                           {277, kShort, {components}}});
  if (bits == 32) more.push_back({339, kShort, std::vector<unsigned>(components, 3)});
  return more;
}

test::Picture picture(const char* name, const Tiff& file, const test::Lines& lines,
                      int type = IMG_TYPE_RGB) {
  return {name, tiff(file), IMG_FORMAT_TIF, type, lines};
}
test::Planes grey(const std::vector<std::uint32_t>& levels) { return {levels, levels, levels}; }

// A line of one pixel: directory at 10, BitsPerSample at 100, pixels at 106.
const std::string kSpelledOut =
    bytes({'M', 'M', 0, 42, 0, 0, 0, 10, 0, 0, 0, 7}) +
    bytes({1, 0, 0, 3, 0, 0, 0, 1, 0, 1, 0, 0}) +       // 256 ImageWidth 1
    bytes({1, 1, 0, 4, 0, 0, 0, 1, 0, 0, 0, 1}) +       // 257 ImageLength 1
    bytes({1, 2, 0, 3, 0, 0, 0, 3, 0, 0, 0, 100}) +     // 258 BitsPerSample
    bytes({1, 3, 0, 3, 0, 0, 0, 1, 0, 1, 0, 0}) +       // 259 Compression: none
    bytes({1, 6, 0, 3, 0, 0, 0, 1, 0, 2, 0, 0}) +       // 262 PhotometricInterpretation: RGB
    bytes({1, 17, 0, 4, 0, 0, 0, 1, 0, 0, 0, 106}) +    // 273 StripOffsets
    bytes({1, 21, 0, 3, 0, 0, 0, 1, 0, 3, 0, 0}) +      // 277 SamplesPerPixel
    bytes({0, 0, 0, 0, 0, 8, 0, 8, 0, 8, 70, 80, 90});  // no further directory; values; pixel

// The low bytes do not count. Of 256 colours, those of index i are i, i ^ 1 and i ^ 2.
std::vector<unsigned> color_map(unsigned count) {
  std::vector<unsigned> map;
  for (unsigned i = 0; i < count; ++i) map.push_back(((i ^ i >> 8) & 255) << 8 | 0xee);
  return map;
}

const Entry kPacked = {259, kShort, {kPackBits}}, kPlanes = {284, kShort, {2}};
const Entry kOneRow = {278, kLong, {1}}, kTwoRows = {278, kShort, {2}};
// Lines of one pixel that share a strip: so many packets without bytes, then a pixel.
std::string sharing(std::size_t lines, std::size_t no_ops) {
  const auto head = [lines](unsigned offset) {
    return directory(one(1, unsigned(lines), 8, kBlackIsZero,
                         {kPacked, kOneRow, {273, kLong, std::vector<unsigned>(lines, offset)}}),
                     true);
  };
  return head(unsigned(head(0).size())) + std::string(no_ops, '\x80') + bytes({0, 5});
}

const Entries kGreyLines = one(2, 3, 8, kBlackIsZero, {kTwoRows});
const test::Lines kThreeLines = {grey({5, 6}), grey({3, 4}), grey({1, 2})};
const std::vector<std::string> kTwoStrips = {bytes({1, 2, 3, 4}), bytes({5, 6})};
const test::Lines kPlanarLines = {{{3, 4}, {7, 8}, {11, 12}}, {{1, 2}, {5, 6}, {9, 10}}};

const std::vector<test::Shown> kWholeFiles = {
    {"SpelledOut", kSpelledOut, {{{70}, {80}, {90}}}},
    {"MagicOfTheOtherByteOrder",
     bytes({'M', 'M', 42, 0}) + kSpelledOut.substr(4),
     {{{70}, {80}, {90}}}},
    {"PacketsWithoutBytes", sharing(1, 131'000), {grey({5})}},
    {"SharedPacketsWithoutBytes", sharing(100, 5), test::Lines(100, grey({5}))},
};
const std::vector<test::Picture> kPictures = {
    picture("BottomLineFirst",
            {colors(1, 2, 3, 8, {{274, kShort, {4}}}), {bytes({1, 2, 3, 4, 5, 6})}},
            {{{1}, {2}, {3}}, {{4}, {5}, {6}}}),
    picture("TopLineFirst", {colors(1, 2, 3, 8), {bytes({1, 2, 3, 4, 5, 6})}},
            {{{4}, {5}, {6}}, {{1}, {2}, {3}}}),
    picture("Bits16BigEndian", {colors(1, 1, 4, 16), {bytes({1, 2, 3, 4, 5, 6, 7, 8})}, true},
            {{{0x102}, {0x304}, {0x506}, {0x708}}}, IMG_TYPE_RGBA_16),
    // 1, -2, 0.5
    picture("FloatsBigEndian",
            {colors(1, 1, 4, 32),
             {bytes({63, 128, 0, 0, 192, 0, 0, 0, 63, 0, 0, 0, 0, 0, 0, 1})},
             true},
            {{{0x3f800000}, {0xc0000000}, {0x3f000000}, {1}}}, IMG_TYPE_RGBA_FP),
    // and no PhotometricInterpretation, but entries of no meaning here
    picture("OneValueForAllBits",
            {{{256, kShort, {1}},
              {257, kShort, {1}},
              {258, kShort, {8}},
              {277, kShort, {3}},
              {282, 5, {9}},
              {400, kShort, {7, 7, 7}}},
             {bytes({1, 2, 3})}},
            {{{1}, {2}, {3}}}),
    picture("OneBitWhereNoneAreTold",
            {{{256, kShort, {2}}, {257, kShort, {1}}, {262, kShort, {1}}}, {bytes({0x40})}},
            {grey({0, 255})}),
    picture("White1", {one(3, 1, 1, kWhiteIsZero), {bytes({0xa0})}}, {grey({0, 255, 0})}),
    picture("Black1", {one(3, 1, 1, kBlackIsZero), {bytes({0xa0})}}, {grey({255, 0, 255})}),
    picture("White4", {one(3, 1, 4, kWhiteIsZero), {bytes({0x0f, 0x1f})}},
            {grey({255, 255 - 240, 255 - 16})}),
    picture("Black4", {one(3, 1, 4, kBlackIsZero), {bytes({0x0f, 0x1f})}}, {grey({0, 240, 16})}),
    picture("White8", {one(3, 1, 8, kWhiteIsZero), {bytes({0, 1, 255})}}, {grey({255, 254, 0})}),
    picture("Palette4",
            {one(3, 1, 4, kPalette, {{320, kShort, color_map(48)}}), {bytes({0xf0, 0x10})}},
            {{{15, 0, 1}, {31, 16, 17}, {47, 32, 33}}}),
    picture("Palette8BigEndian",
            {one(3, 1, 8, kPalette, {{320, kShort, color_map(768)}}), {bytes({0, 200, 255})}, true},
            {{{0, 200, 255}, {1, 201, 254}, {2, 202, 253}}}),
    picture("TwoShortsInTheEntryBigEndian", {kGreyLines, kTwoStrips, true, kShort}, kThreeLines),
    // two runs; one literal for each row; nothing, a run, nothing
    picture("Packed",
            {one(4, 3, 8, kBlackIsZero, {kPacked}),
             {bytes({255, 1, 255, 2, 3, 3, 4, 5, 6, 128, 253, 9, 128})}},
            {grey({9, 9, 9, 9}), grey({3, 4, 5, 6}), grey({1, 1, 2, 2})}),
    picture("PackedStrips",
            {one(2, 3, 8, kBlackIsZero, {kPacked, kTwoRows}),
             {bytes({1, 1, 2, 1, 3, 4, 200}), bytes({1, 5, 6})}},
            kThreeLines),
    picture("PlanesOfOneStripForEachRow",
            {colors(2, 2, 3, 8, {kPlanes, kOneRow}),
             {"\1\2", "\3\4", "\5\6", "\7\x8", "\x9\xa", "\xb\xc"},
             true,
             kShort},
            kPlanarLines),
    picture("PlanesPacked",
            {colors(2, 2, 3, 8, {kPlanes, kPacked}),
             {bytes({1, 1, 2, 1, 3, 4}), bytes({1, 5, 6, 1, 7, 8}), bytes({1, 9, 10, 1, 11, 12})}},
            kPlanarLines),
};
TEST(Tiff, PicturesAreRead) {
  test::expect_pictures(IMG_FORMAT_TIF, IMG_TYPE_RGB, kWholeFiles);
  test::expect_pictures(kPictures);
}

// Rows that no buffer of the reader holds, plain and in packets; and more bytes without a meaning
// before a packet than a buffer holds.
TEST(Tiff, ByteCountsOfStripsMayBeMissing) {
  const std::string file = directory({{256, kLong, {1}},
                                      {257, kLong, {1}},
                                      {258, kLong, {8}},
                                      {259, kLong, {1}},
                                      {262, kLong, {kBlackIsZero}},
                                      {273, kLong, {0}}},
                                     false);
  std::string pointing = file + "a";
  pointing.replace(8 + 2 + 5 * 12 + 8, 4, test::le(4, std::int64_t(file.size())));
  test::expect_picture({"", pointing, IMG_FORMAT_TIF, IMG_TYPE_RGB, {{{'a'}, {'a'}, {'a'}}}});
}

TEST(Tiff, RowsMayBeLong) {
  constexpr unsigned width = 300'000;
  std::string row, packets(200'000, char(128));
  for (unsigned x = 0; x < width; ++x) row += char(x * x >> 8);
  for (unsigned x = 0; x < width; x += 100) packets += char(99) + row.substr(x, 100);
  std::vector<std::uint32_t> levels;
  for (const char level : row) levels.push_back(std::uint8_t(level));
  const test::Lines lines = {grey(levels), grey(levels)};
  test::expect_pictures(
      {picture("Plain", {one(width, 2, 8, kBlackIsZero), {row + row}}, lines),
       picture("Packed", {one(width, 2, 8, kBlackIsZero, {kPacked}), {packets + packets}}, lines)});
}

// What a file says about different bits is an error that stays with the handle; pixels are read by
// the first of them.
TEST(Tiff, DifferentBitsAreTold) {
  Entries entries = colors(1, 1, 3, 8);
  entries[2].values = {8, 8, 16};
  test::OpenFile in(tiff({entries, {"abc"}}));
  EXPECT_EQ(in->error, IMG_ERR_SUBTYPE);
  ASSERT_TRUE(in.read_line());
  EXPECT_EQ(in.planes(), (test::Planes{{'a'}, {'b'}, {'c'}}));
}

// Lines of a caller who goes on after a failure: the way to their packets is found again.
TEST(Tiff, LinesBehindACorruptOneAreFound) {
  // rows of two bytes: packets of three, of one, and of two
  const std::string packets = bytes({2, 1, 2, 3, 0, 4, 1, 5, 6, 1, 7, 8});
  test::OpenFile in(tiff({one(2, 5, 8, kBlackIsZero, {kPacked}), {packets}}));
  for (const int error :
       {IMG_ERR_CORRUPT, IMG_ERR_CORRUPT, IMG_ERR_NONE, IMG_ERR_NONE, IMG_ERR_READ, IMG_ERR_READ}) {
    in->error = IMG_ERR_NONE;
    EXPECT_EQ(in.read_line(), error == IMG_ERR_NONE);
    EXPECT_EQ(in->error, error) << in->line_count;
    EXPECT_TRUE(in->line_count != 3 || in.planes() == grey({5, 6}));
  }
}

// A pixel of 8-bit colours with one entry replaced.
std::string with(const Entry& entry) {
  Entries entries = colors(1, 1, 3, 8);
  std::erase_if(entries, [&](const Entry& old) { return old.tag == entry.tag; });
  entries.push_back(entry);
  return tiff({entries, {"abc"}});
}
std::string level(unsigned bits, unsigned photometric, const Entries& more = {}) {
  return tiff({one(1, 1, bits, photometric, more), {"abc"}});
}
// Rows of one pixel, with the given strips of one row each.
std::string rows(unsigned height, const std::vector<std::string>& strips) {
  return tiff({one(1, height, 8, kBlackIsZero, {kOneRow}), strips});
}
std::string packed(unsigned width, unsigned height, std::initializer_list<int> packets) {
  return tiff({one(width, height, 8, kBlackIsZero, {kPacked}), {bytes(packets)}});
}

// Rows in strips whose tables claim to have 2^30 entries.
std::string claiming() {
  std::string file = rows(3, {"a", "b", "c"});
  for (const char tag : {char(273 - 256), char(279 - 256)}) {
    file.replace(file.find(std::string{tag, 1, kLong, 0}) + 4, 4, bytes({0, 0, 0, 0x40}));
  }
  return file;
}

const std::string kUnequalTables =
    tiff({one(1, 5, 8, kBlackIsZero, {{273, kShort, {8, 9}}, {279, kShort, {1}}})});

const std::vector<test::Refusal> kRefusals = {
    {"OtherMagic", bytes({'I', 'I', 43, 0, 8, 0, 0, 0, 0, 0}), IMG_ERR_FORMAT},
    {"TooManyPacketsWithoutBytes", sharing(1, 200'000), IMG_ERR_CORRUPT, 0},
    {"SharedPacketsWithoutBytesInAll", sharing(3, 5'000), IMG_ERR_CORRUPT, 1},
    {"OtherPhotometric", with({262, kShort, {5}}), IMG_ERR_SUBTYPE},
    {"FiveComponents", with({277, kShort, {5}}), IMG_ERR_SUBTYPE},
    {"ColorsOf4Bits", with({258, kShort, {4, 4, 4}}), IMG_ERR_SUBTYPE},
    {"GreyOf16Bits", level(16, kBlackIsZero), IMG_ERR_SUBTYPE},
    {"PaletteOf1Bit", level(1, kPalette), IMG_ERR_SUBTYPE},
    {"Floats32WithoutFormat", with({258, kShort, {32, 32, 32}}), IMG_ERR_SUBTYPE},
    {"Tiles", with({322, kShort, {16}}), IMG_ERR_SUBTYPE},
    {"NoWidth", with({256, kShort, {0}}), IMG_ERR_SUBTYPE},
    {"WidthPastAnInt", with({256, kLong, {0x80000000}}), IMG_ERR_SUBTYPE},
    {"PlanesOfUnequalStrips", tiff({colors(1, 2, 3, 8, {kPlanes, kOneRow}), {"a", "b", "c", "d"}}),
     IMG_ERR_SUBTYPE},
    {"TablesOfUnequalLength", kUnequalTables, IMG_ERR_CORRUPT},
    {"FewerStripsThanRows", rows(3, {"a", "b"}), IMG_ERR_CORRUPT},
    {"TablesThatAreNotThere", claiming(), IMG_ERR_READ},
    {"ShortColorMap", level(4, kPalette, {{320, kShort, color_map(47)}}), IMG_ERR_CORRUPT},
    {"SecondLineEnds", tiff({one(2, 2, 8, kBlackIsZero), {"abc"}}), IMG_ERR_READ, 1},
    {"LineBehindTheLast", rows(2, {"a", "b"}) + "c", IMG_ERR_READ, 2},
    {"PlaneEnds", tiff({colors(1, 2, 3, 8, {kPlanes}), {"ab", "cd", "e"}}), IMG_ERR_READ, 1},
    {"RunPastTheRow", packed(4, 2, {252, 7, 254, 7}), IMG_ERR_CORRUPT, 0},
    {"LiteralsPastTheRow", packed(2, 2, {2, 1, 2, 3, 0, 4}), IMG_ERR_CORRUPT, 0},
    // not even 64 bytes for each of the file's
    {"RowThatCannotBeThere", packed(100'000'000, 2, {129, 1, 129, 1}), IMG_ERR_READ},
};
TEST(Tiff, RefusalsAreTold) { test::expect_refusals(kRefusals); }

// Kinds of files that are not read are told when they are opened. Errors that tell a line tell the
// height, too, once the directory has named it.
TEST(Tiff, RefusalsSayWhy) {
  Entries whole_numbers = colors(1, 1, 3, 32);
  whole_numbers.back().values = {1, 1, 1};
  const std::pair<std::string, std::string> rows[] = {
      {": unsupported compression 5", with({259, kShort, {5}})},
      {": unsupported orientation  3", with({274, kShort, {3}})},
      {": unsupported number of sampleformat values:  1", with({339, kShort, {1}})},
      {": different sampleformat values per sample not supported", with({339, kShort, {1, 1, 3}})},
      {": non-float 32 bit format not supported", tiff({whole_numbers, {std::string(12, 0)}})},
  };
  for (const auto& [message, text] : rows) {
    const test::MessageLog log(KA_DEBUG);
    test::OpenFile in(text);
    EXPECT_FALSE(in.is_open());
    EXPECT_EQ(in->error, IMG_ERR_SUBTYPE);
    const std::string expected = in->display_name + message;
    EXPECT_TRUE(std::ranges::any_of(log.lines(), [&](const std::string& told) {
      return told.ends_with(expected);
    })) << expected;
  }
  const std::string cut = test::message_of(with({257, kShort, {5}}).substr(0, 8 + 2 + 3 * 12)),
                    corrupt = test::message_of(kUnequalTables);
  EXPECT_TRUE(cut.ends_with(": can't read line 1 of 5, incomplete file")) << cut;
  EXPECT_TRUE(corrupt.ends_with(": can't uncompress pixels in line 1 of 5, file is corrupted"))
      << corrupt;
}

}  // namespace
