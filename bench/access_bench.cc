// Cost of single pixels as colors, and of filtering a pyramid beside memcpy of its base.
#include <benchmark/benchmark.h>
#include <ka/imgaccess.h>
#include <ka/imgowner.h>
#include <ka/mem.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr int kSide = 1024;  // pixels and lines
constexpr int kPixels = kSide * kSide;

// An image whose pixels differ, with all its levels.
ka::ImageBuffer make_image(const benchmark::State& state) {
  img_file shape{};
  shape.type = int(state.range(0));
  shape.width = shape.height = kSide;
  shape.pyramid = 1;
  ka::ImageBuffer image(ka_img_image_alloc(&shape));
  for (int i = 0; i < kPixels; ++i) {
    const float color[4] = {float(i % 255) / 255, float(i % 101) / 101, float(i % 7) / 7, 1};
    ka_img_put_color(image.get(), color, i % kSide, i / kSide);
  }
  return image;
}

// Argument 0 is the pixel type, argument 1 a gamma in tenths.
void set_mode(const benchmark::State& state) {
  img_options options{};
  options.color_clip = IMG_CLIP_EACH;
  options.gamma = float(state.range(1)) / 10;
  ka_img_mode_options(&options);
}

void BM_put_color(benchmark::State& state) {
  set_mode(state);
  const ka::ImageBuffer image = make_image(state);
  const float color[4] = {0.25F, 0.5F, 0.75F, 1};
  for (int x = 0; auto _ : state) {
    ka_img_put_color(image.get(), color, x, x);
    x = (x + 1) % kSide;
  }
}

void BM_get_color(benchmark::State& state) {
  set_mode(state);
  const ka::ImageBuffer image = make_image(state);
  for (int x = 0; auto _ : state) {
    float color[4];
    ka_img_get_color(image.get(), color, x, x);
    benchmark::DoNotOptimize(color);
    x = (x + 1) % kSide;
  }
}

void BM_get_color_square(benchmark::State& state) {
  set_mode(state);
  const ka::ImageBuffer image = make_image(state);
  for (int x = 0; auto _ : state) {
    float colors[4][4];
    ka_img_get_color_square(image.get(), colors, x, x);
    benchmark::DoNotOptimize(colors);
    x = (x + 1) % kSide;
  }
}

void count_base(benchmark::State& state, const img_image* image) {
  state.SetBytesProcessed(state.iterations() * kPixels * image->components * image->bits / 8);
}

void BM_filter_levels(benchmark::State& state) {
  set_mode(state);
  const ka::ImageBuffer image = make_image(state);
  for (auto _ : state) ka_img_pyramid_filter_levels(image.get());
  count_base(state, image.get());
}

void BM_memcpy_of_base(benchmark::State& state) {
  set_mode(state);
  const ka::ImageBuffer image = make_image(state);
  std::vector<char> copy(std::size_t(kPixels) * std::size_t(image->components * image->bits / 8));
  for (auto _ : state) {
    std::memcpy(copy.data(), image.get() + 1, copy.size());
    benchmark::ClobberMemory();
  }
  count_base(state, image.get());
}

void pixels(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"type", "gamma10"})
      ->ArgsProduct({{IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP, IMG_TYPE_S}, {10, 22}});
}

BENCHMARK(BM_put_color)->Apply(pixels);
BENCHMARK(BM_get_color)->Apply(pixels);
BENCHMARK(BM_get_color_square)->Apply(pixels);
BENCHMARK(BM_filter_levels)->Apply(pixels);
BENCHMARK(BM_memcpy_of_base)->Apply(pixels);

}  // namespace

int main(int argc, char** argv) {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_img_init();
  ka_trans_init();
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
