// Owners of accounted memory: objects, and a vector and a string whose storage is charged to the
// calling module.
#pragma once

#include <ka/mem.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace ka {

struct Release {
  template <typename T>
  void operator()(T* object) const {
    std::destroy_at(object);
    ka_mem_int_release(__FILE__, __LINE__, object);
  }
};

template <typename T>
using Owned = std::unique_ptr<T, Release>;

// A new object in accounted memory; never empty.
template <typename T, typename... Arguments>
[[nodiscard]] Owned<T> make_owned(Arguments&&... arguments) {
  static_assert(alignof(T) <= alignof(std::max_align_t), "blocks are not aligned to more");
  void* memory = ka_mem_int_allocate(__FILE__, __LINE__, sizeof(T));
  return Owned<T>(new (memory) T(std::forward<Arguments>(arguments)...));
}

// Plain bytes in accounted memory; zeroed pages of a large buffer cost nothing until they are used.
class Buffer {
 public:
  Buffer() = default;
  explicit Buffer(std::size_t size)
      : bytes_(static_cast<std::uint8_t*>(ka_mem_int_allocate(__FILE__, __LINE__, size))),
        size_(size) {}
  [[nodiscard]] std::uint8_t* data() const { return bytes_.get(); }
  [[nodiscard]] std::size_t size() const { return size_; }

 private:
  Owned<std::uint8_t> bytes_;
  std::size_t size_ = 0;
};

template <typename T>
struct Allocator {
  using value_type = T;
  Allocator() = default;
  template <typename U>
  Allocator(const Allocator<U>&) {
  }  // NOLINT(google-explicit-constructor): the standard asks for it
  T* allocate(std::size_t count) {
    static_assert(alignof(T) <= alignof(std::max_align_t), "blocks are not aligned to more");
    // NOLINTNEXTLINE(bugprone-sizeof-expression): elements may well be pointers
    return static_cast<T*>(ka_mem_int_allocate(__FILE__, __LINE__, count * sizeof(T)));
  }
  void deallocate(T* memory, std::size_t) { ka_mem_int_release(__FILE__, __LINE__, memory); }
  bool operator==(const Allocator&) const = default;
};

template <typename T>
using vector = std::vector<T, Allocator<T>>;

using string = std::basic_string<char, std::char_traits<char>, Allocator<char>>;

}  // namespace ka
