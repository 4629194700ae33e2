// The histogram panel above a difference image: bars over a ramp of the values that they count.
#include <algorithm>
#include <cstring>

#include "compose.h"

namespace ka {
namespace {

constexpr int kMargin = 3;  // columns left black on each side
constexpr int kRampLines = 9;
constexpr int kTicks = 9;
constexpr std::uint8_t kBar = 200;

// Where things stand, in lines above the picture.
struct Geometry {
  int ramp;      // lowest line of the ramp
  int bars;      // lowest line of the bars, which grow upwards
  int negative;  // highest line of the negative bars, which grow downwards
  int size;      // lines of the highest bar
};
constexpr Geometry kColorGeometry = {.ramp = 4, .bars = 14, .negative = 0, .size = 100};
constexpr Geometry kIntensityGeometry = {.ramp = 54, .bars = 64, .negative = 53, .size = 50};

enum class Channels { kColor, kAlpha };

class Panel {
 public:
  Panel(img_image* image, int height, const ComposeSettings& settings)
      : image_(image),
        height_(height),
        width_(image->width),
        settings_(settings),
        geometry_(settings.measure.signed_intensity ? kIntensityGeometry : kColorGeometry) {}

  void draw(const Histograms& histograms) const {
    for (int line = 0; line < kPanelLines; ++line) clear(line);
    if (width_ >= 2 * kMargin + 1) {
      for (int line = 0; line < kRampLines; ++line) draw_ramp(geometry_.ramp + line);
    }
    if (width_ < 2 * kMargin + 2)
      return;  // the bars divide by the columns between the first and the last one
    draw_both(histograms.main, histograms.negative, Channels::kColor);
    if (!settings_.measure.ignore_alpha)
      draw_both(histograms.alpha, histograms.negative_alpha, Channels::kAlpha);
  }

 private:
  [[nodiscard]] std::array<std::uint8_t*, 4> planes(int line) const {
    const LinePlanes planes = line_planes_of(image_, height_ + line);
    std::array<std::uint8_t*, 4> result;
    for (std::size_t c = 0; c < planes.size(); ++c)
      result[c] = const_cast<std::uint8_t*>(planes[c]);
    return result;
  }

  void clear(int line) const {
    for (std::uint8_t* const plane : planes(line)) std::memset(plane, 0, std::size_t(width_));
  }

  void draw_ramp(int line) const {
    const auto pixels = planes(line);
    for (int x = kMargin; x <= width_ - kMargin - 1; ++x) {
      const int step = x - kMargin;
      if (settings_.false_color) {
        const Rgb color = false_color(double(step) / double(width_ - 1));
        set_color(pixels, x, color);
        pixels[3][x] = std::uint8_t(56 + 200L * step / width_);
      } else {
        const auto grey = std::uint8_t(256L * step / width_);
        set_color(pixels, x, {grey, grey, grey});
        pixels[3][x] = grey;
      }
    }
    for (int k = 1; k <= kTicks; ++k) {
      const auto x = int(long{k} * (width_ - 2 * kMargin) / (kTicks + 1)) + kMargin;
      set_color(pixels, x, {0, 0, 0});
    }
  }

  static void set_color(const std::array<std::uint8_t*, 4>& pixels, int x, Rgb color) {
    pixels[0][x] = color.r;
    pixels[1][x] = color.g;
    pixels[2][x] = color.b;
  }

  // Bars of both signs share one scale.
  void draw_both(const Histograms::Bins& positive, const Histograms::Bins& negative,
                 Channels channels) const {
    const bool is_intensity = settings_.measure.signed_intensity;
    int fullest = std::ranges::max(positive);
    if (is_intensity) fullest = std::max(fullest, std::ranges::max(negative));
    for (int y = 0; y < geometry_.size; ++y) {
      draw_bars(positive, fullest, y, geometry_.bars + y, channels);
      if (is_intensity) draw_bars(negative, fullest, y, geometry_.negative - y, channels);
    }
  }

  // One line of all bars: the line `y` lines from their foot.
  void draw_bars(const Histograms::Bins& bins, int fullest, int y, int line,
                 Channels channels) const {
    const auto pixels = planes(line);
    for (int x = 0; x <= width_ - 2 * kMargin - 1; ++x) {
      const int most = fullest_bin(bins, x);
      const bool reaches = fullest != 0 && y < long{most} * geometry_.size / fullest;
      if (!reaches && !(most != 0 && y == 0)) continue;
      if (channels == Channels::kColor) {
        set_color(pixels, x + kMargin, {kBar, kBar, kBar});
      } else {
        pixels[3][x + kMargin] = kBar;
      }
    }
  }

  // The largest counter of the bins that a column represents.
  [[nodiscard]] int fullest_bin(const Histograms::Bins& bins, int x) const {
    const long columns = width_ - 2 * kMargin - 1;
    const long high = 255L * x / columns;
    const long low = x == 0 ? 0 : (255L * x - 255) / columns;
    int most = 0;
    for (long bin = low; bin <= high; ++bin) most = std::max(most, bins[std::size_t(bin)]);
    return most;
  }

  img_image* image_;
  int height_, width_;
  const ComposeSettings& settings_;
  Geometry geometry_;
};

}  // namespace

void draw_panel(img_image* image, int height, const Histograms& histograms,
                const ComposeSettings& settings) {
  Panel(image, height, settings).draw(histograms);
}

}  // namespace ka
