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

struct Row {
  const char* name;
  int topdown;
  std::string best;
  std::string types;  // that can be written, a blank behind each
};

const std::string kAll = [] {
  std::string all;
  for (const char* const name : kTypeNames) all += std::string(name) + " ";
  return all;
}();
const std::string kTiff = "rgba rgba_16 rgb rgb_16 rgba_fp rgb_fp rgbe ";

// By format number, the types in the order of their numbers.
const std::vector<Row> kRows = {
    {"rla", 0, "rgba", "rgba rgbe "},
    {"rlb", 0, "rgba", "rgba rgbe "},
    {"pic", 1, "rgba", "rgba rgbe "},
    {"alias", 1, "rgb", "rgb "},
    {"rgb", 0, "rgba", "rgba rgba_16 rgb rgb_16 rgb_fp rgbe "},
    {"ct", 0, "rgba", "rgba rgba_16 rgba_fp rgbe "},
    {"ct16", 0, "rgba_16", "rgba_16 "},
    {"st", 0, "s", "s s_16 s_fp "},
    {"st16", 0, "s_16", "s_16 s_fp "},
    {"vt", 0, "vta", "vta "},
    {"wt", 0, "vts", "vts "},
    {"zt", 0, "z", "z "},
    {"nt", 0, "n", "n "},
    {"tt", 0, "tag", "tag "},
    {"tif", 1, "rgba", kTiff},
    {"tifu", 1, "rgba", kTiff},
    {"tif3", 1, "rgb", "rgb rgb_16 rgb_fp "},
    {"tif3u", 1, "rgb", "rgb rgb_16 rgb_fp "},
    {"picture", 1, "rgb", "rgb "},
    {"ppm", 1, "rgb", "rgb rgb_16 rgb_fp rgbe "},
    {"ctfp", 0, "rgba_fp", "rgba_fp "},
    {"map", 0, "rgba", kAll},
    {"tga", 0, "rgba", "rgba rgbe "},
    {"bmp", 0, "rgba", "rgba rgb rgbe "},
    {"qntpal", 1, "rgb", "rgb "},
    {"qntntsc", 1, "rgb", "rgb "},
    {"Zpic", 1, "z", "z "},
    {"null", 0, "rgba", kAll},
    {"mt", 0, "m", "m "},
    {"bit", 0, "bit", "bit "},
    {"tif16", 1, "rgba_16", "rgba_16 rgb_16 "},
    {"tif16u", 1, "rgba_16", "rgba_16 rgb_16 "},
    {"tif16-3", 1, "rgb_16", "rgb_16 "},
    {"tif16-3u", 1, "rgb_16", "rgb_16 "},
    {"jpg", 1, "rgb", "rgb "},
    {"lwi", 1, "rgb", "rgb "},
    {"ps", 1, "rgb", "rgb s "},
    {"eps", 1, "rgb", "rgb s "},
    {"cth", 0, "rgbe", "rgbe "},
    {"hdr", 1, "rgbe", "rgbe "},
    {"stfp", 0, "s_fp", "s_fp "},
    {"iff", 0, "rgba", "rgba rgba_16 rgb rgb_16 s s_16 z rgba_fp rgb_fp rgbe s_fp "},
};

// A file whose type the format cannot write gets the best type.
std::string writable_types(const std::string& path, int format) {
  const test::MessageLog log(KA_FATAL);
  std::string types;
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    test::Handle file;
    file->file_type = std::uint8_t(type);
    ka_img_create(file, path.c_str(), type, format, 1, 1);
    if (file->file_type == type) types += std::string(kTypeNames[type]) + " ";
    EXPECT_TRUE(file->file_type == type || file->file_type == ka_img_best_type(format));
  }
  return types;
}

TEST(Formats, HaveTheirNamesTypesAndLineOrders) {
  const test::Scratch scratch;
  const std::string path = scratch.path("a");
  ASSERT_EQ(kRows.size(), std::size_t(IMG_FORMAT_CUSTOM));
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    const Row& row = kRows[std::size_t(format)];
    SCOPED_TRACE(row.name);
    EXPECT_STREQ(ka_img_format_name(format), row.name);
    EXPECT_EQ(ka_img_format_identify(row.name), format);
    EXPECT_EQ(ka_img_type_name(ka_img_best_type(format)), row.best);
    EXPECT_EQ(writable_types(path, format), row.types);
    test::Handle file;
    file->file_type = std::uint8_t(ka_img_best_type(format));
    ka_img_create(file, path.c_str(), IMG_TYPE_RGBA, format, 1, 1);
    EXPECT_EQ(file->topdown, row.topdown);
  }
  for (int format = IMG_FORMAT_CUSTOM; format < IMG_FORMAT_COUNT; ++format) {
    EXPECT_STREQ(ka_img_format_name(format), "<undefined format>");
    EXPECT_EQ(ka_img_best_type(format), IMG_TYPE_RGBA);
  }
  for (const char* const none : {"TIF", "", "ppm "}) EXPECT_EQ(ka_img_format_identify(none), -1);
  EXPECT_STREQ(ka_img_version(), "img:\tversion 2.0");
}

}  // namespace
