// A system that refuses memory: what is tried, what is told and how it ends.
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

// Stands among the lines of the message log.
void tell_handler_call() { test::MessageLog::lines().emplace_back("MAIN: handler"); }

// The lines, numbers of megabytes left out.
Texts told(Texts lines) {
  for (std::string& line : lines) {
    std::string text;
    std::copy_if(line.begin() + (line.starts_with("03") ? 7 : 0), line.end(),
                 std::back_inserter(text), [](char c) { return c < '0' || c > '9'; });
    line = text;
  }
  return lines;
}

class Refusal : public test::MemoryTest {
 protected:
  Refusal() { ka_mem_error_handler(tell_handler_call); }
  ~Refusal() override { test::refuse(0, 0); }
};

const std::string kTrying = "out of memory after allocating  MB, trying to recover automatically";
const std::string kPostMortem = "================ memory error post-mortem ================";
const std::string kLimiting = "limiting heap usage to  MB from now on";

TEST_F(Refusal, OfABlockIsReportedOnceAndTriedAgain) {
  ka_mem_release(ka_mem_allocate(1));
  void* block = nullptr;
  const auto lines = told(messages_of(
      [&] {
        test::refuse(3, kSize);
        block = ka_mem_allocate(kSize);
      },
      KA_WARNING | KA_INFO));
  EXPECT_EQ(ka_mem_dogetsize(block), kSize);
  ka_mem_release(block);
  const auto report = std::find(lines.begin(), lines.end(), kPostMortem);
  const auto handler = std::find(lines.begin(), lines.end(), "handler");
  EXPECT_EQ(Texts(lines.begin(), report), (Texts{kTrying, kLimiting}));
  EXPECT_LT(report, handler);
  EXPECT_EQ(Texts(handler, lines.end()),
            (Texts{"handler", kTrying, "handler", kTrying, "handler"}));
}

TEST_F(Refusal, OfRawMemoryAsksTheHandlerBeforeItIsReported) {
  void* block = nullptr;
  const auto lines = told(messages_of(
      [&] {
        test::refuse(2, kSize);
        block = ka_mem_allocate_raw(kSize);
      },
      KA_INFO));
  ka_mem_release_raw(block);
  ASSERT_GE(lines.size(), 3U);
  EXPECT_EQ(lines.front(), "handler");
  EXPECT_EQ(lines[1], kPostMortem);
  EXPECT_EQ(lines.back(), "handler");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "handler"), 2);
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

TEST_F(Refusal, LeavesABlockAsItWas) {
  auto* const block = static_cast<char*>(ka_mem_strdup("as it was"));
  const std::size_t size = ka_mem_getsize();
  test::refuse(1, kSize);
  EXPECT_EQ(ka_mem_test_reallocate(block, kSize), nullptr);
  EXPECT_STREQ(block, "as it was");
  EXPECT_EQ(ka_mem_getsize(), size);
  ka_mem_release(block);
}

TEST_F(Refusal, TakesASingleAttemptWhereOneWasAsked) {
  const auto lines = messages_of(
      [] {
        test::refuse(1, kSize);
        EXPECT_EQ(ka_mem_test_allocate(kSize), nullptr);
        test::refuse(1, kSize);
        EXPECT_EQ(ka_mem_doalloc(__FILE__, __LINE__, KA_MAIN, kSize, 0), nullptr);
        test::refuse(1, kSize);
        EXPECT_EQ(ka_mem_dorealloc(__FILE__, __LINE__, KA_MAIN, nullptr, kSize), nullptr);
      },
      KA_INFO);
  EXPECT_TRUE(lines.empty());
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

const std::string text(kSize, 'x');

// A chunk of one element of 8192 bytes has a link, too.
TEST(RefusedForever, EndsTheProcessAfter1000Attempts) {
  const struct {
    void (*call)();
    std::size_t refused;  // bytes, and more
    const char* message;
  } rows[] = {
      {[] { ka_mem_allocate(kSize); }, kSize, "031005: can't allocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_reallocate(ka_mem_allocate(1), kSize); }, kSize,
       "031006: can't reallocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_reallocate(nullptr, kSize); }, kSize,
       "031006: can't reallocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_strdup(text.c_str()); }, kSize,
       "031007: can't allocate memory for string. MEM exits."},
      {[] { ka_mem_allocate_raw(kSize); }, kSize,
       "031008: can't allocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_reallocate_raw(ka_mem_allocate_raw(1), kSize); }, kSize,
       "031011: can't reallocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_reallocate_raw(nullptr, kSize); }, kSize,
       "031011: can't reallocate 3145728 bytes. MEM exits."},
      {[] { ka_mem_blkallocate(ka_mem_blkcreate(8192)); }, 8192,
       "031015: can't allocate 8200 bytes. MEM exits."},
      {[] { ka_mem_blkfallocate(ka_mem_blkcreate(8192)); }, 8192,
       "031016: can't allocate 8200 bytes. MEM exits."},
      {[] { ka_mem_pages_get(); }, 0x40000, "031029: can't allocate 262144 bytes.MEM exits."}};
  for (const auto& [call, refused, message] : rows) {
    const auto line = std::string("MEM   .0  fatal  ") + message + "\nhandler calls: 1000$";
    EXPECT_EXIT(call_refused(call, refused), testing::ExitedWithCode(1), line);
  }
}

// Nobody could make room: there is nothing to wait for.
TEST(RefusedMegapage, EndsTheProcessAtOnceWithoutAnErrorHandler) {
  const auto get_page = [] {
    ka_set_verbosity(KA_FATAL | KA_INFO);
    test::refuse(1, 0x40000);
    ka_mem_pages_get();
  };
  EXPECT_EXIT(get_page(), testing::ExitedWithCode(1),
              "memory error post-mortem(.|\n)*031029: can't allocate 262144 bytes.MEM exits.");
}

TEST_F(Refusal, OfAMegapageIsTriedAgainWithAnErrorHandler) {
  ka_mem_pages_flush();
  ka_mem_page* page = nullptr;
  const auto lines = messages_of(
      [&] {
        test::refuse(2, 0x40000);
        page = ka_mem_pages_get();
      },
      KA_INFO);
  EXPECT_EQ(lines, (Texts{"handler", "handler"}));
  ka_mem_pages_put(page);
}

}  // namespace
