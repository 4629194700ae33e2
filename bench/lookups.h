// The same look-ups for two texture systems: which texels, and how long they take.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace lookups {

constexpr int kSide = 4096;           // texels; 64 MB of four bytes each
constexpr int kBudgetMegabytes = 16;  // of the cache
constexpr int kRounds = 7, kCount = 100000;

// The texel of a picture as four bytes.
inline std::uint32_t texel(int x, int y) {
  return (std::uint32_t(x) * 2654435761U ^ std::uint32_t(y) * 40503U) | 0xff000000U;
}

// Places that follow each other: anywhere in the picture, or patches of 8 x 8 of which four follow
// each other closely, as the samples of a renderer do.
class Places {
 public:
  explicit Places(bool patches) : patches_(patches) {}
  void next(int& x, int& y) {
    if (!patches_ || count_ % 256 == 0) {
      left_ = below(kSide - 16);
      bottom_ = below(kSide - 16);
    }
    const int i = patches_ ? count_++ % 256 : 0;
    x = left_ + i % 8 + 8 * (i / 64 % 2);
    y = bottom_ + i / 8 % 8 + 8 * (i / 128);
  }

 private:
  int below(int limit) {
    state_ = state_ * 6364136223846793005U + 1442695040888963407U;
    return int((state_ >> 33) % std::uint64_t(limit));
  }
  std::uint64_t state_ = 1;
  bool patches_;
  int count_ = 0, left_ = 0, bottom_ = 0;
};

// Prints nanoseconds per look-up, the median of some rounds, and checks what comes back.
template <typename Fetch>
int measure(const char* name, Fetch fetch) {
  for (const bool patches : {false, true}) {
    std::vector<double> times;
    for (int round = 0; round < kRounds; ++round) {
      Places places(patches);
      const auto start = std::chrono::steady_clock::now();
      for (int i = 0; i < kCount; ++i) {
        int x, y;
        places.next(x, y);
        float color[4];
        fetch(x, y, color);
        if (int(color[0] * 255 + 0.5F) != int(texel(x, y) & 255)) {
          std::fprintf(stderr, "%s: texel %d, %d is wrong\n", name, x, y);
          return 1;
        }
      }
      const std::chrono::duration<double, std::nano> time =
          std::chrono::steady_clock::now() - start;
      times.push_back(time.count() / kCount);
    }
    std::nth_element(times.begin(), times.begin() + kRounds / 2, times.end());
    std::printf("%s %s %.0f\n", name, patches ? "patches" : "anywhere", times[kRounds / 2]);
  }
  return 0;
}

}  // namespace lookups
