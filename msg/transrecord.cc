#include "transrecord.h"

#include <algorithm>
#include <limits>

#include <ka/detail/context.h>
#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/trans.h>

using namespace ka;

namespace {

constexpr std::uint32_t kRootBeginTime = 2;

const ka::StoreOperations* store = nullptr;

// A record that no list and no other thread has, yet or any more, needs no lock, here and below.
KA_NO_THREAD_SAFETY_ANALYSIS void start_record(trans_record& record) {
  ka_init_lock(&record.tag_lock);
  record.tag_capacity = trans_record::kTagsStep;
  record.tags =
      static_cast<std::uint32_t*>(ka_mem_allocate(record.tag_capacity * sizeof *record.tags));
}

KA_NO_THREAD_SAFETY_ANALYSIS void end_record(trans_record& record) {
  ka_delete_lock(&record.tag_lock);
  ka_mem_release(record.tags);
}

trans_record* make_record(trans_kind& kind) {
  auto* const record = static_cast<trans_record*>(ka_mem_allocate_raw(sizeof(trans_record)));
  start_record(*record);
  for (int module = 1; module < KA_MODULE_COUNT; ++module) {
    kind.areas.create(record->areas[std::size_t(module)], module);
  }
  return record;
}

// Releases a record that no list and no thread has any more. Its elements go first: they may have
// something in its areas.
KA_NO_THREAD_SAFETY_ANALYSIS void release_record(trans_kind& kind, trans_record* record) {
  for (std::size_t i = 0; i < record->tag_count; ++i) {
    if (record->tags[i] != 0 && store) store->release(record->tags[i], record->serial);
  }
  kind.areas.release_all(record->areas.data());
  end_record(*record);
  ka_mem_release_raw(record);
}

trans_record* find_in(trans_record* list, std::uint32_t tag) KA_REQUIRES(trans_lock) {
  while (list && list->tag != tag) list = list->next;
  return list;
}

void append(trans_kind& kind, trans_record* record) KA_REQUIRES(trans_lock) {
  trans_record* last = &kind.root;
  while (last->next) last = last->next;
  last->next = record;
}

bool remove_from(trans_record** list, const trans_record* record) KA_REQUIRES(trans_lock) {
  while (*list && *list != record) list = &(*list)->next;
  if (!*list) return false;
  *list = record->next;
  return true;
}

// Session elements hold the world and the parents, transaction elements the session and the world.
void fill(trans_record& record, std::uint32_t tag, int type, const std::uint32_t* words) {
  record.tag = tag;
  switch (type) {
    case KA_TRANS_WORLD:
      record.session = record.world = tag;
      break;
    case KA_TRANS_SESSION:
      record.session = tag;
      record.world = words[0];
      std::copy_n(words + 1, record.parents.size(), record.parents.begin());
      break;
    default:
      record.session = words[0];
      record.world = words[1];
  }
}

// A new record and the defaults that come with it: a world has a session and a transaction, a
// session a transaction, all with its tag.
trans_family make_family(const trans_kind& kind, std::uint32_t now) {
  trans_family family{};
  for (std::size_t member = 0; member <= trans_index(kind); ++member) {
    family.members[member] = make_record(trans_kinds[member]);
    family.members[member]->begin_time = now;
  }
  return family;
}

void fill_family(const trans_family& family, std::uint32_t tag, int type, std::uint64_t serial,
                 const std::uint32_t* words) {
  for (trans_record* member : family.members) {
    if (!member) continue;
    fill(*member, tag, type, words);
    member->serial = serial;
  }
}

// Moves a record from the list to those that only wait for their threads to leave.
void end_listed(trans_kind& kind, trans_record* record) KA_REQUIRES(trans_lock) {
  remove_from(&kind.root.next, record);
  record->ended = true;
  record->next = kind.ended;
  kind.ended = record;
}

// The record of the list that belongs to the element which has the tag now. One whose element was
// deleted by other means leaves the list.
trans_record* find_current(trans_kind& kind, std::uint32_t tag) KA_REQUIRES(trans_lock) {
  trans_record* const record = find_in(kind.root.next, tag);
  if (!record || record->serial == store->serial(tag)) return record;
  end_listed(kind, record);
  return nullptr;
}

// As for trans_find, of a record that is in the list.
trans_record* attach_listed(trans_kind& kind, std::uint32_t tag, std::uint64_t youngest) {
  const ka::LockScope locked(trans_lock);
  trans_record* const record = find_current(kind, tag);
  if (!record || record->serial > youngest) return nullptr;
  ++record->users;
  return record;
}

bool has_ended(const trans_kind& kind, std::uint32_t tag) {
  const ka::LockScope locked(trans_lock);
  return find_in(kind.ended, tag) != nullptr;
}

// A session serves as its own transaction, a world as its own session and transaction.
bool can_be(const trans_kind& kind, int element_type) {
  for (std::size_t i = trans_index(kind); i < trans_kinds.size(); ++i) {
    if (trans_kinds[i].element_type == element_type) return true;
  }
  return false;
}

bool read_element(const trans_kind& kind, std::uint32_t tag, std::uint64_t youngest,
                  ka::StoredElement& element) {
  if (!store->read(tag, element) || element.serial > youngest) {
    if (has_ended(kind, tag)) {
      ka_nwarning(3, "tried to use an ended %s (%#x)", kind.name, tag);
    } else {
      ka_nwarning(2, "trans_get: NOT found %s %#x", kind.name, tag);
    }
    return false;
  }
  if (can_be(kind, element.type)) return true;
  const auto parent = [&](std::size_t above) {
    const std::size_t index = std::min(trans_index(kind) + above, trans_kinds.size() - 1);
    return trans_kinds[index].element_type;
  };
  ka_nwarning(1, "trans_get: found %s %#x(%d) NOT a %d (nor %d %d)", kind.name, tag, element.type,
              kind.element_type, parent(1), parent(2));
  return false;
}

// Puts a family into the lists unless another thread has been faster or the element is gone.
// Members that found no place stay with the family.
trans_record* insert(trans_kind& kind, std::uint32_t tag, trans_family& family) {
  const ka::LockScope locked(trans_lock);
  const bool is_current = store->serial(tag) == family.members[trans_index(kind)]->serial;
  for (std::size_t i = 0; is_current && i <= trans_index(kind); ++i) {
    trans_record*& member = family.members[i];
    if (find_current(trans_kinds[i], tag)) continue;
    append(trans_kinds[i], member);
    member = nullptr;
  }
  trans_record* const record = find_current(kind, tag);
  if (record) ++record->users;
  return record;
}

// Releases records of a tag whose element was deleted while no thread was attached to them.
void release_unused(trans_kind& kind, std::uint32_t tag) {
  const auto take = [&]() -> trans_record* {
    const ka::LockScope locked(trans_lock);
    trans_record* record = find_in(kind.ended, tag);
    while (record && record->users > 0) record = find_in(record->next, tag);
    if (record) remove_from(&kind.ended, record);
    return record;
  };
  while (trans_record* const record = take()) release_record(kind, record);
}

template <typename Function>
void for_each_record(Function function) KA_REQUIRES(trans_lock) {
  for (trans_kind& kind : trans_kinds) {
    for (trans_record* list : {&kind.root, kind.ended}) {
      for (trans_record *record = list, *next; record; record = next) {
        next = record->next;
        function(kind, record);
      }
    }
  }
}

}  // namespace

