// SGI images: planes of 8- or 16-bit samples, verbatim or run-length encoded, bottom line first;
// written encoded. Layout: docs/formats.md, "SGI RGB", which is that of "The SGI Image File
// Format", version 1.00. Numbers are big-endian.
#include <errno.h>

#include <algorithm>
#include <array>
#include <limits>

#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "rle.h"
#include "rows.h"
#include "stream.h"

namespace ka {

namespace {

constexpr std::uint16_t kMagic = 474;
constexpr std::uint64_t kHeaderBytes = 512;
constexpr std::size_t kUsedBytes = 108;  // of the header; the rest is zero
constexpr std::size_t kNameBytes = 80;
constexpr std::uint32_t kNeverWritten = 0xffffffff;  // length of a row that is not in the file
constexpr int kLargestSide = 65535;
constexpr std::size_t kMaxChannels = 4;

struct Header {
  std::uint8_t storage;       // bit 0: run-length encoded
  std::uint8_t sample_bytes;  // 1 or 2
  std::uint16_t dimension;    // 1: one row, 2: one channel, 3: several channels
  std::uint16_t width, height, channels;

  [[nodiscard]] bool is_encoded() const { return (storage & 1) != 0; }
  [[nodiscard]] bool is_grey() const { return dimension < 3 || channels == 1; }
  [[nodiscard]] std::size_t row_bytes() const { return std::size_t{width} * sample_bytes; }
  [[nodiscard]] std::size_t rows() const { return std::size_t{height} * channels; }
  [[nodiscard]] std::uint64_t first_row() const { return kHeaderBytes + 8 * std::uint64_t{rows()}; }
};

// Where the encoded rows stand, [channel * height + line].
struct RowTable {
  vector<std::uint32_t> start;   // file offsets in bytes
  vector<std::uint32_t> length;  // bytes
};

struct RgbState {
  Header header;
  RowTable table;
  std::array<FileReader, kMaxChannels>
      rows;              // one for each channel, whose rows are far apart in most files
  bool rows_interleave;  // the rows of one line are together: one reader serves all
  FileWriter out;
  std::uint64_t next_row;         // file offset of the next encoded row
  Buffer packets;                 // of one row that is written
  vector<std::uint16_t> samples;  // of one row that is written from floats
};

Header parse_header(std::span<const std::uint8_t> head) {
  ByteCursor in(head);
  in.skip(2);
  Header header{};
  header.storage = in.u8();
  header.sample_bytes = in.u8();
  header.dimension = in.be16();
  header.width = in.be16();
  header.height = in.be16();
  header.channels = in.be16();
  // Files of one row or one channel need not count their channels.
  if (header.dimension < 3) header.channels = std::max(header.channels, std::uint16_t{1});
  return header;
}

// Refuses files whose rows do not cover what their pixel type needs. One channel serves for all; of
// two nobody knows which. Returns 1, or 0 with the handle's error.
int check_header(img_file* handle, const Header& header) {
  if (header.sample_bytes != 1 && header.sample_bytes != 2) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "%d bytes per sample are not read; 1 and 2 are",
                      header.sample_bytes);
  }
  if (header.dimension < 1 || header.dimension > 3) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "%d dimensions are not read; 1, 2 and 3 are",
                      header.dimension);
  }
  if (header.channels != 0 && (header.dimension != 3 || header.channels != 2)) return 1;
  return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "%d channels are not read; 1, 3 and more are",
                    header.channels);
}

int file_type_of(const Header& header) {
  const bool deep = header.sample_bytes == 2;
  if (header.channels == 4) return deep ? IMG_TYPE_RGBA_16 : IMG_TYPE_RGBA;
  return deep ? IMG_TYPE_RGB_16 : IMG_TYPE_RGB;
}

// Both tables, or false when the file does not hold them.
bool read_tables(RgbState& state) {
  const std::size_t rows = state.header.rows();
  FileReader& in = state.rows[0];
  in.seek(kHeaderBytes);
  errno = 0;
  if (in.left() < 8 * std::uint64_t{rows}) return false;
  for (auto* const table : {&state.table.start, &state.table.length}) {
    table->resize(rows);
    if (!read_numbers<std::uint32_t>(in, *table, std::endian::big)) return false;
  }
  return true;
}

void start_readers(img_file* handle, RgbState& state) {
  const std::size_t needed = counted_bound(state.header.width, state.header.sample_bytes);
  const std::size_t buffer = std::max(FileReader::kBufferSize / 2, needed);
  for (auto& reader : state.rows) reader.start(handle, kHeaderBytes, buffer);
}

