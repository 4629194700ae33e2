// The hash tables of symbol tables: chains of buckets, which come from a block pool.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include <ka/detail/owned.h>
#include <ka/mem.h>
#include <ka/message.h>

namespace ka {

// Records of one type, each in an element of a block pool.
template <typename Record>
class RecordPool {
 public:
  RecordPool() : pool_(ka_mem_blkcreate(sizeof(Record))) {
    static_assert(alignof(Record) <= 8, "what a block pool guarantees");
  }
  ~RecordPool() { ka_mem_blkdelete(pool_); }
  RecordPool(const RecordPool&) = delete;
  RecordPool& operator=(const RecordPool&) = delete;

  template <typename... Arguments>
  Record* make(Arguments&&... arguments) {
    return new (ka_mem_blkallocate(pool_)) Record{std::forward<Arguments>(arguments)...};
  }
  void release(Record* record) {
    std::destroy_at(record);
    ka_mem_blkrelease(pool_, record);
  }

 private:
  ka_mem_pool* pool_;
};

struct Bucket {
  Bucket* next;
  void* entry;
};

// Sizes of hash tables are primes, so that keys with a common factor spread as well.
[[nodiscard]] std::size_t prime_not_below(std::size_t number);

inline constexpr std::size_t kFirstHashSize = 2053;

// A table of entries that somebody else owns. `hash` gives an entry's key as a number.
template <typename Entry, auto hash>
class HashTable {
 public:
  explicit HashTable(RecordPool<Bucket>& pool) : pool_(pool), chains_(kFirstHashSize) {}
  ~HashTable() {
    for (Bucket* chain : chains_) {
      while (Bucket* const bucket = chain) {
        chain = bucket->next;
        pool_.release(bucket);
      }
    }
  }
  HashTable(const HashTable&) = delete;
  HashTable& operator=(const HashTable&) = delete;

  // Puts an entry at the head of its chain: of equal keys the newest is found first.
  void insert(Entry& entry) {
    if (count_ > chains_.size() / 2) grow();
    Bucket*& chain = chains_[index_of(hash(entry))];
    chain = pool_.make(chain, &entry);
    ++count_;
  }

  void remove(const Entry& entry) {
    for (Bucket** link = &chains_[index_of(hash(entry))]; *link; link = &(*link)->next) {
      Bucket* const bucket = *link;
      if (bucket->entry != &entry) continue;
      *link = bucket->next;
      pool_.release(bucket);
      --count_;
      return;
    }
    ka_nwarning(15, "delete_hashbucket: cannot delete hashbucket");
  }

  // The first entry with the key `key` that `matches` accepts; null: none.
  template <typename Matches>
  [[nodiscard]] Entry* find(std::size_t key, Matches matches) const {
    for (const Bucket* bucket = chains_[index_of(key)]; bucket; bucket = bucket->next) {
      auto* const entry = static_cast<Entry*>(bucket->entry);
      if (matches(*entry)) return entry;
    }
    return nullptr;
  }

  // Calls the function with the index of the chain and the entry, which it may remove.
  template <typename Function>
  void for_each(Function function) const {
    for (std::size_t index = 0; index < chains_.size(); ++index) {
      for (const Bucket* bucket = chains_[index]; bucket;) {
        auto* const entry = static_cast<Entry*>(bucket->entry);
        bucket = bucket->next;
        function(index, *entry);
      }
    }
  }

 private:
  [[nodiscard]] std::size_t index_of(std::size_t key) const { return key % chains_.size(); }

  // Four times the size. Entries of equal keys keep their order.
  void grow() {
    ka::vector<Bucket*> old(prime_not_below(4 * chains_.size()));
    old.swap(chains_);
    ka::vector<Bucket**> ends(chains_.size());
    for (std::size_t index = 0; index < ends.size(); ++index) ends[index] = &chains_[index];
    for (Bucket* chain : old) {
      while (Bucket* const bucket = chain) {
        chain = bucket->next;
        bucket->next = nullptr;
        Bucket**& end = ends[index_of(hash(*static_cast<Entry*>(bucket->entry)))];
        *end = bucket;
        end = &bucket->next;
      }
    }
  }

  RecordPool<Bucket>& pool_;
  ka::vector<Bucket*> chains_;
  std::size_t count_ = 0;  // entries
};

}  // namespace ka