namespace ka {

ka_mutex trans_lock;

constinit std::array<trans_kind, kTransKinds> trans_kinds = {
    {{"transaction", KA_TRANS_TRANSACTION, {}, {}, nullptr},
     {"session", KA_TRANS_SESSION, {}, {}, nullptr},
     {"world", KA_TRANS_WORLD, {}, {}, nullptr}}};

trans_kind* trans_kind_of(int element_type) {
  const auto found = std::ranges::find(trans_kinds, element_type, &trans_kind::element_type);
  return found != trans_kinds.end() ? &*found : nullptr;
}

const ka::StoreOperations* trans_store() { return store; }
void set_store_operations(const StoreOperations* operations) { store = operations; }

void trans_records_start() {
  ka_init_lock(&trans_lock);
  for (trans_kind& kind : trans_kinds) {
    kind.root.begin_time = kRootBeginTime;
    start_record(kind.root);
  }
}

void trans_release_areas() {
  for (trans_kind& kind : trans_kinds) kind.areas.release_all(kind.root.areas.data());
}

void trans_records_end() {
  for_each_record([](trans_kind& kind, trans_record* record) {
    if (kind.is_root(record)) return end_record(*record);
    if (store) store->remove(record->tag, record->serial);
    release_record(kind, record);
  });
  for (trans_kind& kind : trans_kinds) {
    kind.root = {};
    kind.ended = nullptr;
  }
  ka_delete_lock(&trans_lock);
}

trans_record* trans_find(trans_kind& kind, std::uint32_t tag, std::uint64_t youngest) {
  if (tag == 0) return &kind.root;
  if (!store) {
    ka_nwarning(2, "trans_get: NOT found %s %#x", kind.name, tag);
    return nullptr;
  }
  for (;;) {
    if (trans_record* const record = attach_listed(kind, tag, youngest)) return record;
    for (trans_kind& each : trans_kinds) release_unused(each, tag);
    ka::StoredElement element{};
    if (!read_element(kind, tag, youngest, element)) return nullptr;
    trans_family family = make_family(kind, store->time());
    fill_family(family, tag, element.type, element.serial, element.words.data());
    trans_record* const record = insert(kind, tag, family);
    family.release();
    if (record) return record;  // else the element has gone meanwhile, or the tag has a new one
  }
}

void trans_family::release() {
  for (std::size_t kind = 0; kind < members.size(); ++kind) {
    if (members[kind]) release_record(trans_kinds[kind], members[kind]);
  }
}

trans_family trans_create(trans_kind& kind, const std::uint32_t* words, std::size_t count) {
  const std::uint32_t now = store->time();
  const trans_family family = make_family(kind, now);
  const ka::LockScope locked(trans_lock);
  const std::uint32_t tag = store->create(kind.element_type, words, count, now);
  fill_family(family, tag, kind.element_type, store->serial(tag), words);
  for (std::size_t i = 0; i <= trans_index(kind); ++i) {
    (void)find_current(trans_kinds[i], tag);  // an old record whose element was deleted goes
    family.members[i]->users = 1;
    append(trans_kinds[i], family.members[i]);
  }
  return family;
}

void trans_leave(trans_kind& kind, trans_record* record) {
  if (!record || kind.is_root(record)) return;
  {
    const ka::LockScope locked(trans_lock);
    if (--record->users > 0 || !record->ended) return;
    remove_from(&kind.ended, record);
  }
  release_record(kind, record);
}

trans_failure trans_unlink(trans_kind& kind, const trans_record* record) {
  const std::size_t own = trans_index(kind);
  const std::uint32_t tag = record->tag;
  const std::uint64_t serial = record->serial;
  if (!store) return trans_failure::kNotFound;
  const ka::LockScope locked(trans_lock);
  trans_family family{};
  for (std::size_t i = 0; i <= own; ++i) {
    trans_record* const member = find_in(trans_kinds[i].root.next, tag);
    if (!member || member->serial != serial) continue;
    family.members[i] = member;
  }
  if (!family.members[own]) return trans_failure::kNotFound;
  for (std::size_t i = 0; i < own; ++i) {
    if (!family.members[i]) return trans_failure::kChild;
  }
  for (std::size_t i = 0; i <= own; ++i) end_listed(trans_kinds[i], family.members[i]);
  store->remove(tag, serial);
  return trans_failure::kNone;
}

}  // namespace ka

