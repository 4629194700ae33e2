// Measuring: both passes over whole rgba pictures, and the kernels of pass 1 on each instruction
// set.
#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include <benchmark/benchmark.h>

#include <ka/imgload.h>
#include <ka/imgowner.h>

#include "benchmarks.h"
#include "compose.h"
#include "measure.h"
#include "measurekernels.h"
#include "pictures.h"
#include "ratios.h"

namespace bench {
namespace {

constexpr std::size_t kPairBytes = 2 * 4 * kPixels;

// All planes of an image: they lie one after the other.
std::span<std::uint8_t> samples(img_image* image) {
  return {static_cast<std::uint8_t*>(ka_img_plane(image, 0, 0)), 4 * kPixels};
}

ka::ImageBuffer new_image() {
  img_file shape{};
  shape.width = kWidth;
  shape.height = kHeight;
  shape.type = IMG_TYPE_RGBA;
  ka::ImageBuffer image(ka_img_image_alloc(&shape));
  fill_noise(samples(image.get()));
  return image;
}

struct Pair {
  ka::ImageBuffer first = new_image(), second = new_image();
};

// Made on first use, so that a filtered run holds no pictures that it does not need.
const Pair& identical() {
  static const Pair pair;
  return pair;
}
const Pair& altered() {
  static const Pair pair = [] {
    Pair made;
    alter_some(samples(made.second.get()));
    return made;
  }();
  return pair;
}
const Pair& differing() {
  static const Pair pair = [] {
    Pair made;
    alter_all(samples(made.second.get()));
    return made;
  }();
  return pair;
}

struct Case {
  const char* name;
  const Pair& (*pair)();
};
constexpr Case kIdentical{"identical", identical};
constexpr Case kAlteredPair{"altered", altered};
constexpr Case kDiffering{"all_differing", differing};

void add_pass1(const Case& what, bool intensity) {
  const ka::MeasureSettings settings{.signed_intensity = intensity};
  const std::string name = std::string("pass1/") + (intensity ? "intensity/" : "colour/");
  add(name + what.name, kPairBytes, [what, settings] {
    const Pair& pair = what.pair();
    benchmark::DoNotOptimize(
        ka::measure(pair.first.get(), pair.second.get(), kHeight, settings).total);
  });
}

void add_pass2(const Case& what, bool intensity) {
  const ka::MeasureSettings settings{.signed_intensity = intensity};
  const std::string name = std::string("pass2/") + (intensity ? "intensity/" : "colour/");
  add(name + what.name, kPairBytes, [what, settings] {
    const Pair& pair = what.pair();
    const double scale = settings.signed_intensity ? 255.0 : 1.0;
    const auto histograms =
        ka::count_histograms(pair.first.get(), pair.second.get(), kHeight, settings, scale);
    benchmark::DoNotOptimize(histograms.main[0]);
  });
}

// Pass 2 with its difference image, which overwrites the first picture.
void add_compose() {
  static ka::ImageBuffer picture;
  const auto restore = [] {
    if (!picture) picture = new_image();
    std::ranges::copy(samples(differing().first.get()), samples(picture.get()).begin());
  };
  add_prepared("compose/false_color_gamma/all_differing", kPairBytes, restore, [] {
    const ka::ComposeSettings settings{
        .measure = {}, .gamma = 2.2, .false_color = true, .underlay = false};
    const auto histograms =
        ka::compose_difference(picture.get(), differing().second.get(), kHeight, settings, 1.0);
    benchmark::DoNotOptimize(histograms.main[0]);
  });
}

// Every kernel of a table on a pair; where the processor lacks an instruction set, fewer of them.
void add_kernels(const char* table_name, const ka::KernelTable<ka::MeasureKernel>& table,
                 const Case& what) {
  constexpr std::array<const char*, 3> sets = {"base", "avx2", "avx512"};
  const auto kernels = ka::usable_kernels(table);
  for (std::size_t i = 0; i < kernels.size(); ++i) {
    if (i > 0 && kernels[i] == kernels[i - 1]) continue;
    const std::string name = std::string("kernel/") + table_name + "/" + what.name + "/" + sets[i];
    add(name, kPairBytes, [what, kernel = kernels[i]] {
      const Pair& pair = what.pair();
      ka::LineSums sums{};
      for (int y = 0; y < kHeight; ++y) {
        kernel(ka::line_planes_of(pair.first.get(), y), ka::line_planes_of(pair.second.get(), y),
               kWidth, 3, 4, sums);
      }
      benchmark::DoNotOptimize(sums.total);
    });
  }
}

}  // namespace

void add_measure_benchmarks() {
  for (const bool intensity : {false, true}) {
    for (const Case& what : {kIdentical, kAlteredPair, kDiffering}) add_pass1(what, intensity);
    for (const Case& what : {kAlteredPair, kDiffering}) add_pass2(what, intensity);
  }
  add_compose();
  for (const Case& what : {kIdentical, kDiffering}) {
    add_kernels("colour", ka::color_kernels, what);
    add_kernels("intensity", ka::intensity_kernels, what);
  }
}

}  // namespace bench
