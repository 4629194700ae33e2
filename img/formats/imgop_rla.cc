// Wavefront RLA images: red, green, blue and matte of each line in run-length packets that a table
// finds, the bottom line first; written with 8 bits and matte. Layout: docs/formats.md, "RLA".
// Numbers are big-endian.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <optional>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "rle.h"
#include "rows.h"
#include "stream.h"

namespace ka {

namespace {

constexpr std::size_t kHeaderBytes = 740;
constexpr int kLargestWindow = 4096;  // last column and line of what counts as this format
constexpr int kLargestSide = 32768;   // pixels; windows have 16 bits with sign
constexpr std::size_t kColors = 3;
constexpr std::size_t kWritten = 4;                        // records of a line: comptab
constexpr std::size_t kLengthBytes = 2;                    // before a record
constexpr std::size_t kGammaBytes = 16, kAspectBytes = 8;  // of their texts
constexpr float kDefaultGamma = 2.2F;

struct Window {
  int left, right, bottom, top;  // inclusive

  [[nodiscard]] int width() const { return right - left + 1; }
  [[nodiscard]] int height() const { return top - bottom + 1; }
};

struct Header {
  Window active;
  float gamma, aspect;
  unsigned storage;         // 0: run-length encoded bytes or 16-bit samples
  unsigned colors, mattes;  // channels
  unsigned bits, matte_type, matte_bits;
};

struct RlaState {
  vector<std::uint32_t> offsets;  // of lines from the bottom up, bytes in the file
  std::size_t channels;           // records of a line that are read
  bool lines_descend;             // the top line is first in the file
  FileReader in;
  FileWriter out;
  Buffer record;  // reading: the bytes of a 16-bit record; writing: packets of a line
};

Window parse_window(ByteCursor& in) {
  const auto side = [&] { return int(std::int16_t(in.be16())); };
  Window window;
  window.left = side();
  window.right = side();
  window.bottom = side();
  window.top = side();
  return window;
}

// A number above 0 in a text field, as put_number writes it; 1 where there is none.
float parse_number(std::span<const std::uint8_t> field) {
  const auto* first = reinterpret_cast<const char*>(field.data());
  const auto* const end = first + field.size();
  while (first != end && *first == ' ') ++first;
  float value = 0.0F;
  const auto failure = std::from_chars(first, end, value).ec;
  return failure == std::errc{} && std::isfinite(value) && value > 0 ? value : 1.0F;
}

Header parse_header(std::span<const std::uint8_t> bytes) {
  ByteCursor in(bytes);
  in.skip(8);
  Header header{};
  header.active = parse_window(in);
  in.skip(2);  // frame
  header.storage = in.be16();
  header.colors = in.be16();
  header.mattes = in.be16();
  in.skip(4);  // auxiliary channels, revision
  header.gamma = parse_number(in.take(kGammaBytes));
  in.skip(528);  // from the primaries to the name of the aspect
  header.aspect = parse_number(in.take(kAspectBytes));
  in.skip(78);  // format of the channels, field, time, filter
  header.bits = in.be16();
  header.matte_type = in.be16();
  header.matte_bits = in.be16();
  return header;
}

// Returns 1, or 0 with the handle's error.
int check_header(img_file* handle, const Header& header) {
  if (header.colors != kColors || header.mattes > 1) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "%u color and %u matte channels are not read; 3 and up to 1 are",
                      header.colors, header.mattes);
  }
  if (header.bits != header.matte_bits || header.bits > 16) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "colors of %u bits, mattes of %u are not read; equal ones of up to 16 are",
                      header.bits, header.matte_bits);
  }
  if (header.storage != 0 || header.matte_type != 0) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "storage types %u of colors, %u of mattes are not read; 0 is", header.storage,
                      header.matte_type);
  }
  if (header.active.width() > 0 && header.active.height() > 0) return 1;
  return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "active window of width %d, height %d",
                    header.active.width(), header.active.height());
}

// The offsets of all lines.
int read_table(img_file* handle, RlaState& state) {
  const auto height = std::size_t(handle->height);
  errno = 0;
  if (state.in.left() < 4 * height) {
    return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the table of %zu lines",
                      height);
  }
  state.offsets.resize(height);
  if (!read_numbers<std::uint32_t>(state.in, state.offsets, std::endian::big)) {
    return img_error(handle, IMG_ERR_READ, errno);
  }
  const auto is_sound = [&](std::uint32_t offset) {
    return offset >= kHeaderBytes && offset < handle->file_size;
  };
  if (!std::ranges::all_of(state.offsets, is_sound)) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0,
                      "a line begins outside the file or in its header");
  }
  state.lines_descend = height > 1 && state.offsets[1] < state.offsets[0];
  return 1;
}

