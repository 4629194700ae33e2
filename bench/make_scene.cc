// make_scene FILE: writes a 3840x2160 P6 picture as cameras and renderers make them: shading, edges,
// a fine pattern, and a little noise.
#include <cmath>
#include <cstdio>
#include <vector>

#include "pictures.h"

namespace {

struct Point {
  double x, y;  // 0 to 16 and 0 to 9
};

std::uint8_t sample(Point at, int channel, int noise) {
  const double sky = 90 + 9 * at.y + 12 * channel;
  const double hills = 3 + 0.7 * std::sin(at.x) + 0.2 * std::sin(5 * at.x + channel);
  const double ground = 70 + 30 * std::sin(40 * at.x) * std::sin(60 * at.y) + 20 * channel;
  const double distance = std::hypot(at.x - 11, at.y - 4);
  double value = at.y > hills ? sky : ground;
  if (distance < 2) value = 250 - 60 * distance - 30 * channel;
  return std::uint8_t(value + noise);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  std::vector<std::uint8_t> samples(3 * bench::kPixels);
  bench::fill_noise(samples);
  for (std::size_t i = 0; i < samples.size(); ++i) {
    const std::size_t pixel = i / 3;
    const Point at{double(pixel % bench::kWidth) / 240, 9 - double(pixel / bench::kWidth) / 240};
    samples[i] = sample(at, int(i % 3), samples[i] >> 6);
  }
  std::FILE* const file = std::fopen(argv[1], "wb");
  if (!file) return 1;
  std::fprintf(file, "P6\n%d %d\n255\n", bench::kWidth, bench::kHeight);
  const bool is_written = std::fwrite(samples.data(), 1, samples.size(), file) == samples.size();
  return std::fclose(file) == 0 && is_written ? 0 : 1;
}
