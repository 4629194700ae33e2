// The message log of a process that takes part in a network of hosts: what it sends to whom, and
// what it keeps to itself.
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/message.h>
#include <ka/trans.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "liberror.h"
#include "support.h"

namespace {

using test::MessageLog;

struct Sent {
  int host;
  ka_message_record record;
};
std::vector<Sent> sent;

// The calling process has this host number, and what it sends is kept in `sent`.
class Network {
 public:
  explicit Network(int host) : saved_(network) {
    network = {.is_slave = [] { return ka::context().host > 0; },
               .send =
                   [](int to, const ka_message_record& record) {
                     sent.push_back({to, record});
                     return true;
                   },
               .abort = [](int code) { std::fprintf(stderr, "abort %d\n", code); }};
    ka::context().host = host;
    sent.clear();
  }
  ~Network() {
    ka_toggle_netmessage(0);
    ka::context().host = -1;
    ka::context().thread = 0;
    network = saved_;
    ka_set_subverbosity(KA_NULL, KA_SUBVERB_DEFAULT);
    ka_set_verbosity(KA_FATAL | KA_ERROR | KA_WARNING);
  }
  Network(const Network&) = delete;
  Network& operator=(const Network&) = delete;

 private:
  message_network saved_;
};

std::uint32_t mask_of(const ka_message_record& record, std::size_t module) {
  std::uint32_t mask;
  std::memcpy(&mask, record.text + 4 * module, sizeof mask);
  return mask;
}

TEST(Network, EveryChangeOfTheMastersSettingsIsSentToAllHosts) {
  const Network as_master(0);
  ka_set_verbosity(0x1f);
  ka_set_subverbosity(KA_IMG, 0x5);
  ASSERT_EQ(sent.size(), 2U);
  const auto& [host, record] = sent[1];
  EXPECT_EQ(host, -1);
  EXPECT_EQ(record.kind, KA_RECORD_SETTINGS);
  EXPECT_EQ(record.level, 0x1fU);
  EXPECT_EQ(mask_of(record, KA_IMG), 0x5U);
  EXPECT_EQ(mask_of(record, 54), 0x107fU);
  const auto* const bytes = reinterpret_cast<const char*>(&record);
  const auto is_zero = [](char byte) { return byte == 0; };
  EXPECT_TRUE(std::all_of(bytes + 8, bytes + 64, is_zero));
  EXPECT_TRUE(std::all_of(bytes + 64 + 220, bytes + sizeof record, is_zero));
}

TEST(Network, ANewHostGetsTheSettings) {
  const Network as_master(0);
  ka_lib_hostcallback(4);
  ASSERT_EQ(sent.size(), 1U);
  EXPECT_EQ(sent[0].host, 4);
  EXPECT_EQ(sent[0].record.kind, KA_RECORD_SETTINGS);
}

// The word of module 0 holds for all, then each module has its own.
TEST(Network, OnlyTheMasterPassesSettingsOn) {
  for (const int host : {0, 3}) {
    const Network as_host(host);
    ka_message_record record{};
    record.kind = KA_RECORD_SETTINGS;
    record.level = 0x3;
    std::memset(record.text, 0x11, 4 * KA_MODULE_COUNT);
    ka_lib_netmessage(0, &record, sizeof record, 0);
    EXPECT_EQ(ka_get_verbosity(), 0x3U);
    EXPECT_EQ(ka_get_subverbosity(KA_JPG), 0x11111111U);
    ASSERT_EQ(sent.size(), host == 0 ? 1U : 0U);
    if (host != 0) continue;
    EXPECT_EQ(std::memcmp(&sent[0].record, &record, sizeof record), 0);
  }
}

TEST(Network, ForwardedLinesGoToTheMasterAndNowhereElse) {
  const Network as_slave(2);
  ka::context().transaction = 0x123;
  ka_toggle_netmessage(1);
  testing::internal::CaptureStderr();
  ka_nerror(7, "one\nline");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  ka::context().transaction = 0;
  ASSERT_EQ(sent.size(), 1U);
  const auto& [host, record] = sent[0];
  EXPECT_EQ(host, 0);
  EXPECT_EQ(record.kind, KA_RECORD_LINE);
  EXPECT_EQ(record.level, std::uint32_t(KA_ERROR));
  EXPECT_EQ(record.code, 241007);
  EXPECT_EQ(record.transaction, 0x123U);
  EXPECT_STREQ(record.prefix, "MAIN 2.0  error  241007");
  EXPECT_STREQ(record.text, "one line");
}

// It would talk to itself.
TEST(Network, TheMastersNetworkThreadForwardsNothing) {
  const Network as_master(0);
  ka_toggle_netmessage(1);
  ka::context().thread = 1024;
  const MessageLog log;
  ka_error("x");
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(MessageLog::lines(), std::vector<std::string>{"MAIN 0.n  error: x"});
}

TEST(Network, LinesOfOtherHostsAreNotForwarded) {
  const Network as_master(0);
  ka_toggle_netmessage(1);
  const MessageLog log;
  ka_message_record record{};
  record.kind = KA_RECORD_LINE;
  record.level = KA_ERROR;
  std::memset(record.prefix, 'p', sizeof record.prefix);  // no end: the last characters give way
  std::memset(record.text, 't', sizeof record.text);
  ka_lib_netmessage(0, &record, sizeof record, 0);
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(MessageLog::lines(),
            std::vector<std::string>{std::string(39, 'p') + ": " + std::string(299, 't')});
}

TEST(NetworkDeathTest, AFatalMessageTellsTheOtherLayersToAbort) {
  const auto end = [] {
    const Network as_master(0);
    ka_fatal("over");
  };
  EXPECT_EXIT(end(), testing::ExitedWithCode(1), "^MAIN 0.0  fatal: over\nabort 4\n$");
}

}  // namespace
