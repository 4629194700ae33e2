// What transactions and the element store above them need of each other. The store hands in its
// operations when it starts.
//
// Locks are taken in this order: the lock of a job element's entry, the lock of the transaction
// records, the store's database lock, its page table lock. The lock of a tag list and the store's
// swap and delete locks are taken last, one at a time. A thread that purges only tries locks.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ka {

// A copy of an element of a world, a session or a transaction.
struct StoredElement {
  static constexpr std::size_t kWords = 65;

  int type;
  std::uint64_t serial;                       // no other element of the process has it
  std::array<std::uint32_t, kWords> words{};  // data, zero after the element's own
};

struct StoreOperations {
  // Creates an element of the default transaction, which other threads see only with its data. Called
  // with the lock of the records.
  std::uint32_t (*create)(int type, const std::uint32_t* words, std::size_t count,
                          std::uint32_t stamp);
  // Copies an element; false: there is none.
  bool (*read)(std::uint32_t tag, StoredElement& element);
  // The serial of the element that has the tag now, 0: none. Takes no lock.
  std::uint64_t (*serial)(std::uint32_t tag);
  // Removes an element of a world, session or transaction unless it is gone already.
  void (*remove)(std::uint32_t tag, std::uint64_t serial);
  // Deletes an element whose owner has ended; one in use passes to the default transaction.
  void (*release)(std::uint32_t tag, std::uint64_t owner_serial);
  // The stamp that comes next. Not to be called with a lock.
  std::uint32_t (*time)();
};

// Null: there is no store.
void set_store_operations(const StoreOperations* operations);

// Adds an element to the tag list of the calling thread's transaction. Returns its place, counted
// from 1; 0 in a default of tag 0, which keeps no list.
std::uint32_t trans_add_tag(std::uint32_t tag);
// Clears a place of that list, if it still holds the tag.
void trans_clear_tag(std::uint32_t tag, std::uint32_t place);

// The serial of the calling thread's transaction, 0 for the default.
std::uint64_t trans_serial();

// Calls `warp`, which scales the stamps of elements down, and scales the begin times of
// transactions with them, as one step for all threads.
constexpr std::uint32_t kWarpDivisor = 16;
void trans_warp(void (*warp)());

}  // namespace ka
