// What drivers do that no file in a list of cases can show: names, settings and machines in headers,
// files while they are written, devices.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cctype>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>

#include "formats/drivers.h"
#include "imgcall.h"
#include "pictures.h"

namespace {

using test::be, test::bytes, test::flat;

constexpr int kRgb = IMG_TYPE_RGB, kRgba = IMG_TYPE_RGBA;

test::Lines black(std::size_t width, std::size_t height, std::size_t planes) {
  return test::Lines(height, test::Planes(planes, std::vector<std::uint32_t>(width)));
}

// Noise does not fit the records of a sub-block of the full size.
TEST(Catia, PicturesOfAllSizesComeBack) {
  const struct {
    std::size_t width, height;
    bool is_noise;      // in blue alone
    int block_samples;  // of a full sub-block
  } rows[] = {
      {640, 410, true, 409 * 640},  // 262144 / 640 is 409 and so is 262080 / 640
      {262080, 2, true, 262080},
  };
  for (const auto& [width, height, is_noise, block_samples] : rows) {
    SCOPED_TRACE(testing::Message() << width << " x " << height);
    std::mt19937 random(1);
    test::Lines lines = black(width, height, 3);
    for (test::Planes& planes : lines) {
      if (is_noise) std::ranges::generate(planes[2], [&] { return random() & 255; });
    }
    const std::string file = test::written(IMG_FORMAT_PICTURE, kRgb, lines);
    EXPECT_EQ(file.substr(968, 4), test::le(4, block_samples));
    test::expect_picture({"", file, IMG_FORMAT_PICTURE, kRgb, lines});
  }
}

// All but the format lwi, which writes nothing, leave no file; links and devices stay.
TEST(Null, LeavesNoFile) {
  EXPECT_EQ(test::written(IMG_FORMAT_LWI, kRgb, black(2, 1, 3)), "");
  const test::Scratch scratch;
  const std::string file = scratch.write("a", "something"), link = scratch.path("link");
  std::filesystem::create_symlink(scratch.write("target", "something"), link);
  const test::Image image = test::make_image(kRgba, 1, 1);
  for (const std::string& path : {file, link, std::string("/dev/null")}) {
    EXPECT_EQ(test::write_image(path, IMG_FORMAT_NULL, image.get()), IMG_ERR_NONE);
    EXPECT_EQ(test::exists(path), path != file);
  }
}

TEST(Pic, HeaderHasTheSettings) {
  const struct {
    float aspect, fields, written_aspect;
    int written_fields;
  } rows[] = {{0, 0, 1, 3}, {-2, 2.9F, -2, 2}, {1.25F, 4, 1.25F, 0}, {1, -1, 1, 3}, {1, NAN, 1, 0}};
  for (const auto& [aspect, fields, written_aspect, written_fields] : rows) {
    test::NewFile out(IMG_FORMAT_PIC, kRgba, 1, 1);
    out->aspect = aspect;
    out->parameters[1] = std::bit_cast<std::uint32_t>(fields);
    ASSERT_TRUE(out.write_line() && out.close());
    EXPECT_EQ(out.contents().substr(96, 6),
              be(4, std::bit_cast<std::uint32_t>(written_aspect)) + be(2, written_fields));
    EXPECT_EQ(test::OpenFile(out.contents())->aspect, aspect > 0 ? aspect : 1);
  }
}

TEST(Ppm, NumbersKeepTheirPointInLocalesWithCommas) {
  for (const char* const name : {"de_DE.UTF-8", "de_DE", "fr_FR.UTF-8", "fr_FR", "es_ES.UTF-8"}) {
    if (std::setlocale(LC_ALL, name)) break;
  }
  const bool has_commas = std::string(std::localeconv()->decimal_point) == ",";
  EXPECT_TRUE(test::written(IMG_FORMAT_PPM, IMG_TYPE_RGBE, {{{128}, {64}, {32}, {129}}})
                  .ends_with("1.00391 0.503906 0.253906\n"));
  EXPECT_EQ(test::OpenFile("PF 1 1 0 1\n0.5 0 0\n").is_open(), true);
  std::setlocale(LC_ALL, "C");
  if (!has_commas) GTEST_SKIP() << "no such locale is installed: only the C locale was tried";
}

// Every other byte is refused, in either place.
TEST(Ps, TakesHexadecimalDigitsOnly) {
  for (int byte = 1; byte < 256; ++byte) {
    for (const std::string& text : {std::string{char(byte), '0'}, std::string{'0', char(byte)}}) {
      test::OpenFile file("%!PS-Adobe-3.0\n%%Creator: Lumora\n% lu image data 1 1 gray\nluimage\n" +
                          text);
      ASSERT_EQ(file.read_line(), std::isxdigit(byte) != 0) << byte;
      if (file->error == IMG_ERR_NONE) {
        EXPECT_EQ(file.planes(), (test::Planes{{std::uint32_t(std::stoi(text, nullptr, 16))}}));
      }
    }
  }
}

constexpr std::size_t kDate = 528, kDateBytes = 19;

std::string padded(std::string text, std::size_t count) {
  text.resize(count);
  return text;
}

// The header of an RLA file of 2 x 2 pixels, without its date.
std::string rla_header(const std::string& gamma, const std::string& aspect) {
  char host[64] = {};
  EXPECT_EQ(gethostname(host, sizeof host - 1), 0);
  const std::string window = be(2, 0) + be(2, 1) + be(2, 0) + be(2, 1);
  return window + window + be(2, 0) + be(2, 0) + be(2, 3) + be(2, 1) + be(2, 0) + be(2, 0xfffe) +
         padded(gamma, 16) + padded("0.6700 0.3300", 24) + padded("0.2100 0.7100", 24) +
         padded("0.1400 0.0800", 24) + padded("0.3100 0.3160", 24) + be(4, 0) + padded("a", 128) +
         padded("picture", 128) + padded("Brannock", 64) +
         padded(std::string(host).substr(0, 31), 32) +
         padded("somebody whose name has more th", 32) + padded("", 20) + padded("pal_768", 24) +
         padded(aspect, 8) + padded("rgb", 32) + padded("", 46) + be(2, 8) + be(2, 0) + be(2, 8) +
         padded("", 76);
}

TEST(Rla, HeaderHasTheseNumbers) {
  setenv("USER", "somebody whose name has more than 31 characters", 1);
  const struct {
    float gamma, aspect;
    const char *gamma_text, *aspect_text;
  } rows[] = {{0, 0, "2.200000", "0.00000"},
              {1.25F, 1234.5F, "1.250000", "1234.50"},
              {NAN, 0.5F, "2.200000", "0.50000"},
              // 2 to the power of 100 is 1267650600228229401496703205376
              {std::ldexp(1.0F, 100), -1, "126765060022822", "-1.0000"}};
  for (const auto& [gamma, aspect, gamma_text, aspect_text] : rows) {
    test::NewFile out(IMG_FORMAT_RLA, kRgba, 2, 2);
    out->gamma = gamma;
    out->aspect = aspect;
    ASSERT_TRUE(out.write_line() && out.write_line() && out.close());
    std::string written = out.contents();
    written.replace(kDate, kDateBytes, kDateBytes, '\0');
    EXPECT_EQ(written.substr(0, 740), rla_header(gamma_text, aspect_text));
    test::OpenFile in(written);
    EXPECT_FLOAT_EQ(in->gamma, std::strtof(gamma_text, nullptr));
    EXPECT_FLOAT_EQ(in->aspect, aspect > 0 ? aspect : 1);
  }
}

// Headers hold up to 80 characters of the name as it was given.
TEST(Sgi, WritesTheseBytes) {
  constexpr std::size_t name_offset = 24, name_bytes = 80;
  for (const std::string golden : {"written", "written_16_bits"}) {
    const std::string golden_path = LUMORA_CORPUS "/rgb/" + golden + ".case";
    const test::Image image = test::read_image(golden_path, IMG_TYPE_FILE);
    const test::Scratch scratch;
    const std::string path = scratch.path(std::string(name_bytes + 10, 'n'));
    ASSERT_EQ(test::write_image(path, IMG_FORMAT_RGB, image.get()), IMG_ERR_NONE);
    std::string expected = test::read_file(golden_path);
    EXPECT_EQ(test::read_file(path),
              expected.replace(name_offset, name_bytes, path, 0, name_bytes));
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
  for (const int past : {0, 1}) {
    test::NewFile file(IMG_FORMAT_RGB, kRgb, 2, 2);
    ASSERT_TRUE(file.write_line());
    move_next_row(file, first_row + line_bytes, most - line_bytes + std::uint64_t(past));
    EXPECT_EQ(file.write_line(), past == 0);
    EXPECT_EQ(std::pair(file->error, file->os_error),
              std::pair(past * IMG_ERR_WRITE, past * EFBIG));
  }
}

// The first of two lines can be read while the file is being written; the file then goes on.
TEST(Tiff, FilesCanBeReadAfterAFlush) {
  test::NewFile file(IMG_FORMAT_TIF, kRgb, 2, 2);
  ASSERT_TRUE(file.write_line());
  ASSERT_TRUE(ka::img_flush_tiff(file));
  const std::string flushed = file.contents();
  EXPECT_EQ(flushed.substr(128, 4), test::le(4, 2));
  test::OpenFile in(flushed);
  EXPECT_TRUE(in.read_line());
  EXPECT_FALSE(in.read_line());
  ASSERT_TRUE(file.write_line() && file.close());
  EXPECT_EQ(file.contents().substr(128, 4), test::le(4, 4));
  EXPECT_EQ(file.contents().substr(204), bytes({251, 0, 251, 0}));
}

}  // namespace