// Bytes that the packets of a row of so many can take at most, as this reader takes them.
std::size_t longest_record(std::size_t row_bytes) { return 2 * row_bytes; }

// The packets of the next channel; empty with the handle's error.
std::optional<std::span<const std::uint8_t>> read_record(img_file* handle, RlaState& state,
                                                         std::size_t row_bytes) {
  const auto field = state.in.take(kLengthBytes);
  if (field.empty()) {
    img_error(handle, IMG_ERR_READ, errno);
    return std::nullopt;
  }
  const std::size_t length = ByteCursor(field).be16();
  if (length > std::size_t{std::numeric_limits<std::int16_t>::max()} ||
      length > longest_record(row_bytes)) {
    img_refuse(handle, IMG_ERR_CORRUPT, 0, "a channel has %zu bytes of packets", length);
    return std::nullopt;
  }
  const auto packets = state.in.take(length);
  if (packets.size() == length) return packets;
  img_error(handle, IMG_ERR_READ, errno);
  return std::nullopt;
}

// The higher bytes of all 16-bit samples come before the lower ones.
template <typename Sample>
bool decode(RlaState& state, std::span<const std::uint8_t> packets, std::span<Sample> plane) {
  std::uint8_t* bytes = state.record.data();
  if constexpr (sizeof(Sample) == 1) bytes = plane.data();
  if (expand_signed(packets, {bytes, plane.size_bytes()}).end != RowEnd::kWhole) return false;
  if constexpr (sizeof(Sample) > 1) {
    join_bytes(bytes, plane.size(), plane.data(), plane.size());
  }
  return true;
}

void seek_line(RlaState& state, std::size_t line, std::size_t row_bytes) {
  const std::uint32_t offset = state.offsets[line];
  if (state.lines_descend) {
    state.in.seek_back(offset, state.channels * (kLengthBytes + longest_record(row_bytes)));
  } else {
    state.in.seek(offset);
  }
}

template <typename Sample>
int read_line(img_file* handle, img_line* line) {
  auto& state = state_of<RlaState>(handle);
  const auto planes = line_planes<Sample, 4>(handle, line);
  seek_line(state, std::size_t(handle->line_count), planes[0].size_bytes());
  for (std::size_t channel = 0; channel < state.channels; ++channel) {
    const auto packets = read_record(handle, state, planes[channel].size_bytes());
    if (!packets) return 0;
    if (!decode(state, *packets, planes[channel])) {
      return img_refuse(handle, IMG_ERR_CORRUPT, 0, "packets do not fill their line exactly");
    }
  }
  if (state.channels == kColors) {
    std::ranges::fill(planes[kColors], std::numeric_limits<Sample>::max());
  }
  return 1;
}

// A number with six decimals under every locale, cut to `count` characters and zeros.
void put_number(ByteWriter& out, float value, std::size_t count) {
  std::array<char, 64> text{};  // the largest float has 39 digits before the point
  std::to_chars(text.data(), text.data() + text.size() - 1, double{value}, std::chars_format::fixed,
                6);
  out.text(text.data(), count - 1);
  out.zeros(1);
}

// A text that a zero ends.
void put_text(ByteWriter& out, const char* text, std::size_t count) {
  out.text(text ? text : "", count - 1);
  out.zeros(1);
}

const char* file_name(const img_file* handle) {
  const char* const name = handle->name ? handle->name : "";
  const char* const slash = std::strrchr(name, '/');
  return slash ? slash + 1 : name;
}

void put_window(ByteWriter& out, const img_file* handle) {
  out.be16(0);
  out.be16(std::uint32_t(handle->width - 1));
  out.be16(0);
  out.be16(std::uint32_t(handle->height - 1));
}

void put_origin(ByteWriter& out, const img_file* handle) {
  std::array<char, 256> host{};
  if (gethostname(host.data(), host.size() - 1) != 0) host[0] = 0;
  std::array<char, 26> date{};  // as asctime prints it
  const time_t now = time(nullptr);
  tm local{};
  if (localtime_r(&now, &local)) asctime_r(&local, date.data());
  put_text(out, file_name(handle), 128);
  put_text(out, "picture", 128);
  put_text(out, "Brannock", 64);
  put_text(out, host.data(), 32);
  put_text(out, std::getenv("USER"), 32);
  put_text(out, date.data(), 20);
}

