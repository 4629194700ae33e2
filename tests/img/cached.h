// Textures in map files, cached, beside what they hold.
#pragma once

#include <gtest/gtest.h>
#include <ka/detail/scope.h>
#include <ka/mem.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "imgcontext.h"
#include "support.h"
#include "texturecache.h"

namespace test {

// Reverses the bytes of each word of `size` bytes from `begin` to `end`.
inline void swap_words(std::string& file, std::size_t begin, std::size_t end,
                       std::size_t size = 4) {
  for (std::size_t at = begin; at < end; at += size) {
    std::reverse(file.begin() + std::ptrdiff_t(at), file.begin() + std::ptrdiff_t(at + size));
  }
}

// An image whose planes have random bytes, exponents below those of infinity.
inline Image random_image(int type, int width, int height, unsigned seed) {
  Image image = make_image(type, width, height);
  std::minstd_rand random(seed);
  const auto bytes = ka::level_bytes(width, height, image->bits, image->components);
  auto* const start = reinterpret_cast<std::uint8_t*>(image.get());
  for (std::size_t i = 120 + 16 * std::size_t(height); i < *bytes; ++i) {
    start[i] = std::uint8_t(random() >> 8 & 0x7e);
  }
  return image;
}

// Writes it to a map file, with all levels.
inline void write_texture(const std::string& path, img_image* image) {
  Handle file;
  file->file_type = std::uint8_t(image->type);
  file->pyramid = 1;
  ASSERT_TRUE(
      ka_img_create(file, path.c_str(), image->type, IMG_FORMAT_MAP, image->width, image->height));
  ASSERT_TRUE(ka_img_image_write(file, image) && ka_img_close(file));
}

// Its levels as they are in the file.
inline Image mapped_copy(const std::string& path) {
  const std::string file = read_file(path);
  Image image(static_cast<img_image*>(ka_mem_allocate(file.size() - 64)));
  std::memcpy(image.get(), file.data() + 64, file.size() - 64);
  return image;
}

inline img_image* cache(const std::string& path, int* error = nullptr) {
  Handle file;
  if (!ka_img_open(file, path.c_str(), IMG_TYPE_FILE)) return nullptr;
  const auto memory = [](void*, std::size_t bytes) { return ka_mem_allocate(bytes); };
  img_image* const image = ka::img_cache_image_make(file, memory, nullptr);
  if (error) *error = file->error;
  return image;
}

// A texture that is cached while it lives.
class Texture {
 public:
  Texture(const Scratch& scratch, const std::string& name, int type, int width, int height)
      : path_(scratch.path(name)) {
    write_texture(path_, random_image(type, width, height, unsigned(width * height)).get());
    copy_ = mapped_copy(path_);
    image_ = cache(path_);
  }
  ~Texture() { ka::img_cache_image_remove(image_); }
  Texture(const Texture&) = delete;
  Texture& operator=(const Texture&) = delete;

  [[nodiscard]] img_image* image(int k = 0) const { return level(image_, k); }
  [[nodiscard]] img_image* copy(int k = 0) const { return level(copy_.get(), k); }
  [[nodiscard]] const std::string& path() const { return path_; }

  // The byte at a distance from the first plane, in the cache and in the file.
  [[nodiscard]] const std::uint8_t* get(std::uint32_t place, int k = 0) const {
    return static_cast<const std::uint8_t*>(ka_img_cache_get(image(k), first(k) + place));
  }
  [[nodiscard]] std::uint8_t byte(std::uint32_t place, int k = 0) const {
    return reinterpret_cast<const std::uint8_t*>(copy(k))[first(k) + place];
  }
  [[nodiscard]] std::uint32_t bytes(int k = 0) const {
    const img_image& shape = *copy(k);
    return std::uint32_t(shape.width * shape.height * shape.components * ((shape.bits + 7) / 8));
  }

 private:
  static img_image* level(img_image* image, int k) {
    img_image* result = nullptr;
    ka_img_pyramid_set_level(&result, image, k);
    return result;
  }
  [[nodiscard]] std::uint32_t first(int k) const {
    return 120 + 16 * std::uint32_t(copy(k)->height);
  }

  std::string path_;
  Image copy_;
  img_image* image_ = nullptr;
};

inline ka_img_cache_counts counts() {
  ka_img_cache_counts counts;
  ka_img_cache_get_counts(&counts);
  return counts;
}

// Starts every test with an empty cache of the usual size.
class CacheTest : public testing::Test {
 protected:
  CacheTest() { restart(); }
  ~CacheTest() override { restart(); }
  static void restart() {
    const ka::ModuleScope scope(KA_IMG);
    ka::img_cache_exit();
    ka::img_cache_init();
  }
  static void set_budget(int pages) {
    ka::img_cache_size_adjust((pages - counts().budget) * 16384.0);
  }
  // Uses one page after the other of a texture of pages with one line each.
  static void touch(const Texture& texture, int first, int pages) {
    const auto page = std::uint32_t(texture.image()->width);
    for (int i = first; i < first + pages; ++i) {
      ASSERT_EQ(*texture.get(std::uint32_t(i) * page), texture.byte(std::uint32_t(i) * page));
    }
  }

  Scratch scratch_;
};

}  // namespace test
