// Registry: the table of entries.
#include <ka/registry.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <ka/detail/scope.h>
#include <ka/message.h>
#include <ka/sym.h>

#include "registryentry.h"

namespace {

struct Registry {
  ka_mutex lock{};  // guards the table
  int table = -1;   // of symbols; the first attribute of each is the address of its entry
};
Registry* registry;  // null: not started

ka::Owned<char> copy(const char* text) { return ka::Owned<char>(ka_mem_strdup(text)); }
const char* text_of(const ka::Owned<char>& text) { return text ? text.get() : ""; }

ka::RegistryEntry* find_entry(const char* name) KA_REQUIRES(registry->lock) {
  return reinterpret_cast<ka::RegistryEntry*>(ka_sym_lookup_attribute(registry->table, name, 0));
}

bool delete_entry(const char* name) KA_REQUIRES(registry->lock) {
  const ka::Owned<ka::RegistryEntry> entry(find_entry(name));
  return ka_sym_delete_symbol(registry->table, name) != 0;
}

bool create_entry(const char* name) KA_REQUIRES(registry->lock) {
  ka_sym_create_symbol(registry->table, name);
  auto entry = ka::make_owned<ka::RegistryEntry>();
  const auto address = reinterpret_cast<std::uintptr_t>(entry.get());
  if (ka_sym_add_attribute(registry->table, name, nullptr, address) < 0) return false;
  (void)entry.release();  // the table's now
  return true;
}

using NamedEntry = std::pair<ka::string, ka::RegistryEntry>;

// Copies of all entries, so that they can be printed without the lock.
ka::vector<NamedEntry> all_entries() {
  ka::vector<NamedEntry> entries;
  const auto append = [](const char* name, std::uintptr_t entry, void* list) {
    static_cast<ka::vector<NamedEntry>*>(list)->emplace_back(
        name, reinterpret_cast<const ka::RegistryEntry*>(entry)->copy());
  };
  const ka::LockScope locked(registry->lock);
  ka_sym_iterate_symbols(registry->table, append, &entries);
  return entries;
}

void write_entry(FILE* stream, const NamedEntry& named) {
  std::fprintf(stream, "registry \"%s\"\n", named.first.c_str());
  for (const ka::RegistryItem& item : named.second.items) {
    std::fprintf(stream, "\t%s\t\"%s\"\n", text_of(item.key), text_of(item.value));
  }
  std::fputs("end registry\n\n", stream);
}

void report_entry(const NamedEntry& named) {
  const auto& [name, entry] = named;
  const ka::RegistryItem* const value = entry.value_item();
  for (const ka::RegistryItem& item : entry.items) {
    ka_info("registry \"%s\": \"%s\"=\"%s\"%s", name.c_str(), text_of(item.key),
            text_of(item.value), &item == value ? " *" : "");
  }
}

}  // namespace

ka::RegistryItem ka::RegistryItem::copy() const { return {::copy(key.get()), ::copy(value.get())}; }

ka::RegistryEntry ka::RegistryEntry::copy() const {
  ka::RegistryEntry result;
  result.items.reserve(items.size());
  for (const ka::RegistryItem& item : items) result.items.push_back(item.copy());
  return result;
}

const ka::RegistryItem* ka::RegistryEntry::value_item() const {
  const auto found = std::ranges::find_if(items, [](const ka::RegistryItem& item) {
    return item.key && std::strcmp(item.key.get(), "value") == 0;
  });
  return found == items.end() ? nullptr : &*found;
}

bool ka::registry_is_started() { return registry != nullptr; }

std::optional<ka::RegistryEntry> ka::registry_find(const char* name) {
  const ka::LockScope locked(registry->lock);
  const ka::RegistryEntry* const entry = find_entry(name);
  return entry ? std::optional(entry->copy()) : std::nullopt;
}

void ka_lib_registry_init() {
  const ka::ModuleScope scope(KA_LIB);
  if (registry) return;
  ka_sym_init();
  registry = ka::make_owned<Registry>().release();
  ka_init_lock(&registry->lock);
  registry->table = ka_sym_create_symboltable("registry");
}

void ka_lib_registry_exit() {
  const ka::ModuleScope scope(KA_LIB);
  if (!registry) return;
  const auto release = [](const char* /*name*/, std::uintptr_t entry, void* /*argument*/) {
    ka::Owned<ka::RegistryEntry>(reinterpret_cast<ka::RegistryEntry*>(entry)).reset();
  };
  ka_sym_iterate_symbols(registry->table, release, nullptr);
  ka_sym_delete_symboltable(registry->table);
  ka_delete_lock(&registry->lock);
  ka::Owned<Registry>(std::exchange(registry, nullptr)).reset();
}

int ka_lib_registry_begin(const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  if (!registry) return 0;
  int deleted = 0;
  bool created = false;
  {
    const ka::LockScope locked(registry->lock);
    while (delete_entry(name)) ++deleted;
    created = create_entry(name);
  }
  while (deleted-- > 0) ka_debug("deleting registry entry \"%s\"", name);
  if (!created) ka_nerror(18, "failed to create registry entry \"%s\"", name);
  return created;
}

int ka_lib_registry_add(const char* name, const char* key, const char* value) {
  const ka::ModuleScope scope(KA_LIB);
  if (!registry) return 0;
  bool found = false;
  {
    const ka::LockScope locked(registry->lock);
    ka::RegistryEntry* const entry = find_entry(name);
    found = entry != nullptr;
    if (found) entry->items.push_back({copy(key), copy(value)});
  }
  if (!found) ka_nerror(19, "registry entry \"%s\" not found, cannot add", name);
  return found;
}

void ka_lib_registry_print(FILE* stream) {
  const ka::ModuleScope scope(KA_LIB);
  if (!registry) return;
  for (const NamedEntry& entry : all_entries()) {
    stream ? write_entry(stream, entry) : report_entry(entry);
  }
}
