// Elapsed time and resources of the process.
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/times.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/timing.h>
#include <ka/trans.h>

struct ka_timer {
  timeval start;
  rusage usage;  // at the start
};

namespace {

// Whole hundredths of a second from one time to a later one.
long hundredths(const timeval& from, const timeval& to) {
  const double seconds = double(to.tv_usec - from.tv_usec) / 1e6 + double(to.tv_sec - from.tv_sec);
  return std::max(0L, long(seconds * 100));
}

void print_elapsed(const char* what, long hundredth, const char* label) {
  char time[32];
  std::snprintf(time, sizeof time, "%2ld:%02ld:%02ld.%02ld", hundredth / 100 / 60 / 60,
                hundredth / 100 / 60 % 60, hundredth / 100 % 60, hundredth % 100);
  const bool is_total = std::strcmp(label, "total") == 0;
  ka_info("%s %s %s%s", what, time, is_total ? "" : "for ", label);
}

void report(const ka_timer& timer, const char* label) {
  rusage now{};
  getrusage(RUSAGE_SELF, &now);
  if (!(ka_get_subverbosity(ka_module_current()) & KA_SUBVERB_TIME)) return;
  timeval clock{};
  gettimeofday(&clock, nullptr);
  print_elapsed("wallclock", hundredths(timer.start, clock), label);
  print_elapsed("CPU user", hundredths(timer.usage.ru_utime, now.ru_utime), label);
  ka_info("allocated %u KB, max resident %u KB", unsigned((ka_mem_getsize() + 1023) / 1024),
          unsigned(now.ru_maxrss));
  ka_debug("total %d page faults, %d block ops, %d signals, %d context switches",
           int(now.ru_minflt + now.ru_majflt), int(now.ru_inblock + now.ru_oublock),
           int(now.ru_nsignals), int(now.ru_nvcsw + now.ru_nivcsw));
}

}  // namespace

ka_timer* ka_timing(ka_timer* timer, const char* label) {
  if (!timer) {
    timer = static_cast<ka_timer*>(ka_mem_allocate(sizeof(ka_timer)));
    ka_reset_time(timer);
    return timer;
  }
  if (!label) {
    ka_mem_release(timer);
    return nullptr;
  }
  report(*timer, label);
  return timer;
}

void ka_reset_time(ka_timer* timer) {
  gettimeofday(&timer->start, nullptr);
  getrusage(RUSAGE_SELF, &timer->usage);
}

double ka_clock() {
  tms ticks{};
  times(&ticks);
  return double(ticks.tms_utime + ticks.tms_stime + ticks.tms_cutime + ticks.tms_cstime) / 1e6;
}
