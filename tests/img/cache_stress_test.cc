// Texture cache: threads read textures of several times the budget while images are removed and
// added again and memory is asked for. Run under the thread sanitizer.
#include <gtest/gtest.h>
#include <ka/imgaccess.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "cached.h"

namespace {

constexpr int kThreads = 8, kHeight = 300;
constexpr std::size_t kFiles = 4;
constexpr auto kTime = std::chrono::milliseconds(2000);

// A texture that comes and goes. Its bytes are a function of their place, so that no reader needs
// what the remover releases.
struct Guest {
  std::atomic<img_image*> image;
  std::atomic<int> removals;  // counted before and after
};

std::uint8_t byte_of(std::size_t file, std::uint32_t place) {
  return std::uint8_t((place * 2654435761U >> 13) + std::uint32_t(file) * 57);
}

void write_guest(const std::string& path, std::size_t file) {
  const test::Image image = test::make_image(IMG_TYPE_S, 16384, kHeight);
  auto* const plane = reinterpret_cast<std::uint8_t*>(image.get()) + 120 + 16 * kHeight;
  for (std::uint32_t i = 0; i < 16384U * kHeight; ++i) plane[i] = byte_of(file, i);
  ASSERT_EQ(test::write_image(path, IMG_FORMAT_MAP, image.get()), IMG_ERR_NONE);
}

class Stress {
 public:
  Stress() {
    for (std::size_t i = 0; i < kFiles; ++i) {
      write_guest(path(i), i);
      guests_[i].image = test::cache(path(i));
    }
  }
  ~Stress() {
    for (Guest& guest : guests_) ka::img_cache_image_remove(guest.image);
  }
  Stress(const Stress&) = delete;
  Stress& operator=(const Stress&) = delete;

  void run() {
    std::atomic<unsigned> seed{1};
    const auto end = std::chrono::steady_clock::now() + kTime;
    const auto is_over = [end] { return std::chrono::steady_clock::now() > end; };
    const auto remover = test::registered([&] {
      for (std::minstd_rand random; !is_over();) exchange(1 + random() % (kFiles - 1));
    });
    test::in_threads(kThreads, [&] {
      std::minstd_rand random(seed++);
      while (!is_over()) {
        for (int i = 0; i < 100; ++i) read(random() % kFiles, std::uint32_t(random()));
        if (random() % 50 == 0) ka::img_cache_memory_limit(ka::img_context(), 1 << 20);
        if (random() % 50 == 0) change_thread();
      }
    });
  }
  [[nodiscard]] std::int64_t reads() const { return reads_; }
  [[nodiscard]] std::int64_t misses() const { return misses_; }

 private:
  [[nodiscard]] std::string path(std::size_t file) const {
    return scratch_.path(std::to_string(file));
  }

  // The first file stays: every value of it is right. The others are null or right, and right when
  // they were not touched between the look at the counter before and after.
  void read(std::size_t file, std::uint32_t number) {
    Guest& guest = guests_[file];
    const std::uint32_t place = number % (16384U * kHeight);
    const int before = guest.removals;
    const img_image* const image = guest.image;
    const auto* const byte =
        static_cast<const std::uint8_t*>(ka_img_cache_get(image, 120 + 16 * kHeight + place));
    const std::uint8_t value = byte ? *byte : 0;
    const int after = guest.removals;
    if (byte) {
      // a header of another file may have come to the same address only after a removal
      if (before == after) {
        ASSERT_EQ(value, byte_of(file, place));
      }
      ++reads_;
    } else {
      ASSERT_TRUE(before != after || before % 2 == 1) << file;
      ++misses_;
    }
    if (file == 0) {
      float color[4];
      ka_img_get_color(image, color, int(place % 16384), int(place / 16384));
      ASSERT_FLOAT_EQ(color[0], float(byte_of(0, place)) / 255.0F);
    }
  }

  void exchange(std::size_t file) {
    Guest& guest = guests_[file];
    ++guest.removals;
    img_image* const old = guest.image;
    ASSERT_TRUE(ka::img_cache_image_remove(old));
    ASSERT_EQ(ka_img_cache_get(old, 120 + 16 * kHeight), nullptr);
    guest.image = test::cache(path(file));
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

TEST(CacheStress, ThreadsReadWhatIsThere) {
  ka::img_cache_size_adjust(-16384.0 * 900);  // of 1024 pages; the files have 1200
  Stress stress;
  stress.run();
  EXPECT_GT(stress.reads(), 1000);
  EXPECT_GT(stress.misses(), 0);
  EXPECT_GT(test::counts().flushes, 100);
  ka::img_cache_size_adjust(16384.0 * 900);
}

}  // namespace
