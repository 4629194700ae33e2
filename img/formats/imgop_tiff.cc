// TIFF images: one image in strips, plain or PackBits; grey, palette, RGB and RGBA. Layout:
// docs/formats.md, "TIFF", which is a part of "TIFF, Revision 6.0". Here is how a file is opened:
// its directory, and what of it can be read.
#include <errno.h>

#include <optional>

#include <ka/message.h>

#include "drivers.h"
#include "img_tiff.h"

namespace ka {

namespace {

using tiff::State;

constexpr std::uint16_t kMagic = 42;
constexpr std::size_t kEntryBytes = 12;
constexpr std::uint16_t kShort = 3;  // type of an entry whose values have 16 bits; all others: 32
constexpr std::uint32_t kNoCompression = 1, kPackBits = 32773;
constexpr std::uint32_t kTopFirst = 1, kBottomFirst = 4;  // orientations, the left column first
constexpr std::uint32_t kSeparatePlanes = 2;
constexpr std::uint32_t kIeeeFloat = 3;           // sample format
constexpr std::size_t kMostExpanded = 64;         // bytes that a byte of packets can stand for
constexpr std::size_t kHeaderBuffer = 16 * 1024;  // bytes

enum Tag : std::uint16_t {
  kImageWidth = 256,
  kImageLength = 257,
  kBitsPerSample = 258,
  kCompression = 259,
  kPhotometric = 262,
  kStripOffsets = 273,
  kOrientation = 274,
  kSamplesPerPixel = 277,
  kRowsPerStrip = 278,
  kStripByteCounts = 279,
  kPlanarConfiguration = 284,
  kColorMap = 320,
  kTileWidth = 322,
  kTileByteCounts = 325,
  kSampleFormat = 339
};

// An entry of the directory: values of 16 or 32 bits, which stand in it where four bytes hold them
// all, else at a file offset.
struct Entry {
  std::uint16_t tag, type;
  std::uint32_t count;  // 0: not there
  std::array<std::uint8_t, 4> field;

  [[nodiscard]] std::size_t value_bytes() const { return type == kShort ? 2 : 4; }
  [[nodiscard]] std::uint64_t bytes() const { return std::uint64_t{count} * value_bytes(); }
};

// The sides of the picture go to the handle, whose errors tell them; those that pass an int are
// negative there.
struct Directory {
  std::uint32_t components = 1;
  bool is_compressed;
  bool is_planar;
  std::uint32_t photometric = tiff::kRgb;
  std::uint32_t rows_per_strip = 0xffffffff;  // all in one strip
  std::uint32_t strips;                       // 0: no table of them yet
  Entry sample_bits, sample_format, offsets, byte_counts, color_map;
};

// What a file says, in its own byte order.
struct Source {
  img_file* handle;
  FileReader in;
  std::endian order;

  std::uint16_t u16(ByteCursor& bytes) const {
    return order == std::endian::big ? bytes.be16() : bytes.le16();
  }
  std::uint32_t u32(ByteCursor& bytes) const {
    return order == std::endian::big ? bytes.be32() : bytes.le32();
  }
  std::uint32_t value(ByteCursor& bytes, const Entry& entry) const {
    return entry.type == kShort ? u16(bytes) : u32(bytes);
  }
  // The one value of an entry, or the offset of several.
  [[nodiscard]] std::uint32_t number(const Entry& entry) const {
    ByteCursor field(entry.field);
    return value(field, entry);
  }
  [[nodiscard]] std::uint32_t offset(const Entry& entry) const {
    ByteCursor field(entry.field);
    return u32(field);
  }

