// The groups of benchmarks. Each registers its own.
#pragma once

namespace bench {

void add_convert_benchmarks();
void add_jpeg_benchmarks();
void add_measure_benchmarks();
void add_ppm_benchmarks();
void add_format_benchmarks();
void add_tiff_benchmarks();
void add_packet_benchmarks();
void add_alias_benchmarks();
void add_catia_benchmarks();

}  // namespace bench
