// Texts of files: decimal numbers, and one line after the other.
#pragma once

#include <climits>
#include <optional>
#include <string_view>

namespace ka {

[[nodiscard]] constexpr bool is_digit(int c) { return c >= '0' && c <= '9'; }

// A decimal number, digit by digit.
class DecimalNumber {
 public:
  // Appends a digit. False for any other character, which is left out.
  bool add(int c) {
    if (!is_digit(c)) return false;
    int product = 0;
    if (__builtin_mul_overflow(value_, 10, &product) ||
        __builtin_add_overflow(product, c - '0', &value_)) {
      value_ = INT_MAX;
      fits_ = false;
    }
    return true;
  }

  // The largest int for a number that does not fit.
  [[nodiscard]] int value() const { return value_; }
  [[nodiscard]] bool fits() const { return fits_; }

 private:
  int value_ = 0;
  bool fits_ = true;
};

// Takes the digits off the front of a text; empty where there is none.
[[nodiscard]] inline std::optional<DecimalNumber> take_decimal(std::string_view& text) {
  if (text.empty() || !is_digit(text.front())) return std::nullopt;
  DecimalNumber number;
  while (!text.empty() && number.add(text.front())) text.remove_prefix(1);
  return number;
}

// Drops the characters that are in `blanks` from the front of a text.
inline void skip_blanks(std::string_view& text, std::string_view blanks) {
  while (!text.empty() && blanks.find(text.front()) != std::string_view::npos) {
    text.remove_prefix(1);
  }
}

// Takes the next line off a text, with its line feed, which the last one may lack.
[[nodiscard]] inline std::string_view take_line(std::string_view& text) {
  const std::string_view line = text.substr(0, text.find('\n'));
  const std::string_view whole = text.substr(0, line.size() + 1);
  text.remove_prefix(whole.size());
  return whole;
}

}  // namespace ka
