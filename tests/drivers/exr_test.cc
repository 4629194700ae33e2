// OpenEXR files: the samples, the layers, what is written, damaged and hostile files.
#include <gtest/gtest.h>
#include <ka/drivers.h>

#include <array>
#include <bit>
#include <cmath>
#include <cstring>
#include <random>

#include "exrpixels.h"
#include "pixels.h"

namespace {

using test::little;

using Floats = std::vector<float>;

std::string seed(const std::string& name) { return LUMORA_CORPUS "/exr/" + name + ".exr"; }

// What is read of a file: planes of the lines up to the first failure, one after the other.
struct Read {
  int error = 0, width = 0, height = 0, type = -1;
  std::size_t lines = 0;
  float aspect = 0;
  std::uint32_t profile = 0;
  std::string reason;
  Floats samples;
};

Read read(const std::string& path, const std::string& layer = "") {
  test::Handle file;
  layer.copy(file->layer, IMG_LAYER_SIZE - 1);
  Read result;
  if (ka_img_open(file, path.c_str(), IMG_TYPE_FILE)) {
    const test::Line line(ka_img_line_alloc(file));
    result.type = file->file_type;
    for (; result.lines < std::size_t(file->height); ++result.lines) {
      if (!ka_img_line_read(file, line.get())) break;
      for (std::size_t slot = 0; slot < std::size_t(file->components); ++slot) {
        const auto plane = test::samples<float>(test::plane(line.get(), slot), file->width);
        result.samples.insert(result.samples.end(), plane.begin(), plane.end());
      }
    }
  }
  result.error = file->error;
  result.width = file->width;
  result.height = file->height;
  result.aspect = file->aspect;
  result.profile = file->profile;
  result.reason = file->reason;
  return result;
}

float half_value(unsigned half) {
  const int exponent = int(half >> 10 & 31);
  const float mantissa = float(half & 1023);
  const float sign = half >> 15 == 0 ? 1.0F : -1.0F;
  if (exponent == 31) return mantissa == 0 ? sign * INFINITY : NAN;
  return sign *
         (exponent == 0 ? std::ldexp(mantissa, -24) : std::ldexp(mantissa + 1024, exponent - 25));
}

TEST(ExrPixels, EveryHalfHasItsValue) {
  std::vector<std::uint8_t> row;
  for (unsigned half = 0; half < 65536; ++half) {
    row.push_back(std::uint8_t(half));
    row.push_back(std::uint8_t(half >> 8));
  }
  Floats fast(65536), plain(65536);
  std::vector<std::uint8_t> back(row.size());
  drivers::exr_from_half(row.data(), fast.data(), fast.size());
  drivers::exr_from_half_plain(row.data(), plain.data(), plain.size());
  drivers::exr_to_half(plain.data(), back.data(), plain.size());
  for (unsigned half = 0; half < 65536; ++half) {
    const float value = half_value(half);
    const bool is_number = !std::isnan(value);
    ASSERT_EQ(is_number, !std::isnan(fast[half]) && !std::isnan(plain[half])) << half;
    if (!is_number) continue;
    ASSERT_EQ(std::bit_cast<unsigned>(fast[half]), std::bit_cast<unsigned>(value)) << half;
    ASSERT_EQ(std::bit_cast<unsigned>(plain[half]), std::bit_cast<unsigned>(value)) << half;
    ASSERT_EQ(std::memcmp(&back[2 * half], &row[2 * half], 2), 0) << half;
  }
}

TEST(ExrPixels, HalvesAreTheNearestOnesAndEvenBetweenTwo) {
  for (unsigned half = 0; half < 0x7c00; ++half) {
    // The value, the middle between it and the next one, and both neighbors of the middle. The
    // largest half is followed by 65536 here.
    const float low = half_value(half), high = half == 0x7bff ? 65536 : half_value(half + 1);
    const float middle = low + (high - low) / 2;
    const Floats values{low, std::nextafter(middle, low), middle, std::nextafter(middle, high)};
    std::array<std::uint8_t, 8> row{};
    drivers::exr_to_half(values.data(), row.data(), values.size());
    const unsigned even = half + (half & 1);
    const unsigned expected[] = {half, half, even, half + 1};
    for (std::size_t i = 0; i < 4; ++i) {
      ASSERT_EQ(row[2 * i] | row[2 * i + 1] << 8, int(expected[i])) << half << ' ' << i;
    }
  }
}

// Random floats within the range of a half.
test::Image random_image(int type, int width, int height) {
  test::Image image = test::make_image(type, width, height);
  std::mt19937 random{std::mt19937::result_type(width)};
  std::normal_distribution<float> values(0, 10);
  for (int y = 0; y < height; ++y) {
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      std::uint8_t* const plane = test::plane(image.get(), y, slot);
      if (!plane) continue;
      Floats samples(static_cast<std::size_t>(width));
      for (float& sample : samples) sample = values(random);
      test::set_samples(plane, samples);
    }
  }
  return image;
}

