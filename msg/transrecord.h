// The records of transactions, sessions and worlds, and how they are found by tag.
#pragma once

#include <ka/base.h>
#include <ka/detail/store.h>
#include <ka/detail/threadsafety.h>
#include <ka/msg.h>

#include <array>
#include <limits>

#include "areas.h"

namespace ka {

// Of the records of all kinds: their lists and their counts of users.
extern ka_mutex trans_lock;

// One transaction, session or world.
struct trans_record {
  static constexpr std::size_t kParents = 64;
  static constexpr std::size_t kTagsStep = 1024;  // entries by which the tag list grows

  std::uint32_t tag;      // its element in the scene database, 0: a default
  std::uint32_t session;  // tag, of a transaction
  std::uint32_t world;    // tag, of a transaction or session
  // Of a session: the enclosing ones, oldest first, then zeros.
  std::array<std::uint32_t, kParents> parents;
  std::uint32_t begin_time;  // database time of the transaction's begin
  bool ended KA_GUARDED_BY(trans_lock);
  ka_mutex tag_lock;
  // Of the elements created while this was current; 0: deleted since.
  std::uint32_t* tags KA_GUARDED_BY(tag_lock);
  std::size_t tag_count KA_GUARDED_BY(tag_lock);     // entries in use
  std::size_t tag_capacity KA_GUARDED_BY(tag_lock);  // entries there is room for
  trans_record* next KA_GUARDED_BY(trans_lock);      // of the same kind
  std::array<void*, KA_MODULE_COUNT> areas;          // indexed by module
  std::uint64_t serial;                              // of its element, 0: a default of tag 0
  // Threads that are attached, not counted for the roots.
  int users KA_GUARDED_BY(trans_lock);
};

// A kind of record.
struct trans_kind {
  const char* name;
  int element_type;
  AreaTable areas;    // what each record of the kind has for each module
  trans_record root;  // the default of tag 0, first of the list of records
  // Records that have left the list while threads were attached.
  trans_record* ended KA_GUARDED_BY(trans_lock);

  [[nodiscard]] bool is_root(const trans_record* record) const { return record == &root; }
};

enum { kTransaction, kSession, kWorld, kTransKinds };
extern constinit std::array<trans_kind, kTransKinds> trans_kinds;
inline std::size_t trans_index(const trans_kind& kind) {
  return std::size_t(&kind - trans_kinds.data());
}

// The kind with an element type; null: none.
trans_kind* trans_kind_of(int element_type);

// Starts the lock and the roots, ends the roots and every record that is left, while only one thread
// runs.
void trans_records_start();
void trans_records_end() KA_NO_THREAD_SAFETY_ANALYSIS;
// Releases the areas of the roots, exit functions first.
void trans_release_areas();

// Finds a record by its tag and attaches the calling thread to it: a record comes into being with
// the first look-up of its element. Null after warning 1, 2 or 3. An element that is younger than
// `youngest` counts as not found: what contains an element is older than that, whoever has its tag
// now.
constexpr std::uint64_t kAnyAge = std::numeric_limits<std::uint64_t>::max();
trans_record* trans_find(trans_kind& kind, std::uint32_t tag, std::uint64_t youngest = kAnyAge);
// A new element and its records, to all of which the calling thread is attached: no other thread
// sees them before.
struct trans_family {
  std::array<trans_record*, kTransKinds> members;  // indexed by kind, null: not needed

  void release();  // members that no list and no thread has
};
trans_family trans_create(trans_kind& kind, const std::uint32_t* words, std::size_t count);

// The calling thread leaves a record, which goes when it has ended and nobody is left.
void trans_leave(trans_kind& kind, trans_record* record);

// Takes a record, its default children and its element away, for all threads at once. The records
// stay until the last thread has left them; the calling thread is one of those.
enum class trans_failure { kNone, kNotFound, kChild };
[[nodiscard]] trans_failure trans_unlink(trans_kind& kind, const trans_record* record);

// The operations of the store; null before it starts.
const StoreOperations* trans_store();

}  // namespace ka
