// Entries of the registry, as its table and its expansion share them.
#pragma once

#include <optional>

#include <ka/detail/owned.h>

namespace ka {

struct RegistryItem {
  Owned<char> key, value;  // may be empty

  [[nodiscard]] RegistryItem copy() const;
};

struct RegistryEntry {
  vector<RegistryItem> items;

  [[nodiscard]] RegistryEntry copy() const;
  // The item that holds the entry's value, null: none.
  [[nodiscard]] const RegistryItem* value_item() const;
};

[[nodiscard]] bool registry_is_started();

// A private copy of an entry, taken under the registry's lock; empty for a name without one.
[[nodiscard]] std::optional<RegistryEntry> registry_find(const char* name);

}  // namespace ka
