// CATIA pictures: a header and sub-blocks of records of 80 bytes, which hold first all of red, then
// all of green, then all of blue, top line first. Layout: docs/formats.md, "CATIA picture". Numbers
// are little-endian.
#include <errno.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "rle.h"

namespace ka {

namespace {

constexpr std::size_t kHeaderBytes = 1200;
constexpr std::size_t kRecordBytes = 80;
constexpr std::size_t kMostBytes = 3276 * kRecordBytes;  // of the data of a sub-block
constexpr std::size_t kMostSamples = 262144;             // of a sub-block; as they are, fewer fit
constexpr std::size_t kLengthsBuffer = 4096;             // bytes; small sub-blocks come together
constexpr std::size_t kLongestRun = 255;

// The fields of the header that are known.
constexpr std::size_t kKindAt = 96, kClassAt = 114, kNameAt = 152, kNoteAt = 160, kNoteBytes = 32;
constexpr std::string_view kKind = "PIXEL   ", kClass = "2", kName = "PICTURE ";
constexpr std::size_t kSamplesAt = 968;  // of a full sub-block
constexpr std::size_t kWidthAt = 1120, kHeightAt = 1124;
constexpr std::size_t kOneAt = 1128, kCodeAt = 1132, kFlagAt = 1144, kZeroAt = 1152;
constexpr std::uint32_t kCode = 10407;

struct Header {
  std::uint32_t block_samples, width, height;
};

struct Component {
  FileReader in;
  Buffer expanded;
  std::span<const std::uint8_t> samples;  // of the sub-block at hand, from the next line on
};

struct CatiaState {
  std::size_t block_lines = 0;  // of a full sub-block
  int next = 0;                 // line
  std::array<Component, 3> components;
  int failure = IMG_ERR_NONE;  // of a line: those after it would come from the wrong places
  Buffer picture;              // that is written: [component * height + line][width]

  std::uint8_t* line(const img_file* handle, std::size_t component, std::size_t y) {
    const auto height = std::size_t(handle->height);
    return picture.data() + (component * height + y) * std::size_t(handle->width);
  }
};

using Bytes = std::span<const std::uint8_t>;

bool has_text(Bytes header, std::size_t at, std::string_view text) {
  return std::memcmp(header.data() + at, text.data(), text.size()) == 0;
}
std::uint32_t number(Bytes header, std::size_t at) { return ByteCursor(header.subspan(at)).le32(); }

// Lines of a full sub-block. Where one line less is what fits without packets, the header tells
// which of the two numbers it is.
std::size_t lines_of_block(std::size_t width, std::size_t block_samples) {
  const std::size_t plain = kMostBytes / width;
  return plain > 0 && block_samples == plain * width ? plain : kMostSamples / width;
}

// A number in the header that has only one value in files that are read, or few.
struct KnownNumber {
  std::size_t at;
  std::uint32_t least, most;
};
constexpr KnownNumber kKnownNumbers[] = {
    {kOneAt, 1, 1}, {kCodeAt, kCode, kCode}, {kFlagAt, 0, 1}, {kZeroAt, 0, 0}};

// Before: the header has the texts that say the format. Empty with the handle's error.
std::optional<Header> parse_header(img_file* handle, Bytes header) {
  if (!has_text(header, kClassAt, kClass)) {
    img_refuse(handle, IMG_ERR_SUBTYPE, 0, "class \"%c\" is not read; \"2\" is", header[kClassAt]);
    return std::nullopt;
  }
  for (const auto& [at, least, most] : kKnownNumbers) {
    const std::uint32_t found = number(header, at);
    if (found >= least && found <= most) continue;
    img_refuse(handle, IMG_ERR_SUBTYPE, 0, "%u at byte %zu of the header is not read; %u is", found,
               at, most);
    return std::nullopt;
  }
  const Header fields{number(header, kSamplesAt), number(header, kWidthAt),
                      number(header, kHeightAt)};
  if (fields.block_samples > kMostSamples || fields.width < 1 || fields.width > kMostSamples ||
      !std::in_range<int>(fields.height)) {
    img_refuse(handle, IMG_ERR_SUBTYPE, 0,
               "width %u, height %u, %u samples in a block; widths of 1 to %zu "
               "and as many samples are read",
               fields.width, fields.height, fields.block_samples, kMostSamples);
    return std::nullopt;
  }
  return fields;
}

constexpr std::size_t in_records(std::size_t bytes) {
  return (bytes + kRecordBytes - 1) / kRecordBytes * kRecordBytes;
}

// Takes the record before the data of a sub-block. Returns the bytes of that data, or 0 with
// the handle's error.
std::size_t read_length(img_file* handle, FileReader& in) {
  const auto record = in.take(kRecordBytes);
  const int failure = errno;
  const std::size_t bytes = number(record, 0);
  if (bytes >= 1 && bytes <= kMostBytes) return bytes;
  if (record.empty()) {
    img_error(handle, IMG_ERR_READ, failure);
  } else {
    img_refuse(handle, IMG_ERR_CORRUPT, 0, "a block of %zu bytes; 1 to %zu are read", bytes,
               kMostBytes);
  }
  return 0;
}

// Reads the next sub-block of a component, which holds `count` samples: only data that is shorter
// has pairs.
int read_sub_block(img_file* handle, Component& component, std::size_t count) {
  const std::size_t bytes = read_length(handle, component.in);
  if (bytes == 0) return 0;
  const auto records = component.in.take(in_records(bytes));
  if (records.empty()) return img_error(handle, IMG_ERR_READ, errno);
  const auto data = records.first(bytes);
  if (bytes >= count) {
    component.samples = data.first(count);
    return 1;
  }
  const std::span row(component.expanded.data(), count);
  if (expand_pairs(data, row).end != RowEnd::kWhole) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "pairs do not fill their block exactly");
  }
  component.samples = row;
  return 1;
}

