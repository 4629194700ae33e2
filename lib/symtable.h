// One symbol table: its symbols by name, their attributes also by data.
#pragma once

#include <ka/sym.h>

#include <algorithm>
#include <cstring>

#include <ka/detail/owned.h>

#include "symhash.h"

namespace ka {

using SymbolName = Owned<char>;

struct Attribute {
  const char* symbol;  // the symbol's name
  SymbolName name;     // empty: none
  std::uintptr_t data;
  int index;  // in the symbol's list
};

std::size_t symbol_hash(const ka_symbol& symbol);
std::size_t attribute_hash(const Attribute& attribute);

}  // namespace ka

struct ka_symbol {
  ka::SymbolName name;
  ka::vector<ka::Attribute*> attributes;

  // Null for an index or a name that no attribute has.
  [[nodiscard]] ka::Attribute* attribute(int index) const;
  [[nodiscard]] ka::Attribute* attribute(const char* name) const;
};

namespace ka {

// Where the records of all tables live.
struct SymbolPools {
  RecordPool<ka_symbol> symbols;
  RecordPool<Attribute> attributes;
  RecordPool<Bucket> buckets;
};

class SymbolTable {
 public:
  SymbolTable(const char* name, SymbolPools& pools);
  ~SymbolTable();
  SymbolTable(const SymbolTable&) = delete;
  SymbolTable& operator=(const SymbolTable&) = delete;

  [[nodiscard]] const char* name() const { return name_.get(); }
  [[nodiscard]] ka_symbol* find(const char* name);
  void add(const char* name);
  void remove(ka_symbol& symbol);
  void remove_all();

  int add_attribute(ka_symbol& symbol, const char* name, std::uintptr_t data);
  void edit(Attribute& attribute, std::uintptr_t data);
  void remove_attribute(ka_symbol& symbol, Attribute& attribute);

  // Calls the function with each symbol, which it may remove.
  template <typename Function>
  void for_each(Function function) const {
    symbols_.for_each([&](std::size_t, ka_symbol& symbol) { function(symbol); });
  }
  void dump() const;

 private:
  void forget(Attribute& attribute);

  SymbolName name_;
  SymbolPools& pools_;
  HashTable<ka_symbol, symbol_hash> symbols_;
  HashTable<Attribute, attribute_hash> data_;
  ka_symbol* last_ = nullptr;  // found or added last; null: unknown
};

}  // namespace ka
