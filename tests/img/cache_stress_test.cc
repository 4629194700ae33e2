// Texture cache: threads read textures of several times the budget while images are removed and
// added again and memory is asked for. Run under the thread sanitizer.
#include <gtest/gtest.h>
#include <ka/imgaccess.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "cached.h"

namespace {

constexpr int kThreads = 8, kWidth = 16384, kHeight = 300;
constexpr std::size_t kFiles = 4;
constexpr auto kTime = std::chrono::milliseconds(2000);

// A texture that comes and goes. Its bytes are a function of their place, so that no reader needs
// what the remover releases.
struct Guest {
  std::string path;
  std::atomic<img_image*> image;
  std::atomic<int> removals;  // counted before and after
};

std::uint8_t byte_of(std::size_t file, std::uint32_t place) {
  return std::uint8_t((place * 2654435761U >> 13) + std::uint32_t(file) * 57);
}

class CacheStress : public testing::Test {
 protected:
  CacheStress() {
    ka::img_cache_size_adjust(-16384.0 * 900);  // of 1024 pages; the files have 1200
    for (std::size_t file = 0; file < kFiles; ++file) {
      const test::Image image = test::make_image(IMG_TYPE_S, kWidth, kHeight);
      std::uint8_t* const plane = test::plane(image.get(), 0, test::kA);
      for (std::uint32_t i = 0; i < kWidth * kHeight; ++i) plane[i] = byte_of(file, i);
      guests_[file].path = scratch_.path(std::to_string(file));
      test::write_texture(guests_[file].path, image.get(), 0);
      guests_[file].image = test::cache(guests_[file].path);
    }
  }
  ~CacheStress() override {
    for (Guest& guest : guests_) ka::img_cache_image_remove(guest.image);
    ka::img_cache_size_adjust(16384.0 * 900);
  }

  // The first file stays: every value of it is right. The others are null or right, and right when
  // they were not touched between the look at the counter before and after: a header of another
  // file may have come to the same address only after a removal.
  void read(std::size_t file, std::uint32_t number) {
    Guest& guest = guests_[file];
    const std::uint32_t place = number % (kWidth * kHeight);
    const int before = guest.removals;
    const img_image* const image = guest.image;
    const auto* const byte =
        static_cast<const std::uint8_t*>(ka_img_cache_get(image, 120 + 16 * kHeight + place));
    const std::uint8_t value = byte ? *byte : 0;
    const int after = guest.removals;
    ++(byte ? reads_ : misses_);
    const bool is_right = byte ? value == byte_of(file, place) : before % 2 == 1;
    ASSERT_TRUE(is_right || before != after) << file;
    if (file != 0) return;
    float color[4];
    ka_img_get_color(image, color, int(place % kWidth), int(place / kWidth));
    ASSERT_FLOAT_EQ(color[0], float(byte_of(0, place)) / 255.0F);
  }

  void exchange(Guest& guest) {
    ++guest.removals;
    img_image* const old = guest.image;
    ASSERT_TRUE(ka::img_cache_image_remove(old));
    ASSERT_EQ(ka_img_cache_get(old, 120 + 16 * kHeight), nullptr);
    guest.image = test::cache(guest.path);
    ASSERT_NE(guest.image, nullptr);
    ++guest.removals;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }

  // What a thread holds becomes unused, and other threads go on with it.
  static void change_thread() {
    ka_msg_unregister_thread();
    ASSERT_GT(ka_msg_register_thread(), 0);
  }

  test::Scratch scratch_;
  std::array<Guest, kFiles> guests_{};
  std::atomic<std::int64_t> reads_{0}, misses_{0};
};

TEST_F(CacheStress, ThreadsReadWhatIsThere) {
  std::atomic<unsigned> seed{1};
  const auto end = std::chrono::steady_clock::now() + kTime;
  const auto is_over = [end] { return std::chrono::steady_clock::now() > end; };
  const auto remover = test::registered([&] {
    for (std::minstd_rand random; !is_over();) exchange(guests_[1 + random() % (kFiles - 1)]);
  });
  test::in_threads(kThreads, [&] {
    for (std::minstd_rand random(seed++); !is_over();) {
      for (int i = 0; i < 100; ++i) read(random() % kFiles, std::uint32_t(random()));
      if (random() % 50 == 0) ka::img_cache_memory_limit(ka::img_context(), 1 << 20);
      if (random() % 50 == 0) change_thread();
    }
  });
  EXPECT_GT(reads_, 1000);
  EXPECT_GT(misses_, 0);
  EXPECT_GT(test::counts().flushes, 100);
}

}  // namespace
