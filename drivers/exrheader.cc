#include "exrheader.h"

#include <ka/imgbytes.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string_view>

#include "drivers.h"

namespace drivers {

namespace {

constexpr std::uint32_t kMultipart = 0x1000;  // of the version
constexpr std::size_t kLongestName = 255;     // characters
constexpr std::size_t kMagicBytes = 8;        // magic and version
constexpr int kMostAttributes = 4096;         // of a part
constexpr int kMostParts = 4096;
constexpr std::uint32_t kMostChannelBytes = 1 << 16;  // some thousand channels

// A name with the 0 after it; empty where the file or the longest name ends before that.
std::optional<std::string_view> take_name(img_reader* in) {
  std::size_t count = kLongestName + 1;
  const auto* const text = reinterpret_cast<const char*>(ka_img_reader_ahead(in, &count));
  const void* const end = text ? std::memchr(text, 0, count) : nullptr;
  if (!end) return std::nullopt;
  const auto length = std::size_t(static_cast<const char*>(end) - text);
  ka_img_reader_take(in, length + 1);  // is in the buffer, and stays where it is
  return std::string_view(text, length);
}

std::uint32_t take_word(img_reader* in) {
  const std::uint8_t* const bytes = ka_img_reader_take(in, 4);
  return bytes ? ka::ByteCursor({bytes, 4}).le32() : 0;
}

int refuse_short(img_file* handle) {
  return refuse(handle, IMG_ERR_READ, "the file ends in its header");
}

int refuse_name(img_file* handle, const img_reader* in) {
  if (ka_img_reader_left(in) <= std::int64_t{kLongestName}) return refuse_short(handle);
  return refuse(handle, IMG_ERR_CORRUPT, "a name has more than %zu characters", kLongestName);
}

// The attribute after its name.
int scan_attribute(img_file* handle, img_reader* in) {
  const auto type = take_name(in);
  if (!type) return refuse_name(handle, in);
  const bool is_channels = *type == "chlist";
  if (ka_img_reader_left(in) < 4) return refuse_short(handle);
  const std::uint32_t size = take_word(in);
  if (ka_img_reader_left(in) < std::int64_t{size}) return refuse_short(handle);
  if (is_channels && size > kMostChannelBytes) {
    return refuse(handle, IMG_ERR_SUBTYPE, "%u bytes of channels are too many", size);
  }
  ka_img_reader_seek(in, ka_img_reader_position(in) + std::int64_t{size});
  return 1;
}

// Counts the attributes of a part. A part without any ends the parts.
int scan_part(img_file* handle, img_reader* in, int& attributes) {
  for (attributes = 0; attributes <= kMostAttributes; ++attributes) {
    const auto name = take_name(in);
    if (!name) return refuse_name(handle, in);
    if (name->empty()) return 1;
    if (!scan_attribute(handle, in)) return 0;
  }
  return refuse(handle, IMG_ERR_SUBTYPE, "more than %d attributes", kMostAttributes);
}

}  // namespace

int exr_scan_header(img_file* handle, ExrLayout& layout) {
  const Reader reader(ka_img_reader_alloc(handle, 0, 0));
  img_reader* const in = reader.get();
  if (ka_img_reader_left(in) < std::int64_t{kMagicBytes}) return refuse_short(handle);
  take_word(in);
  layout.is_multipart = (take_word(in) & kMultipart) != 0;
  int attributes = 1;
  for (int parts = 0; attributes != 0; ++parts) {
    if (parts > kMostParts) {
      return refuse(handle, IMG_ERR_SUBTYPE, "more than %d parts", kMostParts);
    }
    if (!scan_part(handle, in, attributes)) return 0;
    if (!layout.is_multipart) break;
  }
  layout.tables = ka_img_reader_position(in);
  return 1;
}

bool exr_holds_chunk(img_file* handle, const ExrLayout& layout, std::int64_t entry, bool is_tiled) {
  const std::size_t leader = (layout.is_multipart ? 4 : 0) + (is_tiled ? 16 : 4);
  const Reader reader(ka_img_reader_alloc(handle, layout.tables + 8 * entry, 16));
  const std::uint8_t* const bytes = ka_img_reader_take(reader.get(), 8);
  if (!bytes) return false;
  ka::ByteCursor in({bytes, 8});
  const std::uint64_t low = in.le32(), offset = std::uint64_t{in.le32()} << 32 | low;
  const auto size = std::uint64_t(handle->file_size);
  if (offset == 0 || offset > size) return false;
  ka_img_reader_seek(reader.get(), std::int64_t(offset + leader));
  if (ka_img_reader_left(reader.get()) < 4) return false;
  const std::uint32_t packed = take_word(reader.get());
  return ka_img_reader_left(reader.get()) >= std::int64_t{packed};
}

}  // namespace drivers
