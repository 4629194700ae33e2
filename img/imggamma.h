// Gamma as tables with linear interpolation, since colors pass through it sample by sample, and
// the process's cache of the tables that were needed last.
#pragma once

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

namespace ka {

// x to the power of an exponent.
class GammaCurve {
 public:
  void build(float exponent);

  // Between 0 and 1 from the table. Shared-exponent colors may be brighter: they are rare enough
  // for the function itself. What is not a number counts as 0.
  [[nodiscard]] float at(float value) const {
    if (!(value > 0.0F)) return entries_[0];
    if (value > 1.0F) return std::pow(value, exponent_);
    const float place = kScale * value;
    const auto i = std::size_t(int(place));
    const float fraction = place - float(int(place));
    return entries_[i] * (1.0F - fraction) + entries_[i + 1] * fraction;
  }

 private:
  static constexpr float kScale = 254.999F;  // holds 1 inside the last interval that ends at 1

  float exponent_ = 0.0F;
  std::array<float, 257> entries_{};  // (i / 255) ^ exponent
};

struct GammaTables {
  GammaCurve gamma, inverse;
};

// The tables of the gammas that were used last. To be guarded by a lock.
class GammaCache {
 public:
  static constexpr std::size_t kEntries = 8;

  // Stamps follow the one given: 0 is that of entries that were never used.
  explicit constexpr GammaCache(std::uint32_t last_stamp = 0) : clock_(last_stamp) {}

  // The tables of a gamma above 0, built in place of those whose use is the longest ago when they
  // are not there. Good until the next call.
  const GammaTables& tables(float gamma);

  [[nodiscard]] bool holds(float gamma) const;

 private:
  struct Entry {
    std::uint32_t stamp;  // of the last use
    float gamma;          // 0: never used
    GammaTables tables;
  };

  Entry& entry_for(float gamma);
  void stamp(Entry& entry);

  std::array<Entry, kEntries> entries_{};
  std::uint32_t clock_;  // the last stamp
};

}  // namespace ka
