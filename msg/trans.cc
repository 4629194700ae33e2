// Transactions, sessions and worlds: where each thread is, beginning, attaching and ending.
#include <ka/detail/context.h>
#include <ka/detail/hooks.h>
#include <ka/detail/scope.h>
#include <ka/detail/versions.h>
#include <ka/message.h>
#include <ka/trans.h>
#include <ka/version.h>

#include <algorithm>

#include "transrecord.h"

using namespace ka;

namespace {

struct Tags {
  std::uint32_t world, session, transaction;
};
constexpr Tags kDefaults = {0, 0, 0};

// The records of a position, to each of which its thread is attached.
struct Position {
  trans_record* world;
  trans_record* session;
  trans_record* transaction;
};

Tags current_tags() {
  const ka_context& context = ka::context();
  return {context.world, context.session, context.transaction};
}

void leave(const Position& position) {
  trans_leave(trans_kinds[kTransaction], position.transaction);
  trans_leave(trans_kinds[kSession], position.session);
  trans_leave(trans_kinds[kWorld], position.world);
}

// The thread goes from its position to another one, and leaves the old records.
void enter(const Tags& tags, const Position& position) {
  ka_context& context = ka::context();
  const Position old = {context.world_record, context.session_record, context.transaction_record};
  context.world = tags.world;
  context.session = tags.session;
  context.transaction = tags.transaction;
  context.world_record = position.world;
  context.session_record = position.session;
  context.transaction_record = position.transaction;
  context.world_areas = position.world->areas.data();
  context.session_areas = position.session->areas.data();
  context.transaction_areas = position.transaction->areas.data();
  leave(old);
}

// Attaches to the records of a position that `position` lacks, none of them younger than
// `youngest`. False after an error message.
bool complete(const Tags& tags, Position& position, std::uint64_t youngest) {
  const auto find = [youngest](trans_record*& record, trans_kind& kind, std::uint32_t tag) {
    if (!record) record = trans_find(kind, tag, youngest);
    return record != nullptr;
  };
  if (!find(position.world, trans_kinds[kWorld], tags.world)) {
    ka_nerror(2, "world %#x not found", tags.world);
  } else if (!find(position.session, trans_kinds[kSession], tags.session)) {
    ka_nerror(3, "session %#x not found", tags.session);
  } else if (!find(position.transaction, trans_kinds[kTransaction], tags.transaction)) {
    ka_nerror(4, "transaction %#x not found", tags.transaction);
  } else {
    return true;
  }
  return false;
}

int set_position(const Tags& tags, std::uint64_t youngest) {
  Position position{};
  if (complete(tags, position, youngest)) {
    enter(tags, position);
    return 1;
  }
  leave(position);
  return 0;
}

// The position of those who attach to a tag, and the age of what it leads to; false: it is not
// found.
bool tags_of(trans_kind& kind, std::uint32_t tag, Tags& tags, std::uint64_t& serial) {
  tags = {tag, tag, tag};
  serial = kAnyAge;
  if (kind.element_type == KA_TRANS_WORLD) return true;
  trans_record* const record = trans_find(kind, tag);
  if (!record) return false;
  tags = {record->world, kind.element_type == KA_TRANS_SESSION ? tag : record->session, tag};
  serial = record->serial;
  trans_leave(kind, record);
  return true;
}

int attach(trans_kind& kind, std::uint32_t tag) {
  Tags tags = kDefaults;
  std::uint64_t serial = kAnyAge;
  if (!tags_of(kind, tag, tags, serial)) {
    ka_nerror(1, "%s %#x not found", kind.name, tag);
    return 0;
  }
  ka_vdebug("trans_attach %s %#x -> %#x %#x %#x", kind.name, tag, tags.world, tags.session,
            tags.transaction);
  if (set_position(tags, serial)) return 1;
  ka_debug("trans_set failed");
  return 0;
}

// Data of a session's element: the world, and the parents of the new session.
std::array<std::uint32_t, 1 + trans_record::kParents> session_words() {
  const ka_context& context = ka::context();
  std::array<std::uint32_t, 1 + trans_record::kParents> words{context.world};
  std::size_t count = 0;
  const auto add = [&](std::uint32_t parent) {
    if (count == trans_record::kParents) {
      ka_nwarning(7, "session stack overflow for session %#x", context.session);
      return;
    }
    ka_vdebug("new session has parent[%d]  = %#x", int(count), parent);
    words[++count] = parent;
  };
  const auto& parents = context.session_record->parents;
  for (std::size_t i = 0; i < parents.size() && parents[i] != 0; ++i) add(parents[i]);
  if (context.session != context.world) add(context.session);
  return words;
}

trans_family create(trans_kind& kind) {
  const Tags current = current_tags();
  const auto with = [&](const auto& words) {
    return trans_create(kind, words.data(), words.size());
  };
  switch (kind.element_type) {
    case KA_TRANS_WORLD:
      return with(std::array<std::uint32_t, 0>{});
    case KA_TRANS_SESSION:
      return with(session_words());
    default:
      return with(std::array{current.session, current.world});
  }
}

// Whether what the thread is in may end; after an error message not.
bool may_end(const trans_kind& kind) {
  const Tags current = current_tags();
  const auto refused = [](int number, const char* text) {
    ka_nerror(number, "%s", text);
    return false;
  };
  switch (kind.element_type) {
    case KA_TRANS_TRANSACTION:
      if (current.transaction == 0 || current.transaction == current.session ||
          current.transaction == current.world) {
        return refused(15, "cannot end default transaction");
      }
      return true;
    case KA_TRANS_SESSION:
      if (current.session == current.world) return refused(14, "cannot end default session");
      if (current.transaction != current.session)
        return refused(10, "cannot end session with open transaction");
      return true;
    default:
      if (current.world == 0) return refused(13, "cannot end default world");
      if (current.session != current.world) return refused(9, "cannot end world with open session");
      if (current.transaction != current.session) {
        refused(10, "cannot end session with open transaction");
        return refused(17, "cannot end child session");
      }
      return true;
  }
}

const trans_record* current_record(const trans_kind& kind) {
  const ka_context& context = ka::context();
  switch (kind.element_type) {
    case KA_TRANS_TRANSACTION:
      return context.transaction_record;
    case KA_TRANS_SESSION:
      return context.session_record;
    default:
      return context.world_record;
  }
}

// The default of what contains a record of the kind that the thread is in.
Tags parent_of(const trans_kind& kind) {
  const Tags current = current_tags();
  switch (kind.element_type) {
    case KA_TRANS_TRANSACTION:
      return {current.world, current.session, current.session};
    case KA_TRANS_SESSION:
      return {current.world, current.world, current.world};
    default:
      return kDefaults;
  }
}

int end(trans_kind& kind) {
  const std::uint64_t serial = current_record(kind)->serial;
  const trans_failure failure = trans_unlink(kind, current_record(kind));
  if (failure == trans_failure::kChild) {
    const bool is_world = kind.element_type == KA_TRANS_WORLD;
    ka_nerror(is_world ? 17 : 18, "cannot end child %s", is_world ? "session" : "transaction");
    return 0;
  }
  const Tags parent = parent_of(kind);
  ka_trans_default();
  if (failure == trans_failure::kNotFound) ka_nerror(16, "%s not found", kind.name);
  if (set_position(parent, serial)) return failure == trans_failure::kNone;
  ka_nerror(13, "cannot release %s", kind.name);
  return 0;
}

void start_area(trans_kind& kind, int module) {
  if (kind.areas.size(module) == 0) return;
  kind.areas.create(kind.root.areas[std::size_t(module)], module);
  ka_debug("module %s registered for %d byte %s area", ka_modname[module],
           int(kind.areas.size(module)), kind.name);
}

// A stand-alone process has no hosts that its records could be sent to.
void send_records(int /*host*/) {}

void* area_of(void** areas, int module) {
  if (!areas || module < 0 || module >= KA_MODULE_COUNT) return nullptr;
  return areas[module];
}

}  // namespace