std::size_t row_number(const Header& header, std::size_t line, std::size_t channel) {
  return header.dimension == 1 ? 0 : channel * header.height + line;
}

template <typename Sample>
int read_encoded(img_file* handle, FileReader& reader, std::size_t row, std::span<Sample> plane) {
  const RgbState& state = state_of<RgbState>(handle);
  const std::uint32_t length = state.table.length[row];
  if (length > counted_bound(state.header.width, sizeof(Sample))) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a row has %u bytes of packets", length);
  }
  reader.seek(state.table.start[row]);
  const auto packets = reader.take(length);
  if (packets.size() != length) return img_error(handle, IMG_ERR_READ, errno);
  if (expand_counted(packets, plane).end != RowEnd::kWhole) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "packets do not fill their row exactly");
  }
  return 1;
}

template <typename Sample>
int read_verbatim(img_file* handle, FileReader& reader, std::size_t row, std::span<Sample> plane) {
  const std::size_t bytes = plane.size_bytes();
  reader.seek(kHeaderBytes + std::uint64_t{row} * bytes);
  const auto samples = reader.take(bytes);
  if (samples.size() != bytes) return img_error(handle, IMG_ERR_READ, errno);
  split<Sample, 1>(samples.data(), {plane.data()}, plane.size(), std::endian::big);
  return 1;
}

template <typename Sample>
int getrow(img_file* handle, Sample* plane, std::size_t channel) {
  RgbState& state = state_of<RgbState>(handle);
  const std::size_t row = row_number(state.header, std::size_t(handle->line_count), channel);
  FileReader& reader = state.rows[state.rows_interleave ? 0 : channel];
  const std::span samples(plane, std::size_t(handle->width));
  return state.header.is_encoded() ? read_encoded(handle, reader, row, samples)
                                   : read_verbatim(handle, reader, row, samples);
}

// A grey file has one row for all planes.
template <typename Sample>
int read_planes(img_file* handle, img_line* line) {
  const auto components = std::size_t(handle->components);
  const bool is_grey = state_of<RgbState>(handle).header.is_grey();
  for (std::size_t channel = 0; channel < (is_grey ? 1 : components); ++channel) {
    if (!getrow(handle, plane_of<Sample>(line, channel), channel)) return 0;
  }
  for (std::size_t channel = 1; is_grey && channel < components; ++channel) {
    std::copy_n(plane_of<Sample>(line, 0), handle->width, plane_of<Sample>(line, channel));
  }
  return 1;
}

template <typename Sample>
int putrow(img_file* handle, const Sample* plane, std::size_t channel) {
  RgbState& state = state_of<RgbState>(handle);
  const std::size_t row = channel * state.header.height + std::size_t(handle->line_count);
  const std::span<const Sample> samples(plane, std::size_t(handle->width));
  const std::size_t length = compact_counted(samples, {state.packets.data(), state.packets.size()});
  if (state.next_row + length > std::numeric_limits<std::uint32_t>::max()) {
    return img_error(handle, IMG_ERR_WRITE, EFBIG);  // the tables hold 32-bit offsets
  }
  state.table.start[row] = std::uint32_t(state.next_row);
  state.table.length[row] = std::uint32_t(length);
  state.next_row += length;
  state.out.write({reinterpret_cast<const char*>(state.packets.data()), length});
  return state.out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, state.out.error());
}

// Floats are kept as 16-bit samples: 0 to 1 fill their range.
int put_float_row(img_file* handle, const float* plane, std::size_t channel) {
  auto& samples = state_of<RgbState>(handle).samples;
  for (std::size_t x = 0; x < samples.size(); ++x) {
    samples[x] =
        plane[x] > 0 ? std::uint16_t(std::min(plane[x], 1.0F) * 65535.0F) : std::uint16_t{0};
  }
  return putrow<std::uint16_t>(handle, samples.data(), channel);
}

int put_plane(img_file* handle, img_line* line, std::size_t channel) {
  switch (handle->bits) {
    case 8:
      return putrow(handle, plane_of<const std::uint8_t>(line, channel), channel);
    case 16:
      return putrow(handle, plane_of<const std::uint16_t>(line, channel), channel);
    default:
      return put_float_row(handle, plane_of<const float>(line, channel), channel);
  }
}

