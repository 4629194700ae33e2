#include "symtable.h"

#include <cinttypes>

#include <ka/mem.h>
#include <ka/message.h>

namespace ka {
namespace {

constexpr std::uint32_t kHashLimit = 0xfffffff;

SymbolName copy(const char* name) { return SymbolName(ka_mem_strdup(name)); }

bool is(const SymbolName& name, const char* wanted) {
  return name && wanted && std::strcmp(name.get(), wanted) == 0;
}

const char* text_of(const SymbolName& name) { return name ? name.get() : "(null)"; }

std::size_t name_hash(const char* name) {
  std::uint32_t h = 0;
  unsigned shift = 1;
  for (; *name; ++name, ++shift) {
    h = (h << shift % 32) + std::uint32_t(static_cast<signed char>(*name));
    if (h <= kHashLimit) continue;
    const std::uint32_t top = h & ~kHashLimit;
    h = h ^ (top >> 24) ^ top;
    shift = 1;
  }
  return h;
}

void dump_symbol(std::size_t index, const ka_symbol& symbol) {
  ka_debug("symbol \"%s\" at hash-index %d:", symbol.name.get(), int(index));
  for (const Attribute* attribute : symbol.attributes) {
    ka_debug("entry name %s, data %" PRIuPTR, text_of(attribute->name), attribute->data);
  }
}

void dump_attribute(std::size_t index, const Attribute& attribute) {
  ka_debug("data entry at hash-index %d: sym \"%s\", dname \"%s\", data %" PRIuPTR, int(index),
           attribute.symbol, text_of(attribute.name), attribute.data);
}

}  // namespace

std::size_t prime_not_below(std::size_t number) {
  const auto is_prime = [](std::size_t candidate) {
    for (std::size_t divisor = 2; divisor * divisor <= candidate; ++divisor) {
      if (candidate % divisor == 0) return false;
    }
    return candidate >= 2;
  };
  while (!is_prime(number)) ++number;
  return number;
}

std::size_t symbol_hash(const ka_symbol& symbol) { return name_hash(symbol.name.get()); }
std::size_t attribute_hash(const Attribute& attribute) { return attribute.data; }

SymbolTable::SymbolTable(const char* name, SymbolPools& pools)
    : name_(copy(name)), pools_(pools), symbols_(pools.buckets), data_(pools.buckets) {}

SymbolTable::~SymbolTable() { remove_all(); }

ka_symbol* SymbolTable::find(const char* name) {
  if (last_ && is(last_->name, name)) return last_;
  ka_symbol* const symbol = symbols_.find(
      name_hash(name), [&](const ka_symbol& candidate) { return is(candidate.name, name); });
  if (symbol) last_ = symbol;
  return symbol;
}

void SymbolTable::add(const char* name) {
  last_ = pools_.symbols.make(copy(name), vector<Attribute*>{});
  symbols_.insert(*last_);
}

void SymbolTable::remove(ka_symbol& symbol) {
  if (last_ == &symbol) last_ = nullptr;
  for (Attribute* attribute : symbol.attributes) forget(*attribute);
  symbols_.remove(symbol);
  pools_.symbols.release(&symbol);
}

void SymbolTable::remove_all() {
  for_each([&](ka_symbol& symbol) { remove(symbol); });
}

int SymbolTable::add_attribute(ka_symbol& symbol, const char* name, std::uintptr_t data) {
  const int index = int(symbol.attributes.size());
  symbol.attributes.push_back(pools_.attributes.make(symbol.name.get(), copy(name), data, index));
  data_.insert(*symbol.attributes.back());
  return index;
}

void SymbolTable::edit(Attribute& attribute, std::uintptr_t data) {
  data_.remove(attribute);
  attribute.data = data;
  data_.insert(attribute);
}

void SymbolTable::remove_attribute(ka_symbol& symbol, Attribute& attribute) {
  const auto next = symbol.attributes.erase(symbol.attributes.begin() + attribute.index);
  std::for_each(next, symbol.attributes.end(), [](Attribute* behind) { --behind->index; });
  forget(attribute);
}

void SymbolTable::forget(Attribute& attribute) {
  data_.remove(attribute);
  pools_.attributes.release(&attribute);
}

void SymbolTable::dump() const {
  ka_debug("symbol table dump of \"%s\"", name());
  symbols_.for_each(dump_symbol);
  data_.for_each(dump_attribute);
  ka_debug("symbol table dump ends");
}

}  // namespace ka

ka::Attribute* ka_symbol::attribute(int index) const {
  const bool exists = index >= 0 && std::size_t(index) < attributes.size();
  return exists ? attributes[std::size_t(index)] : nullptr;
}

ka::Attribute* ka_symbol::attribute(const char* wanted) const {
  const auto found = std::ranges::find_if(
      attributes, [&](const ka::Attribute* candidate) { return ka::is(candidate->name, wanted); });
  return found == attributes.end() ? nullptr : *found;
}
