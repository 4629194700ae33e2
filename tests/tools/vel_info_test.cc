// The built vel_info: its two forms of output, statistics, and what it says of files that fail.
#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>

#include "support.h"

namespace {

using Json = nlohmann::json;

// Checks a document against the words of JSON Schema that the schema uses.
void expect_valid(const Json& schema, const Json& value, const std::string& at) {
  const auto is_type = [&](const Json& type) {
    return type == "integer" ? value.is_number_integer()
           : type == "null"  ? value.is_null()
                             : type == value.type_name();
  };
  if (schema.contains("type")) {
    const Json types = schema["type"].is_array() ? schema["type"] : Json::array({schema["type"]});
    EXPECT_TRUE(std::any_of(types.begin(), types.end(), is_type)) << at << value;
  }
  EXPECT_TRUE(!schema.contains("const") || schema["const"] == value) << at << value;
  EXPECT_TRUE(!schema.contains("minimum") || schema["minimum"] <= value) << at << value;
  if (schema.contains("enum")) {
    EXPECT_TRUE(std::count(schema["enum"].begin(), schema["enum"].end(), value) == 1)
        << at << value;
  }
  const auto has_all = [&](const Json& names) {
    return std::all_of(names.begin(), names.end(),
                       [&](const std::string& name) { return value.contains(name); });
  };
  EXPECT_TRUE(!schema.contains("required") || has_all(schema["required"])) << at << value;
  if (schema.contains("anyOf")) {
    EXPECT_TRUE(std::any_of(schema["anyOf"].begin(), schema["anyOf"].end(),
                            [&](const Json& choice) { return has_all(choice["required"]); }))
        << at << value;
  }
  if (value.is_array()) {
    for (const Json& item : value) expect_valid(schema.at("items"), item, at + "[]");
  } else if (value.is_object()) {
    for (const auto& [name, part] : value.items()) {
      ASSERT_TRUE(schema.at("properties").contains(name)) << at << name;
      expect_valid(schema["properties"][name], part, at + "." + name);
    }
  }
}

class VelInfo : public testing::Test {
 protected:
  test::Outcome run(const std::vector<std::string>& arguments) {
    return test::run(VEL_INFO, {.arguments = arguments});
  }
  Json document(std::vector<std::string> arguments, int status = 0) {
    arguments.insert(arguments.begin(), "--json");
    const test::Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    Json json = Json::parse(outcome.out);
    expect_valid(Json::parse(test::read_file(VEL_INFO_SCHEMA)), json, "");
    return json;
  }

