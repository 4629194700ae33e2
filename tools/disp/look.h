// From numbers to the colors of a screen: channel, exposure, gamma, false colors.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "samples.h"

// What the user chooses; the same for all pictures.
enum class Channel { kColor, kRed, kGreen, kBlue, kAlpha };
struct Look {
  Channel channel = Channel::kColor;
  float stops = 0;  // of exposure: colors are multiplied by 2 to this power
  float gamma = 1;  // colors are raised to the power of its inverse
  bool operator==(const Look&) const = default;
};

// A color of the screen, 0xRRGGBB.
using Color = std::uint32_t;
inline constexpr Color kNoNumber = 0xff00ff, kInfinite = 0xffff00, kMinusInfinite = 0x00ffff;

// A row of numbers for up to three parts of each pixel.
using Row = std::vector<float>;
using Rows = std::array<Row, 3>;

// The parts that a look needs of a source with 1 or 3 planes of color.
[[nodiscard]] std::vector<Part> parts_of(const Look& look, int planes);

class Tone {
 public:
  explicit Tone(const Look& look);

  // Colors of `count` pixels, from as many rows as there are parts.
  void paint(const Rows& rows, std::size_t parts, bool may_be_odd, int count, Color* out) const;
  // The false colors of vel_diff for distances, black where nothing differs.
  void paint_distances(const Row& distances, int count, Color* out) const;

 private:
  void paint_steps(const float* values, int count, std::uint8_t* out) const;

  float gain_, inverse_gamma_;
  std::vector<std::uint8_t> table_;  // with a gamma: steps of the screen by steps of 16 bits
};
