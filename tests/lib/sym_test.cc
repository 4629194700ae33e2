// Symbol tables: finding, hiding and deleting symbols, their attributes, and where hashing puts
// them.
#include <gtest/gtest.h>
#include <ka/sym.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "messages.h"

namespace {

using Texts = std::vector<std::string>;

class Sym : public testing::Test {
 protected:
  Sym() {
    ka_sym_init();
    table = ka_sym_create_symboltable("first");
  }
  ~Sym() override { ka_sym_exit(); }

  void add_numbered(int count) const {
    for (int i = 0; i < count; ++i) {
      ka_sym_create_symbol(table, ("n" + std::to_string(i)).c_str());
    }
  }
  [[nodiscard]] bool dumps(const std::string& line) const {
    const Texts lines = messages_of([&] { ka_sym_dump(table); });
    return std::ranges::find(lines, line) != lines.end();
  }

  int table;
};

// The symbol added last hides the others, also after the table has grown.
TEST_F(Sym, SymbolsOfOneNameHideEachOther) {
  EXPECT_EQ(ka_sym_create_symbol(table, "x"), 0);
  ka_sym_add_attribute(table, "x", nullptr, 1);
  EXPECT_EQ(ka_sym_create_symbol(table, "x"), 1);
  ka_sym_add_attribute(table, "x", nullptr, 2);
  add_numbered(1100);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 2u);
  EXPECT_EQ(ka_sym_delete_symbol(table, "x"), 1);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 1u);
  EXPECT_EQ(ka_sym_delete_symbol(table, "x"), 1);
  EXPECT_EQ(ka_sym_delete_symbol(table, "x"), 0);
}

TEST_F(Sym, AttributesHaveAnIndexAndPerhapsAName) {
  ka_sym_create_symbol(table, "x");
  constexpr std::uintptr_t address = UINTPTR_MAX - 7;
  EXPECT_EQ(ka_sym_add_attribute(table, "x", nullptr, 10), 0);
  EXPECT_EQ(ka_sym_add_attribute(table, "x", "color", address), 1);
  EXPECT_EQ(ka_sym_add_attribute(table, "x", "color", 30), 2);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 3), 0u);
  EXPECT_EQ(ka_sym_lookup_attribute_by_name(table, "x", "color"), address);
  EXPECT_EQ(ka_sym_rename_attribute(table, "x", 0, "size"), 1);
  EXPECT_EQ(ka_sym_edit_attribute_by_name(table, "x", "color", 21), 1);
  EXPECT_EQ(ka_sym_delete_attribute(table, "x", 0), 1);  // the others move down
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 21u);
  EXPECT_EQ(ka_sym_delete_attribute_by_name(table, "x", "color"), 1);
  EXPECT_EQ(ka_sym_lookup_attribute(table, "x", 0), 30u);
  EXPECT_EQ(ka_sym_attribute_index(table, "x", "size"), -1);
}

// "abc": 97, then (97 << 2) + 98 = 486, then (486 << 3) + 99 = 3987 = 2053 + 1934. With the 1028th
// symbol there are 8219 buckets, also for data: 5000 = 2 * 2053 + 894.
TEST_F(Sym, TablesGrowOnce) {
  const std::string data = ": sym \"abc\", dname \"(null)\", data 5000";
  ka_sym_create_symbol(table, "abc");
  add_numbered(1026);
  for (std::uintptr_t i = 0; i < 1027; ++i) ka_sym_add_attribute(table, "abc", nullptr, 5000 - i);
  EXPECT_TRUE(dumps("symbol \"abc\" at hash-index 1934:"));
  EXPECT_TRUE(dumps("data entry at hash-index 894" + data));
  ka_sym_create_symbol(table, "last");
  ka_sym_add_attribute(table, "abc", nullptr, 1);
  EXPECT_TRUE(dumps("symbol \"abc\" at hash-index 3987:"));
  EXPECT_TRUE(dumps("data entry at hash-index 5000" + data));
  for (const char* name : {"n0", "n1025"}) EXPECT_NE(ka_sym_lookup_symbol(table, name), nullptr);
  ka_sym_edit_attribute(table, "abc", 0, 3);
  EXPECT_FALSE(dumps("data entry at hash-index 5000" + data));
}

// Before a fold the shift grows by one from character to character. Folds:
//   "\xe4"      the character is -28: 0xffffffe4; 0x0fffffe4 ^ 0xf0 = 0x0fffff14
//               = 130752 * 2053 + 1364
//   "textures"  0x0913bdb2 << 7, + 'e': 0x89ded965, folded to 0x09ded9e5; << 2, + 's': 0x277b6807,
//               folded to 0x077b6827 = 61143 * 2053 + 1524
TEST_F(Sym, ADumpListsSymbolsAndThenAttributesByData) {
  for (const char* name : {"ab", "\xe4", "textures"}) ka_sym_create_symbol(table, name);
  ka_sym_add_attribute(table, "ab", "color", 4294967295u);
  ka_sym_add_attribute(table, "ab", nullptr, 7);
  const Texts expected = {
      "symbol table dump of \"first\"",
      "symbol \"ab\" at hash-index 486:",
      "entry name color, data 4294967295",
      "entry name (null), data 7",
      "symbol \"\xe4\" at hash-index 1364:",
      "symbol \"textures\" at hash-index 1524:",
      "data entry at hash-index 7: sym \"ab\", dname \"(null)\", data 7",
      // 4294967295 = 2092044 * 2053 + 963
      "data entry at hash-index 963: sym \"ab\", dname \"color\", data 4294967295",
      "symbol table dump ends",
  };
  EXPECT_EQ(messages_of([&] { ka_sym_dump(table); }), expected);
}

// Module 29, warnings 2, errors 1.
TEST_F(Sym, WhatIsMissingIsTold) {
  ka_sym_create_symbol(table, "there");
  const std::string missing = ": symbol not found (\"x\")";
  const auto change = [](int number) {
    EXPECT_EQ(ka_sym_allocate_attributes(number, "x", 1), 0);
    EXPECT_EQ(ka_sym_add_attribute(number, "x", nullptr, 1), -1);
    EXPECT_EQ(ka_sym_edit_attribute(number, "x", 0, 1), 0);
    EXPECT_EQ(ka_sym_edit_attribute_by_name(number, "x", "a", 1), 0);
    EXPECT_EQ(ka_sym_delete_attribute(number, "there", 4), 0);
    EXPECT_EQ(ka_sym_delete_attribute_by_name(number, "x", "a"), 0);
  };
  EXPECT_EQ(messages_of([&] { change(table); }),
            (Texts{"ka_sym_allocate_attributes" + missing, "292009 ka_sym_add_attribute" + missing,
                   "ka_sym_edit_attribute" + missing, "ka_sym_edit_attribute_by_name" + missing,
                   "292011 ka_sym_delete_attribute: symbol not found (index 4)",
                   "ka_sym_delete_attribute_by_name" + missing}));
  const Texts invalid(6, "291045 get_symboltable: invalid symboltable index");
  for (const int number : {-1, 1, INT32_MAX}) {
    EXPECT_EQ(messages_of([&] { change(number); }), invalid) << number;
  }
  ka_sym_exit();
  EXPECT_EQ(messages_of([&] { change(0); }), invalid);
}

}  // namespace