void ka_transaction_register_module(int module, ka_area_function init, ka_area_function exit,
                                    std::size_t size) {
  trans_kinds[kTransaction].areas.add(module, init, exit, size);
}

void ka_session_register_module(int module, ka_area_function init, ka_area_function exit,
                                std::size_t size) {
  trans_kinds[kSession].areas.add(module, init, exit, size);
}

void ka_world_register_module(int module, ka_area_function init, ka_area_function exit,
                              std::size_t size) {
  trans_kinds[kWorld].areas.add(module, init, exit, size);
}

void ka_trans_default() {
  enter(kDefaults, {.world = &trans_kinds[kWorld].root,
                    .session = &trans_kinds[kSession].root,
                    .transaction = &trans_kinds[kTransaction].root});
}

void ka_trans_init() {
  const ka::ModuleScope scope(KA_TRANS);
  trans_records_start();
  for (int module = 1; module < KA_MODULE_COUNT; ++module) {
    for (trans_kind& kind : trans_kinds) start_area(kind, module);
  }
  ka_trans_default();
  ka::call_for_new_host(KA_TRANS, send_records);
}

void ka_trans_wst_exit() {
  const ka::ModuleScope scope(KA_TRANS);
  ka_trans_default();
  trans_release_areas();
}

void ka_trans_exit() {
  const ka::ModuleScope scope(KA_TRANS);
  ka_trans_default();
  trans_records_end();
}

