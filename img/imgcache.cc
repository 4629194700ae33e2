// Texture cache: its start and end, its budget, and giving memory back.
#include "texturecache.h"

#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <ka/detail/scope.h>
#include <ka/message.h>
#include <ka/msg.h>

#include "cacherecord.h"
#include "imgcall.h"
#include "imgcontext.h"

namespace {

constexpr double kDefaultSize = 16777216.0;             // bytes
constexpr std::int64_t kDefaultMapMax = 16777216;       // bytes
constexpr int kRequestsCaching = 3;                     // the least request that does
constexpr int kNoDescriptors = 4, kFewDescriptors = 8;  // numbers of the messages

constinit ka::Mutex cache_size_lock;
double cache_size KA_GUARDED_BY(cache_size_lock) = kDefaultSize;  // the budget in bytes
std::int64_t mmap_max = kDefaultMapMax;  // larger map files are cached rather than mapped

int budget_pages(double bytes) {
  constexpr double most = std::numeric_limits<int>::max();
  return int(std::clamp(bytes / double(ka::kPageBase), 0.0, most));
}

// Kilobytes that the environment says; 0 for none.
std::int64_t limit_of_environment() {
  const char* const text = std::getenv("KA_1TC_LIMIT");
  if (!text) return 0;
  std::int64_t kilobytes = 0;
  const char* const end = text + std::strlen(text);
  const auto [parsed, failure] = std::from_chars(text, end, kilobytes);
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max() / 1024;
  return failure == std::errc{} && parsed == end && kilobytes > 0 ? std::min(kilobytes, most) : 0;
}

void set_mmap_max() {
  mmap_max = kDefaultMapMax;
  const std::int64_t kilobytes = limit_of_environment();
  if (kilobytes == 0) return;
  mmap_max = kilobytes * 1024;
  ka_info("cache map textures bigger than %lld", static_cast<long long>(mmap_max));
}

// Descriptors that the process can have are shared out among twice as many threads as there are
// processors, and half of them are left for others.
struct Shares {
  int cpus, parts, each;
};
Shares shares_of(int descriptors) {
  const int cpus = ka_msg_no_of_cpus();
  const int parts = 2 * cpus + 2;
  return {.cpus = cpus, .parts = parts, .each = descriptors / (parts * 2)};
}

int needed_descriptors(int cpus) { return 4 * cpus + 4; }

// Counting the processors takes longer than the rest of the start: it waits for the first texture
// where there is nothing to report.
bool reports_descriptors(int descriptors) {
  if (ka_get_verbosity() & KA_DEBUG) return true;
  const long most_cpus = sysconf(_SC_NPROCESSORS_CONF);
  return most_cpus < 1 || descriptors / 4 - 1 < most_cpus;
}

void share_descriptors() {
  const int descriptors = getdtablesize();
  ka::fds_per_thread = 0;
  if (descriptors <= 0) {
    ka_nerror(kNoDescriptors, "no file descriptors available");
    ka::fds_per_thread = 1;
  } else if (reports_descriptors(descriptors)) {
    const Shares shares = shares_of(descriptors);
    ka::fds_per_thread = std::max(shares.each, 1);
    if (shares.each < 1) {
      ka_nerror(kFewDescriptors, "too few file descriptors available, need %i",
                needed_descriptors(shares.cpus));
    } else {
      ka_debug("use %i file descriptors for texture caching", shares.each * shares.parts);
    }
  }
}

}  // namespace

constinit std::atomic<int> ka::allocated{0}, ka::max_allocated{0}, ka::n_flushes{0};
constinit std::atomic<int> ka::cache_maxpages{int(kDefaultSize / double(ka::kPageBase))};
constinit std::atomic<int> ka::fds_per_thread{0};
constinit std::atomic<std::uint32_t> ka::cache_alarms{0}, ka::cache_memory_requests{0};

int ka::cache_descriptors() {
  if (ka::fds_per_thread == 0) {
    ka::fds_per_thread = std::max(shares_of(getdtablesize()).each, 1);
  }
  return ka::fds_per_thread;
}

void ka::img_cache_init() {
  set_mmap_max();
  {
    const ka::MutexScope locked(cache_size_lock);
    cache_size = kDefaultSize;
    ka::cache_maxpages = budget_pages(cache_size);
  }
  share_descriptors();
}

void ka::img_cache_exit() {
  const int most = ka::max_allocated;
  if (most > 0) {
    ka_info("texture cache: maximum %d pages, %d flushes", most, ka::n_flushes.load());
  }
  ka::cache_threads_clear();
  ka::cache_files_clear();
  ka::cache_reserve_clear(true);
  ka::max_allocated = 0;
  ka::n_flushes = 0;
}

int ka::img_cache_memory_limit(ka::ImageContext& context, std::int64_t bytes) {
  const std::int64_t pages = std::min<std::int64_t>(bytes / std::int64_t{ka::kPageBase} + 1,
                                                    std::numeric_limits<int>::max());
  std::int64_t freed = ka::cache_reserve_clear(false);
  freed += ka::unused_page_flush(int(std::max<std::int64_t>(pages, 0)), false);
  ka::cache_reserve_clear(false);  // where the memory of these pages is now
  if (freed * std::int64_t{ka::kPageBase} < bytes) {
    context.memory_low = true;
    ka::cache_memory_requests.fetch_add(1, std::memory_order_relaxed);
    ka::cache_alarms.fetch_add(1, std::memory_order_release);
  }
  return 0;
}

void ka::img_cache_size_adjust(double delta) {
  const ka::MutexScope locked(cache_size_lock);
  cache_size += delta;
  ka::cache_maxpages = budget_pages(cache_size);
}

bool ka::img_cache_prefer(const ka::ImageContext& context, const img_file* handle) {
  if (ka::img_format_at(handle->format).is_mapped && handle->file_size > mmap_max) return true;
  return context.request >= kRequestsCaching;
}

void ka_img_cache_request(int mode) {
  const ka::ModuleScope scope(KA_IMG);
  ka::img_context().request = mode;
}

void ka_img_cache_get_counts(ka_img_cache_counts* counts) {
  const ka::ModuleScope scope(KA_IMG);
  *counts = {.budget = ka::cache_maxpages,
             .allocated = ka::allocated,
             .max_allocated = ka::max_allocated,
             .flushes = ka::n_flushes};
}
