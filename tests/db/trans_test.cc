// Worlds, sessions and transactions: beginning, attaching, ending, and every refusal.
#include <algorithm>
#include <functional>

#include "jobs.h"
#include "lib/messages.h"

namespace {

constexpr int kModule = 5;
Texts events;

class Trans : public test::StoreTest {
 protected:
  Trans() {
    events.clear();
    restart(true);
    EXPECT_EQ(std::exchange(events, {}), (Texts{"+t", "+s", "+w"}));  // of the defaults
  }
  ~Trans() override { restart(false); }

  static void restart(bool has_areas) {
    ka_trans_wst_exit();
    ka_trans_exit();
    static const auto add = [](const char* event) { events.emplace_back(event); };
    const std::size_t size = has_areas ? 8 : 0;
    ka_transaction_register_module(
        kModule, [](void*) { add("+t"); }, [](void*) { add("-t"); }, size);
    ka_session_register_module(
        kModule, [](void*) { add("+s"); }, [](void*) { add("-s"); }, size);
    ka_world_register_module(
        kModule, [](void*) { add("+w"); }, [](void*) { add("-w"); }, size);
    ka_trans_init();
  }
};

struct Place {
  std::uint32_t world = ka_world_get(), session = ka_session_get(),
                transaction = ka_transaction_get();
  bool operator==(const Place&) const = default;
};

Texts refused(const std::function<int()>& call) {
  const Place before;
  Texts texts = messages_of([&] { EXPECT_EQ(call(), 0); }, KA_ERROR | KA_WARNING);
  EXPECT_EQ(Place(), before);
  return texts;
}

TEST_F(Trans, NestAndEnd) {
  ASSERT_TRUE(ka_trans_begin(KA_TRANS_WORLD));
  const Place world;
  EXPECT_EQ(world.session, world.world);
  EXPECT_EQ(world.transaction, world.world);
  EXPECT_EQ(events, (Texts{"+t", "+s", "+w"}));
  ASSERT_TRUE(ka_trans_begin(KA_TRANS_SESSION));
  const Place session;
  EXPECT_EQ(session.world, world.world);
  EXPECT_EQ(session.transaction, session.session);
  ASSERT_TRUE(ka_trans_begin(KA_TRANS_TRANSACTION));
  const Place transaction;
  EXPECT_EQ(transaction.session, session.session);
  EXPECT_NE(ka_transaction_mem(kModule), nullptr);
  EXPECT_EQ(ka_transaction_mem(KA_IMG + 1), nullptr);
  EXPECT_EQ(ka_trans_get_lowttime(), ka_db_accessinfo(transaction.transaction)->creation);

  const std::uint32_t kept = make_element();
  for (int i = 0; i < 3000; ++i) {
    make_element();
    EXPECT_TRUE(ka_db_delete(make_element()));
  }
  EXPECT_EQ(ka_db_accessinfo(kept)->owner, transaction.transaction);
  const std::uint32_t job = make_job({});
  ka_trans_attach(session.session, KA_TRANS_SESSION);
  EXPECT_FALSE(ka_db_delete(kept)) << "of another transaction";
  ka_trans_attach(transaction.transaction, KA_TRANS_TRANSACTION);
  EXPECT_EQ(Place(), transaction);

  events.clear();
  EXPECT_TRUE(ka_trans_end(KA_TRANS_TRANSACTION));
  EXPECT_EQ(Place(), session);
  EXPECT_FALSE(ka_db_exists(kept));
  EXPECT_FALSE(ka_db_exists(job));
  EXPECT_EQ(ka_trans_get_lowttime(), 0xffffffffU);
  EXPECT_TRUE(ka_trans_end(KA_TRANS_SESSION));
  EXPECT_EQ(Place(), world);
  EXPECT_TRUE(ka_trans_end(KA_TRANS_WORLD));
  EXPECT_EQ(Place(), Place{});
  EXPECT_EQ(events, (Texts{"-t", "-t", "-s", "-t", "-s", "-w"}));
  EXPECT_EQ(counts().tags, 0U);
}

TEST_F(Trans, SayWhyTheyRefuse) {
  constexpr int world = KA_TRANS_WORLD, session = KA_TRANS_SESSION,
                transaction = KA_TRANS_TRANSACTION;
  const auto end = [](int type) { return refused([type] { return ka_trans_end(type); }); };
  const auto begin = [](int type) { return refused([type] { return ka_trans_begin(type); }); };
  const auto attach = [](std::uint32_t tag, int type) {
    return refused([=] { return ka_trans_attach(tag, type); });
  };
  EXPECT_EQ(end(transaction), Texts{"271015 cannot end default transaction"});
  EXPECT_EQ(end(world), Texts{"271013 cannot end default world"});
  EXPECT_EQ(end(1), Texts{"271011 unknown type of transaction/session"});
  EXPECT_EQ(begin(1), Texts{"271005 unknown type of transaction/session"});
  EXPECT_EQ(attach(7, 1), Texts{"271008 unknown type of transaction/session"});
  EXPECT_TRUE(ka_trans_attach(0, 1));
  ka_trans_begin(world);
  EXPECT_EQ(end(session), Texts{"271014 cannot end default session"});
  ka_trans_begin(session);
  EXPECT_EQ(end(world), Texts{"271009 cannot end world with open session"});
  ka_trans_begin(transaction);
  EXPECT_EQ(end(session), Texts{"271010 cannot end session with open transaction"});
  EXPECT_EQ(attach(make_element(), transaction),
            (Texts{"272001 trans_get: found transaction 0x403(5) NOT a 37 (nor 36 35)",
                   "271001 transaction 0x403 not found"}));
  EXPECT_EQ(attach(9999, session), (Texts{"272002 trans_get: NOT found session 0x270f",
                                          "271001 session 0x270f not found"}));
  ka_db_exit();  // without a store
  EXPECT_EQ(begin(world), Texts{"271006 cannot create db item for world"});
  ka_db_init();
}

TEST_F(Trans, EndWithTheirElementAndTheLibrary) {
  ka_trans_begin(KA_TRANS_SESSION);
  const std::uint32_t tag = ka_session_get();
  ka_trans_default();
  EXPECT_TRUE(ka_db_delete(tag));
  EXPECT_EQ(make_element(), tag);
  EXPECT_EQ(refused([tag] { return ka_trans_attach(tag, KA_TRANS_SESSION); }).size(), 2U);
  ka_trans_begin(KA_TRANS_WORLD);
  events.clear();
  ka_trans_wst_exit();
  ka_trans_exit();
  EXPECT_EQ(std::ranges::count(events, "-w"), 2);  // of the default as well
  EXPECT_EQ(counts().tags, 1U);                    // the element
  ka_trans_init();
}

}  // namespace
