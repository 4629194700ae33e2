// A system that refuses memory: what is tried, what is reported and how it ends.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>

#include <algorithm>
#include <cstdlib>
#include <string>

#include "heap.h"
#include "lib/messages.h"
#include "refuse.h"

namespace {

constexpr int kAttempts = 1000;
constexpr std::size_t kSize = 3 << 20;  // only the blocks of these tests are that large

class Refusal : public test::MemoryTest {
 protected:
  Refusal() {  // its calls are lines of the message log
    ka_mem_error_handler([] { test::MessageLog::lines().emplace_back("MAIN: handler"); });
  }
  ~Refusal() override { test::refuse(0, 0); }

  // What a call reports whose first requests of some size fail: the lines up to the post-mortem and
  // those from the first call of the handler, numbers of messages and of megabytes left out.
  template <typename Call>
  static Texts refused(int count, std::size_t size, Call call) {
    Texts lines = messages_of(
        [&] {
          test::refuse(count, size);
          call();
        },
        KA_WARNING | KA_INFO);
    for (std::string& line : lines)
      std::erase_if(line, [](char c) { return c >= '0' && c <= '9'; });
    const auto summary = std::ranges::find(lines, "-------- memory summary --------");
    const auto handler = std::find(summary, lines.end(), "handler");
    lines.erase(summary, handler);
    return lines;
  }
};

const std::string kTrying = " out of memory after allocating  MB, trying to recover automatically";
const std::string kPostMortem = "================ memory error post-mortem ================";

TEST_F(Refusal, IsReportedOnceAndTriedAgain) {
  void* block = nullptr;
  EXPECT_EQ(refused(3, kSize, [&] { block = ka_mem_allocate(kSize); }),
            (Texts{kTrying, " limiting heap usage to  MB from now on", kPostMortem, "handler",
                   kTrying, "handler", kTrying, "handler"}));
  EXPECT_EQ(ka_mem_dogetsize(block), kSize);
  ka_mem_release(block);
  const auto get_raw = [] { ka_mem_release_raw(ka_mem_allocate_raw(kSize)); };
  EXPECT_EQ(refused(2, kSize, get_raw), (Texts{kTrying, "handler", kPostMortem, "handler"}));
  ka_mem_pages_flush();
  const auto get_page = [] { ka_mem_pages_put(ka_mem_pages_get()); };
  EXPECT_EQ(refused(2, 0x40000, get_page), (Texts{kTrying, "handler", kTrying, "handler"}));
}

TEST_F(Refusal, AsksForAnEighthOfTheHeapAndLimitsItUnlessThereIsALimit) {
  static std::int64_t wanted;
  ka_mem_limit_handler(KA_IMG, [](std::int64_t bytes) {
    wanted = bytes;
    return 0;
  });
  // What came and went again: floor((size + 8 + 7) / 8) + floor((-size - 8 - 7) / 8) = -1.
  const std::int64_t heap = test::align_heap() - 1;
  test::refuse(1, kSize);
  EXPECT_EQ(ka_mem_test_allocate(kSize), nullptr);
  EXPECT_EQ(wanted, (heap - heap * 7 / 8) * 8);
  EXPECT_EQ(ka_mem_memory_limit(-1), heap * 7 / 8);
  ka_mem_memory_limit(heap * 80);
  test::refuse(1, kSize);
  EXPECT_EQ(ka_mem_test_allocate(kSize), nullptr);
  EXPECT_EQ(ka_mem_memory_limit(-1), heap * 10);
}

// A size that leaves no room for a header does not wrap around.
TEST_F(Refusal, LeavesABlockUnchanged) {
  auto* const block = static_cast<char*>(ka_mem_strdup("unchanged"));
  for (const std::size_t wanted : {kSize, SIZE_MAX, SIZE_MAX - 15}) {
    test::refuse(wanted == kSize ? 2 : 0, kSize);
    EXPECT_EQ(ka_mem_test_reallocate(block, wanted), nullptr);
    EXPECT_EQ(ka_mem_test_allocate(wanted), nullptr);
    EXPECT_STREQ(block, "unchanged");
  }
  ka_mem_release(block);
}

// Every attempt is refused, which ends the process, in a child of the test's.
void call_refused(void (*call)(), std::size_t refused) {
  static int handler_calls = 0;
  ka_set_verbosity(KA_FATAL);
  ka_mem_error_handler([] { ++handler_calls; });
  std::atexit([] { std::fprintf(stderr, "handler calls: %d", handler_calls); });
  test::refuse(kAttempts, refused);
  call();
}

// A chunk of one element of 8192 bytes has a link, too.
TEST(RefusedForever, EndsTheProcessAfter1000Attempts) {
  const struct {
    void (*call)();
    std::size_t refused;  // bytes, and more
    const char* message;
  } rows[] = {
      {[] { ka_mem_allocate(kSize); }, kSize, "05: can't allocate 3145728 bytes. M"},
      {[] { ka_mem_reallocate(nullptr, kSize); }, kSize, "06: can't reallocate 3145728 bytes. M"},
      {[] { ka_mem_blkallocate(ka_mem_blkcreate(8192)); }, 8192, "15: can't allocate 8200 bytes"},
      {[] { ka_mem_pages_get(); }, 0x40000, "29: can't allocate 262144 bytes.M"}};
  for (const auto& [call, refused, message] : rows) {
    EXPECT_EXIT(
        call_refused(call, refused), testing::ExitedWithCode(1),
        std::string("MEM   .0  fatal  0310") + message + ".*EM exits.\nhandler calls: 1000$");
  }
  // Without a handler that could make room there is nothing to wait for.
  EXPECT_EXIT((ka_set_verbosity(KA_FATAL | KA_INFO), test::refuse(1, 0x40000), ka_mem_pages_get()),
              testing::ExitedWithCode(1),
              "memory error post-mortem(.|\n)*031029: can't allocate 262144 bytes.MEM exits.");
}

}  // namespace
