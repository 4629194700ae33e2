/* What format drivers hand to ka_img_header: the entries of a file's header. */
#pragma once

#include <ka/img.h>

KA_BEGIN_DECLS

/* Passes an entry on to the caller of ka_img_header.
 *   Takes    the value's bytes, of which those from the first 0 on and those past 64 KiB are left
 *            out. They need not end with 0; the name does. An entry without a name, which damaged files
 *            have, is left out.
 *   Returns  1, or 0 when no more entries are taken: all together have become too long for the file. */
int ka_img_header_put(img_header* header, const char* name, const void* value, size_t count);

KA_END_DECLS

#ifdef __cplusplus
#include <array>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string_view>

namespace ka {

// The forms of values. All return false when no more entries are taken.
class HeaderEntries {
 public:
  explicit HeaderEntries(img_header* header) : header_(header) {}

  bool text(const char* name, std::string_view value) {
    return ka_img_header_put(header_, name, value.data(), value.size()) != 0;
  }

  // A field of fixed length, whose text ends at the first 0 and then with blanks. One without text
  // is no entry.
  bool field(const char* name, std::span<const std::uint8_t> bytes) {
    std::string_view value(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    value = value.substr(0, value.find('\0'));
    value = value.substr(0, value.find_last_not_of(" \t\r\n") + 1);
    return value.empty() || text(name, value);
  }

  // Numbers with blanks between them, each in its shortest form.
  template <typename... Numbers>
  bool numbers(const char* name, Numbers... numbers) {
    std::array<char, kNumberBytes * sizeof...(Numbers)> value;
    char* end = value.data();
    (put_number(value.data(), end, numbers), ...);
    return text(name, {value.data(), end});
  }

  // The name of a code; the code itself where it has none.
  bool choice(const char* name, std::size_t code, std::initializer_list<const char*> names) {
    return code < names.size() ? text(name, names.begin()[code]) : numbers(name, code);
  }

 private:
  static constexpr std::size_t kNumberBytes = 32;  // with the blank before it

  template <typename Number>
  static void put_number(const char* start, char*& end, Number number) {
    if (end != start) *end++ = ' ';
    end = std::to_chars(end, end + kNumberBytes - 1, number).ptr;
  }

  img_header* header_;
};

}  // namespace ka
#endif
