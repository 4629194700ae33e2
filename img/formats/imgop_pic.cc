// Softimage PIC images: for each line a record for each group of channels, plain or in run-length
// packets, the top line first; written in mixed packets, the colors in one group and alpha in
// another. Layout: docs/formats.md, "PIC". Numbers are big-endian.
#include <errno.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <optional>

#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "rle.h"
#include "rows.h"

namespace ka {

namespace {

constexpr std::uint32_t kMagic = 0x5380f634;
constexpr std::size_t kHeaderBytes = 104;
constexpr std::size_t kSizeOffset = 92;  // of width and height
constexpr std::size_t kDescriptorBytes = 4;
constexpr std::size_t kMaxGroups = 4;
constexpr int kLargestSide = 65535;
constexpr unsigned kColors = 0xe0, kAlpha = 0x10;  // bits of a channel mask
constexpr unsigned kNoChannels = 0x0f;             // bits of it that stay 0
constexpr unsigned kSampleBits = 8;
constexpr float kVersion = 3.5F;
constexpr unsigned kFullFrame = 3;

enum Compression : std::uint8_t { kVerbatim, kRunLength, kMixed };

// Channels that are stored together.
struct Group {
  std::uint8_t compression, mask;

  [[nodiscard]] std::size_t channels() const { return std::size_t(std::popcount(mask)); }
};

struct PicState {
  std::array<Group, kMaxGroups> groups;
  std::size_t group_count;
  FileReader in;
  FileWriter out;
  Buffer row;      // pixels of one record
  Buffer packets;  // of one record that is written
};

// Bytes that a record of such pixels can take at most: a packet for each of them.
std::size_t record_bound(std::size_t width, std::size_t pixel_bytes) {
  return width * (3 + pixel_bytes);
}

// Returns 1, or 0 with the handle's error.
int check_group(img_file* handle, unsigned bits, const Group& group) {
  if (bits != kSampleBits) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "%u bits per sample are not read; 8 are", bits);
  }
  if (group.compression > kMixed) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "compression %d is not read; 0, 1 and 2 are",
                      group.compression);
  }
  if ((group.mask & kNoChannels) == 0) return 1;
  return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                    "channels 0x%02x are not read; red, green, blue and "
                    "alpha (0xf0) are",
                    unsigned{group.mask});
}

// Finds the groups of channels. Those without a channel do not count. Returns 1, or 0 with the
// handle's error.
int read_groups(img_file* handle, const std::uint8_t* head, PicState& state) {
  unsigned chained = 1;
  for (std::size_t at = kHeaderBytes; chained != 0; at += kDescriptorBytes) {
    if (at + kDescriptorBytes > IMG_HEAD_SIZE) {
      return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "the groups of channels pass byte %d",
                        IMG_HEAD_SIZE);
    }
    if (std::int64_t(at + kDescriptorBytes) > handle->file_size) {
      return img_refuse(handle, IMG_ERR_READ, 0, "the file ends in the groups of channels");
    }
    ByteCursor in({head + at, kDescriptorBytes});
    chained = in.u8();
    const unsigned bits = in.u8();
    const Group group{in.u8(), in.u8()};
    if (!check_group(handle, bits, group)) return 0;
    if (group.mask == 0) continue;
    if (state.group_count == kMaxGroups) {
      return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "more than %zu groups of channels", kMaxGroups);
    }
    state.groups[state.group_count++] = group;
  }
  return 1;
}

// The channels of all groups.
unsigned all_channels(const PicState& state) {
  unsigned mask = 0;
  for (std::size_t i = 0; i < state.group_count; ++i) mask |= state.groups[i].mask;
  return mask;
}

// Literal pixels.
int get_verbatim(img_file* handle, FileReader& in, std::span<std::uint8_t> row) {
  return in.read(row) ? 1 : img_error(handle, IMG_ERR_READ, errno);
}