void write_header(const img_file* handle, RgbState& state) {
  const Header& header = state.header;
  ByteWriter out(state.out.put(kUsedBytes));
  out.be16(kMagic);
  out.u8(header.storage);
  out.u8(header.sample_bytes);
  out.be16(header.dimension);
  out.be16(header.width);
  out.be16(header.height);
  out.be16(header.channels);
  out.be32(0);                                         // smallest sample
  out.be32(header.sample_bytes == 1 ? 0xff : 0xffff);  // largest sample
  out.be32(0);
  out.text(handle->name ? handle->name : "", kNameBytes);
  out.be32(0);  // no color map
}

// Stores what was collected while the rows were written.
void img_rgb_copyout(const img_file* handle, RgbState& state) {
  state.out.seek(kHeaderBytes);
  write_numbers(state.out, state.table.start, std::endian::big);
  write_numbers(state.out, state.table.length, std::endian::big);
  state.out.seek(0);
  write_header(handle, state);
}

}  // namespace

int img_test_rgb(img_file* /*handle*/, const std::uint8_t* head) {
  return ByteCursor({head, IMG_HEAD_SIZE}).be16() == kMagic;
}

int img_open_rgb(img_file* handle, const std::uint8_t* head) {
  if (handle->file_size < std::int64_t{kUsedBytes}) {
    return img_refuse(handle, IMG_ERR_READ, 0, "the file ends in the header");
  }
  const Header header = parse_header({head, IMG_HEAD_SIZE});
  if (!check_header(handle, header)) return 0;
  auto state = make_state<RgbState>(handle);
  state->header = header;
  handle->width = header.width;
  handle->height = header.height;
  start_readers(handle, *state);
  if (header.is_encoded()) {
    if (!read_tables(*state)) {
      return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the tables of %zu rows",
                        header.rows());
    }
    const auto& start = state->table.start;
    const std::size_t next_channel = header.height;
    state->rows_interleave =
        header.height > 1 && start.size() > next_channel && start[next_channel] < start[1];
  }
  state_file_type(handle, file_type_of(header));
  handle->data.p = state.release();
  return 1;
}

int img_create_rgb(img_file* handle) {
  if (!check_sides(handle, kLargestSide)) return 0;
  auto state = make_state<RgbState>(handle);
  state->header = {.storage = 1,
                   .sample_bytes = std::uint8_t(handle->bits <= 8 ? 1 : 2),
                   .dimension = 3,
                   .width = std::uint16_t(handle->width),
                   .height = std::uint16_t(handle->height),
                   .channels = std::uint16_t(handle->components)};
  state->table.start.assign(state->header.rows(), 0);
  state->table.length.assign(state->header.rows(), kNeverWritten);
  state->packets = Buffer(counted_bound(state->header.width, state->header.sample_bytes));
  if (handle->bits > 16) state->samples.resize(state->header.width);
  state->next_row = state->header.first_row();
  state->out.start(handle);
  state->out.seek(state->next_row);
  handle->data.p = state.release();
  return 1;
}

int img_read_rgb(img_file* handle, img_line* line) {
  if (handle->line_count >= handle->height) return img_error(handle, IMG_ERR_READ, 0);
  return handle->bits == 8 ? read_planes<std::uint8_t>(handle, line)
                           : read_planes<std::uint16_t>(handle, line);
}

int img_write_rgb(img_file* handle, img_line* line) {
  for (std::size_t channel = 0; channel < std::size_t(handle->components); ++channel) {
    if (!put_plane(handle, line, channel)) return 0;
  }
  return 1;
}

int img_close_rgb(img_file* handle) {
  const auto state = take_state<RgbState>(handle);
  if (!state || !handle->writing || handle->error) return 1;
  img_rgb_copyout(handle, *state);
  return finish_file(handle, state->out, IMG_ERR_WRITE);
}

void img_header_rgb(img_file* handle, img_header* header) {
  const Header& read = state_of<RgbState>(handle).header;
  HeaderEntries out(header);
  out.choice("compression", read.storage & 1, {"none", "run-length"});
  out.numbers("sample_bytes", read.sample_bytes);
  out.numbers("dimensions", read.dimension);
  out.numbers("channels", read.channels);
  FileReader file;
  file.start(handle, 12, kUsedBytes);
  ByteCursor in(file.take(kUsedBytes - 12));
  if (in.left() == 0) return;
  const std::uint32_t least = in.be32(), most = in.be32();
  out.numbers("least_sample", least);
  out.numbers("greatest_sample", most);
  in.skip(4);
  out.field("name", in.take(kNameBytes));
  out.choice("color_map", in.be32(), {"normal", "dithered", "screen", "color map"});
}

}  // namespace ka
