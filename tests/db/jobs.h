// Jobs whose doings the tests decide.
#pragma once

#include <ka/job.h>
#include <ka/mem.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

#include "support.h"

namespace test {

constexpr int kJobModule = 6, kJobType = 41;  // nothing else uses them

// What the jobs of the tests fill their elements with: `words` numbers, first the first one.
struct Fill {
  int words = 1000;
  std::uint32_t first = 0;
  bool fails = false, yields_nothing = false, is_fixed = false;
};

inline std::atomic<int> executions{0};
inline std::vector<int> operations;  // of calls other than executions; for tests with one thread

inline int fill(int operation, ka_job_call* call) {
  if (operation != KA_JOB_EXECUTE) {
    operations.push_back(operation);
    EXPECT_EQ(ka_job_size(call->tag), 0U);  // asking about the element itself does not wait
    if (operation == KA_JOB_DESCRIBE) std::strcpy(call->text, "fills");
    return 0;
  }
  ++executions;
  const Fill parameters = *static_cast<const Fill*>(call->parameters);
  if (parameters.fails) ka_msg_usleep(20000);  // so that others come to wait
  if (parameters.fails || parameters.yields_nothing) return !parameters.fails;
  auto* const words =
      static_cast<std::uint32_t*>(ka_db_realloc(call->tag, std::size_t(parameters.words) * 4));
  for (int i = 0; i < parameters.words; ++i) words[i] = parameters.first + std::uint32_t(i);
  call->fixed = parameters.is_fixed;
  return 1;
}

inline bool is_filled(const void* data, const Fill& fill) {
  const auto* const words = static_cast<const std::uint32_t*>(data);
  for (int i = 0; i < fill.words; ++i) {
    if (words[i] != fill.first + std::uint32_t(i)) return false;
  }
  return true;
}

// A fresh store, and jobs in it.
class StoreTest : public testing::Test {
 protected:
  StoreTest() {
    ka_db_exit();
    ka_db_init();
    executions = 0;
    operations.clear();
    ka_job_register(kJobModule, [](int operation, ka_job_call* call) {
      return operation == KA_JOB_EXECUTE ? fill(operation, call) : 0;
    });
  }
  ~StoreTest() override {
    ka_trans_default();
    ka_db_exit();
    ka_db_init();
  }

  static std::uint32_t make_job(const Fill& fill) {
    std::uint32_t tag = 0;
    EXPECT_EQ(ka_job_create(&tag, kJobType, kJobModule, &fill, sizeof fill, nullptr), 1);
    return tag;
  }
  // Of a job whose data are there.
  static std::uint32_t produced(const Fill& fill) {
    const std::uint32_t tag = make_job(fill);
    ka_db_access(tag);
    ka_db_unpin(tag);
    return tag;
  }
  static std::uint32_t make_element(int type = 5, std::size_t size = 1) {
    std::uint32_t tag = 0;
    ka_db_create(&tag, type, size);
    return tag;
  }
  // Under a limit far below what the process has.
  static void purge() {
    ka_mem_memory_limit(1 << 16);
    ka_mem_release(ka_mem_allocate(1 << 14));
    ka_mem_memory_limit(0);
  }
  static ka_db_counts counts() {
    ka_db_counts counts;
    ka_db_get_counts(&counts);
    return counts;
  }
};

}  // namespace test
