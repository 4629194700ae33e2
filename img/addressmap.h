// A map from addresses to records, for look-ups that are too frequent for a tree: among 1024 entries
// a search takes 10 ns, one of ka_rbtree 45 ns (bench/cache_bench.cc).
#pragma once

#include <ka/detail/owned.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace ka {

// The records are not owned. Open addressing: at most half of the places are used, and removing
// leaves no gaps.
template <typename Value>
class AddressMap {
 public:
  struct Place {
    std::uintptr_t key;  // 0: free
    Value* value;
  };
  using Places = ka::vector<Place>;

  [[nodiscard]] Value* find(const void* key) const {
    if (places_.empty()) return nullptr;
    return places_[place_of(number(key))].value;
  }

  [[nodiscard]] std::size_t size() const { return count_; }

  // Room for so many entries in all. To grow a map that is shared, the places of a larger one are
  // made before its lock is taken and swapped in; the caller releases the old ones after it.
  [[nodiscard]] bool holds(std::size_t count) const { return 2 * count <= places_.size(); }
  [[nodiscard]] static Places places_for(std::size_t count) {
    std::size_t size = kSmallest;
    while (size < 2 * count) size *= 2;
    return Places(size);
  }
  // False when these places are too few for `count` entries.
  bool grow(Places& places, std::size_t count) {
    if (places.size() < 2 * count) return false;
    std::swap(places_, places);
    count_ = 0;
    for (const Place& place : places) {
      if (place.key != 0) insert(reinterpret_cast<const void*>(place.key), place.value);
    }
    return true;
  }
  // Room for one entry more.
  void make_room() {
    if (holds(count_ + 1)) return;
    Places places = places_for(count_ + 1);
    grow(places, count_ + 1);
  }

  // Before: there is room, and the key is not in the map.
  void insert(const void* key, Value* value) {
    places_[place_of(number(key))] = {.key = number(key), .value = value};
    ++count_;
  }

  // Returns what was removed, null for an unknown key.
  Value* erase(const void* key) {
    if (places_.empty()) return nullptr;
    std::size_t gap = place_of(number(key));
    Value* const value = places_[gap].value;
    if (!value) return nullptr;
    --count_;
    // Entries after the gap move up unless that would bring them before their own place.
    for (std::size_t i = next(gap); places_[i].key != 0; i = next(i)) {
      const std::size_t own = first_place(places_[i].key);
      if (((i - own) & mask()) >= ((i - gap) & mask())) {
        places_[gap] = places_[i];
        gap = i;
      }
    }
    places_[gap] = {};
    return value;
  }

  // Any record that `condition` holds for, or null.
  template <typename Condition>
  [[nodiscard]] Value* find_if(Condition condition) const {
    for (const Place& place : places_) {
      if (place.key != 0 && condition(*place.value)) return place.value;
    }
    return nullptr;
  }

 private:
  static constexpr std::size_t kSmallest = 64;

  static std::uintptr_t number(const void* key) { return reinterpret_cast<std::uintptr_t>(key); }
  [[nodiscard]] std::size_t mask() const { return places_.size() - 1; }
  [[nodiscard]] std::size_t next(std::size_t place) const { return (place + 1) & mask(); }
  [[nodiscard]] std::size_t first_place(std::uintptr_t key) const {
    constexpr std::uint64_t kSpread = 0x9e3779b97f4a7c15;  // 2^64 divided by the golden ratio
    return std::size_t(key * kSpread >> 32) & mask();
  }
  // Where the key is, or the free place where it would be.
  [[nodiscard]] std::size_t place_of(std::uintptr_t key) const {
    std::size_t place = first_place(key);
    while (places_[place].key != 0 && places_[place].key != key) place = next(place);
    return place;
  }

  Places places_;  // a power of two of them, or none
  std::size_t count_ = 0;
};

}  // namespace ka