// Finds where each component begins: only the sub-blocks before it tell.
int read_file(img_file* handle, CatiaState& state) {
  const auto height = std::size_t(handle->height);
  const std::size_t blocks = (height + state.block_lines - 1) / state.block_lines;
  const std::size_t block_samples =
      std::min(state.block_lines, height) * std::size_t(handle->width);
  FileReader lengths;
  std::uint64_t offset = kHeaderBytes;
  lengths.start(handle, offset, kLengthsBuffer);
  for (Component& component : state.components) {
    component.in.start(handle, offset, kRecordBytes + kMostBytes);
    component.expanded = Buffer(block_samples);
    if (&component == &state.components.back()) break;
    for (std::size_t block = 0; block < blocks; ++block) {
      const std::size_t bytes = read_length(handle, lengths);
      if (bytes == 0) return 0;
      offset += kRecordBytes + in_records(bytes);
      lengths.seek(offset);
    }
  }
  return 1;
}

// Makes the lines of the next sub-blocks available, from state.next on.
int read_blocks(img_file* handle, CatiaState& state) {
  if (state.next == 0 && !read_file(handle, state)) return 0;
  const auto left = std::size_t(handle->height - state.next);
  const std::size_t count = std::min(state.block_lines, left) * std::size_t(handle->width);
  return std::ranges::all_of(state.components, [&](Component& component) {
    return read_sub_block(handle, component, count) != 0;
  });
}

// Encodes samples as pairs of a count and a value. Returns the bytes used, 0 when there is no room.
std::size_t pack_runs(Bytes samples, std::span<std::uint8_t> pairs) {
  std::size_t used = 0;
  for (std::size_t i = 0, end; i < samples.size(); i = end) {
    if (used + 2 > pairs.size()) return 0;
    const std::size_t longest = std::min(samples.size(), i + kLongestRun);
    end = i + 1;
    while (end < longest && samples[end] == samples[i]) ++end;
    pairs[used++] = std::uint8_t(end - i);
    pairs[used++] = samples[i];
  }
  return used;
}

// The data of a sub-block: pairs where they are shorter, else the samples. Empty when neither fits.
Bytes encode(Bytes samples, const Buffer& pairs) {
  const std::size_t room = std::min(samples.size() - 1, kMostBytes);
  const std::size_t used = pack_runs(samples, {pairs.data(), room});
  if (used > 0) return {pairs.data(), used};
  return samples.size() <= kMostBytes ? samples : Bytes{};
}

// Calls `use` with the samples of each sub-block, in file order, until it returns false.
template <typename Use>
bool for_sub_blocks(img_file* handle, CatiaState& state, Use use) {
  const auto width = std::size_t(handle->width);
  const auto height = std::size_t(handle->height);
  for (std::size_t c = 0; c < state.components.size(); ++c) {
    for (std::size_t y = 0; y < height; y += state.block_lines) {
      const std::size_t lines = std::min(state.block_lines, height - y);
      if (!use(Bytes(state.line(handle, c, y), lines * width))) return false;
    }
  }
  return true;
}

void put_number(std::span<std::uint8_t> header, std::size_t at, std::size_t value) {
  ByteWriter(header.subspan(at)).le32(std::uint32_t(value));
}
void put_text(std::span<std::uint8_t> header, std::size_t at, std::string_view text) {
  std::ranges::copy(text, header.begin() + std::ptrdiff_t(at));
}

