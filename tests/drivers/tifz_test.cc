// TIFF files that the built-in driver refuses.
#include <ka/drivers.h>
#include <tiffio.h>

#include <array>
#include <cstring>

#include "pixels.h"

namespace {

using test::little;

using Tags = std::vector<std::pair<ttag_t, int>>;

TIFF* create(const std::string& path, const char* mode, int width, int height, const Tags& tags) {
  TIFFSetErrorHandler(nullptr);  // of what it cannot write
  TIFF* const tif = TIFFOpen(path.c_str(), mode);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, width);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, height);
  for (const auto& [tag, value] : tags) TIFFSetField(tif, tag, value);
  return tif;
}

// One line, as its bytes are in memory.
struct Row {
  const char* name;
  int width;
  Tags tags;
  std::string bytes;
  int type;
  std::string pixels;
  int error = IMG_ERR_NONE;
};

class Tifz : public testing::TestWithParam<Row> {};

TEST_P(Tifz, GivesThesePixelsOrThisError) {
  const test::Scratch scratch;
  const Row& row = GetParam();
  TIFF* const tif = create(scratch.path("a"), "w", row.width, 1, row.tags);
  std::vector<std::uint16_t> map(256, 0x1234);
  map[1] = 0xabcd;
  for (const auto& [tag, value] : row.tags) {
    if (tag == TIFFTAG_PHOTOMETRIC && value == PHOTOMETRIC_PALETTE) {
      TIFFSetField(tif, TIFFTAG_COLORMAP, map.data(), map.data(), map.data());
    }
  }
  std::string bytes = row.bytes;
  TIFFWriteScanline(tif, bytes.data(), 0, 0);
  TIFFClose(tif);
  const auto got = test::decode(scratch.path("a"));
  EXPECT_EQ(got.pixels, row.pixels);
  EXPECT_EQ(got.error, row.error);
  EXPECT_EQ(got.format, got.error == IMG_ERR_SUBTYPE ? int{IMG_FORMAT_TIF} : int{KA_DRIVERS_TIFZ});
  EXPECT_EQ(got.type, row.type);
}

Tags kind(int bits, int samples, int photometric, int format, int compression = COMPRESSION_LZW) {
  return {{TIFFTAG_BITSPERSAMPLE, bits},      {TIFFTAG_SAMPLESPERPIXEL, samples},
          {TIFFTAG_PHOTOMETRIC, photometric}, {TIFFTAG_SAMPLEFORMAT, format},
          {TIFFTAG_COMPRESSION, compression}, {TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG},
          {TIFFTAG_ROWSPERSTRIP, 1}};
}

Tags turned(int orientation) {
  Tags tags = kind(8, 3, PHOTOMETRIC_RGB, SAMPLEFORMAT_UINT);
  tags.emplace_back(TIFFTAG_ORIENTATION, orientation);
  return tags;
}

template <typename Sample>
std::string memory_of(std::vector<Sample> samples) {
  return {reinterpret_cast<const char*>(samples.data()), samples.size() * sizeof(Sample)};
}

constexpr int kBlack = PHOTOMETRIC_MINISBLACK, kRgb = PHOTOMETRIC_RGB, kUint = SAMPLEFORMAT_UINT,
              kFloat = SAMPLEFORMAT_IEEEFP, kTile = 16;

INSTANTIATE_TEST_SUITE_P(
    Rows, Tifz,
    testing::Values(
        Row{"OneBit", 3, kind(1, 1, kBlack, kUint), "\xa0", IMG_TYPE_RGB, "ffffff000000ffffff "},
        Row{"FourBits", 2, kind(4, 1, kBlack, kUint), "\x1f", IMG_TYPE_RGB, "111111ffffff "},
        // 4095 is 65535, 1 is 65535 / 4095 = 16.004
        Row{"TwelveBits", 2, kind(12, 1, kBlack, kUint), std::string("\xff\xf0\x01", 3),
            IMG_TYPE_RGB_16, "ffffffffffff001000100010 "},
        Row{"GreyAndAlpha", 1, kind(8, 2, kBlack, kUint), "ab", IMG_TYPE_RGBA, "61616162 "},
        Row{"SamplesAfterAlpha", 1, kind(8, 5, kRgb, kUint), "abcde", IMG_TYPE_RGBA, "61626364 "},
        Row{"Wide", 1, kind(32, 1, kBlack, kUint), memory_of<std::uint32_t>({0x12345678}),
            IMG_TYPE_RGB_16, "123412341234 "},
        Row{"Floats", 1, kind(32, 3, kRgb, kFloat), memory_of<float>({1, -2, 0.5F}),
            IMG_TYPE_RGB_FP, "3f800000c00000003f000000 "},
        Row{"Doubles", 1, kind(64, 1, kBlack, kFloat), memory_of<double>({-2}), IMG_TYPE_RGB_FP,
            "c0000000c0000000c0000000 "},
        // 0x0001 is 2^-24, 0xfc00 minus infinity
        Row{"Halves", 1, kind(16, 4, kRgb, kFloat),
            memory_of<std::uint16_t>({0x3c00, 0xc000, 1, 0xfc00}), IMG_TYPE_RGBA_FP,
            "3f800000c000000033800000ff800000 "},
        Row{"Palette", 2, kind(2, 1, PHOTOMETRIC_PALETTE, kUint), "\x10", IMG_TYPE_RGB,
            "121212ababab "
            /* high bytes; the first two bits are 0, the next 1 */},
        Row{"SignedIntegers", 1, kind(8, 3, kRgb, SAMPLEFORMAT_INT), "abc", 0, "", IMG_ERR_SUBTYPE},
        Row{"Cmyk", 1, kind(8, 4, PHOTOMETRIC_SEPARATED, kUint), "abcd", 0, "", IMG_ERR_SUBTYPE},
        Row{"Jbig", 8, kind(1, 1, kBlack, kUint, COMPRESSION_JBIG), "a", 0, "", IMG_ERR_SUBTYPE},
        Row{"Turned", 1, turned(ORIENTATION_RIGHTTOP), "abc", 0, "", IMG_ERR_SUBTYPE}),
    test::row_name<Row>);