// Pixels in packets that `expand` decodes. Packets end with their record.
template <typename Expand>
int get_packets(img_file* handle, FileReader& in, std::span<std::uint8_t> row,
                std::size_t pixel_bytes, Expand expand) {
  const auto packets = in.ahead(record_bound(row.size() / pixel_bytes, pixel_bytes));
  const int failure = errno;
  const auto [end, used, filled] = expand(packets, row, pixel_bytes);
  if (end == RowEnd::kShort) return img_error(handle, IMG_ERR_READ, failure);
  if (end == RowEnd::kCorrupt) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a packet passes the end of the line");
  }
  (void)in.take(used);
  return 1;
}

int get_runlength(img_file* handle, FileReader& in, std::span<std::uint8_t> row,
                  std::size_t pixel_bytes) {
  return get_packets(handle, in, row, pixel_bytes, expand_repeats);
}

int get_mixed(img_file* handle, FileReader& in, std::span<std::uint8_t> row,
              std::size_t pixel_bytes) {
  return get_packets(handle, in, row, pixel_bytes, expand_mixed);
}

template <std::size_t Channels>
void split_row(const std::uint8_t* row, const std::array<std::uint8_t*, 4>& planes,
               std::size_t width) {
  std::array<std::uint8_t*, Channels> used;
  std::copy_n(planes.begin(), Channels, used.begin());
  split<std::uint8_t, Channels>(row, used, width);
}

// One record of a line. The first group's compression applies to all.
int read_record(img_file* handle, PicState& state, const Group& group, const img_line* line) {
  std::array<std::uint8_t*, 4> planes{};
  std::size_t channels = 0;
  for (std::size_t slot = 0; slot < 4; ++slot) {
    const bool is_stored = (group.mask & 0x80U >> slot) != 0;
    if (is_stored) planes[channels++] = plane_of<std::uint8_t>(line, slot);
  }
  const auto width = std::size_t(handle->width);
  const std::span row(channels == 1 ? planes[0] : state.row.data(), width * channels);
  switch (state.groups[0].compression) {
    case kVerbatim:
      if (!get_verbatim(handle, state.in, row)) return 0;
      break;
    case kRunLength:
      if (!get_runlength(handle, state.in, row, channels)) return 0;
      break;
    default:
      if (!get_mixed(handle, state.in, row, channels)) return 0;
      break;
  }
  if (channels == 2) split_row<2>(row.data(), planes, width);
  if (channels == 3) split_row<3>(row.data(), planes, width);
  if (channels == 4) split_row<4>(row.data(), planes, width);
  return 1;
}

// The setting of the fields of video, which is kept as a float.
unsigned fields_of(const img_file* handle) {
  const auto value = std::bit_cast<float>(handle->parameters[1]);
  if (value == 0) return kFullFrame;
  constexpr float too_large = 0x1p31F;
  return std::fabs(value) < too_large ? unsigned(int(value)) & 3 : 0;
}

void write_header(const img_file* handle, FileWriter& file) {
  ByteWriter out(file.put(kHeaderBytes + 2 * kDescriptorBytes));
  out.be32(kMagic);
  out.be32(std::bit_cast<std::uint32_t>(kVersion));
  out.text("Written by Brannock libimg", 80);
  out.text("PICT", 4);
  out.be16(std::uint32_t(handle->width));
  out.be16(std::uint32_t(handle->height));
  out.be32(std::bit_cast<std::uint32_t>(handle->aspect == 0 ? 1.0F : handle->aspect));
  out.be16(fields_of(handle));
  out.be16(0);
  for (const unsigned mask : {kColors, kAlpha}) {
    out.u8(mask == kColors);  // the next one follows
    out.u8(kSampleBits);
    out.u8(kMixed);
    out.u8(mask);
  }
}

void write_record(PicState& state, std::span<const std::uint8_t> row, std::size_t pixel_bytes) {
  const std::span packets(state.packets.data(), state.packets.size());
  const std::size_t used = compact_mixed(row, packets, pixel_bytes);
  state.out.write({reinterpret_cast<const char*>(packets.data()), used});
}

}  // namespace