  test::Scratch scratch;
  const std::string ppm =
      scratch.write("a.ppm", "P6\n# one\x1b[\xff\n2 1\n255\n\x01\x02\x03\x05\x02\xff");
};

TEST_F(VelInfo, TextIsForPeople) {
  const test::Outcome outcome = run({"-s", ppm, "missing", ppm});
  const std::string shown = ppm +
                            "\n  format      ppm\n  size        2 x 1\n  type        rgb\n"
                            "  bits        8\n  components  3\n  levels      1\n  first line  top\n"
                            "  bytes       26\n  magic       P6\n  comment      one [\xff\n"
                            "  maximum     255\n"
                            "  channel R   minimum 1, maximum 5, mean 3\n"
                            "  channel G   minimum 2, maximum 2, mean 2\n"
                            "  channel B   minimum 3, maximum 255, mean 129\n";
  EXPECT_EQ(outcome.out, shown + "\n" + shown);
  EXPECT_EQ(outcome.err,
            "vel_info: missing: can't open file for reading (No such file or directory)\n");
  EXPECT_EQ(outcome.status, 1);
}

TEST_F(VelInfo, JsonFollowsItsSchema) {
  const std::string cut = scratch.write("cut.ppm", "P6 2 2 255\nabcdef");
  const Json files = document({"-s", ppm, "mis\xc3sing\n\xed\xa0\x80", cut}, 1)["files"];
  ASSERT_EQ(files.size(), 3U);
  EXPECT_EQ(files[0]["header"][1]["value"], " one\x1b[\ufffd");
  EXPECT_EQ(files[0]["statistics"][2]["mean"], 129);
  EXPECT_EQ(files[0]["statistics"][2]["samples"], 2);
  EXPECT_EQ(files[1]["name"], "mis\ufffdsing\n\ufffd\ufffd\ufffd");
  EXPECT_FALSE(files[1].contains("format"));
  EXPECT_EQ(files[2]["width"], 2);
  EXPECT_TRUE(files[2].contains("error") && !files[2].contains("statistics"));
}

// Every type, with widths that leave a rest after the lanes of vectors: against a plain loop.
TEST_F(VelInfo, StatisticsAreThoseOfAPlainLoop) {
  const std::string path = scratch.path("a.map");
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    for (const int width : {1, 15, 16, 83}) {
      if (type == IMG_TYPE_RGBE) continue;
      const int height = 3, bits = ka_img_nbits[type];
      const test::Image image = test::make_image(type, width, height);
      const bool is_signed = type == IMG_TYPE_VTA || type == IMG_TYPE_VTS;
      const std::size_t slot = test::plane(image.get(), 0, 0) ? 0 : 3;
      double least = HUGE_VAL, most = -HUGE_VAL, sum = 0;
      std::uint64_t others[2] = {0, 0};
      for (int i = 0; i < width * height; ++i) {
        std::uint8_t* const plane = test::plane(image.get(), i / width, slot);
        const int x = i % width;
        const std::uint32_t random = 2654435761U * std::uint32_t(i + 7 * width);
        double value = 0;
        if (bits == 1) {
          value = random >> 31;
          plane[x / 8] = std::uint8_t(plane[x / 8] | unsigned(value) << x % 8);
        } else if (bits == 8) {
          value = plane[x] = std::uint8_t(random >> 24);
        } else if (bits == 16) {
          const auto sample = reinterpret_cast<std::uint16_t*>(plane)[x] =
              std::uint16_t(random >> 16);
          value = is_signed ? double(std::int16_t(sample)) : sample;
        } else if (type == IMG_TYPE_TAG) {
          value = reinterpret_cast<std::uint32_t*>(plane)[x] = random;
        } else {
          const float sample = i % 7 == 3 ? NAN : i % 11 == 5 ? -INFINITY : float(random) - 2e9F;
          reinterpret_cast<float*>(plane)[x] = sample;
          others[0] += std::isnan(sample);
          others[1] += std::isinf(sample);
          if (!std::isfinite(sample)) continue;
          value = sample;
        }
        least = std::min(least, value);
        most = std::max(most, value);
        sum += value;
      }
      ASSERT_EQ(test::write_image(path, IMG_FORMAT_MAP, image.get()), 0);
      const Json found = document({"-s", path})["files"][0]["statistics"][0];
      EXPECT_EQ(found["minimum"], least) << type << ' ' << width;
      EXPECT_EQ(found["maximum"], most) << type << ' ' << width;
      EXPECT_EQ(found["nan"], others[0]) << type;
      EXPECT_EQ(found["infinite"], others[1]) << type;
      const double numbers = double(width * height) - double(others[0] + others[1]);
      EXPECT_NEAR(found["mean"], sum / numbers, 1e-9 * std::fabs(most - least)) << type;
    }
  }
}

TEST_F(VelInfo, AChannelWithoutNumbersHasNone) {
  const test::Image image = test::make_image(IMG_TYPE_S_FP, 2, 1);
  test::set_samples<float>(test::plane(image.get(), 0, test::kA), {NAN, INFINITY});
  ASSERT_EQ(test::write_image(scratch.path("a.map"), IMG_FORMAT_MAP, image.get()), 0);
  const Json found = document({"-s", scratch.path("a.map")})["files"][0]["statistics"][0];
  EXPECT_TRUE(found["minimum"].is_null() && found["maximum"].is_null() && found["mean"].is_null());
  EXPECT_NE(run({"-s", scratch.path("a.map")}).out.find("no numbers, not a number 1, infinite 1"),
            std::string::npos);
}

TEST_F(VelInfo, WrongUsageAndLostOutputAreReported) {
  for (const std::vector<std::string>& arguments :
       {std::vector<std::string>{}, {"-x", ppm}, {"-l", std::string(128, 'x'), ppm}}) {
    const test::Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 2);
    EXPECT_TRUE(outcome.out.empty());
    EXPECT_TRUE(test::matches(outcome.err, "vel_info: [^\n]*\\(try vel_info --help\\)\n"));
  }
  const test::Outcome closed =
      test::run(VEL_INFO, {.arguments = {ppm}, .standard_output = test::kClosed});
  EXPECT_EQ(closed.status, 1);
  EXPECT_TRUE(test::matches(closed.err, "vel_info: cannot write to standard output [^\n]*\n"));
}

}  // namespace