std::string write(const test::Scratch& scratch, img_image* image, std::uint32_t as_float) {
  std::string path = scratch.path("written.exr");
  test::Handle file;
  file->file_type = std::uint8_t(image->type);
  EXPECT_TRUE(
      ka_img_create(file, path.c_str(), image->type, KA_DRIVERS_EXR, image->width, image->height));
  file->parameters[3] = as_float;
  file->aspect = 2;
  EXPECT_TRUE(ka_img_image_write(file, image));
  EXPECT_TRUE(ka_img_close(file));
  return path;
}

TEST(Exr, WhatIsWrittenIsRead) {
  const test::Scratch scratch;
  for (const int type : {IMG_TYPE_RGBA_FP, IMG_TYPE_RGB_FP, IMG_TYPE_Z}) {
    for (const auto& [width, height] : {std::pair{1, 1}, {7, 16}, {33, 17}, {301, 50}}) {
      for (const bool as_float : {false, true}) {
        const test::Image image = random_image(type, width, height);
        const Read result = read(write(scratch, image.get(), as_float));
        ASSERT_EQ(result.error, IMG_ERR_NONE) << result.reason;
        ASSERT_EQ(result.type, type);
        ASSERT_EQ(std::pair(result.width, result.height), std::pair(width, height));
        EXPECT_EQ(result.aspect, 2);
        Floats expected;
        for (int y = height - 1; y >= 0; --y) {
          for (std::size_t slot = 0; slot < std::size_t(ka_img_ncomp[type]); ++slot) {
            auto plane = test::samples<float>(test::plane(image.get(), y, slot), width);
            std::vector<std::uint8_t> halves(2 * plane.size());
            if (!as_float && type != IMG_TYPE_Z) {
              drivers::exr_to_half(plane.data(), halves.data(), plane.size());
              drivers::exr_from_half_plain(halves.data(), plane.data(), plane.size());
            }
            expected.insert(expected.end(), plane.begin(), plane.end());
          }
        }
        ASSERT_EQ(result.samples, expected);
      }
    }
  }
}

TEST(Exr, CompressionsHoldTheSamePixels) {
  const Read plain = read(seed("none"));
  ASSERT_EQ(plain.error, IMG_ERR_NONE) << plain.reason;
  ASSERT_EQ(plain.samples.size(), 7U * 5 * 4);
  for (const char* const name : {"rle", "zips", "zip", "piz", "pxr24", "pxr24_float", "ffmpeg"}) {
    EXPECT_EQ(read(seed(name)).samples, plain.samples) << name;
  }
  for (const char* const name : {"b44", "b44a"}) {
    const Read lossy = read(seed(name));
    ASSERT_EQ(lossy.samples.size(), plain.samples.size()) << name;
    for (std::size_t i = 0; i < plain.samples.size(); ++i) {
      EXPECT_NEAR(lossy.samples[i], plain.samples[i], 0.3) << name;
    }
  }
}

// Constant pictures of (0.2, 0.4, 0.6) as halves.
TEST(Exr, TilesAreTheFirstLevel) {
  const float color[] = {half_value(0x3266), half_value(0x3666), half_value(0x38cd)};
  for (const auto& [name, width] : {std::pair{"tiles", 40U}, {"mipmap", 16U}}) {
    const Read result = read(seed(name));
    ASSERT_FALSE(result.samples.empty()) << result.reason;
    for (std::size_t i = 0; i < result.samples.size(); ++i) {
      ASSERT_EQ(result.samples[i], color[i / width % 3]) << name;
    }
  }
}

