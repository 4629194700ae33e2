// Rules of path substitution, and the text that they are applied to.
#pragma once

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

#include <ka/detail/owned.h>

namespace ka {

inline constexpr std::string_view kBlanks = " \t";

// A name on its way through the rules. What passes its greatest length is lost.
class PathText {
 public:
  void clear() { length_ = 0; }
  void add(char c) { add({&c, 1}); }
  void add(std::string_view piece) {
    const std::size_t kept = std::min(piece.size(), kMaxLength - length_);
    std::memcpy(chars_.data() + length_, piece.data(), kept);
    length_ += kept;
    is_cut_ |= kept < piece.size();
  }
  [[nodiscard]] std::string_view view() const { return {chars_.data(), length_}; }
  [[nodiscard]] const char* c_str() {
    chars_[length_] = '\0';
    return chars_.data();
  }
  [[nodiscard]] bool is_cut() const { return is_cut_; }

 private:
  static constexpr std::size_t kMaxLength = 4095;
  std::array<char, kMaxLength + 1> chars_;  // only `length_` of them have a value
  std::size_t length_ = 0;
  bool is_cut_ = false;
};

struct SubstRule {
  string search, replacement;
};
using SubstRules = vector<SubstRule>;

void subst_add_rule(SubstRules& rules, std::string_view search, std::string_view replacement);

// Appends the rules of Softimage's linktab.ini, if the environment leads to one.
void subst_read_linktab(SubstRules& rules);

}  // namespace ka
