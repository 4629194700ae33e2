// Symbol tables: finding, hiding and deleting symbols, their attributes, and where hashing puts
// them.
#include <gtest/gtest.h>
#include <ka/sym.h>

#include <algorithm>
#include <cstdint>
#include <string>

#include "messages.h"

namespace {

std::string numbered(std::uintptr_t i) {
  std::string name = "n";
  return name += std::to_string(i);
}

class Sym : public testing::Test {
 protected:
  void SetUp() override {
    ka_sym_init();
    table = ka_sym_create_symboltable("first");
  }
  void TearDown() override { ka_sym_exit(); }

  void add(const std::string& name) const { ka_sym_create_symbol(table, name.c_str()); }
  void add_numbered(unsigned count) const {
    for (unsigned i = 0; i < count; ++i) add(numbered(i));
  }
  [[nodiscard]] Texts dump() const {
    return messages_of([&] { ka_sym_dump(table); });
  }
  [[nodiscard]] bool dumps(const std::string& line) const {
    return std::ranges::count(dump(), line) == 1;
  }
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
  EXPECT_EQ(ka_sym_search_symboltable("second"), table + 1);
  EXPECT_EQ(ka_sym_search_symboltable("third"), -1);
  ka_sym_delete_symboltable(table + 1);
  EXPECT_EQ(ka_sym_search_symboltable("second"), table + 2);
  EXPECT_EQ(ka_sym_create_symboltable("third"), table + 1);
  ka_sym_delete_all_symboltables();
  EXPECT_EQ(ka_sym_search_symboltable("third"), -1);
  EXPECT_EQ(ka_sym_create_symboltable("fourth"), table);
}

TEST_F(Sym, SymbolsAreFoundUntilTheyAreDeleted) {
  add("a");
  add("b");
  const ka_symbol* const a = ka_sym_lookup_symbol(table, "a");
  EXPECT_NE(a, nullptr);
  EXPECT_NE(a, ka_sym_lookup_symbol(table, "b"));
  EXPECT_EQ(a, ka_sym_lookup_symbol_by_name("first", "a"));
  EXPECT_EQ(ka_sym_lookup_symbol(table, "c"), nullptr);
  EXPECT_EQ(ka_sym_delete_symbol(table, "a"), 1);
  EXPECT_EQ(ka_sym_lookup_symbol(table, "a"), nullptr);
  EXPECT_EQ(ka_sym_delete_symbol(table, "a"), 0);
  EXPECT_EQ(names(), Texts{"b"});
  ka_sym_delete_symbols(table);
  EXPECT_EQ(names(), Texts{});
}

// The symbol added last hides the others, also after the table has grown; other tables have their
// own.
TEST_F(Sym, SymbolsOfOneNameHideEachOther) {
  const int other = ka_sym_create_symboltable("second");
  int data = 0;
  for (const auto& [number, hides] : {std::pair{table, 0}, {table, 1}, {other, 0}}) {
    EXPECT_EQ(ka_sym_create_symbol(number, "x"), hides);
    ka_sym_add_attribute(number, "x", nullptr, std::uintptr_t(++data));
  }
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 2u);
  add_numbered(1100);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 2u);
  EXPECT_EQ(ka_sym_delete_symbol(table, "x"), 1);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 1u);
  EXPECT_EQ(ka_sym_delete_symbol(table, "x"), 1);
  EXPECT_EQ(ka_sym_delete_symbol(table, "x"), 0);
  ka_sym_delete_symboltable(table);
  EXPECT_EQ(ka_sym_lookup_attribute(other, "x", 0), 3u);
}

TEST_F(Sym, AttributesHaveAnIndexAndPerhapsAName) {
  add("x");
  constexpr std::uintptr_t address = UINTPTR_MAX - 7;
  EXPECT_EQ(ka_sym_allocate_attributes(table, "x", 3), 1);
  EXPECT_EQ(ka_sym_add_attribute(table, "x", nullptr, 10), 0);
  EXPECT_EQ(ka_sym_add_attribute(table, "x", "color", address), 1);
  EXPECT_EQ(ka_sym_add_attribute(table, "x", "color", 30), 2);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 10u);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 3), 0u);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", -1), 0u);
  EXPECT_EQ(ka_sym_lookup_attribute_by_name(table, "x", "color"), address);
  EXPECT_EQ(ka_sym_attribute_index(table, "x", "color"), 1);
  EXPECT_EQ(ka_sym_attribute_index(table, "x", "size"), -1);
  EXPECT_EQ(ka_sym_attribute_index(table, "x", nullptr), -1);

  EXPECT_EQ(ka_sym_edit_attribute(table, "x", 0, 11), 1);
  EXPECT_EQ(ka_sym_edit_attribute(table, "x", 3, 11), 0);
  EXPECT_EQ(ka_sym_edit_attribute_by_name(table, "x", "color", 21), 1);
  EXPECT_EQ(ka_sym_edit_attribute_by_name(table, "x", "size", 21), 0);
  EXPECT_EQ(ka_sym_rename_attribute(table, "x", 0, "size"), 1);
  EXPECT_EQ(ka_sym_rename_attribute(table, "x", 3, "size"), 0);
  EXPECT_EQ(ka_sym_lookup_attribute_by_name(table, "x", "size"), 11u);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 1), 21u);
}

