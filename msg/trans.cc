// Transactions, sessions and worlds. The defaults of the three kinds are always there and have tag
// 0.
#include <array>

#include <ka/detail/context.h>
#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/trans.h>
#include <ka/version.h>

#include "areas.h"

// One transaction, session or world.
struct trans_record {
  static constexpr std::size_t kParents = 64;
  static constexpr std::size_t kTagsStep = 1024;  // entries by which the tag list grows

  std::uint32_t tag;      // its element in the scene database, 0: a default
  std::uint32_t session;  // tag, of a transaction
  std::uint32_t world;    // tag, of a transaction or session
  std::array<std::uint32_t, kParents>
      parents;               // of a session: the enclosing ones, oldest first, then zeros
  std::uint32_t begin_time;  // database time of the transaction's begin
  bool ended;
  std::uint32_t* tags;       // of the elements created while this was current; 0: deleted since
  std::size_t tag_count;     // entries in use
  std::size_t tag_capacity;  // entries there is room for
  ka_mutex tag_lock;         // guards the tag list
  trans_record* next;        // of the same kind
  std::array<void*, KA_MODULE_COUNT> areas;  // indexed by module
};

namespace {

constexpr std::uint32_t kRootBeginTime = 2;  // stamps of elements begin below it

// A kind of record: transactions, sessions or worlds.
struct Kind {
  const char* name;
  AreaTable areas;    // what each record of the kind has for each module
  trans_record root;  // the default, first of the list of records
};

constinit std::array<Kind, 3> kinds = {{{.name = "transaction", .areas = {}, .root = {}},
                                        {.name = "session", .areas = {}, .root = {}},
                                        {.name = "world", .areas = {}, .root = {}}}};
constexpr std::size_t kTransaction = 0, kSession = 1, kWorld = 2;

ka_mutex trans_lock;  // guards the lists of records that start at the roots

void start_record(trans_record& record) {
  ka_init_lock(&record.tag_lock);
  record.tag_capacity = trans_record::kTagsStep;
  record.tags =
      static_cast<std::uint32_t*>(ka_mem_allocate(record.tag_capacity * sizeof *record.tags));
}

void start_area(Kind& kind, int module) {
  if (kind.areas.size(module) == 0) return;
  kind.areas.create(kind.root.areas[std::size_t(module)], module);
  ka_debug("module %s registered for %d byte %s area", ka_modname[module],
           int(kind.areas.size(module)), kind.name);
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
  context.transaction_areas = kinds[kTransaction].root.areas.data();
  context.session_areas = kinds[kSession].root.areas.data();
  context.world_areas = kinds[kWorld].root.areas.data();
}

void ka_trans_init() {
  const ka::ModuleScope scope(KA_TRANS);
  ka_init_lock(&trans_lock);
  for (Kind& kind : kinds) {
    kind.root.begin_time = kRootBeginTime;
    start_record(kind.root);
  }
  for (int module = 1; module < KA_MODULE_COUNT; ++module) {
    for (Kind& kind : kinds) start_area(kind, module);
  }
  ka_trans_default();
}

void ka_trans_wst_exit() {
  const ka::ModuleScope scope(KA_TRANS);
  for (Kind& kind : kinds) kind.areas.release_all(kind.root.areas.data());
}

void ka_trans_exit() {
  const ka::ModuleScope scope(KA_TRANS);
  for (Kind& kind : kinds) {
    ka_delete_lock(&kind.root.tag_lock);
    ka_mem_release(kind.root.tags);
    kind.root = {};
  }
  ka_delete_lock(&trans_lock);
}

const char* ka_trans_version() { return ka::module_version(ka::kTransVersion); }
