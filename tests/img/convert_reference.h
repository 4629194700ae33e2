// What conversions between pixel types are checked against: a line whose samples are numbers, and
// the rules of the conversions pixel by pixel, as they read.
#pragma once

#include <ka/img.h>

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

namespace test {

constexpr std::size_t kPlanes = IMG_SLOTS;
using Pixel = std::array<double, kPlanes>;  // samples as they are stored, by slot; exact

struct Layout {
  int bits, first, planes;  // bits per sample, the first slot, and how many follow
};
// As the pixel types are documented, by img_type.
extern const std::array<Layout, IMG_TYPE_COUNT> kLayouts;

// A line of a pixel type. After each plane of a guarded line stand bytes that must stay unchanged;
// the planes of other lines end where their memory ends.
class PlanarLine {
 public:
  PlanarLine(int type, int width, bool guarded);
  PlanarLine(const PlanarLine&) = delete;
  PlanarLine& operator=(const PlanarLine&) = delete;

  img_line* record() { return &record_; }
  [[nodiscard]] bool has(std::size_t slot) const;
  [[nodiscard]] Pixel at(int x) const;
  void set(int x, const Pixel& pixel);
  void fill(std::uint8_t byte);
  [[nodiscard]] bool guards_hold() const;
  [[nodiscard]] const auto& bytes() const { return planes_; }

 private:
  [[nodiscard]] std::size_t plane_bytes() const;

  int type_, width_;
  std::array<std::vector<std::uint8_t>, kPlanes> planes_;
  img_line record_{};
};

// What becomes of a destination's pixel; empty where it stays as it is.
std::optional<Pixel> converted(int dst_type, int src_type, const Pixel& source, const Pixel& old,
                               const float* weights);

}  // namespace test