// A picture in tiles of whole pixels or of one plane.
void write_tiles(TIFF* tif, const std::string& samples, int width, int height,
                 std::size_t sample_bytes, std::size_t components, bool is_separate) {
  const std::size_t pixel_bytes = components * sample_bytes,
                    unit = is_separate ? sample_bytes : pixel_bytes;
  for (std::size_t plane = 0; plane < (is_separate ? components : 1); ++plane) {
    for (int y = 0; y < height; y += kTile) {
      for (int x = 0; x < width; x += kTile) {
        std::string tile(kTile * kTile * unit, '\0');
        for (int i = 0; i < kTile * kTile; ++i) {
          const int u = x + i % kTile, v = y + i / kTile;
          if (u >= width || v >= height) continue;
          std::memcpy(&tile[std::size_t(i) * unit],
                      &samples[std::size_t(v * width + u) * pixel_bytes + plane * sample_bytes],
                      unit);
        }
        TIFFWriteTile(tif, tile.data(), std::uint32_t(x), std::uint32_t(y), 0,
                      std::uint16_t(plane));
      }
    }
  }
}

TEST(Tifz, ReadsTilesOfEveryType) {
  const test::Scratch scratch;
  constexpr int width = 37, height = 21;
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP}) {
    const test::Image image = test::runs_picture(type, width, height);
    const auto components = std::size_t(image->components);
    for (const bool is_separate : {false, true}) {
      for (const char* mode : {"w8l", "wb"}) {
        SCOPED_TRACE(testing::Message() << mode << type << is_separate);
        Tags tags = kind(image->bits, image->components, kRgb,
                         type == IMG_TYPE_RGBA_FP ? kFloat : kUint, COMPRESSION_ADOBE_DEFLATE);
        tags.back() = {TIFFTAG_TILEWIDTH, kTile};
        tags.emplace_back(TIFFTAG_TILELENGTH, kTile);
        if (is_separate) tags.emplace_back(TIFFTAG_PLANARCONFIG, PLANARCONFIG_SEPARATE);
        TIFF* const tif = create(scratch.path("a"), mode, width, height, tags);
        write_tiles(tif, test::samples_of(image.get(), components), width, height,
                    std::size_t(image->bits) / 8, components, is_separate);
        TIFFClose(tif);
        test::expect_equal(test::read_image(scratch.path("a"), IMG_TYPE_FILE), image);
      }
    }
  }
}

TEST(Tifz, ReadsWhatItWritesAndGivesTheLinesBeforeDamage) {
  const test::Scratch scratch;
  const std::string path = scratch.path("a");
  for (const int type : {IMG_TYPE_RGB, IMG_TYPE_RGBA, IMG_TYPE_RGB_16, IMG_TYPE_RGBA_16,
                         IMG_TYPE_RGB_FP, IMG_TYPE_RGBA_FP}) {
    const test::Image image = test::runs_picture(type, 301, 400);
    ASSERT_EQ(test::write_image(path, KA_DRIVERS_TIFZ, image.get()), IMG_ERR_NONE);
    test::expect_equal(test::read_image(path, IMG_TYPE_FILE), image);
    const auto whole = test::decode(path);
    EXPECT_EQ(whole.format, KA_DRIVERS_TIFZ);
    EXPECT_EQ(whole.type, type);
    std::string file = test::read_file(path);
    file.replace(file.size() / 2, 64, std::string(64, '\xff'));
    const auto damaged = test::decode(scratch.write("b", file));
    EXPECT_EQ(damaged.error, IMG_ERR_CORRUPT);
    EXPECT_GT(damaged.lines, 0);
    EXPECT_LT(damaged.lines, 400);
  }
}

TEST(Tifz, FailedWritesAreErrors) {
  const test::Scratch scratch;
  const test::Image image = test::runs_picture(IMG_TYPE_RGB, 301, 301);
  const test::Limit limit(RLIMIT_FSIZE, 1000);
  EXPECT_EQ(test::write_image(scratch.path("a"), KA_DRIVERS_TIFZ, image.get()), IMG_ERR_WRITE);
  EXPECT_FALSE(test::exists(scratch.path("a")));
}

// Directories of 32-bit entries: tag, count, value.
TEST(Tifz, HostileFilesAreRefused) {
  constexpr std::uint32_t huge = 1 << 30, side = 1 << 20;
  using Entry = std::array<std::uint32_t, 3>;
  const Entry narrow = {256, 1, 1}, low = {257, 1, 1}, deflate = {259, 1, 8};
  const std::vector<Entry> rows[] = {
      {narrow, low, deflate, {322, 1, side}, {323, 1, side}, {324, 1, 8}, {325, 1, 8}},
      {{256, 1, huge}, low, deflate, {273, 1, 8}, {279, 1, 8}},
      {narrow, low, deflate, {700, huge, 8}}};
  for (const auto& entries : rows) {
    std::string file = test::bytes({'I', 'I', 42, 0, 8, 0, 0, 0, int(entries.size()), 0});
    for (const auto& [tag, count, value] : entries) {
      file += little(tag, 2) + little(4, 2) + little(count, 4) + little(value, 4);
    }
    const test::Scratch scratch;
    const auto got = test::decode(scratch.write("a", file + std::string(68, '\0')));
    EXPECT_EQ(got.error, IMG_ERR_SUBTYPE);
  }
}

}  // namespace
