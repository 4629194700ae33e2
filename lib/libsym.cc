// Symbol tables: the set of tables and the operations on it.
#include <ka/sym.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include <ka/detail/scope.h>
#include <ka/message.h>

#include "symtable.h"

namespace {

using ka::Attribute;
using ka::SymbolTable;

struct TableSet {
  TableSet() { ka_init_lock(&lock); }
  ~TableSet() { ka_delete_lock(&lock); }
  TableSet(const TableSet&) = delete;
  TableSet& operator=(const TableSet&) = delete;

  ka_mutex lock{};
  // Made with the first table.
  ka::Owned<ka::SymbolPools> pools KA_GUARDED_BY(lock);
  // Indexed by table number, empty: free. The contents of a table are not guarded.
  ka::vector<ka::Owned<SymbolTable>> tables KA_GUARDED_BY(lock);
};

TableSet* table_set;  // null before ka_sym_init and after ka_sym_exit

// The slot of a table in the set, null for a number that no table has.
ka::Owned<SymbolTable>* slot_of(int index) KA_REQUIRES(table_set->lock) {
  auto& tables = table_set->tables;
  const bool exists =
      index >= 0 && std::size_t(index) < tables.size() && tables[std::size_t(index)];
  return exists ? &tables[std::size_t(index)] : nullptr;
}

void invalid_index() { ka_nerror(45, "get_symboltable: invalid symboltable index"); }

// Null, after an error message, for a number that no table has.
SymbolTable* get_symboltable(int index) {
  SymbolTable* table = nullptr;
  if (table_set) {
    const ka::LockScope locked(table_set->lock);
    if (const auto* const slot = slot_of(index)) table = slot->get();
  }
  if (!table) invalid_index();
  return table;
}

// What the operations on a symbol work on; both null for an invalid table, the symbol alone for an
// unknown name.
struct Place {
  SymbolTable* table;
  ka_symbol* symbol;
};

Place find_symbol(int index, const char* name) {
  SymbolTable* const table = get_symboltable(index);
  return {table, table ? table->find(name) : nullptr};
}

template <typename Key>
std::uintptr_t data_of(int table, const char* symbol, Key key) {
  const Place place = find_symbol(table, symbol);
  const Attribute* const attribute = place.symbol ? place.symbol->attribute(key) : nullptr;
  return attribute ? attribute->data : 0;
}

template <typename Key>
int edit_data(const char* operation, int table, const char* symbol, Key key, std::uintptr_t data) {
  const Place place = find_symbol(table, symbol);
  if (place.table && !place.symbol) ka_warning("%s: symbol not found (\"%s\")", operation, symbol);
  Attribute* const attribute = place.symbol ? place.symbol->attribute(key) : nullptr;
  if (attribute) place.table->edit(*attribute, data);
  return attribute != nullptr;
}

}  // namespace

void ka_sym_init() {
  const ka::ModuleScope scope(KA_LIB);
  if (!table_set) table_set = ka::make_owned<TableSet>().release();
}

void ka_sym_exit() {
  const ka::ModuleScope scope(KA_LIB);
  const ka::Owned<TableSet> ended(table_set);
  table_set = nullptr;
}

int ka_sym_create_symboltable(const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  if (!table_set) {
    invalid_index();
    return -1;
  }
  TableSet& set = *table_set;
  const ka::LockScope locked(set.lock);
  if (!set.pools) set.pools = ka::make_owned<ka::SymbolPools>();
  const auto free = std::find(set.tables.begin(), set.tables.end(), nullptr);
  const auto index = free - set.tables.begin();
  if (free == set.tables.end()) set.tables.emplace_back();
  set.tables[std::size_t(index)] = ka::make_owned<SymbolTable>(name, *set.pools);
  return int(index);
}

int ka_sym_search_symboltable(const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  if (!table_set) return -1;
  const TableSet& set = *table_set;
  const ka::LockScope locked(set.lock);
  const auto found = std::ranges::find_if(set.tables, [&](const ka::Owned<SymbolTable>& table) {
    return table && std::strcmp(table->name(), name) == 0;
  });
  return found == set.tables.end() ? -1 : int(found - set.tables.begin());
}

void ka_sym_delete_symboltable(int table) {
  const ka::ModuleScope scope(KA_LIB);
  ka::Owned<SymbolTable> deleted;
  if (table_set) {
    const ka::LockScope locked(table_set->lock);
    if (auto* const slot = slot_of(table)) deleted = std::move(*slot);
  }
  if (!deleted) invalid_index();
}

