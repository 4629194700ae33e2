// Sample pictures that other programs wrote: what they hold is read, what is no picture of ours is
// refused. The samples lie beside the project (LUMORA_SAMPLES) with a list of what to expect.
#include <gtest/gtest.h>
#include <ka/message.h>

#include <algorithm>
#include <map>

#include "support.h"

namespace {

// Folders of the families that have a driver, and of files that no driver takes.
constexpr std::string_view kFamilies[] = {"alias", "assembled", "bmp", "hdr", "iff",
                                          "jpg",   "pic",       "ppm", "ps",  "qnt",
                                          "rgb",   "rla",       "tga", "tif", "other"};

using Entry = std::map<std::string, std::string>;

std::string unquoted(std::string_view text) {
  if (text.size() < 2 || text.front() != '"') return std::string(text);
  return std::string(text.substr(1, text.size() - 2));
}

// The list is a flat one: lines `"key": value` between braces, without escapes in the texts.
std::vector<Entry> read_list(const std::string& text) {
  std::vector<Entry> entries;
  for (std::size_t at = 0, end; at < text.size(); at = end + 1) {
    end = std::min(text.find('\n', at), text.size());
    std::string_view line = std::string_view(text).substr(at, end - at);
    line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
    if (line.ends_with(',')) line.remove_suffix(1);
    const std::size_t colon = line.find("\": ");
    if (line == "{") entries.emplace_back();
    if (colon == line.npos || entries.empty()) continue;
    entries.back()[unquoted(line.substr(0, colon + 1))] = unquoted(line.substr(colon + 3));
  }
  return entries;
}

// The largest difference between the image and its raw reference: bottom line first, 3 or 4 bytes
// per pixel.
int largest_difference(const img_image* image, const std::string& reference, std::size_t bytes) {
  int largest = 0;
  std::size_t at = 0;
  for (int y = 0; y < image->height; ++y) {
    for (int x = 0; x < image->width; ++x) {
      for (std::size_t slot = 0; slot < 4; ++slot) {
        const int expected = slot < bytes ? std::uint8_t(reference[at++]) : 255;
        largest = std::max(largest, std::abs(test::plane(image, y, slot)[x] - expected));
      }
    }
  }
  return largest;
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
  EXPECT_LE(largest_difference(image.get(), reference, bytes), std::stoi(entry["tolerance"]));
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
  std::map<std::string, int> tried;
  for (Entry& entry : read_list(test::read_file(folder + "manifest.json"))) {
    const std::string family = entry["file"].substr(0, entry["file"].find('/'));
    if (std::ranges::find(kFamilies, family) == std::end(kFamilies)) continue;
    SCOPED_TRACE(entry["file"] + ", written by " + entry["written_by"]);
    ++tried[family];
    if (entry["expect"] == "pixels") {
      expect_pixels(folder, entry);
    } else {
      expect_refusal(folder, entry);
    }
  }
  EXPECT_EQ(tried.size(), std::size(kFamilies));  // a family without samples is a misspelt one
}

}  // namespace
