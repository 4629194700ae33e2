// Names and numbers: formats, pixel types, the versions of the library.
#include <gtest/gtest.h>
#include <ka/message.h>

#include "convert_reference.h"
#include "support.h"

namespace {

constexpr const char* kTypeNames[] = {
    "rgba", "rgba_16", "rgb",     "rgb_16", "a",   "a_16",   "s",        "s_16", "vta",  "vts", "z",
    "n",    "tag",     "rgba_fp", "m",      "bit", "rgb_fp", "coverage", "rgbe", "a_16", "s_fp"};

TEST(Types, HaveTheirNamesBitsAndComponents) {
  for (int type = 0; type < 21; ++type) {
    EXPECT_STREQ(ka_img_type_name(type), kTypeNames[type]);
    const auto [bits, slot, planes] = test::kLayouts[std::size_t(type)];
    EXPECT_EQ(ka_img_nbits[type], bits) << type;
    EXPECT_EQ(ka_img_ncomp[type], planes) << type;
    const int first = type == IMG_TYPE_A_FP ? IMG_TYPE_A_16 : type;  // the two share a name
    EXPECT_EQ(ka_img_type_identify(kTypeNames[type]), first);
  }
}

TEST(Types, HaveNumbersForNamesOnly) {
  const std::pair<const char*, int> rows[] = {
      {"contour", 23},       {"fb0", 24}, {"fb3", 27}, {"fb7", 31}, {"fb8", 21},  {"fb9", 21},
      {"fb99999999999", 21}, {"fb", 24},  {"RGB", 21}, {"", 21},    {"rgb ", 21}, {"contours", 21}};
  for (const auto& [name, number] : rows) EXPECT_EQ(ka_img_type_identify(name), number) << name;
  EXPECT_STREQ(ka_img_type_name(23), "contour");
  EXPECT_STREQ(ka_img_type_name(31), "fb7");
  for (const int none : {-1, 21, 22, 32, 99}) EXPECT_EQ(ka_img_type_name(none), nullptr) << none;
}

// Names, line orders and types of the built-in formats: tests/docs.
TEST(Formats, HaveOneNumberForEachName) {
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    EXPECT_EQ(ka_img_format_identify(ka_img_format_name(format)), format);
  }
  for (int format = IMG_FORMAT_CUSTOM; format < IMG_FORMAT_COUNT; ++format) {
    EXPECT_STREQ(ka_img_format_name(format), "<undefined format>");
    EXPECT_EQ(ka_img_best_type(format), IMG_TYPE_RGBA);
  }
  for (const char* const none : {"TIF", "", "ppm "}) EXPECT_EQ(ka_img_format_identify(none), -1);
  EXPECT_STREQ(ka_img_version(), "img:\tversion 2.0");
}

}  // namespace
