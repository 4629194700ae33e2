// TIFF images: what is refused, with which error and which message.
#include <gtest/gtest.h>
#include <ka/message.h>

#include "tiff_files.h"

namespace {

using test::bytes;
using test::colors;
using test::kBlackIsZero;
using test::kLong;
using test::kPackBits;
using test::kPalette;
using test::kRgb;
using test::kShort;
using test::one;
using test::tiff;

class TiffRefusal : public testing::TestWithParam<test::Refusal> {};
TEST_P(TiffRefusal, IsTold) { test::expect_refusal(GetParam()); }

using Entries = std::vector<test::TiffEntry>;
const std::vector<std::string> kPixel = {bytes({1, 2, 3})};

// A pixel of 8-bit colours with one entry replaced.
std::string with(const test::TiffEntry& entry) {
  Entries entries = colors(1, 1, 3, 8);
  std::erase_if(entries, [&](const test::TiffEntry& old) { return old.tag == entry.tag; });
  entries.push_back(entry);
  return tiff({entries, kPixel});
}
std::string grey_with(unsigned bits, const test::TiffEntry& entry, const std::string& strip) {
  return tiff({one(2, 2, bits, kBlackIsZero, {entry}), {strip}});
}
std::string packed(unsigned width, unsigned height, std::initializer_list<int> packets) {
  return tiff(
      {one(width, height, 8, kBlackIsZero, {{259, kShort, {kPackBits}}}), {bytes(packets)}});
}

// Rows in strips whose tables claim to have 2^30 entries.
std::string claiming() {
  std::string file = tiff({one(1, 3, 8, kBlackIsZero, {{278, kShort, {1}}}), {"a", "b", "c"}});
  for (const char tag : {char(273 - 256), char(279 - 256)}) {
    const std::size_t entry = file.find(std::string{tag, 1, test::kLong, 0});
    file.replace(entry + 4, 4, bytes({0, 0, 0, 0x40}));
  }
  return file;
}

const std::vector<test::Refusal> kKinds = {
    {"NoByteOrder", bytes({'I', 'M', 42, 0, 8, 0, 0, 0, 0, 0}), IMG_ERR_FORMAT},
    {"OtherMagic", bytes({'I', 'I', 43, 0, 8, 0, 0, 0, 0, 0}), IMG_ERR_FORMAT},
    {"OtherCompression", with({259, kShort, {5}}), IMG_ERR_SUBTYPE},
    {"MirroredOrientation", with({274, kShort, {3}}), IMG_ERR_SUBTYPE},
    {"OtherPhotometric", with({262, kShort, {5}}), IMG_ERR_SUBTYPE},
    {"TwoComponents", with({277, kShort, {2}}), IMG_ERR_SUBTYPE},
    {"FiveComponents", with({277, kShort, {5}}), IMG_ERR_SUBTYPE},
    {"GreyOfThreeComponents", with({262, kShort, {1}}), IMG_ERR_SUBTYPE},
    {"ColorsOf4Bits", with({258, kShort, {4, 4, 4}}), IMG_ERR_SUBTYPE},
    {"ColorsWithoutBits", with({258, kShort, {}}), IMG_ERR_SUBTYPE},
    {"TwoBitsForThree", with({258, kShort, {8, 8}}), IMG_ERR_SUBTYPE},
    {"GreyOf16Bits", tiff({one(1, 1, 16, kBlackIsZero), kPixel}), IMG_ERR_SUBTYPE},
    {"GreyOf2Bits", tiff({one(1, 1, 2, kBlackIsZero), kPixel}), IMG_ERR_SUBTYPE},
    {"PaletteOf1Bit", tiff({one(1, 1, 1, kPalette), kPixel}), IMG_ERR_SUBTYPE},
    {"Floats32WithoutFormat", with({258, kShort, {32, 32, 32}}), IMG_ERR_SUBTYPE},
    {"TwoFormatsForThree", with({339, kShort, {1, 1}}), IMG_ERR_SUBTYPE},
    {"Tiles", with({322, kShort, {16}}), IMG_ERR_SUBTYPE},
    {"TileOffsets", with({324, kLong, {8}}), IMG_ERR_SUBTYPE},
    {"NoWidth", with({256, kShort, {0}}), IMG_ERR_SUBTYPE},
    {"NoHeight", with({257, kShort, {}}), IMG_ERR_SUBTYPE},
    {"WidthPastAnInt", with({256, kLong, {0x80000000}}), IMG_ERR_SUBTYPE},
    {"FewerPlanesThanComponents",
     tiff({colors(1, 2, 3, 8, {{284, kShort, {2}}}), {bytes({1, 2}), bytes({3, 4})}}),
     IMG_ERR_SUBTYPE},
    {"PlanesOfUnequalStrips",
     tiff({colors(1, 2, 3, 8, {{284, kShort, {2}}, {278, kShort, {1}}}), {"a", "b", "c", "d"}}),
     IMG_ERR_SUBTYPE},
};
INSTANTIATE_TEST_SUITE_P(Kinds, TiffRefusal, testing::ValuesIn(kKinds),
                         test::row_name<test::Refusal>);

const std::vector<test::Refusal> kDamage = {
    {"NoDirectory", bytes({'I', 'I', 42, 0, 9, 0, 0, 0, 1}), IMG_ERR_READ},
    {"DirectoryBehindTheFile", bytes({'I', 'I', 42, 0, 255, 255, 255, 255}), IMG_ERR_READ},
    {"DirectoryEnds", bytes({'M', 'M', 0, 42, 0, 0, 0, 8, 0, 2}) + std::string(20, 0),
     IMG_ERR_READ},
    {"BitsBehindTheFile", with({258, kShort, {8, 8, 8}}).substr(0, 8 + 2 + 7 * 12 + 4 + 5),
     IMG_ERR_READ},
    {"NoStrips", tiff({one(1, 1, 8, kBlackIsZero), {}}), IMG_ERR_CORRUPT},
    {"OnlyByteCounts", tiff({one(1, 1, 8, kBlackIsZero, {{279, kShort, {1}}}), {}}),
     IMG_ERR_CORRUPT},
    {"TablesOfUnequalLength",
     tiff({one(1, 2, 8, kBlackIsZero, {{273, kShort, {8, 9}}, {279, kShort, {1}}}), {}}),
     IMG_ERR_CORRUPT},
    {"FewerStripsThanRows", tiff({one(1, 3, 8, kBlackIsZero, {{278, kShort, {1}}}), {"a", "b"}}),
     IMG_ERR_CORRUPT},
    {"StripsOfNoRows", tiff({one(1, 3, 8, kBlackIsZero, {{278, kShort, {0}}}), {"a", "b"}}),
     IMG_ERR_CORRUPT},
    {"TablesThatAreNotThere", claiming(), IMG_ERR_READ},
    {"ByteCountsEnd",
     tiff({one(1, 2, 8, kBlackIsZero,
               {{273, kShort, {8, 9}}, {278, kShort, {1}}, {279, kLong, {1, 1}}}),
           {}})
         .substr(0, 8 + 2 + 8 * 12 + 4 + 7),
     IMG_ERR_READ},
    {"NoColorMap", tiff({one(1, 1, 4, kPalette), kPixel}), IMG_ERR_CORRUPT},
    {"ShortColorMap",
     tiff({one(1, 1, 4, kPalette, {{320, kShort, std::vector<unsigned>(47)}}), kPixel}),
     IMG_ERR_CORRUPT},
    {"ColorMapEnds",
     tiff({one(1, 1, 4, kPalette, {{320, kShort, std::vector<unsigned>(48)}}), {""}})
         .substr(0, 8 + 2 + 8 * 12 + 4 + 95),
     IMG_ERR_READ},
    {"StripBehindTheFile",
     tiff({one(1, 1, 8, kBlackIsZero, {{273, kLong, {0xffffffff}}, {279, kLong, {1}}}), {}}),
     IMG_ERR_READ, 0},
    {"SecondLineEnds", grey_with(8, {254, kLong, {0}}, bytes({1, 2, 3})), IMG_ERR_READ, 1},
    {"LineBehindTheLast", grey_with(8, {254, kLong, {0}}, bytes({1, 2, 3, 4, 5, 6})), IMG_ERR_READ,
     2},
    {"PlaneEnds",
     tiff({colors(1, 2, 3, 8, {{284, kShort, {2}}}), {bytes({1, 2}), bytes({3, 4}), bytes({5})}}),
     IMG_ERR_READ, 1},
    {"RunPastTheRow", packed(4, 2, {252, 7, 254, 7}), IMG_ERR_CORRUPT, 0},
    {"LiteralsPastTheRow", packed(2, 2, {2, 1, 2, 3, 0, 4}), IMG_ERR_CORRUPT, 0},
    {"LiteralsEnd", packed(4, 1, {3, 1, 2, 3}), IMG_ERR_READ, 0},
    {"RunEnds", packed(4, 1, {1, 1, 2, 255}), IMG_ERR_READ, 0},
    {"PacketsEnd", packed(4, 2, {253, 1, 128, 128}), IMG_ERR_READ, 1},
    // not even 64 bytes for each of the file's
    {"RowThatCannotBeThere", packed(100'000'000, 2, {129, 1, 129, 1}), IMG_ERR_READ},
};
INSTANTIATE_TEST_SUITE_P(Damage, TiffRefusal, testing::ValuesIn(kDamage),
                         test::row_name<test::Refusal>);

struct Told {
  const char* name;
  std::string file, message;  // behind the file's name
};

class TiffMessage : public testing::TestWithParam<Told> {};
TEST_P(TiffMessage, NamesTheFile) {
  const test::Scratch scratch;
  const std::string path = scratch.write("a", GetParam().file);
  const test::MessageLog log(KA_DEBUG);
  test::Handle file;
  EXPECT_FALSE(ka_img_open(file, path.c_str(), IMG_TYPE_FILE));
  EXPECT_EQ(file->error, IMG_ERR_SUBTYPE);
  ASSERT_FALSE(log.lines().empty());
  const std::string expected = std::string(file->display_name) + GetParam().message;
  EXPECT_TRUE(log.lines().back().ends_with(expected)) << log.lines().back();
}

const std::vector<Told> kMessages = {
    {"Compression", with({259, kShort, {5}}), ": unsupported compression 5"},
    {"Orientation", with({274, kShort, {3}}), ": unsupported orientation  3"},
    {"NumberOfFormats", with({339, kShort, {1}}),
     ": unsupported number of sampleformat values:  1"},
    {"DifferentFormats", with({339, kShort, {1, 1, 3}}),
     ": different sampleformat values per sample not supported"},
    {"WholeNumbersOf32Bits",
     tiff({{{256, kShort, {1}},
            {257, kShort, {1}},
            {258, kShort, {32, 32, 32}},
            {262, kShort, {kRgb}},
            {277, kShort, {3}},
            {339, kShort, {1, 1, 1}}},
           {std::string(12, 0)}}),
     ": non-float 32 bit format not supported"},
};
INSTANTIATE_TEST_SUITE_P(Messages, TiffMessage, testing::ValuesIn(kMessages), test::row_name<Told>);

// Errors that tell a line tell the height, too, once the directory has named it.
TEST(TiffError, TellsTheHeight) {
  const std::string directory_ends = with({257, kShort, {5}}).substr(0, 8 + 2 + 3 * 12);
  const std::string unequal_tables =
      tiff({one(1, 5, 8, kBlackIsZero, {{273, kShort, {8, 9}}, {279, kShort, {1}}}), {}});
  for (const auto& [file, message] :
       {std::pair{directory_ends, ": can't read line 1 of 5, incomplete file"},
        {unequal_tables, ": can't uncompress pixels in line 1 of 5, file is corrupted"}}) {
    const test::Scratch scratch;
    const test::MessageLog log;
    test::Handle handle;
    EXPECT_FALSE(ka_img_open(handle, scratch.write("a", file).c_str(), IMG_TYPE_FILE));
    ka_img_err_msg(handle);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.lines()[0].ends_with(message)) << log.lines()[0];
  }
}

}  // namespace
