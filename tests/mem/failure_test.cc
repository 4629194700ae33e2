// A system that refuses memory: what is tried, what is told, what is given back and how it ends.
#include <gtest/gtest.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "heap.h"
#include "lib/messages.h"
#include "refuse.h"

namespace {

using Names = std::vector<std::string>;

constexpr std::size_t kSize = 3 << 20;  // only the blocks of these tests are that large

class Refusal : public test::MemoryTest {
 protected:
  Refusal() {  // stands among the lines of the message log
    ka_mem_error_handler([] { test::MessageLog::lines().emplace_back("MAIN: handler"); });
  }
  ~Refusal() override { test::refuse(0, 0); }
};

const char kHeading[] = "================ memory error post-mortem ================";

TEST_F(Refusal, OfABlockIsReportedOnceAndTriedAgain) {
  void* block = nullptr;
  test::refuse(3, kSize);
  const Names lines = messages_of([&] { block = ka_mem_allocate(kSize); }, KA_WARNING | KA_INFO);
  EXPECT_EQ(ka_mem_dogetsize(block), kSize);
  ka_mem_release(block);
  EXPECT_TRUE(test::matches(lines[0],
                            "03[0-9]{4} out of memory after allocating [0-9]+ MB, trying to "
                            "recover automatically"))
      << lines[0];
  EXPECT_TRUE(test::matches(lines[1], "03[0-9]{4} limiting heap usage to [0-9]+ MB from now on"))
      << lines[1];
  EXPECT_EQ(lines[2], kHeading);
  const Names end = {"handler", lines[0], "handler", lines[0], "handler"};
  EXPECT_TRUE(std::equal(end.begin(), end.end(), lines.end() - 5));
  EXPECT_EQ(std::ranges::count(lines, kHeading), 1);
}

TEST_F(Refusal, LimitsTheHeapToSevenEighthsUnlessThereIsALimit) {
  static std::int64_t wanted;
  const auto handler = [](std::int64_t bytes) {
    wanted = bytes;
    return 0;
  };
  ka_mem_limit_handler(KA_IMG, handler);
  // What came and went again: floor((size + 8 + 7) / 8) + floor((-size - 8 - 7) / 8) = -1.
  const std::int64_t heap = test::align_heap() - 1;
  test::refuse(1, kSize);
  EXPECT_EQ(ka_mem_test_allocate(kSize), nullptr);
  EXPECT_EQ(wanted, (heap - heap * 7 / 8) * 8);
  EXPECT_EQ(ka_mem_memory_limit(heap * 80), heap * 7 / 8);
  auto* const block = ka_mem_strdup("as it was");
  const std::size_t size = ka_mem_getsize();
  test::refuse(1, kSize);
  EXPECT_EQ(ka_mem_test_reallocate(block, kSize), nullptr);
  EXPECT_EQ(ka_mem_memory_limit(-1), heap * 10);
  EXPECT_STREQ(block, "as it was");
  EXPECT_EQ(ka_mem_getsize(), size);
  ka_mem_release(block);
}

int handler_calls = 0;

// Every attempt is refused: the process ends, in a child of the test's.
void call_refused(void (*call)(), std::size_t least) {
  ka_set_verbosity(KA_FATAL);
  ka_mem_error_handler([] { ++handler_calls; });
  std::atexit([] { std::fprintf(stderr, "handler calls: %d", handler_calls); });
  test::refuse(1000, least);
  call();
}

// A chunk of one element of 8192 bytes has a link, too.
TEST(RefusalDeathTest, TheProcessEndsAfter1000Attempts) {
  static const std::string text(kSize, 'x');
  const struct {
    void (*call)();
    std::size_t least;
    const char* line;
  } rows[] = {
      {[] { ka_mem_allocate(kSize); }, kSize, "05: can't allocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_reallocate(ka_mem_allocate(1), kSize); }, kSize,
       "06: can't reallocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_strdup(text.c_str()); }, kSize,
       "07: can't allocate memory for string. MEM exits."},
      {[] { ka_mem_allocate_raw(kSize); }, kSize, "08: can't allocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_reallocate_raw(ka_mem_allocate_raw(1), kSize); }, kSize,
       "11: can't reallocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_blkallocate(ka_mem_blkcreate(8192)); }, 8192,
       "15: can't allocate 8200 bytes. MEM exits."},
      {[] { ka_mem_blkfallocate(ka_mem_blkcreate(8192)); }, 8192,
       "16: can't allocate 8200 bytes. MEM exits."},
      {[] { ka_mem_pages_get(); }, 0x40000, "29: can't allocate 262144 bytes.MEM exits."}};
  for (const auto& [call, least, line] : rows) {
    EXPECT_EXIT(call_refused(call, least), testing::ExitedWithCode(1),
                std::string("MEM   .0  fatal  0310") + line + "\nhandler calls: 1000$");
  }
}

#ifdef __SANITIZE_ADDRESS__
constexpr long kKept = 0;  // the sanitizer is to see each release
#else
constexpr long kKept = 4;
#endif

// A thread keeps four released blocks of a class at most, up to 1032 bytes, and gives them back when
// its areas are set aside, when the system refuses and when it ends.
TEST_F(Refusal, FindsKeptBlocksGivenBack) {
  const auto left_by = [](std::size_t size) {
    const long before = test::live_blocks();
    void* blocks[50];
    for (void*& block : blocks) block = ka_mem_allocate(size);
    for (void* block : blocks) ka_mem_release(block);
    return test::live_blocks() - before;
  };
  const long before = test::live_blocks();
  std::thread([left_by] {
    ka_msg_register_thread();
    ka_mem_release(ka_mem_allocate(5000));  // the areas are there
    EXPECT_EQ(left_by(1033), 0);
    EXPECT_EQ(left_by(1032), kKept);
    ka_context_pop(ka_context_push());
    EXPECT_EQ(left_by(1032), kKept);
    test::refuse(1, kSize);
    EXPECT_EQ(ka_mem_test_allocate(kSize), nullptr);
    EXPECT_EQ(left_by(1032), kKept);
    ka_msg_unregister_thread();
  }).join();
  EXPECT_EQ(test::live_blocks(), before);
}

TEST(RefusalDeathTest, ABlockIsNotReleasedTwice) {
  const auto release_twice = [] {
    setenv("KA_LOGFILE", "/dev/null", 1);
    void* const block = ka_mem_allocate(100);
    ka_mem_release(block);
    ka_mem_release(block);
  };
  EXPECT_DEATH(release_twice(), "ASSERTION FAILED|heap-use-after-free");
}

}  // namespace
