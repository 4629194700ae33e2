// Transactions, sessions and worlds. The defaults of the three kinds are always there and have tag
// 0.
#include <array>

#include <ka/detail/context.h>
#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/message.h>
#include <ka/trans.h>
#include <ka/version.h>

#include "areas.h"

// One transaction, session or world.
struct trans_record {
  std::uint32_t tag;
  std::uint32_t begin_time;      // database time of the transaction's begin
  void* areas[KA_MODULE_COUNT];  // indexed by module
};

namespace {

constexpr std::uint32_t kRootBeginTime = 2;  // stamps of earlier elements are 0 and 1

struct Kind {
  const char* name;
  AreaTable areas;
  trans_record root;
};

std::array<Kind, 3> kinds = {Kind{"transaction", {}, {}}, Kind{"session", {}, {}},
                             Kind{"world", {}, {}}};
constexpr std::size_t kTransaction = 0, kSession = 1, kWorld = 2;

ka_mutex trans_lock;  // guards the lists of records that start at the roots

void start_root(Kind& kind) {
  kind.root.begin_time = kRootBeginTime;
  for (int module = 1; module < KA_MODULE_COUNT; ++module) {
    if (kind.areas.size(module) == 0) continue;
    kind.areas.create(kind.root.areas[module], module);
    ka_debug("module %s registered for %d byte %s area", ka_modname[module],
             int(kind.areas.size(module)), kind.name);
  }
}

}  // namespace

void ka_transaction_register_module(int module, ka_area_function init, ka_area_function exit,
                                    std::size_t size) {
  kinds[kTransaction].areas.add(module, init, exit, size);
}

void ka_session_register_module(int module, ka_area_function init, ka_area_function exit,
                                std::size_t size) {
  kinds[kSession].areas.add(module, init, exit, size);
}

void ka_world_register_module(int module, ka_area_function init, ka_area_function exit,
                              std::size_t size) {
  kinds[kWorld].areas.add(module, init, exit, size);
}

void ka_trans_default() {
  ka_context& context = ka::context();
  context.transaction = context.session = context.world = 0;
  context.transaction_record = &kinds[kTransaction].root;
  context.session_record = &kinds[kSession].root;
  context.world_record = &kinds[kWorld].root;
  context.transaction_areas = kinds[kTransaction].root.areas;
  context.session_areas = kinds[kSession].root.areas;
  context.world_areas = kinds[kWorld].root.areas;
}

void ka_trans_init() {
  const ka::ModuleScope scope(KA_TRANS);
  ka_init_lock(&trans_lock);
  for (Kind& kind : kinds) start_root(kind);
  ka_trans_default();
}

void ka_trans_wst_exit() {
  const ka::ModuleScope scope(KA_TRANS);
  for (Kind& kind : kinds) kind.areas.release_all(kind.root.areas);
}

void ka_trans_exit() {
  const ka::ModuleScope scope(KA_TRANS);
  for (Kind& kind : kinds) kind.root = {};
  ka_delete_lock(&trans_lock);
}

const char* ka_trans_version() { return ka::module_version(ka::kTransVersion); }