TEST_F(Sym, AttributesBehindADeletedOneMoveDown) {
  add("x");
  std::uintptr_t data = 0;
  for (const char* name : {"a", "b", "c", "d"}) ka_sym_add_attribute(table, "x", name, data++);
  EXPECT_EQ(ka_sym_delete_attribute(table, "x", 0), 1);
  EXPECT_EQ(ka_sym_delete_attribute_by_name(table, "x", "c"), 1);
  EXPECT_EQ(ka_sym_delete_attribute_by_name(table, "x", "c"), 0);
  EXPECT_EQ(ka_sym_delete_attribute(table, "x", 2), 0);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 1u);
  EXPECT_EQ(ka_sym_attribute_index(table, "x", "d"), 1);
  EXPECT_EQ(ka_sym_add_attribute(table, "x", nullptr, 9), 2);
}

TEST_F(Sym, IterationTellsTheFirstAttributeAndMayDelete) {
  add_numbered(50);
  for (unsigned i = 0; i < 50; i += 2) {
    ka_sym_add_attribute(table, numbered(i).c_str(), "number", i + 1);
  }
  const auto delete_with_data = [](const char* name, std::uintptr_t data, void* number) {
    if (data == 0) return;
    EXPECT_EQ(std::string(name), numbered(data - 1));
    ka_sym_delete_symbol(*static_cast<int*>(number), name);
  };
  ka_sym_iterate_symbols(table, delete_with_data, &table);
  EXPECT_EQ(names().size(), 25u);
  EXPECT_EQ(std::ranges::count(names(), "n49"), 1);
}

// "abc": 97, then (97 << 2) + 98 = 486, then (486 << 3) + 99 = 3987 = 2053 + 1934.
TEST_F(Sym, ATableGrowsOnceWithThe1028thSymbol) {
  add("abc");
  add_numbered(1026);
  EXPECT_TRUE(dumps("symbol \"abc\" at hash-index 1934:"));
  add("last");
  EXPECT_TRUE(dumps("symbol \"abc\" at hash-index 3987:"));  // 8219 buckets
  EXPECT_EQ(names().size(), 1028u);
  for (const char* name : {"n1025", "n0"}) EXPECT_NE(ka_sym_lookup_symbol(table, name), nullptr);
}

// 5000 = 2 * 2053 + 894; 5000 < 8219.
TEST_F(Sym, TheTableOfDataGrowsInTheSameWay) {
  const std::string entry = ": sym \"x\", dname \"(null)\", data 5000";
  add("x");
  for (std::uintptr_t i = 0; i < 1027; ++i) ka_sym_add_attribute(table, "x", nullptr, 5000 - i);
  EXPECT_TRUE(dumps("data entry at hash-index 894" + entry));
  ka_sym_add_attribute(table, "x", nullptr, 1);
  EXPECT_TRUE(dumps("data entry at hash-index 5000" + entry));
  ka_sym_edit_attribute(table, "x", 0, 3);
  EXPECT_TRUE(dumps("data entry at hash-index 3: sym \"x\", dname \"(null)\", data 3"));
  EXPECT_FALSE(dumps("data entry at hash-index 5000" + entry));
}

// Before a fold the shift grows by one from character to character. Folds:
//   "\xe4"      the character is -28: 0xffffffe4; 0x0fffffe4 ^ 0xf0 = 0x0fffff14 = 130752 * 2053 +
//   1364 "textures"  0x0913bdb2 << 7, + 'e': 0x89ded965, folded to 0x09ded9e5; << 2, + 's':
//   0x277b6807,
//               folded to 0x077b6827 = 61143 * 2053 + 1524
TEST_F(Sym, NamesHashWithGrowingShiftsAndFolds) {
  for (const char* name : {"\xe4", "textures"}) add(name);
  EXPECT_TRUE(dumps("symbol \"\xe4\" at hash-index 1364:"));
  EXPECT_TRUE(dumps("symbol \"textures\" at hash-index 1524:"));
}