int img_test_pic(img_file* /*handle*/, const std::uint8_t* head) {
  return ByteCursor({head, IMG_HEAD_SIZE}).be32() == kMagic;
}

int img_open_pic(img_file* handle, const std::uint8_t* head) {
  if (!img_test_pic(handle, head)) return img_error(handle, IMG_ERR_FORMAT, 0);
  auto state = make_state<PicState>(handle);
  ByteCursor in({head, IMG_HEAD_SIZE});
  in.skip(kSizeOffset);
  handle->width = in.be16();
  handle->height = in.be16();
  const auto aspect = std::bit_cast<float>(in.be32());
  if (std::isfinite(aspect) && aspect > 0) handle->aspect = aspect;
  if (!read_groups(handle, head, *state)) return 0;
  const unsigned channels = all_channels(*state);
  if ((channels & kColors) != kColors) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "channels 0x%02x are not read without red, green and blue (0xe0)", channels);
  }
  const auto width = std::size_t(handle->width);
  state->in.start(handle, kHeaderBytes + kDescriptorBytes * state->group_count,
                  std::max(FileReader::kBufferSize, record_bound(width, 4)));
  state->row = Buffer(4 * width);
  state_file_type(handle, (channels & kAlpha) != 0 ? IMG_TYPE_RGBA : IMG_TYPE_RGB);
  handle->data.p = state.release();
  return 1;
}

int img_create_pic(img_file* handle) {
  if (!check_sides(handle, kLargestSide)) return 0;
  auto state = make_state<PicState>(handle);
  const auto width = std::size_t(handle->width);
  state->row = Buffer(3 * width);
  state->packets = Buffer(compact_bound(width, 3));
  state->out.start(handle);
  write_header(handle, state->out);
  handle->data.p = state.release();
  return 1;
}

int img_read_pic(img_file* handle, img_line* line) {
  if (handle->line_count >= handle->height) return img_error(handle, IMG_ERR_READ, 0);
  auto& state = state_of<PicState>(handle);
  for (std::size_t i = 0; i < state.group_count; ++i) {
    if (!read_record(handle, state, state.groups[i], line)) return 0;
  }
  return 1;
}

int img_write_pic(img_file* handle, img_line* line) {
  auto& state = state_of<PicState>(handle);
  const auto width = std::size_t(handle->width);
  const auto [red, green, blue, alpha] = plane_pointers<const std::uint8_t, 4>(line);
  pack<const std::uint8_t, 3>(state.row.data(), {red, green, blue}, width);
  write_record(state, {state.row.data(), 3 * width}, 3);
  write_record(state, {alpha, width}, 1);
  return state.out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, state.out.error());
}

int img_close_pic(img_file* handle) {
  const auto state = take_state<PicState>(handle);
  return state ? finish_file(handle, state->out, IMG_ERR_WRITE) : 1;
}

void img_header_pic(img_file* handle, img_header* header) {
  FileReader file;
  file.start(handle, 0, kHeaderBytes);
  ByteCursor in(file.take(kHeaderBytes));
  if (in.left() == 0) return;
  HeaderEntries out(header);
  in.skip(4);
  out.numbers("version", std::bit_cast<float>(in.be32()));
  out.field("comment", in.take(80));
  out.field("id", in.take(4));
  in.skip(4);
  out.numbers("aspect", std::bit_cast<float>(in.be32()));
  out.choice("fields", in.be16(), {"none", "odd", "even", "both"});
  const auto& state = state_of<PicState>(handle);
  for (const Group& group : std::span(state.groups).first(state.group_count)) {
    std::array<char, 4> channels{};
    char* end = channels.data();
    for (std::size_t i = 0; i < 4; ++i) {
      if ((group.mask & 0x80U >> i) != 0) *end++ = "RGBA"[i];
    }
    out.text("channels", {channels.data(), end});
    out.choice("compression", group.compression, {"none", "run-length", "mixed run-length"});
  }
}

}  // namespace ka
