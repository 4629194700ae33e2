// LWI images: tagged records, then packets of one color each, top line first. They are read only;
// lines that are written go nowhere. Layout: docs/formats.md, "LWI". Numbers are big-endian.
#include <errno.h>

#include <optional>
#include <utility>

#include "driver.h"
#include "drivers.h"
#include "rle.h"

namespace ka {

namespace {

constexpr std::uint8_t kPadding = 0;  // a record of four bytes, without a length
constexpr std::size_t kPaddingBytes = 4;
constexpr std::uint8_t kSizeRecord = 19;      // the last one, with the pixels after it
constexpr std::uint8_t kLastKnown = 24;       // of the types that say the format
constexpr std::uint8_t kTypes = 32;           // types are below
constexpr unsigned kNeeded = 0b111101;        // bit t: type kSizeRecord + t; 20 may be missing
constexpr std::size_t kSizeRecordBytes = 32;  // as far as anything in it is checked
constexpr unsigned kLongestRun = 255;         // pixels of a packet
constexpr std::uint8_t kLastPart = 17;        // byte of the size record before the pixels

struct SizeRecord {
  std::uint32_t width, height;
  std::size_t pixels;  // offset from its type byte
};

struct LwiState {
  FileReader packets;
  int failure = IMG_ERR_NONE;  // of a line: the start of the next one is unknown
};

// The offset of the size record after all others that say the format.
std::optional<std::size_t> find_size_record(std::span<const std::uint8_t> head) {
  unsigned seen = 0;
  ByteCursor in(head);
  while (in.left() > 0) {
    const std::size_t offset = head.size() - in.left();
    const std::uint8_t type = in.u8();
    if (type >= kTypes) return std::nullopt;
    if (type >= kSizeRecord && type <= kLastKnown) seen |= 1U << (type - kSizeRecord);
    if (type == kSizeRecord && (seen & kNeeded) == kNeeded) return offset;
    in.skip(type == kPadding ? kPaddingBytes - 1 : in.u8());
  }
  return std::nullopt;
}

// Empty where the record ends before its last part.
std::optional<SizeRecord> parse_size(std::span<const std::uint8_t> bytes) {
  ByteCursor in(bytes);
  SizeRecord size{};
  in.skip(6);
  size.width = in.be32();
  size.height = in.be32();
  if (in.u8() == kLastPart) {
    size.pixels = 27;
  } else {
    in.skip(16);
    size.pixels = in.u8() == kLastPart ? 44 : 45;
  }
  return in ? std::optional(size) : std::nullopt;
}

int fail(img_file* handle, LwiState& state, int code, int os_error) {
  state.failure = code;
  return img_error(handle, code, os_error);
}

}  // namespace

int img_test_lwi(img_file* /*handle*/, const std::uint8_t* head) {
  return find_size_record({head, IMG_HEAD_SIZE}).has_value();
}

int img_open_lwi(img_file* handle, const std::uint8_t* head) {
  const auto offset = find_size_record({head, IMG_HEAD_SIZE});
  if (!offset) return img_error(handle, IMG_ERR_FORMAT, 0);
  auto state = make_state<LwiState>(handle);
  state->packets.start(handle, *offset);
  const auto size = parse_size(state->packets.ahead(kSizeRecordBytes));
  if (!size || state->packets.left() < size->pixels) {
    return img_refuse(handle, IMG_ERR_READ, size ? 0 : errno, "the file ends in the size record");
  }
  if (!std::in_range<int>(size->width) || !std::in_range<int>(size->height)) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "width %u, height %u", size->width, size->height);
  }
  handle->width = int(size->width);
  handle->height = int(size->height);
  state->packets.seek(*offset + size->pixels);
  const std::uint64_t runs = (std::uint64_t{size->width} + kLongestRun - 1) / kLongestRun;
  note_line_bytes(handle, kRunBytes * runs, state->packets.left());
  handle->data.p = state.release();
  return 1;
}

int img_create_lwi(img_file* /*handle*/) { return 1; }

int img_read_lwi(img_file* handle, img_line* line) {
  auto& state = state_of<LwiState>(handle);
  if (handle->lacks_lines) return img_error(handle, IMG_ERR_READ, 0);
  if (state.failure != IMG_ERR_NONE) return img_error(handle, state.failure, 0);
  auto planes = plane_pointers<std::uint8_t, 3>(line);
  auto left = std::size_t(handle->width);
  while (left > 0) {
    const auto packets = state.packets.ahead(kRunBytes);
    if (packets.size() < kRunBytes) return fail(handle, state, IMG_ERR_READ, errno);
    auto [end, used, pixels] = expand_runs(packets, planes, left);
    if (end == RowEnd::kCorrupt) {
      if (packets[used] != 0) return fail(handle, state, IMG_ERR_CORRUPT, 0);
      used += kRunBytes;  // an empty packet does no harm
    }
    (void)state.packets.take(used);
    for (std::uint8_t*& plane : planes) plane += pixels;
    left -= pixels;
  }
  return 1;
}

int img_write_lwi(img_file* /*handle*/, img_line* /*line*/) { return 1; }

int img_close_lwi(img_file* handle) {
  const auto state = take_state<LwiState>(handle);
  return 1;
}

}  // namespace ka
