// Sample pictures that other programs wrote: what they hold is read, what is no picture of ours is
// refused. The samples lie beside the project (LUMORA_SAMPLES) with a list of what to expect.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>
#include <fstream>
#include <map>

#include "support.h"

namespace {

using Entry = std::map<std::string, std::string>;

// The list is a flat one: lines `"key": value` between braces, without escapes in the texts.
std::vector<Entry> read_list(const std::string& path) {
  std::vector<Entry> entries;
  std::ifstream file(path);
  for (std::string line; std::getline(file, line);) {
    const std::size_t key = line.find('"'), colon = line.find("\": ");
    if (line.ends_with('{')) entries.emplace_back();
    if (colon == line.npos || entries.empty()) continue;
    std::string value = line.substr(colon + 3);
    std::erase_if(value, [](char c) { return c == '"'; });
    if (value.ends_with(',')) value.pop_back();
    entries.back()[line.substr(key + 1, colon - key - 1)] = value;
  }
  return entries;
}

void expect_pixels(const std::string& folder, Entry entry) {
  test::Handle file;
  ASSERT_TRUE(ka_img_open(file, (folder + entry["file"]).c_str(), IMG_TYPE_RGBA));
  EXPECT_EQ(ka_img_format_name(file->format), entry["format"]);
  ASSERT_EQ(std::to_string(file->width), entry["width"]);
  ASSERT_EQ(std::to_string(file->height), entry["height"]);
  const test::Image image(ka_img_image_alloc(file));
  ASSERT_TRUE(ka_img_image_read(file, image.get()));
  const std::size_t bytes = entry["expected"].ends_with(".rgba") ? 4 : 3;
  const std::string reference = test::read_file(folder + entry["expected"]);
  ASSERT_EQ(reference.size(), bytes * std::size_t(file->width) * std::size_t(file->height));
  int largest = 0;
  for (std::size_t i = 0; i < reference.size() / bytes * 4; ++i) {  // the bottom line first
    const std::size_t pixel = i / 4, slot = i % 4, width = std::size_t(file->width);
    const int wanted = slot < bytes ? std::uint8_t(reference[pixel * bytes + slot]) : 255;
    const int found = test::plane(image.get(), int(pixel / width), slot)[pixel % width];
    largest = std::max(largest, std::abs(found - wanted));
  }
  EXPECT_LE(largest, std::stoi(entry["tolerance"]));
}

void expect_refusal(const std::string& folder, Entry entry) {
  const test::MessageLog log;
  test::Handle file;
  const bool opened = ka_img_open(file, (folder + entry["file"]).c_str(), IMG_TYPE_RGBA);
  EXPECT_EQ(opened, entry["stage"] == "read");
  if (opened) {
    const test::Image image(ka_img_image_alloc(file));
    EXPECT_FALSE(image && ka_img_image_read(file, image.get()));
  }
  ka_img_err_msg(file);
  ASSERT_FALSE(log.lines().empty());
  const std::string message = entry["message"] == "null" ? "" : entry["message"];  // null: any
  EXPECT_NE(log.lines().back().find(message), std::string::npos) << log.lines().back();
}

TEST(SamplePictures, AreReadOrRefused) {
  const std::string folder = LUMORA_SAMPLES "/";
  if (!test::exists(folder + "manifest.json")) GTEST_SKIP() << "no sample pictures in " << folder;
  std::vector<Entry> entries = read_list(folder + "manifest.json");
  EXPECT_FALSE(entries.empty());
  for (Entry& entry : entries) {
    SCOPED_TRACE(entry["file"] + ", written by " + entry["written_by"]);
    entry["expect"] == "pixels" ? expect_pixels(folder, entry) : expect_refusal(folder, entry);
  }
}

}  // namespace
