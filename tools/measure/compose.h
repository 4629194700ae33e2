// The difference image: what pass 2 paints into the first picture's buffer, and the histogram panel
// above it. Nothing here knows of files, options or messages.
#pragma once

#include <optional>

#include "measure.h"

namespace ka {

struct ComposeSettings {
  MeasureSettings measure;
  std::optional<double> gamma;  // above 0
  bool false_color = false;     // blue, green, red, white by size of the difference
  // Where nothing differs the first picture shows at a tenth of its brightness.
  bool underlay = false;
};

inline constexpr int kPanelLines = 114;  // of the histogram above the picture

// Pass 2 over the lowest `height` lines: replaces each pixel of `first` by its difference to
// `second`, 8-bit RGBA.
[[nodiscard]] Histograms compose_difference(img_image* first, const img_image* second, int height,
                                            const ComposeSettings& settings, double scale);

// Draws the histograms into the kPanelLines lines of `image` above line `height`.
void draw_panel(img_image* image, int height, const Histograms& histograms,
                const ComposeSettings& settings);

// The ramp blue, green, red, white for 0 to 1; values outside count as the nearer end.
struct Rgb {
  std::uint8_t r, g, b;
  bool operator==(const Rgb&) const = default;
};
[[nodiscard]] Rgb false_color(double v);

}  // namespace ka
