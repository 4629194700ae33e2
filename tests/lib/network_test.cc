// The message log of a process that takes part in a network of hosts: what it sends to whom, and
// what it keeps to itself.
#include <gtest/gtest.h>
#include <ka/detail/context.h>
#include <ka/message.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "messagelog.h"
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
  explicit Network(int host) : saved_(ka::network) {
    ka::network = {.is_slave = [] { return ka::context().host > 0; },
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
    ka::network = saved_;
    ka_set_subverbosity(KA_NULL, KA_SUBVERB_DEFAULT);
    ka_set_verbosity(KA_FATAL | KA_ERROR | KA_WARNING);
  }

 private:
  ka::message_network saved_;
};

// The word of module 0 holds for all, then each module has its own.
TEST(Network, OnlyTheMasterPassesSettingsOn) {
  for (const auto& [host, swap] : {std::pair{0, 0}, {3, 1}}) {
    const Network as_host(host);
    const auto word = [is_swapped = swap](std::uint32_t value) {
      return is_swapped ? __builtin_bswap32(value) : value;
    };
    ka_message_record record{};
    record.kind = std::int32_t(word(KA_RECORD_SETTINGS));
    record.level = word(0x3);
    for (std::uint32_t module = 0; module < KA_MODULE_COUNT; ++module) {
      const std::uint32_t mask = word(module * 2 + 1);
      std::memcpy(record.text + 4 * module, &mask, 4);
    }
    ka_lib_netmessage(0, &record, sizeof record, swap);
    ka_lib_hostcallback(4);
    EXPECT_EQ(ka_get_verbosity(), 0x3U);
    for (int module = 1; module < KA_MODULE_COUNT; ++module) {
      EXPECT_EQ(ka_get_subverbosity(module), std::uint32_t(module) * 2 + 1);
    }
    if (host != 0) continue;
    ASSERT_EQ(sent.size(), 2U);
    for (const Sent& settings : sent) {  // to all, and to the host that has come
      EXPECT_EQ(settings.host, &settings == &sent[0] ? -1 : 4);
      EXPECT_EQ(std::memcmp(settings.record.text + 4, record.text + 4, 4 * (KA_MODULE_COUNT - 1)),
                0);
    }
  }
}

TEST(Network, TheMasterForwardsNeitherItsNetworkThreadNorOtherHosts) {
  const Network as_master(0);
  const MessageLog log;
  ka_toggle_netmessage(1);
  ka::context().thread = 1024;
  ka_error("x");
  ka_message_record record{};
  record.kind = std::int32_t(__builtin_bswap32(KA_RECORD_LINE));
  record.level = __builtin_bswap32(KA_ERROR);
  std::memset(record.prefix, 'p', sizeof record.prefix);  // no end: the last characters give way
  std::memset(record.text, 't', sizeof record.text);
  ka_lib_netmessage(0, &record, sizeof record, 1);
  EXPECT_TRUE(sent.empty());
  EXPECT_EQ(MessageLog::lines(),
            (std::vector<std::string>{"MAIN 0.n  error: x",
                                      std::string(39, 'p') + ": " + std::string(299, 't')}));
}

}  // namespace