void ka_sym_delete_all_symboltables() {
  const ka::ModuleScope scope(KA_LIB);
  if (!table_set) return;
  const ka::LockScope locked(table_set->lock);
  table_set->tables.clear();
}

int ka_sym_create_symbol(int table, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, name);
  if (place.table) place.table->add(name);
  return place.symbol != nullptr;
}

int ka_sym_delete_symbol(int table, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, name);
  if (place.symbol) place.table->remove(*place.symbol);
  return place.symbol != nullptr;
}

void ka_sym_delete_symbols(int table) {
  const ka::ModuleScope scope(KA_LIB);
  if (SymbolTable* const symbols = get_symboltable(table)) symbols->remove_all();
}

const ka_symbol* ka_sym_lookup_symbol(int table, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  return find_symbol(table, name).symbol;
}

const ka_symbol* ka_sym_lookup_symbol_by_name(const char* table_name, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  return find_symbol(ka_sym_search_symboltable(table_name), name).symbol;
}

int ka_sym_allocate_attributes(int table, const char* symbol, int count) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, symbol);
  if (place.table && !place.symbol) {
    ka_warning("ka_sym_allocate_attributes: symbol not found (\"%s\")", symbol);
  }
  if (!place.symbol) return 0;
  auto& attributes = place.symbol->attributes;
  attributes.reserve(attributes.size() + std::size_t(std::max(count, 0)));
  return 1;
}

int ka_sym_add_attribute(int table, const char* symbol, const char* name, std::uintptr_t data) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, symbol);
  if (place.table && !place.symbol) {
    ka_nwarning(9, "ka_sym_add_attribute: symbol not found (\"%s\")", symbol);
  }
  return place.symbol ? place.table->add_attribute(*place.symbol, name, data) : -1;
}

std::uintptr_t ka_sym_lookup_attribute(int table, const char* symbol, int index) {
  const ka::ModuleScope scope(KA_LIB);
  return data_of(table, symbol, index);
}

std::uintptr_t ka_sym_lookup_attribute_by_name(int table, const char* symbol, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  return data_of(table, symbol, name);
}

int ka_sym_attribute_index(int table, const char* symbol, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, symbol);
  const Attribute* const attribute = place.symbol ? place.symbol->attribute(name) : nullptr;
  return attribute ? attribute->index : -1;
}

int ka_sym_edit_attribute(int table, const char* symbol, int index, std::uintptr_t data) {
  const ka::ModuleScope scope(KA_LIB);
  return edit_data("ka_sym_edit_attribute", table, symbol, index, data);
}

int ka_sym_edit_attribute_by_name(int table, const char* symbol, const char* name,
                                  std::uintptr_t data) {
  const ka::ModuleScope scope(KA_LIB);
  return edit_data("ka_sym_edit_attribute_by_name", table, symbol, name, data);
}

int ka_sym_rename_attribute(int table, const char* symbol, int index, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, symbol);
  Attribute* const attribute = place.symbol ? place.symbol->attribute(index) : nullptr;
  if (attribute) attribute->name.reset(ka_mem_strdup(name));
  return attribute != nullptr;
}

int ka_sym_delete_attribute(int table, const char* symbol, int index) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, symbol);
  Attribute* const attribute = place.symbol ? place.symbol->attribute(index) : nullptr;
  if (attribute) {
    place.table->remove_attribute(*place.symbol, *attribute);
  } else if (place.table) {
    ka_nwarning(11, "ka_sym_delete_attribute: symbol not found (index %d)", index);
  }
  return attribute != nullptr;
}

int ka_sym_delete_attribute_by_name(int table, const char* symbol, const char* name) {
  const ka::ModuleScope scope(KA_LIB);
  const Place place = find_symbol(table, symbol);
  if (place.table && !place.symbol) {
    ka_warning("ka_sym_delete_attribute_by_name: symbol not found (\"%s\")", symbol);
  }
  Attribute* const attribute = place.symbol ? place.symbol->attribute(name) : nullptr;
  if (attribute) place.table->remove_attribute(*place.symbol, *attribute);
  return attribute != nullptr;
}

void ka_sym_iterate_symbols(int table, ka_sym_function function, void* argument) {
  const ka::ModuleScope scope(KA_LIB);
  const SymbolTable* const symbols = get_symboltable(table);
  if (!symbols) return;
  symbols->for_each([&](const ka_symbol& symbol) {
    const Attribute* const first = symbol.attribute(0);
    function(symbol.name.get(), first ? first->data : 0, argument);
  });
}

void ka_sym_dump(int table) {
  const ka::ModuleScope scope(KA_LIB);
  if (const SymbolTable* const symbols = get_symboltable(table)) symbols->dump();
}
