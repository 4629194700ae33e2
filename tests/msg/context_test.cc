// Per-thread context: the module stack, private areas of threads and of the default transaction,
// session and world.
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/msg.h>
#include <ka/trans.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support.h"

namespace {

constexpr int kFirst = 2, kSecond = 5;  // nothing else registers areas for them
std::vector<std::string> events;

void first_init(void* area) {
  EXPECT_EQ(*static_cast<char*>(area), 0);
  *static_cast<char*>(area) = 'a';
  events.emplace_back("init first");
}
void first_exit(void*) {
  events.emplace_back("exit first");
  ka_context_mem(kSecond);  // even what comes now gets its exit function
}
void second_exit(void*) { events.emplace_back("exit second"); }

class Areas : public testing::Test {
 protected:
  Areas() : saved_(ka_context_push()) {
    events.clear();
    ka_context_register_module(kFirst, first_init, first_exit, 24);
    EXPECT_EQ(ka_context_mem(kSecond), nullptr);
    ka_context_register_module(kSecond, nullptr, second_exit, 8);
  }
  ~Areas() override {
    ka_context_pop(saved_);
    for (const int module : {kFirst, kSecond})
      ka_context_register_module(module, nullptr, nullptr, 0);
  }
  void** saved_;
};

TEST_F(Areas, BelongToAThreadAndToWhatWasPushed) {
  ka_context_register_module(kFirst, nullptr, nullptr, 24);  // keeps the functions
  EXPECT_TRUE(events.empty());
  void* const area = ka_context_mem(kFirst);
  EXPECT_EQ(*static_cast<char*>(area), 'a');
  EXPECT_EQ(ka_context_mem(KA_MODULE_COUNT), nullptr);
  test::registered([area] { EXPECT_NE(ka_context_mem(kFirst), area); }).join();
  void** const table = ka_context_push();
  EXPECT_NE(ka_context_mem(kFirst), area);
  ka_context_pop(table);
  EXPECT_EQ(ka_context_mem(kFirst), area);
  for (const auto& [event, count] :
       {std::pair{"init first", 3}, {"exit first", 2}, {"exit second", 2}}) {
    EXPECT_EQ(std::ranges::count(events, event), count) << event;
  }
}

TEST(ModuleStack, DoesNotOverflow) {
  constexpr int more = ka_context::kStackSize + 10;
  for (int i = 0; i < more; ++i) ka_module_push(KA_IMG);
  EXPECT_EQ(ka_module_current(), KA_IMG);
  EXPECT_EQ(ka::module_at(ka::context(), 1), KA_IMG);
  for (int i = 0; i < more; ++i) ka_module_pop();
  EXPECT_EQ(ka_module_current(), KA_MAIN);
}

}  // namespace
