// Byte order of records that travel, and of arrays.
#include <cstring>

#include <ka/detail/scope.h>
#include <ka/endian.h>

namespace {

constexpr char kCodes[] = "csifdp";
constexpr std::size_t kPointerBytes = 8;  // in a record, whatever the host's pointers are

std::uint16_t reversed(std::uint16_t x) { return __builtin_bswap16(x); }
std::uint32_t reversed(std::uint32_t x) { return __builtin_bswap32(x); }
std::uint64_t reversed(std::uint64_t x) { return __builtin_bswap64(x); }

// Copies instead of loads through a wider pointer: the elements may lie anywhere.
template <typename Word>
void swap_all(std::uint8_t* at, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    Word word;
    std::memcpy(&word, at + i * sizeof word, sizeof word);
    word = reversed(word);
    std::memcpy(at + i * sizeof word, &word, sizeof word);
  }
}

template <typename Word>
void swap_array(void* array, std::ptrdiff_t n) {
  const ka::ModuleScope scope(KA_LIB);
  if (n > 0) swap_all<Word>(static_cast<std::uint8_t*>(array), std::size_t(n));
}

template <typename Word>
std::uint8_t* swap_run(std::uint8_t* at, std::size_t n) {
  swap_all<Word>(at, n);
  return at + n * sizeof(Word);
}

// Swaps n fields with the same code and returns what follows them.
std::uint8_t* swap_fields(std::uint8_t* at, char code, std::size_t n) {
  switch (code) {
    case 's':
      return swap_run<std::uint16_t>(at, n);
    case 'i':
    case 'f':
      return swap_run<std::uint32_t>(at, n);
    case 'd':
      return swap_run<std::uint64_t>(at, n);
    case 'p':
      std::memset(at, 0, kPointerBytes * n);
      return at + kPointerBytes * n;
    default:
      return at + n;
  }
}

}  // namespace

int ka_swap(void* record, const char* format) {
  const ka::ModuleScope scope(KA_LIB);
  auto* at = static_cast<std::uint8_t*>(record);
  std::size_t more = 0;  // fields after the first one
  for (; *format != '\0'; ++format) {
    if (*format >= '0' && *format <= '9') {
      more = 10 * more + std::size_t(*format - '0');
    } else if (std::strchr(kCodes, *format)) {
      at = swap_fields(at, *format, more + 1);
      more = 0;
    }
  }
  return 0;
}

void ka_swap_ints(void* array, std::ptrdiff_t n) { swap_array<std::uint32_t>(array, n); }

void ka_swap_shorts(void* array, std::ptrdiff_t n) { swap_array<std::uint16_t>(array, n); }

void ka_swap_doubles(void* array, std::ptrdiff_t n) { swap_array<std::uint64_t>(array, n); }
