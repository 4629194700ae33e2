// Renders a small scene and writes it as a PPM file: an example of how a program starts the library
// and writes a picture line by line.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <ka/imgowner.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include "scene.h"

namespace {

constexpr int kWidth = 640, kHeight = 480;       // pixels
constexpr std::array kSamples = {0.25F, 0.75F};  // where rays pass a pixel, in each direction
constexpr double kDisplayGamma = 2.2;

void start_library() {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);  // messages carry this program's module
  ka_mem_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
}

std::uint8_t sample(float linear) {
  const double shown = std::pow(std::clamp(double(linear), 0.0, 1.0), 1 / kDisplayGamma);
  return std::uint8_t(std::lround(255 * shown));
}

// The color of a pixel, the mean of its samples. Line 0 is the bottom one.
std::array<std::uint8_t, 3> render_pixel(int x, int y, bool moved) {
  constexpr float half_width = kWidth / 2.0F, half_height = kHeight / 2.0F;
  std::array<float, 3> sum{};
  for (const float dx : kSamples) {
    for (const float dy : kSamples) {
      const auto color = scene_color({.x = (float(x) + dx - half_width) / half_width,
                                      .y = (float(y) + dy - half_height) / half_width},
                                     moved);
      for (std::size_t c = 0; c < 3; ++c) sum[c] += color[c];
    }
  }
  constexpr float rays = kSamples.size() * kSamples.size();
  return {sample(sum[0] / rays), sample(sum[1] / rays), sample(sum[2] / rays)};
}

bool write_lines(img_file& file, bool moved) {
  const ka::LineBuffer line(ka_img_line_alloc(&file));
  std::uint8_t* planes[3];
  for (int c = 0; c < 3; ++c) {
    planes[c] = static_cast<std::uint8_t*>(ka_img_line_plane(line.get(), c));
  }
  for (int i = 0; i < kHeight; ++i) {
    const int y = file.topdown ? kHeight - 1 - i : i;  // lines are written in the file's order
    for (int x = 0; x < kWidth; ++x) {
      const auto color = render_pixel(x, y, moved);
      for (int c = 0; c < 3; ++c) planes[c][x] = color[std::size_t(c)];
    }
    if (!ka_img_line_write(&file, line.get())) return false;
  }
  return true;
}

// A file that could not be finished never gets its name; one that had it stays.
bool write_picture(const char* name, bool moved) {
  img_file file{};
  file.file_type = IMG_TYPE_RGB;  // what the file shall hold; lines are passed in the same type
  const bool written = ka_img_create(&file, name, IMG_TYPE_RGB, IMG_FORMAT_PPM, kWidth, kHeight) &&
                       write_lines(file, moved);
  if (!written) ka_img_err_msg(&file);
  const bool closed = ka_img_close(&file);  // also releases what a failure left
  if (written && !closed) ka_img_err_msg(&file);
  return written && closed;
}

int usage(const char* program) {
  std::fprintf(stderr, "%s [-m] file.ppm\n-m    move one of the spheres\n", program);
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  bool moved = false;
  for (int letter; (letter = getopt(argc, argv, "m")) != -1;) {
    if (letter != 'm') return usage(argv[0]);
    moved = true;
  }
  if (optind + 1 != argc) return usage(argv[0]);
  start_library();
  return write_picture(argv[optind], moved) ? 0 : 1;
}
