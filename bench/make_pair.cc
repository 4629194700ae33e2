// make_pair FOLDER: writes first.ppm and second.ppm, a 3840x2160 pair that differs in 300 places.
#include <cstdio>
#include <string>
#include <vector>

#include "pictures.h"

namespace {

bool write_picture(const std::string& name, const std::vector<std::uint8_t>& samples) {
  std::FILE* const file = std::fopen(name.c_str(), "wb");
  if (!file) return false;
  const bool written = std::fprintf(file, "P6\n%d %d\n255\n", bench::kWidth, bench::kHeight) > 0 &&
                       std::fwrite(samples.data(), 1, samples.size(), file) == samples.size();
  return std::fclose(file) == 0 && written;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "%s FOLDER\n", argv[0]);
    return 2;
  }
  const std::string folder = argv[1];
  std::vector<std::uint8_t> samples(3 * bench::kPixels);
  bench::fill_noise(samples);
  const bool first = write_picture(folder + "/first.ppm", samples);
  bench::alter_some(samples);
  if (first && write_picture(folder + "/second.ppm", samples)) return 0;
  std::perror(argv[1]);
  return 1;
}