TEST_F(Sym, ADumpListsSymbolsAndThenAttributesByData) {
  add("ab");
  ka_sym_add_attribute(table, "ab", "color", 4294967295u);
  ka_sym_add_attribute(table, "ab", nullptr, 7);
  const Texts expected = {
      "symbol table dump of \"first\"",
      "symbol \"ab\" at hash-index 486:",
      "entry name color, data 4294967295",
      "entry name (null), data 7",
      "data entry at hash-index 7: sym \"ab\", dname \"(null)\", data 7",
      // 4294967295 = 2092044 * 2053 + 963
      "data entry at hash-index 963: sym \"ab\", dname \"color\", data 4294967295",
      "symbol table dump ends",
  };
  EXPECT_EQ(dump(), expected);
}

// Calls what takes the name of a symbol.
void use_symbol(int table) {
  EXPECT_EQ(ka_sym_delete_symbol(table, "x"), 0);
  EXPECT_EQ(ka_sym_lookup_symbol(table, "x"), nullptr);
  EXPECT_EQ(ka_sym_allocate_attributes(table, "x", 1), 0);
  EXPECT_EQ(ka_sym_add_attribute(table, "x", nullptr, 1), -1);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 0u);
  EXPECT_EQ(ka_sym_lookup_attribute_by_name(table, "x", "a"), 0u);
  EXPECT_EQ(ka_sym_attribute_index(table, "x", "a"), -1);
  EXPECT_EQ(ka_sym_edit_attribute(table, "x", 0, 1), 0);
  EXPECT_EQ(ka_sym_edit_attribute_by_name(table, "x", "a", 1), 0);
  EXPECT_EQ(ka_sym_rename_attribute(table, "x", 0, "a"), 0);
  EXPECT_EQ(ka_sym_delete_attribute(table, "x", 4), 0);
  EXPECT_EQ(ka_sym_delete_attribute_by_name(table, "x", "a"), 0);
}

// Module 29, warnings 2.
TEST_F(Sym, AMissingSymbolIsToldByTheOperationsThatChangeIt) {
  const std::string missing = ": symbol not found (\"x\")";
  EXPECT_EQ(messages_of([&] { use_symbol(table); }),
            (Texts{"ka_sym_allocate_attributes" + missing, "292009 ka_sym_add_attribute" + missing,
                   "ka_sym_edit_attribute" + missing, "ka_sym_edit_attribute_by_name" + missing,
                   "292011 ka_sym_delete_attribute: symbol not found (index 4)",
                   "ka_sym_delete_attribute_by_name" + missing}));
}

// Calls everything that takes the number of a table.
void use_everything(int table) {
  const auto ignore = [](const char*, std::uintptr_t, void*) { FAIL(); };
  ka_sym_delete_symboltable(table);
  EXPECT_EQ(ka_sym_create_symbol(table, "x"), 0);
  ka_sym_delete_symbols(table);
  use_symbol(table);
  ka_sym_iterate_symbols(table, ignore, nullptr);
  ka_sym_dump(table);
}
constexpr std::size_t kOperations = 17;
constexpr char kInvalid[] = "291045 get_symboltable: invalid symboltable index";

TEST_F(Sym, EveryOperationRefusesANumberThatNoTableHas) {
  for (const int number : {-1, 1, 2, INT32_MAX}) {
    EXPECT_EQ(messages_of([&] { use_everything(number); }), Texts(kOperations, kInvalid)) << number;
  }
  ka_sym_delete_symboltable(table);
  EXPECT_EQ(messages_of([&] { use_everything(table); }), Texts(kOperations, kInvalid));
  EXPECT_EQ(messages_of([] { ka_sym_lookup_symbol_by_name("first", "x"); }), Texts{kInvalid});

  ka_sym_exit();  // there are no tables any more
  EXPECT_EQ(messages_of([&] { use_everything(table); }), Texts(kOperations, kInvalid));
  EXPECT_EQ(messages_of([] { EXPECT_EQ(ka_sym_create_symboltable("t"), -1); }), Texts{kInvalid});
  EXPECT_EQ(ka_sym_search_symboltable("t"), -1);
  ka_sym_delete_all_symboltables();
}

}  // namespace
