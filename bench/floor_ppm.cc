// floor_ppm FILE FILE: the least that a comparison of two P6 files can do: maps both, finds the
// number of differing pixels, the sum and the maximum of their squared distances in one vectorised
// loop, prints them. Headers are taken on trust: three numbers without comments.
#include <cstdio>
#include <cstdlib>

#include "floor.h"

namespace {

struct Picture {
  int width, height;
  const std::uint8_t* samples;
};

Picture map_picture(const char* name) {
  const auto* const bytes = reinterpret_cast<const char*>(least::map_file(name).data());
  char* end = nullptr;
  const long width = std::strtol(bytes + 2, &end, 10), height = std::strtol(end, &end, 10);
  (void)std::strtol(end, &end, 10);  // the largest sample
  return {int(width), int(height), reinterpret_cast<const std::uint8_t*>(end + 1)};
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "%s FILE FILE\n", argv[0]);
    return 2;
  }
  const Picture first = map_picture(argv[1]), second = map_picture(argv[2]);
  if (first.width != second.width || first.height != second.height) return 2;
  least::Sums sums{};
  least::measure()(first.samples, second.samples,
                   std::size_t(first.width) * std::size_t(first.height), sums);
  return least::print(sums);
}
