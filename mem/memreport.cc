// Reports: the summary of what the modules hold, and the post-mortem that a refusal of the system
// leads to.
#include <atomic>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "heap.h"
#include "statistics.h"

namespace {

// The element store stands above the memory manager: it registers how it reports itself.
std::atomic<ka_mem_report_function> database_summary{nullptr};
std::atomic<ka_mem_report_function> database_dump{nullptr};

void call(const std::atomic<ka_mem_report_function>& report) {
  if (const auto function = report.load()) function();
}

using Number = long long;  // as the formats take them
constexpr Number kilobytes(std::int64_t bytes) { return bytes / 1024; }

void print_module(std::size_t module, const ka::ModuleStats& stats, double percent) {
  ka_info("%8.8s %9lld %9lld %9lld %9lld %9.2f", ka_modname[module], kilobytes(stats.bytes.peak),
          Number{stats.blocks.peak}, kilobytes(stats.bytes.now), Number{stats.blocks.now}, percent);
}

void print_modules(const ka::MemStats& stats) {
  constexpr std::int64_t header_bytes = 8;
  const auto [bytes, blocks] = ka::totals_of(stats);
  const std::int64_t overhead = ka::kBlockOverhead * blocks;
  const std::int64_t total = bytes + overhead;
  const auto percent = [total](std::int64_t part) {
    return total != 0 ? 100.0 * double(part) / double(total) : 0.0;
  };
  ka_info("  module    max KB  maxnblks        KB   nblocks    %%bytes");
  for (std::size_t module = 1; module < stats.size(); ++module) {
    const ka::ModuleStats& row = stats[module];
    if (kilobytes(row.bytes.peak) < 1 && row.blocks.peak == 0) continue;
    print_module(module, row, percent(row.bytes.now));
  }
  ka_info("overhead                     %9lld %9lld %9.2f", kilobytes(header_bytes * blocks),
          Number{blocks}, percent(overhead));
  ka_info("total                     %9lld %9lld    100.00", kilobytes(total), Number{blocks});
}

void print_heap() {
  constexpr double megabyte = 1048576.0;
  if (const auto purges = ka::purge_totals(); purges.count > 0) {
    ka_info("%d heap memory purges saved approx. %lld MB", purges.count,
            static_cast<Number>(purges.bytes / megabyte));
  }
  ka_info("max heap memory approx. %lld MB, now approx. %lld MB",
          Number{ka::heap_megabytes(ka::heap.max)}, Number{ka::heap_megabytes(ka::heap.size)});
}

}  // namespace

void ka_mem_database_reports(ka_mem_report_function summary, ka_mem_report_function dump) {
  database_summary = summary;
  database_dump = dump;
}

void ka_mem_summary() {
  const ka::ModuleScope scope(KA_MEM);
  print_modules(ka::merged_stats());
  print_heap();
}

void ka_mem_post_mortem() {
  const ka::ModuleScope scope(KA_MEM);
  ka_toggle_netmessage(0);
  ka_info("================ memory error post-mortem ================");
  ka_info("-------- memory summary --------");
  ka_mem_summary();
  ka_info("-------- database summary --------");
  call(database_summary);
  if (ka_get_subverbosity(KA_MEM) & KA_SUBVERB_DEBUG) {
    ka_info("-------- database dump --------");
    call(database_dump);
    ka_info("-------- memory dump --------");
    ka_mem_dump();
  } else {
    ka_info("run with `-message mem debug --' for more info.");
  }
  ka_info("please try lower -jobmemory settings.");
}

void ka_mem_check() {
  const ka::ModuleScope scope(KA_MEM);
  ka_debug("ka_mem_check not available");
}

void ka_mem_dump() {
  const ka::ModuleScope scope(KA_MEM);
  ka_debug("ka_mem_dump not available");
}
