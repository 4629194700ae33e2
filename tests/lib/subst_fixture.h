// What the tests of path substitution share.
#pragma once

#include <gtest/gtest.h>
#include <ka/subst.h>

#include <cstdlib>
#include <string>
#include <string_view>

inline void set(const char* name, const char* value) {
  value ? setenv(name, value, 1) : unsetenv(name);
}

inline std::string join(std::initializer_list<std::string_view> pieces) {
  std::string text;
  for (const std::string_view piece : pieces) text += piece;
  return text;
}

inline std::string substitute(const std::string& name, std::size_t size = 5000) {
  std::string buffer(size, '#');
  EXPECT_EQ(ka_string_substitute(buffer.data(), name.c_str(), size), buffer.data());
  return buffer.c_str();
}

// Null: the default rules.
inline void use_rules(const char* rules) {
  set("KA_LUM_SUBSTITUTE", rules);
  ka_lib_subst_exit();
}

// Every test starts with the default rules and variables of its own.
class Subst : public testing::Test {
 protected:
  void SetUp() override { clear(); }
  void TearDown() override { clear(); }

 private:
  static void clear() {
    for (const char* name : {"SI_LINKTAB_LOCATION", "SI_LOCATION", "LUMORA_UNSET"}) unsetenv(name);
    set("LUMORA_DIR", "/dir");
    set("LUMORA_0", "zero");
    set("_", "underscore");
    use_rules(nullptr);
  }
};
