// Textures in files, cached, beside what they hold.
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

constexpr std::size_t kMapHeader = 64, kMapTable = 184;  // of map files: before header and table

// An image whose planes have random bytes, exponents below those of infinity.
inline Image random_image(int type, int width, int height, unsigned seed = 1) {
  Image image = make_image(type, width, height);
  std::minstd_rand random(seed);
  for (std::size_t i = 0; i < std::size_t(height) * IMG_SLOTS; ++i) {
    std::uint8_t* const samples = plane(image.get(), int(i / IMG_SLOTS), i % IMG_SLOTS);
    for (int x = 0; samples && x < width * ((ka_img_nbits[type] + 7) / 8); ++x) {
      samples[x] = std::uint8_t(random() >> 8 & 0x7e);
    }
  }
  return image;
}

// Writes a file whose handle asks for levels, or for none.
inline void write_texture(const std::string& path, img_image* image, int pyramid = 1,
                          int format = IMG_FORMAT_MAP) {
  Handle file;
  file->file_type = std::uint8_t(image->type);
  file->pyramid = pyramid;
  ASSERT_TRUE(ka_img_create(file, path.c_str(), image->type, format, image->width, image->height));
  ASSERT_TRUE(ka_img_image_write(file, image) && ka_img_close(file)) << file->error;
}

// A map file as a host of the other byte order writes it.
inline std::string from_other_host(const std::string& file) {
  std::string other = file;
  const auto turn = [&](std::size_t begin, std::size_t end, std::size_t size = 4) {
    for (auto at = other.begin() + std::ptrdiff_t(begin); begin < end; begin += size) {
      std::reverse(at, at + std::ptrdiff_t(size));
      at += std::ptrdiff_t(size);
    }
  };
  const auto* const base = reinterpret_cast<const img_image*>(file.data() + kMapHeader);
  turn(0, kMapHeader);
  for (int k = 0; k < std::max(base->levels, 1); ++k) {
    const std::size_t at = kMapHeader + base->level_offset[k];
    const auto* const level = reinterpret_cast<const img_image*>(file.data() + at);
    const std::size_t planes = at + sizeof *level + 16 * std::size_t(level->height),
                      sample = std::size_t(level->bits + 7) / 8;
    turn(at, at + offsetof(img_image, flags));
    turn(at + offsetof(img_image, type), planes);
    turn(planes, planes + std::size_t(level->width * level->height * level->components) * sample,
         sample);
  }
  return other;
}

inline img_image* level(img_image* image, int k) {
  img_image* result = nullptr;
  ka_img_pyramid_set_level(&result, image, k);
  return result;
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
  explicit Texture(int type, int width = 16384, int height = 8) {
    write_texture(path(), random_image(type, width, height).get());
    const std::string file = read_file(path());
    copy_.reset(static_cast<img_image*>(ka_mem_allocate(file.size() - kMapHeader)));
    std::memcpy(copy_.get(), file.data() + kMapHeader, file.size() - kMapHeader);
    image_ = cache(path());
  }
  ~Texture() { ka::img_cache_image_remove(image_); }
  Texture(const Texture&) = delete;
  Texture& operator=(const Texture&) = delete;

  [[nodiscard]] img_image* image(int k = 0) const { return level(image_, k); }
  [[nodiscard]] img_image* copy(int k = 0) const { return level(copy_.get(), k); }
  [[nodiscard]] std::string path() const { return scratch_.path("texture"); }

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
  [[nodiscard]] std::uint32_t first(int k) const {
    return 120 + 16 * std::uint32_t(copy(k)->height);
  }

  Scratch scratch_;
  Image copy_;
  img_image* image_ = nullptr;
};

inline ka_img_cache_counts counts() {
  ka_img_cache_counts counts;
  ka_img_cache_get_counts(&counts);
  return counts;
}

}  // namespace test