int ka_trans_begin(int type) {
  const ka::ModuleScope scope(KA_TRANS);
  trans_kind* const kind = trans_kind_of(type);
  if (!kind) {
    ka_nerror(5, "unknown type of transaction/session");
    return 0;
  }
  if (!trans_store()) {
    ka_nerror(6, "cannot create db item for %s", kind->name);
    return 0;
  }
  const Tags current = current_tags();
  const std::uint64_t session_serial = ka::context().session_record->serial;
  const auto members = create(*kind).members;
  const trans_record& own = *members[trans_index(*kind)];
  const Tags tags = {own.world, own.session, own.tag};
  ka_debug("trans_begin %s = %#x (%#x/%#x/%#x)", kind->name, own.tag, current.world,
           current.session, current.transaction);
  ka_vdebug("trans_attach %s %#x -> %#x %#x %#x", kind->name, own.tag, tags.world, tags.session,
            tags.transaction);
  Position position = {members[kWorld], members[kSession], members[kTransaction]};
  if (complete(tags, position, session_serial)) {
    enter(tags, position);
    return 1;
  }
  ka_debug("trans_set failed");
  ka_nerror(7, "cannot attach new %s", kind->name);
  (void)trans_unlink(*kind, &own);
  leave(position);
  return 0;
}

int ka_trans_attach(std::uint32_t tag, int type) {
  const ka::ModuleScope scope(KA_TRANS);
  if (tag == 0) {
    ka_trans_default();
    return 1;
  }
  if (trans_kind* const kind = trans_kind_of(type)) return attach(*kind, tag);
  ka_nerror(8, "unknown type of transaction/session");
  return 0;
}

int ka_trans_end(int type) {
  const ka::ModuleScope scope(KA_TRANS);
  trans_kind* const kind = trans_kind_of(type);
  if (!kind) {
    ka_nerror(11, "unknown type of transaction/session");
    return 0;
  }
  return may_end(*kind) && end(*kind);
}

std::uint32_t ka_transaction_get() { return ka::context().transaction; }
std::uint32_t ka_session_get() { return ka::context().session; }
std::uint32_t ka_world_get() { return ka::context().world; }

void* ka_transaction_mem(int module) { return area_of(ka::context().transaction_areas, module); }
void* ka_session_mem(int module) { return area_of(ka::context().session_areas, module); }
void* ka_world_mem(int module) { return area_of(ka::context().world_areas, module); }

const char* ka_trans_version() { return ka::module_version(ka::kTransVersion); }
