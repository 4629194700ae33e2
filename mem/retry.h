// What happens when the system refuses memory: further attempts, the error handler, the post-mortem.
#pragma once

#include <ka/detail/scope.h>

#include <cstddef>

namespace ka {

constexpr int kAttempts = 1000;  // a system that refuses is asked this often

// What a refusal leads to: the error handler every time, the post-mortem the first time.
enum class FailureOrder { kReportFirst, kHandlerFirst };
void attempt_failed(int failures, FailureOrder order);

// Calls the error handler; false when there is none.
bool call_error_handler();

// Prints the post-mortem, unless the calling thread is printing it.
void report_failure();

template <typename Attempt, typename Fatal>
[[gnu::cold, gnu::noinline]] void* retry_failed(Attempt attempt, Fatal fatal, FailureOrder order) {
  const ModuleScope scope(KA_MEM);
  for (int failures = 1;; ++failures) {
    attempt_failed(failures, order);
    if (failures == kAttempts) fatal();
    if (void* const memory = attempt()) return memory;
  }
}

// The memory that `attempt` gets; after the last failed attempt `fatal` ends the process. The
// module goes on the stack with the first failure: before, nobody is called who could see it.
template <typename Attempt, typename Fatal>
[[nodiscard]] void* mem_retry(Attempt attempt, Fatal fatal,
                              FailureOrder order = FailureOrder::kReportFirst) {
  if (void* const memory = attempt()) [[likely]]
    return memory;
  return retry_failed(attempt, fatal, order);
}

// Zeroed accounted memory charged to `module`; never null.
[[nodiscard]] void* allocate_for(int module, std::size_t size);

}  // namespace ka
