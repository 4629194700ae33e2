// lumora_bench: rates of the hot paths beside memcpy. Takes the options of Google Benchmark, such
// as --benchmark_filter=pass1.
#include <cstdlib>

#include <ka/img.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include "benchmarks.h"
#include "ratios.h"

int main(int argc, char** argv) {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_img_init();
  ka_context_init();
  bench::add_convert_benchmarks();
  bench::add_measure_benchmarks();
  bench::add_ppm_benchmarks();
  bench::add_format_benchmarks();
  bench::add_jpeg_benchmarks();
  bench::add_tiff_benchmarks();
  bench::add_packet_benchmarks();
  bench::add_alias_benchmarks();
  bench::add_catia_benchmarks();
  return bench::run(argc, argv);
}
