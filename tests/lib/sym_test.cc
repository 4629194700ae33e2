// Symbol tables: random operations beside a map, hiding and growing, where hashing puts symbols,
// and what is refused.
#include <gtest/gtest.h>
#include <ka/sym.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <string>

#include "messages.h"

namespace {

class Sym : public testing::Test {
 protected:
  Sym() {
    ka_sym_init();
    table = ka_sym_create_symboltable("first");
  }
  ~Sym() override { ka_sym_exit(); }

  void add(const std::string& name) const { ka_sym_create_symbol(table, name.c_str()); }
  [[nodiscard]] Texts names() const {
    Texts list;
    const auto note = [](const char* name, std::uintptr_t, void* names) {
      static_cast<Texts*>(names)->emplace_back(name);
    };
    ka_sym_iterate_symbols(table, note, &list);
    std::ranges::sort(list);
    return list;
  }

  int table = -1;
};

TEST_F(Sym, TablesAreFoundByNameAndTheirNumbersUsedAgain) {
  EXPECT_EQ(ka_sym_create_symboltable("second"), table + 1);
  EXPECT_EQ(ka_sym_create_symboltable("second"), table + 2);
  add("x");
  EXPECT_EQ(ka_sym_lookup_symbol_by_name("first", "x"), ka_sym_lookup_symbol(table, "x"));
  EXPECT_EQ(ka_sym_lookup_symbol_by_name("second", "x"), nullptr);
  EXPECT_EQ(ka_sym_search_symboltable("third"), -1);
  ka_sym_delete_symboltable(table + 1);
  EXPECT_EQ(ka_sym_search_symboltable("second"), table + 2);
  EXPECT_EQ(ka_sym_create_symboltable("third"), table + 1);
  ka_sym_delete_all_symboltables();
  EXPECT_EQ(ka_sym_search_symboltable("third"), -1);
  EXPECT_EQ(ka_sym_create_symboltable("fourth"), table);
}

// Symbols of one name hide each other, the one added last all others. Tables grow with the 1028th
// symbol and the 1028th attribute.
TEST_F(Sym, AgreesWithAMapOfLists) {
  using Attribute = std::pair<std::string, std::uintptr_t>;  // "": no name
  std::map<std::string, std::vector<std::vector<Attribute>>> model;
  std::mt19937 random(1);
  const test::MessageLog quiet(KA_FATAL);
  std::size_t symbols = 0;
  for (int step = 0; step < 20'000 && !HasFailure(); ++step) {
    const std::string symbol = "n" + std::to_string(random() % 800);
    const char* const name = symbol.c_str();
    auto& hidden = model[symbol];
    const bool exists = !hidden.empty(), grows = step / 5000 % 2 == 0;
    if (const auto what = random() % 12; what == 0 || (grows && what < 4)) {
      ASSERT_EQ(ka_sym_create_symbol(table, name), exists);
      hidden.emplace_back();
      ++symbols;
    } else if (what < 3) {
      ASSERT_EQ(ka_sym_delete_symbol(table, name), exists);
      if (exists) hidden.pop_back(), --symbols;
    } else if (exists) {
      std::vector<Attribute>& list = hidden.back();
      const std::string letter(1, char('a' + random() % 4));
      const auto data = std::uintptr_t(random()) << (random() % 33);
      const auto found = std::ranges::find(list, letter, &Attribute::first);
      const bool is_named = found != list.end();
      const int position = is_named ? int(found - list.begin()) : -1;
      const int index = what % 2 == 0 ? position : int(random() % 6) - 1;
      const bool known = index >= 0 && index < int(list.size());
      Attribute* const attribute = known ? &list[std::size_t(index)] : nullptr;
      if (what < 6) {
        const bool has_name = random() % 4 != 0;
        EXPECT_EQ(ka_sym_allocate_attributes(table, name, 1), 1);
        EXPECT_EQ(ka_sym_add_attribute(table, name, has_name ? letter.c_str() : nullptr, data),
                  int(list.size()));
        list.emplace_back(has_name ? letter : "", data);
      } else if (what < 8) {  // even ones by name
        EXPECT_EQ(what == 6 ? ka_sym_edit_attribute_by_name(table, name, letter.c_str(), data)
                            : ka_sym_edit_attribute(table, name, index, data),
                  known);
        if (known) attribute->second = data;
      } else if (what < 10) {
        EXPECT_EQ(what == 8 ? ka_sym_delete_attribute_by_name(table, name, letter.c_str())
                            : ka_sym_delete_attribute(table, name, index),
                  known);
        if (known) list.erase(list.begin() + index);
      } else {
        EXPECT_EQ(ka_sym_lookup_attribute(table, name, index), known ? attribute->second : 0);
        EXPECT_EQ(ka_sym_attribute_index(table, name, letter.c_str()), position);
        EXPECT_EQ(ka_sym_lookup_attribute_by_name(table, name, letter.c_str()),
                  is_named ? found->second : 0);
        EXPECT_EQ(ka_sym_rename_attribute(table, name, index, "z"), known);
        if (known) attribute->first = "z";
      }
    }
    EXPECT_EQ(ka_sym_lookup_symbol(table, name) != nullptr, !hidden.empty());
    EXPECT_TRUE(step % 1000 != 0 || names().size() == symbols);
  }
  // An iteration gives the first attribute, and may delete.
  const auto empty = [](const char* name, std::uintptr_t data, void* lists) {
    EXPECT_TRUE(std::ranges::count_if(
        (*static_cast<decltype(&model)>(lists))[name],
        [data](const auto& list) { return (list.empty() ? 0 : list[0].second) == data; }));
    EXPECT_EQ(ka_sym_delete_symbol(ka_sym_search_symboltable("first"), name), 1);
  };
  EXPECT_GT(names().size(), 100U);
  ka_sym_iterate_symbols(table, empty, &model);
  EXPECT_EQ(names(), Texts{});
}

TEST_F(Sym, RefusesNumbersOfNoTable) {
  const auto use_symbol = [](int number) {
    EXPECT_EQ(ka_sym_add_attribute(number, "x", nullptr, 1), -1);
    EXPECT_EQ(ka_sym_lookup_attribute(number, "x", 0), 0U);
  };
  const std::string invalid = "291045 get_symboltable: invalid symboltable index";
  ka_sym_delete_symboltable(ka_sym_create_symboltable("second"));
  for (const int number : {-1, table + 1, table + 2, INT32_MAX}) {
    EXPECT_EQ(messages_of([&] { use_symbol(number); }), Texts(2, invalid)) << number;
  }
}

}  // namespace