  [[nodiscard]] int short_read() const { return img_error(handle, IMG_ERR_READ, errno); }
  [[nodiscard]] int refuse() const { return img_error(handle, IMG_ERR_SUBTYPE, 0); }
};

// The next entry of the directory; empty when the file ends.
std::optional<Entry> take_entry(Source& file) {
  const auto bytes = file.in.take(kEntryBytes);
  if (bytes.empty()) return std::nullopt;
  ByteCursor in(bytes);
  Entry entry;
  entry.tag = file.u16(in);
  entry.type = file.u16(in);
  entry.count = file.u32(in);
  std::ranges::copy(in.take(entry.field.size()), entry.field.begin());
  return entry;
}

// Whether the file holds the values of an entry. Nothing is allocated for those that it lacks.
bool holds(Source& file, const Entry& entry) {
  if (entry.bytes() <= entry.field.size()) return true;
  file.in.seek(file.offset(entry));
  errno = 0;
  return entry.bytes() <= file.in.left();
}

// Reads the first values of an entry that has as many. False when the file ends before.
bool read_values(Source& file, const Entry& entry, std::span<std::uint32_t> values) {
  ByteCursor field(entry.field);
  if (!holds(file, entry)) return false;
  for (std::uint32_t& value : values) {
    if (entry.bytes() > entry.field.size()) {
      const auto bytes = file.in.take(entry.value_bytes());
      if (bytes.empty()) return false;
      field = ByteCursor(bytes);
    }
    value = file.value(field, entry);
  }
  return true;
}

int note_compression(const Source& file, std::uint32_t compression, Directory& directory) {
  directory.is_compressed = compression == kPackBits;
  if (directory.is_compressed || compression == kNoCompression) return 1;
  ka_debug("%s: unsupported compression %u", file.handle->display_name, compression);
  return file.refuse();
}

int note_orientation(const Source& file, std::uint32_t orientation) {
  file.handle->topdown = orientation == kTopFirst;
  if (orientation == kTopFirst || orientation == kBottomFirst) return 1;
  ka_debug("%s: unsupported orientation  %d", file.handle->display_name, int(orientation));
  return file.refuse();
}

// Both tables of strips have an entry for each.
int note_strips(const Source& file, const Entry& entry, Directory& directory) {
  if (directory.strips != 0 && directory.strips != entry.count) {
    return img_error(file.handle, IMG_ERR_CORRUPT, 0);
  }
  directory.strips = entry.count;
  (entry.tag == kStripOffsets ? directory.offsets : directory.byte_counts) = entry;
  return 1;
}

int refuse_format_count(const Source& file, std::uint32_t count) {
  ka_debug("%s: unsupported number of sampleformat values:  %d", file.handle->display_name,
           int(count));
  return file.refuse();
}

int note_entry(const Source& file, const Entry& entry, Directory& directory) {
  const std::uint32_t number = file.number(entry);
  switch (entry.tag) {
    case kImageWidth:
      file.handle->width = int(number);
      return 1;
    case kImageLength:
      file.handle->height = int(number);
      return 1;
    case kBitsPerSample:
      directory.sample_bits = entry;
      return 1;
    case kCompression:
      return note_compression(file, number, directory);
    case kPhotometric:
      directory.photometric = number;
      return 1;
    case kStripOffsets:
    case kStripByteCounts:
      return note_strips(file, entry, directory);
    case kOrientation:
      return note_orientation(file, number);
    case kSamplesPerPixel:
      directory.components = number;
      return 1;
    case kRowsPerStrip:
      directory.rows_per_strip = number;
      return 1;
    case kPlanarConfiguration:
      directory.is_planar = number == kSeparatePlanes;
      return 1;
    case kColorMap:
      directory.color_map = entry;
      return 1;
    case kSampleFormat:
      directory.sample_format = entry;
      return entry.count < 2 ? refuse_format_count(file, entry.count) : 1;
    default:
      return entry.tag < kTileWidth || entry.tag > kTileByteCounts ? 1 : file.refuse();
  }
}

int read_directory(Source& file, std::uint32_t offset, Directory& directory) {
  file.in.seek(offset);
  const auto bytes = file.in.take(2);
  if (bytes.empty()) return file.short_read();
  ByteCursor in(bytes);
  for (int entries = file.u16(in); entries > 0; --entries) {
    const auto entry = take_entry(file);
    if (!entry) return file.short_read();
    if (!note_entry(file, *entry, directory)) return 0;
  }
  return 1;
}

// The values of all components, which need not be there. Empty when the file lacks them.
using ComponentValues = std::array<std::uint32_t, 4>;
std::optional<ComponentValues> component_values(Source& file, const Entry& entry,
                                                std::size_t components) {
  ComponentValues values{};
  if (!read_values(file, entry, std::span(values).first(components))) return std::nullopt;
  return values;
}

bool are_equal(const ComponentValues& values, std::size_t components) {
  return std::all_of(values.begin(), values.begin() + std::ptrdiff_t(components),
                     [&](std::uint32_t value) { return value == values[0]; });
}

// The bits of each sample. Different ones are told as an error, and the first goes for all.
int read_sample_bits(Source& file, const Directory& directory, State& state) {
  const Entry& entry = directory.sample_bits;
  state.sample_bits = entry.count == 0 ? 1 : file.number(entry);
  if (entry.count <= 1) return 1;
  if (entry.count < state.components) return file.refuse();
  const auto bits = component_values(file, entry, state.components);
  if (!bits) return file.short_read();
  if (!are_equal(*bits, state.components)) img_error(file.handle, IMG_ERR_SUBTYPE, 0);
  state.sample_bits = (*bits)[0];
  return 1;
}

bool is_supported(const State& state) {
  const std::size_t bits = state.sample_bits;
  switch (state.photometric) {
    case tiff::kRgb:
      return bits == 8 || bits == 16 || bits == 32;
    case tiff::kPalette:
      return bits == 4 || bits == 8;
    default:
      return bits == 1 || bits == 4 || bits == 8;
  }
}

// What a pixel is.
int read_layout(Source& file, const Directory& directory, State& state) {
  const bool is_rgb = directory.photometric == tiff::kRgb;
  const std::uint32_t components = directory.components;
  if (directory.photometric > tiff::kPalette) return file.refuse();
  if (is_rgb ? components != 3 && components != 4 : components != 1) return file.refuse();
  state.photometric = directory.photometric;
  state.components = components;
  if (!read_sample_bits(file, directory, state)) return 0;
  if (!is_supported(state)) return file.refuse();
  if (file.handle->width <= 0 || file.handle->height <= 0) return file.refuse();
  state.is_planar = directory.is_planar && components > 1;
  const std::uint64_t row_samples =
      std::uint64_t(file.handle->width) * (state.is_planar ? 1 : components);
  state.row_bytes = (row_samples * state.sample_bits + 7) / 8;
  return 1;
}

// Colours of 16 bits, of which the high bytes are kept: all reds, all greens, all blues.
int read_color_map(Source& file, const Directory& directory, State& state) {
  constexpr std::size_t most_entries = 3 * 256;
  const std::size_t colors = std::size_t{1} << state.sample_bits;
  std::array<std::uint32_t, most_entries> map;
  if (directory.color_map.count < 3 * colors) return img_error(file.handle, IMG_ERR_CORRUPT, 0);
  if (!read_values(file, directory.color_map, std::span(map).first(3 * colors))) {
    return file.short_read();
  }
  const auto sample = [&](std::size_t i) { return std::uint8_t(map[i] >> 8); };
  for (std::size_t i = 0; i < colors; ++i) {
    state.palette.set(i, {sample(i), sample(colors + i), sample(2 * colors + i), 255});
  }
  return 1;
}

int check_sample_format(Source& file, const Directory& directory, const State& state) {
  const Entry& entry = directory.sample_format;
  if (entry.count == 0) return state.sample_bits > 16 ? file.refuse() : 1;
  if (entry.count < state.components) return refuse_format_count(file, entry.count);
  const auto formats = component_values(file, entry, state.components);
  if (!formats) return file.short_read();
  if (!are_equal(*formats, state.components)) {
    ka_debug("%s: different sampleformat values per sample not supported",
             file.handle->display_name);
    return file.refuse();
  }
  if (state.sample_bits == 32 && (*formats)[0] != kIeeeFloat) {
    ka_debug("%s: non-float 32 bit format not supported", file.handle->display_name);
    return file.refuse();
  }
  return 1;
}

// The strips of one plane follow those of another. A single strip holds all rows whatever the file
// says about them. A table of byte counts has to be whole where there is one; strips end with their rows.
int read_strips(Source& file, const Directory& directory, State& state) {
  const std::uint32_t strips = directory.strips, rows = directory.rows_per_strip;
  const std::size_t planes = state.is_planar ? state.components : 1;
  const auto height = std::uint64_t(file.handle->height);
  const std::uint64_t needed = rows == 0 ? 0 : (height + rows - 1) / rows;
  if (directory.offsets.count == 0) return img_error(file.handle, IMG_ERR_CORRUPT, 0);
  if (state.is_planar ? strips != planes && strips != planes * needed
                      : strips > 1 && (rows == 0 || strips < needed)) {
    return img_error(file.handle, state.is_planar ? IMG_ERR_SUBTYPE : IMG_ERR_CORRUPT, 0);
  }
  if (!holds(file, directory.byte_counts) || !holds(file, directory.offsets)) {
    return file.short_read();
  }
  state.strips.offset.resize(strips);
  state.strips.per_plane = strips / planes;
  state.strips.rows = rows;
  return read_values(file, directory.offsets, state.strips.offset) ? 1 : file.short_read();
}

int file_type_of(const State& state) {
  const bool has_alpha = state.components == 4;
  if (state.sample_bits == 32) return has_alpha ? IMG_TYPE_RGBA_FP : IMG_TYPE_RGB_FP;
  if (state.sample_bits == 16) return has_alpha ? IMG_TYPE_RGBA_16 : IMG_TYPE_RGB_16;
  return has_alpha ? IMG_TYPE_RGBA : IMG_TYPE_RGB;
}

void start_planes(img_file* handle, State& state) {
  if (state.is_compressed) state.row = Buffer(state.row_bytes);
  const std::size_t usual = state.is_planar ? FileReader::kBufferSize / 2 : FileReader::kBufferSize;
  const std::size_t buffer = state.is_compressed ? usual : std::max(usual, state.row_bytes);
  for (std::size_t c = 0; c < (state.is_planar ? state.components : 1); ++c) {
    state.planes[c].in.start(handle, 0, buffer);
  }
}

}  // namespace

int img_test_tiff(img_file* /*handle*/, const std::uint8_t* head) {
  const bool has_order = (head[0] == 'I' && head[1] == 'I') || (head[0] == 'M' && head[1] == 'M');
  ByteCursor little({head + 2, 2}), big({head + 2, 2});
  return has_order && (little.le16() == kMagic || big.be16() == kMagic);
}

int img_open_tiff(img_file* handle, const std::uint8_t* head) {
  auto state = make_state<State>(handle);
  Source file{handle, {}, head[0] == 'I' ? std::endian::little : std::endian::big};
  file.in.start(handle, 0, kHeaderBuffer);
  ByteCursor header({head, IMG_HEAD_SIZE});
  header.skip(4);
  Directory directory{};
  if (!read_directory(file, file.u32(header), directory)) return 0;
  state->order = file.order;
  state->is_compressed = directory.is_compressed;
  if (!read_layout(file, directory, *state)) return 0;
  if (state->photometric == tiff::kPalette && !read_color_map(file, directory, *state)) return 0;
  if (!check_sample_format(file, directory, *state)) return 0;
  if (!read_strips(file, directory, *state)) return 0;
  // Not even the first row can be there: no memory is asked for it.
  const auto most = checked_product(handle->file_size, kMostExpanded);
  if (state->is_compressed && most && state->row_bytes > *most) {
    return img_error(handle, IMG_ERR_READ, 0);
  }
  start_planes(handle, *state);
  state_file_type(handle, file_type_of(*state));
  handle->data.p = state.release();
  return 1;
}

}  // namespace ka
