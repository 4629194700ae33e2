// Entries of the headers of further formats: that listing them changes nothing, and that each channel
// of an OpenEXR file can be opened by its name.
#include <gtest/gtest.h>
#include <ka/drivers.h>
#include <zlib.h>

#include <cstring>
#include <filesystem>

#include "pixels.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

Entries entries_of(img_file* handle) {
  Entries entries;
  const auto take = [](void* context, const char* name, const char* value) {
    static_cast<Entries*>(context)->emplace_back(name, value);
  };
  EXPECT_EQ(ka_img_header(handle, take, &entries), 1);
  return entries;
}

std::string chunk(const std::string& type, const std::string& data) {
  const auto be32 = [](std::size_t number) {
    const std::string bytes = test::little(std::uint32_t(number), 4);
    return std::string(bytes.rbegin(), bytes.rend());
  };
  const std::string both = type + data;
  return be32(data.size()) + both +
         be32(crc32(0, reinterpret_cast<const Bytef*>(both.data()), uInt(both.size())));
}

// Texts before and after the pixels, plain and compressed; one that would become very long, and one
// that is damaged.
TEST(PngHeader, TextsAreListed) {
  const auto packed = [](const std::string& text) {
    uLongf size = compressBound(text.size());
    std::string bytes(size, '\0');
    compress(reinterpret_cast<Bytef*>(bytes.data()), &size,
             reinterpret_cast<const Bytef*>(text.data()), text.size());
    return bytes.substr(0, size);
  };
  const std::string zero(1, '\0');
  const std::string file =
      "\x89PNG\r\n\x1a\n" + chunk("IHDR", test::bytes({0, 0, 0, 1, 0, 0, 0, 1, 8, 0, 0, 0, 0})) +
      chunk("tEXt", "Title" + zero + "a\xe4") +
      chunk("zTXt", "Long" + zero + zero + packed(std::string(1 << 20, 'x'))) +
      chunk("pHYs", test::bytes({0, 0, 11, 19, 0, 0, 0, 1, 1})) +
      chunk("IDAT", packed(zero + "a")) +
      chunk("iTXt", "Note" + zero + "\1" + zero + "en" + zero + zero + packed("late")) +
      chunk("zTXt", "Bad" + zero + zero + "no deflate") + chunk("tEXt", "") + chunk("IEND", "");
  const test::Scratch scratch;
  test::Handle handle;
  ASSERT_EQ(ka_img_open(handle, scratch.write("a.png", file).c_str(), IMG_TYPE_FILE), 1);
  const Entries expected = {{"sample_bits", "8"},
                            {"color_type", "grey"},
                            {"interlace", "none"},
                            {"text.Title", "a\xe4"},
                            {"text.Long", std::string(65535, 'x')},
                            {"pixels_per_meter", "2835 1"},
                            {"text.Note", "late"},
                            {"text.Bad", ""},
                            {"text.", ""}};
  EXPECT_EQ(entries_of(handle), expected);
}

TEST(Headers, CanBeListedAtAnyTime) {
  std::size_t pictures = 0;
  for (const char* const family : {"bmp5", "exr", "png", "tifz", "webp"}) {
    for (const auto& entry :
         std::filesystem::directory_iterator(LUMORA_CORPUS "/" + std::string(family))) {
      const std::string path = entry.path();
      test::Handle plain, listed;
      if (!ka_img_open(plain, path.c_str(), IMG_TYPE_FILE) ||
          !ka_img_open(listed, path.c_str(), IMG_TYPE_FILE) || plain->lacks_lines) {
        continue;
      }
      const test::Line first(ka_img_line_alloc(plain)), second(ka_img_line_alloc(listed));
      const Entries entries = entries_of(listed);
      pictures += !entries.empty();
      for (int y = 0; y < std::min(plain->height, 20); ++y) {
        ASSERT_EQ(ka_img_line_read(listed, second.get()), ka_img_line_read(plain, first.get()))
            << path;
        ASSERT_EQ(entries_of(listed), entries) << path;
        for (int slot = 0; slot < IMG_SLOTS; ++slot) {
          const void* const plane = ka_img_line_plane(first.get(), slot);
          const auto bytes = std::size_t(plain->width) * std::size_t(plain->bits) / 8;
          ASSERT_TRUE(!plane ||
                      std::memcmp(plane, ka_img_line_plane(second.get(), slot), bytes) == 0)
              << path;
        }
      }
    }
  }
  EXPECT_GT(pictures, 50U);
}

TEST(ExrHeader, EachChannelCanBeOpenedByItsName) {
  std::size_t channels = 0;
  std::vector<std::string> names;
  for (const char* const name : {"parts", "layers", "depth", "chromaticities", "uint"}) {
    const std::string path = LUMORA_CORPUS "/exr/" + std::string(name) + ".exr";
    test::Handle all;
    ASSERT_EQ(ka_img_open(all, path.c_str(), IMG_TYPE_FILE), 1) << path;
    for (const auto& [entry, channel] : entries_of(all)) {
      if (entry != "channel") continue;
      test::Handle one;
      channel.copy(one->layer, IMG_LAYER_SIZE - 1);
      EXPECT_EQ(ka_img_open(one, path.c_str(), IMG_TYPE_FILE), 1) << path << ' ' << channel;
      EXPECT_EQ(std::count(names.begin(), names.end(), path + channel), 0) << channel;
      names.push_back(path + channel);
      ++channels;
    }
  }
  EXPECT_GE(channels, 10U);
}

}  // namespace