void put_header(const img_file* handle, std::span<std::uint8_t> header, std::size_t block_lines) {
  std::ranges::fill(header, std::uint8_t{0});
  char note[32];
  std::snprintf(note, sizeof note, "SMS  %4d X %4d", handle->width, handle->height);
  put_text(header, kKindAt, kKind);
  put_text(header, kClassAt, kClass);
  put_text(header, kNameAt, kName);
  put_text(header, kNoteAt, note);
  const auto width = std::size_t(handle->width);
  put_number(header, kSamplesAt, block_lines * width);
  put_number(header, kWidthAt, width);
  put_number(header, kHeightAt, std::size_t(handle->height));
  put_number(header, kOneAt, 1);
  put_number(header, kCodeAt, kCode);
}

bool put_sub_block(FileWriter& out, Bytes data) {
  ByteWriter record(out.put(kRecordBytes));
  record.le32(std::uint32_t(data.size()));
  record.zeros(kRecordBytes - 4);
  out.write({reinterpret_cast<const char*>(data.data()), data.size()});
  const auto padding = out.put(in_records(data.size()) - data.size());
  std::ranges::fill(padding, std::uint8_t{0});
  return out.error() == 0;
}

// Writes the picture that was collected.
int img_flush_catia(img_file* handle, CatiaState& state) {
  const auto width = std::size_t(handle->width);
  const Buffer pairs(kMostBytes);
  state.block_lines = kMostSamples / width;
  const bool fits =
      for_sub_blocks(handle, state, [&](Bytes samples) { return !encode(samples, pairs).empty(); });
  if (!fits) state.block_lines = kMostBytes / width;
  FileWriter out;
  out.start(handle);
  put_header(handle, out.put(kHeaderBytes), state.block_lines);
  (void)for_sub_blocks(handle, state,
                       [&](Bytes samples) { return put_sub_block(out, encode(samples, pairs)); });
  return finish_file(handle, out, IMG_ERR_WRITE);
}

}  // namespace

int img_test_catia(img_file* /*handle*/, const std::uint8_t* head) {
  const Bytes bytes(head, IMG_HEAD_SIZE);
  return has_text(bytes, kKindAt, kKind) && has_text(bytes, kNameAt, kName);
}

int img_open_catia(img_file* handle, const std::uint8_t* /*head*/) {
  FileReader in;
  in.start(handle, 0, kHeaderBytes);
  const auto bytes = in.take(kHeaderBytes);
  if (bytes.empty()) return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the header");
  const auto header = parse_header(handle, bytes);
  if (!header) return 0;
  auto state = make_state<CatiaState>(handle);
  state->block_lines = lines_of_block(header->width, header->block_samples);
  handle->width = int(header->width);
  handle->height = int(header->height);
  handle->data.p = state.release();
  return 1;
}

int img_create_catia(img_file* handle) {
  const auto bytes = checked_product(handle->width, handle->height, 3);
  if (handle->width < 1 || std::size_t(handle->width) > kMostBytes || !bytes ||
      *bytes > kLargestImage) {
    return img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  }
  auto state = make_state<CatiaState>(handle);
  state->picture = Buffer(std::size_t(*bytes));
  handle->data.p = state.release();
  return 1;
}

int img_read_catia(img_file* handle, img_line* line) {
  auto& state = state_of<CatiaState>(handle);
  if (state.failure != IMG_ERR_NONE) return img_error(handle, state.failure, 0);
  if (state.next >= handle->height) return img_error(handle, IMG_ERR_READ, 0);
  if (std::size_t(state.next) % state.block_lines == 0 && !read_blocks(handle, state)) {
    state.failure = handle->error;
    return 0;
  }
  const auto planes = line_planes<std::uint8_t, 3>(handle, line);
  for (std::size_t c = 0; c < planes.size(); ++c) {
    auto& samples = state.components[c].samples;
    std::ranges::copy(samples.first(planes[c].size()), planes[c].begin());
    drop_front(samples, planes[c].size());
  }
  ++state.next;
  return 1;
}

int img_write_catia(img_file* handle, img_line* line) {
  auto& state = state_of<CatiaState>(handle);
  const auto planes = line_planes<std::uint8_t, 3>(handle, line);
  for (std::size_t c = 0; c < planes.size(); ++c) {
    std::ranges::copy(planes[c], state.line(handle, c, std::size_t(state.next)));
  }
  ++state.next;
  return 1;
}

int img_close_catia(img_file* handle) {
  const auto state = take_state<CatiaState>(handle);
  if (!state || !handle->writing || handle->error != IMG_ERR_NONE) return 1;
  return img_flush_catia(handle, *state);
}

void img_header_catia(img_file* handle, img_header* header) {
  FileReader in;
  in.start(handle, 0, kHeaderBytes);
  const auto bytes = in.take(kHeaderBytes);
  if (bytes.empty()) return;
  HeaderEntries out(header);
  out.field("note", bytes.subspan(kNoteAt, kNoteBytes));
  out.numbers("block_samples", number(bytes, kSamplesAt));
  out.numbers("flag", number(bytes, kFlagAt));
}

}  // namespace ka