TEST(Exr, LayersPartsAndChannelsAreFoundByName) {
  const Read all = read(seed("none"));
  const auto planes = [&all](const std::vector<std::size_t>& slots) {
    Floats samples;
    for (std::size_t y = 0; y < 5; ++y) {
      for (const std::size_t slot : slots) {
        const auto at = all.samples.begin() + std::ptrdiff_t(7 * (4 * y + slot));
        samples.insert(samples.end(), at, at + 7);
      }
    }
    return samples;
  };
  const struct {
    const char *file, *layer;
    int type;
    std::vector<std::size_t> slots;  // of the first file
    const char* rest;                // what the warning says; null: there is none
  } rows[] = {
      {"layers", "", IMG_TYPE_RGB_FP, {0, 1, 2}, "not read: channel depth.Z"},
      {"layers", "depth", IMG_TYPE_Z, {3}, "diffuse.B, channel diffuse.G, channel diffuse.R"},
      {"layers", "diffuse.G", IMG_TYPE_RGB_FP, {1, 1, 1}, "channel depth.Z, channel diffuse.B"},
      {"layers", "0", IMG_TYPE_RGB_FP, {0, 1, 2}, "depth.Z"},
      {"parts", "", IMG_TYPE_RGBA_FP, {0, 1, 2, 3}, "not read: part second"},
      {"parts", "second", IMG_TYPE_RGB_FP, {0, 1, 2}, "channel depth.Z, part main"},
      {"parts", "second.diffuse.R", IMG_TYPE_RGB_FP, {0, 0, 0}, "part main"},
      {"depth", "", IMG_TYPE_Z, {0}, nullptr},
      {"luminance", "", IMG_TYPE_RGBA_FP, {0, 0, 0, 3}, nullptr},
      {"none", "A", IMG_TYPE_RGB_FP, {3, 3, 3}, "channel B, channel G, channel R"},
  };
  for (const auto& [file, layer, type, slots, rest] : rows) {
    SCOPED_TRACE(std::string(file) + " " + layer);
    const test::MessageLog log(~0U);
    const Read result = read(seed(file), layer);
    EXPECT_EQ(result.error, IMG_ERR_NONE) << result.reason;
    EXPECT_EQ(result.type, type);
    EXPECT_EQ(result.samples, planes(slots));
    std::string warnings;
    for (const std::string& line : log.lines()) {
      if (line.find("not read") != std::string::npos) warnings += line;
    }
    EXPECT_EQ(warnings.empty(), !rest);
    EXPECT_NE(warnings.find(rest ? rest : ""), std::string::npos) << warnings;
  }
}

TEST(Exr, PixelsOutsideTheDataWindowAreZero) {
  // Data from (3, -2) to (9, 3), display from (0, 0) to (7, 5).
  const Read all = read(seed("none")), result = read(seed("windows"));
  ASSERT_EQ(result.samples.size(), 8U * 6 * 4) << result.reason;
  for (std::size_t i = 0; i < result.samples.size(); ++i) {
    const std::size_t x = i % 8, slot = i / 8 % 4, y = i / 32;
    const bool is_inside = x >= 3 && y <= 2;
    EXPECT_EQ(result.samples[i], is_inside ? all.samples[7 * (4 * (y + 2) + slot) + x - 3] : 0);
  }
}

TEST(Exr, KindsOfSamplesAndTheHeaderAreRead) {
  // Rows of B, G and R: 0 to 8, and 2^32 - 1 downwards, which are all 2^32 as floats.
  const Floats expected{6,      7,      8,      3,      4,      5,      0,      1,      2,
                        0x1p32, 0x1p32, 0x1p32, 0x1p32, 0x1p32, 0x1p32, 0x1p32, 0x1p32, 0x1p32};
  EXPECT_EQ(read(seed("uint")).samples, expected);
  // Chroma in every other line and column: pixel x of line y has the luminance y + x / 4.
  const Read chroma = read(seed("luminance_chroma"));
  ASSERT_EQ(chroma.samples.size(), 4U * 4 * 3) << chroma.reason;
  for (std::size_t i = 0; i < chroma.samples.size(); ++i) {
    const std::size_t y = i / 12, x = i % 4;
    EXPECT_EQ(chroma.samples[i], float(y) + float(x) / 4);
  }
  const Read described = read(seed("chromaticities"));
  EXPECT_EQ(described.aspect, 2);
  EXPECT_NE(described.profile, 0U);
  EXPECT_EQ(read(seed("none")).profile, 0U);
}

TEST(Exr, WhatIsNotReadIsNamed) {
  const struct {
    const char *file, *layer, *reason;
  } rows[] = {
      {"deep", "", "deep data is not read"},
      {"dwaa", "", "DWAA compression is not read"},
      {"layers", "nothing", "no layer, channel or part is named \"nothing\""},
      {"luminance_chroma", "RY", "channel RY has fewer samples than the picture has pixels"},
  };
  for (const auto& [file, layer, reason] : rows) {
    const Read result = read(seed(file), layer);
    EXPECT_EQ(result.error, IMG_ERR_SUBTYPE) << file;
    EXPECT_EQ(result.reason, reason);
  }
}

