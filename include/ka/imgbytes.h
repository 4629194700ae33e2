/* Numbers of files: cursors over bytes in memory, checked size arithmetic. Numbers are put together
 * from bytes, so nothing here depends on the host's byte order. For programs in C++20 only. */
#pragma once

#include <ka/base.h>

#ifdef __cplusplus
#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <utility>

namespace ka {

// Reads a header field by field. A read past the end gives 0 and makes the cursor false for good,
// so that a header is tested once, after its last field.
class ByteCursor {
 public:
  explicit ByteCursor(std::span<const std::uint8_t> bytes) : rest_(bytes) {}

  std::uint8_t u8() { return std::uint8_t(big(1)); }
  std::uint16_t be16() { return std::uint16_t(big(2)); }
  std::uint32_t be32() { return big(4); }
  std::uint16_t le16() { return std::uint16_t(little(2)); }
  std::uint32_t le32() { return little(4); }

  // The next bytes; empty when fewer are left.
  std::span<const std::uint8_t> take(std::size_t count) {
    if (count > rest_.size()) {
      fail();
      return {};
    }
    const auto bytes = rest_.first(count);
    rest_ = rest_.subspan(count);
    return bytes;
  }
  void skip(std::size_t count) { (void)take(count); }

  [[nodiscard]] std::size_t left() const { return rest_.size(); }
  explicit operator bool() const { return sound_; }

 private:
  std::uint32_t big(std::size_t count) {
    std::uint32_t value = 0;
    for (const std::uint8_t byte : take(count)) value = value << 8 | byte;
    return value;
  }
  std::uint32_t little(std::size_t count) {
    std::uint32_t value = 0;
    unsigned shift = 0;
    for (const std::uint8_t byte : take(count)) {
      value |= std::uint32_t{byte} << shift;
      shift += 8;
    }
    return value;
  }
  void fail() {
    sound_ = false;
    rest_ = {};
  }

  std::span<const std::uint8_t> rest_;
  bool sound_ = true;
};

// Fills a header field by field. Before: the bytes have room for every field.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::uint8_t> bytes) : rest_(bytes) {}

  void u8(std::uint32_t value) { put({std::uint8_t(value)}); }
  void be16(std::uint32_t value) { put({byte_of(value, 1), byte_of(value, 0)}); }
  void be32(std::uint32_t value) {
    put({byte_of(value, 3), byte_of(value, 2), byte_of(value, 1), byte_of(value, 0)});
  }
  void le16(std::uint32_t value) { put({byte_of(value, 0), byte_of(value, 1)}); }
  void le32(std::uint32_t value) {
    put({byte_of(value, 0), byte_of(value, 1), byte_of(value, 2), byte_of(value, 3)});
  }
  // The text, cut or filled with zeros to `count` bytes.
  void text(const char* text, std::size_t count) {
    const auto field = rest_.first(count);
    const std::size_t length = std::min(std::strlen(text), count);
    std::memcpy(field.data(), text, length);
    std::ranges::fill(field.subspan(length), std::uint8_t{0});
    rest_ = rest_.subspan(count);
  }
  void zeros(std::size_t count) { text("", count); }

 private:
  static std::uint8_t byte_of(std::uint32_t value, unsigned index) {
    return std::uint8_t(value >> 8 * index);
  }
  void put(std::initializer_list<std::uint8_t> bytes) {
    std::ranges::copy(bytes, rest_.begin());
    rest_ = rest_.subspan(bytes.size());
  }

  std::span<std::uint8_t> rest_;
};

// The product of sizes, empty when it does not fit.
template <std::integral... Factors>
[[nodiscard]] constexpr std::optional<std::uint64_t> checked_product(Factors... factors) {
  std::uint64_t product = 1;
  const bool fits = ((std::in_range<std::uint64_t>(factors) &&
                      !__builtin_mul_overflow(product, std::uint64_t(factors), &product)) &&
                     ...);
  return fits ? std::optional(product) : std::nullopt;
}

}  // namespace ka
#endif