std::uint32_t ka_trans_get_lowttime() {
  const ka::ModuleScope scope(KA_TRANS);
  const ka::LockScope locked(trans_lock);
  std::uint32_t lowest = std::numeric_limits<std::uint32_t>::max();
  for (const trans_record* record = trans_kinds[kTransaction].root.next; record;
       record = record->next) {
    if (record->tag != record->session) lowest = std::min(lowest, record->begin_time);
  }
  return lowest;
}

void ka::trans_warp(void (*warp)()) {
  const LockScope locked(trans_lock);
  warp();
  for_each_record([](trans_kind& kind, trans_record* record) {
    if (!kind.is_root(record)) record->begin_time /= kWarpDivisor;
  });
}

std::uint32_t ka::trans_add_tag(std::uint32_t tag) {
  trans_record* const record = context().transaction_record;
  if (!record || record->tag == 0) return 0;
  const LockScope locked(record->tag_lock);
  if (record->tag_count == record->tag_capacity) {
    record->tag_capacity += trans_record::kTagsStep;
    record->tags = static_cast<std::uint32_t*>(
        ka_mem_reallocate(record->tags, record->tag_capacity * sizeof *record->tags));
  }
  record->tags[record->tag_count++] = tag;
  return std::uint32_t(record->tag_count);
}

void ka::trans_clear_tag(std::uint32_t tag, std::uint32_t place) {
  trans_record* const record = context().transaction_record;
  if (place == 0 || !record) return;
  const LockScope locked(record->tag_lock);
  if (place > record->tag_count || record->tags[place - 1] != tag) return;
  record->tags[place - 1] = 0;
  while (record->tag_count > 0 && record->tags[record->tag_count - 1] == 0) --record->tag_count;
}

std::uint64_t ka::trans_serial() {
  const trans_record* const record = context().transaction_record;
  return record ? record->serial : 0;
}