void write_header(const img_file* handle, FileWriter& file) {
  ByteWriter out(file.put(kHeaderBytes));
  put_window(out, handle);
  put_window(out, handle);
  out.be32(0);  // frame, storage
  out.be16(kColors);
  out.be16(1);       // matte channels
  out.be16(0);       // auxiliary channels
  out.be16(0xfffe);  // revision
  put_number(out, handle->gamma > 0 ? handle->gamma : kDefaultGamma, kGammaBytes);
  for (const char* const point :
       {"0.6700 0.3300", "0.2100 0.7100", "0.1400 0.0800", "0.3100 0.3160"}) {
    put_text(out, point, 24);  // red, green, blue, white
  }
  out.be32(0);  // job
  put_origin(out, handle);
  put_text(out, "pal_768", 24);
  put_number(out, handle->aspect, kAspectBytes);
  put_text(out, "rgb", 32);
  out.zeros(46);  // field, time, filter
  out.be16(std::uint32_t(handle->bits));
  out.be16(0);  // matte type
  out.be16(std::uint32_t(handle->bits));
  out.zeros(76);  // auxiliary channels, space, next
}

}  // namespace

int img_test_rla(img_file* /*handle*/, const std::uint8_t* head) {
  ByteCursor in({head, IMG_HEAD_SIZE});
  const Window window = parse_window(in);
  in.skip(12);  // active window, frame, storage
  const int colors = in.be16(), mattes = in.be16();
  in.skip(4);  // auxiliary channels, revision
  const int gamma = in.u8();
  const auto is_side = [](int side) { return side >= 0 && side <= kLargestWindow; };
  if (!is_side(window.left) || !is_side(window.right)) return 0;
  if (!is_side(window.bottom) || !is_side(window.top)) return 0;
  if (window.left >= window.right || window.bottom >= window.top) return 0;
  return colors <= 3 && mattes <= 1 && gamma >= ' ' && gamma <= '9';
}

int img_open_rla(img_file* handle, const std::uint8_t* /*head*/) {
  auto state = make_state<RlaState>(handle);
  state->in.start(handle, 0);
  const auto bytes = state->in.take(kHeaderBytes);
  if (bytes.empty()) return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the header");
  const Header header = parse_header(bytes);
  if (!check_header(handle, header)) return 0;
  handle->gamma = header.gamma;
  handle->aspect = header.aspect;
  handle->width = header.active.width();
  handle->height = header.active.height();
  state->channels = kColors + header.mattes;
  if (!read_table(handle, *state)) return 0;
  const bool is_deep = header.bits > 8;
  if (is_deep) state->record = Buffer(2 * std::size_t(handle->width));
  state_file_type(handle, is_deep ? IMG_TYPE_RGBA_16 : IMG_TYPE_RGBA);
  handle->data.p = state.release();
  return 1;
}

int img_create_rla(img_file* handle) {
  if (!check_sides(handle, kLargestSide)) return 0;
  auto state = make_state<RlaState>(handle);
  const auto width = std::size_t(handle->width);
  state->offsets.assign(std::size_t(handle->height), 0);
  state->record = Buffer(kWritten * (kLengthBytes + compact_bound(width, 1)));
  state->out.start(handle);
  write_header(handle, state->out);
  write_numbers(state->out, state->offsets, std::endian::big);
  if (state->out.error() != 0) return img_error(handle, IMG_ERR_WRITE, state->out.error());
  handle->data.p = state.release();
  return 1;
}

int img_read_rla(img_file* handle, img_line* line) {
  if (handle->line_count >= handle->height) return img_error(handle, IMG_ERR_READ, 0);
  return handle->bits == 8 ? read_line<std::uint8_t>(handle, line)
                           : read_line<std::uint16_t>(handle, line);
}

int img_write_rla(img_file* handle, img_line* line) {
  auto& state = state_of<RlaState>(handle);
  const std::uint64_t offset = state.out.position();
  if (offset > std::numeric_limits<std::uint32_t>::max()) {
    return img_error(handle, IMG_ERR_WRITE, EFBIG);
  }
  state.offsets[std::size_t(handle->line_count)] = std::uint32_t(offset);
  const std::span records(state.record.data(), state.record.size());
  std::size_t used = 0;
  for (const auto& plane : line_planes<std::uint8_t, kWritten>(handle, line)) {
    const std::size_t length = compact_signed(plane, records.subspan(used + kLengthBytes));
    ByteWriter(records.subspan(used)).be16(std::uint32_t(length));
    used += kLengthBytes + length;
  }
  state.out.write({reinterpret_cast<const char*>(records.data()), used});
  return state.out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, state.out.error());
}

int img_close_rla(img_file* handle) {
  const auto state = take_state<RlaState>(handle);
  if (!state || !handle->writing || handle->error) return 1;
  state->out.seek(kHeaderBytes);
  write_numbers(state->out, state->offsets, std::endian::big);
  return finish_file(handle, state->out, IMG_ERR_WRITE);
}

}  // namespace ka