// Damaged files: the bytes of a seed are changed.

// Where the value of an attribute begins.
std::size_t value_of(const std::string& file, const std::string& name, const std::string& type) {
  const std::string start = name + '\0' + type + '\0';
  return file.find(start) + start.size() + 4;
}

TEST(Exr, ShortFilesFailAtTheFirstLineTheyLack) {
  const test::Scratch scratch;
  for (const char* const name : {"none", "tiles", "parts"}) {
    const std::string whole = test::read_file(seed(name));
    const Read all = read(seed(name));
    std::size_t lines = 0;
    for (std::size_t size = 4; size < whole.size(); size += 5) {
      const Read result = read(scratch.write("short", whole.substr(0, size)));
      if (result.error == IMG_ERR_NONE) {
        EXPECT_STREQ(name, "parts") << size;  // the second part is not read
      } else {
        EXPECT_EQ(result.error, IMG_ERR_READ) << name << size << result.reason;
      }
      EXPECT_GE(result.lines, lines);
      lines = result.lines;
      ASSERT_TRUE(std::equal(result.samples.begin(), result.samples.end(), all.samples.begin()));
    }
    EXPECT_GT(lines, 0U) << name;
  }
}

TEST(Exr, DamagedChunksFailAtTheirLine) {
  const test::Scratch scratch;
  const test::Image picture = random_image(IMG_TYPE_RGBA_FP, 40, 50);
  const std::string whole = test::read_file(write(scratch, picture.get(), 0));
  const std::size_t table = value_of(whole, "screenWindowWidth", "float") + 4 + 1;
  std::uint64_t second = 0;  // of four chunks of 16 lines
  std::memcpy(&second, whole.data() + table + 8, 8);
  const struct {
    std::size_t at;
    std::string bytes;
    int error;
    std::size_t lines;
  } rows[] = {
      {second + 8 + 40, "damage", IMG_ERR_CORRUPT, 16},
      {second, little(32, 4), IMG_ERR_CORRUPT, 16},           // other lines than the table says
      {second + 4, little(0, 4), IMG_ERR_CORRUPT, 16},        // no bytes
      {second + 4, little(0x7fffffff, 4), IMG_ERR_READ, 16},  // more than the file has
      {table + 16, whole.substr(table + 8, 8), IMG_ERR_CORRUPT, 32},  // the chunk before
      {table + 16, little(0, 8), IMG_ERR_READ, 32},
  };
  for (const auto& [at, bytes, error, lines] : rows) {
    std::string file = whole;
    file.replace(at, bytes.size(), bytes);
    const Read result = read(scratch.write("damaged", file));
    EXPECT_EQ(result.error, error) << at << ' ' << result.reason;
    EXPECT_EQ(result.lines, lines) << at;
    EXPECT_NE(result.reason, "") << at;
  }
}

TEST(Exr, HostileHeadersAreRefusedOrCostLittle) {
  const test::Scratch scratch;
  const std::string whole = test::read_file(seed("zip"));
  const std::size_t data = value_of(whole, "dataWindow", "box2i");
  const std::size_t display = value_of(whole, "displayWindow", "box2i");
  const auto window = [&whole](std::size_t at, std::uint32_t low, std::uint32_t width,
                               std::uint32_t height) {
    return std::string(whole).replace(
        at, 16, little(low, 4) + little(low, 4) + little(width, 4) + little(height, 4));
  };
  std::string attributes = whole.substr(0, 8);
  for (int i = 0; i < 100'000; ++i)
    attributes += "a" + std::to_string(i) + '\0' + "int" + '\0' + little(4, 4) + "1234";
  const struct {
    const char* name;
    std::string file;
    int error;
  } rows[] = {
      {"display of 2^32 pixels", window(display, 1U << 31, 0x7fffffff, 0x7fffffff),
       IMG_ERR_CORRUPT},
      {"wide display", window(display, 0, 1 << 28, 4), IMG_ERR_READ},
      {"wide data", window(data, 0, 1 << 28, 4), IMG_ERR_SUBTYPE},
      {"high data", window(data, 0, 6, 1 << 28), IMG_ERR_READ},
      {"100000 attributes", attributes + whole.substr(8), IMG_ERR_SUBTYPE},
  };
  for (const auto& [name, file, error] : rows) {
    const Read result = read(scratch.write("hostile", file));
    EXPECT_EQ(result.error, error) << name << ' ' << result.reason;
    EXPECT_LT(result.lines, 5U) << name;
  }
}

}  // namespace
