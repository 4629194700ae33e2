// Entries of headers: from a driver's operation to the caller, within their limits.
#include <ka/imgheader.h>

#include <algorithm>
#include <cstring>

#include <ka/detail/owned.h>
#include <ka/detail/scope.h>

#include "imgcall.h"

namespace {

constexpr std::size_t kLongestValue = std::size_t{64} << 10;  // bytes, with the closing zero
constexpr std::uint64_t kFreeBytes = std::uint64_t{64} << 10, kBytesPerByte = 4;
constexpr std::size_t kEntryBytes = 16;  // that an entry counts beside its texts

}  // namespace

struct img_header {
  img_header_callback take;
  void* context;
  std::uint64_t left;  // bytes that entries may have
  ka::Buffer value;
};

int ka_img_header_put(img_header* header, const char* name, const void* value, std::size_t count) {
  if (name[0] == '\0') return header->left != 0;
  const auto* const text = static_cast<const char*>(value);
  const std::size_t length = count == 0 ? 0 : strnlen(text, std::min(count, kLongestValue - 1));
  const std::size_t cost = std::strlen(name) + length + kEntryBytes;
  if (cost > header->left) header->left = 0;
  if (header->left == 0) return 0;
  header->left -= cost;
  auto* const copy = reinterpret_cast<char*>(header->value.data());
  if (length > 0) std::memcpy(copy, text, length);
  copy[length] = '\0';
  header->take(header->context, name, copy);
  return 1;
}

int ka_img_header(img_file* handle, img_header_callback take, void* context) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  if (!ka::img_can_read(handle)) return ka::img_error(handle, IMG_ERR_NOT_OPEN, 0);
  const auto operation = ka::img_format_at(handle->format).driver.header;
  if (!operation) return 1;
  img_header header{take, context, kFreeBytes + kBytesPerByte * std::uint64_t(handle->file_size),
                    ka::Buffer(kLongestValue)};
  operation(handle, &header);
  return 1;
}
