// BMP images: 1, 4 and 8 bits through a palette, 24 and 32 bits, uncompressed, bottom line first;
// written with 24 or 32 bits. Layout: docs/formats.md, "BMP", which is that of the Windows and OS/2
// bitmap headers of 40 and 12 bytes. Numbers are little-endian.
#include <errno.h>

#include <limits>

#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "palette.h"
#include "rows.h"

namespace ka {

namespace {

constexpr std::size_t kFileHeader = 14;  // bytes
constexpr std::uint32_t kCoreHeader = 12, kInfoHeader = 40;
constexpr std::size_t kWrittenHeader = kFileHeader + kInfoHeader;
constexpr std::uint32_t kUncompressed = 0;
constexpr std::uint8_t kOpaque = 255;
constexpr std::size_t kUsedColors = 256;  // of a palette: more have no index

struct Header {
  std::uint32_t bytes;  // of the header that follows the file header
  std::int32_t width, height;
  std::uint16_t bits;  // of a pixel
  std::uint32_t compression;
  std::uint32_t colors;  // of the palette

  [[nodiscard]] bool has_palette() const { return bits < 24; }
  [[nodiscard]] std::size_t color_bytes() const { return bytes == kCoreHeader ? 3 : 4; }
  [[nodiscard]] std::uint64_t palette_offset() const { return kFileHeader + bytes; }
  [[nodiscard]] std::uint64_t pixel_offset() const {
    return palette_offset() + std::uint64_t{colors} * color_bytes();
  }
};

struct BmpState {
  Header header;
  std::uint64_t row_bytes;  // padding included
  Palette palette;
  FileReader rows;
  FileWriter out;
};

// Rows take whole words of four bytes.
std::uint64_t padded_row(std::uint64_t width, std::uint64_t bits) {
  return (width * bits + 31) / 32 * 4;
}

// Fields that a header of 12 bytes lacks are 0. Of one of another size only that size is read.
Header parse_header(std::span<const std::uint8_t> head) {
  ByteCursor in(head);
  in.skip(kFileHeader);
  Header header{};
  header.bytes = in.le32();
  if (header.bytes == kCoreHeader) {
    header.width = in.le16();
    header.height = in.le16();
    in.skip(2);  // planes
    header.bits = in.le16();
  } else if (header.bytes == kInfoHeader) {
    header.width = std::int32_t(in.le32());
    header.height = std::int32_t(in.le32());
    in.skip(2);
    header.bits = in.le16();
    header.compression = in.le32();
    in.skip(12);  // bytes of the rows, resolution
    header.colors = in.le32();
  } else {
    return header;
  }
  if (!header.has_palette()) header.colors = 0;
  if (header.has_palette() && header.colors == 0) header.colors = std::uint32_t{1} << header.bits;
  return header;
}

// Returns 1, or 0 with the handle's error.
int check_header(img_file* handle, const Header& header) {
  const int bits = header.bits;
  if (header.compression != kUncompressed) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "compression %u is not read; 0 (none) is",
                      header.compression);
  }
  if (header.width <= 0 || header.height <= 0) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0, "width %d, height %d; sides above 0 are read",
                      header.width, header.height);
  }
  if (bits == 1 || bits == 4 || bits == 8 || bits == 24 || bits == 32) return 1;
  return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                    "%d bits per pixel are not read; 1, 4, 8, 24 and 32 are", bits);
}

// Reads the palette, which may not reach past the end of the file.
bool read_palette(BmpState& state) {
  const Header& header = state.header;
  errno = 0;
  if (state.rows.left() < header.pixel_offset() - header.palette_offset()) return false;
  for (std::size_t i = 0; i < std::min<std::size_t>(header.colors, kUsedColors); ++i) {
    const auto color = state.rows.take(header.color_bytes());
    if (color.empty()) return false;
    state.palette.set(i, {color[2], color[1], color[0], kOpaque});
  }
  return true;
}

// The stored pixels of the current line.
std::span<const std::uint8_t> read_row(img_file* handle, BmpState& state) {
  const auto before = checked_product(handle->line_count, state.row_bytes);
  errno = 0;
  if (!before || *before > std::uint64_t(handle->file_size)) return {};
  state.rows.seek(state.header.pixel_offset() + *before);
  return state.rows.take(state.row_bytes);
}

template <typename Planes>
int write_row(img_file* handle, BmpState& state, const Planes& planes) {
  const auto width = std::size_t(handle->width);
  if (write_row(state.out, planes, width, std::endian::little)) {
    const auto padding = state.out.put(state.row_bytes - planes.size() * width);
    std::ranges::fill(padding, std::uint8_t{0});
  }
  return state.out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, state.out.error());
}

}  // namespace

int img_test_bmp(img_file* /*handle*/, const std::uint8_t* head) {
  return head[0] == 'B' && head[1] == 'M';
}

int img_open_bmp(img_file* handle, const std::uint8_t* head) {
  const auto size = std::size_t(std::min<std::int64_t>(handle->file_size, IMG_HEAD_SIZE));
  const Header header = parse_header({head, IMG_HEAD_SIZE});
  const bool is_known = header.bytes == kCoreHeader || header.bytes == kInfoHeader;
  if (size < kFileHeader + sizeof header.bytes || (is_known && size < header.palette_offset())) {
    return img_refuse(handle, IMG_ERR_READ, 0, "the file ends in the header");
  }
  if (!is_known) {
    return img_refuse(handle, IMG_ERR_SUBTYPE, 0,
                      "a header of %u bytes is not read; those of 12 and 40 are", header.bytes);
  }
  if (!check_header(handle, header)) return 0;
  auto state = make_state<BmpState>(handle);
  state->header = header;
  state->row_bytes = padded_row(std::uint64_t(header.width), header.bits);
  handle->width = header.width;
  handle->height = header.height;
  state->rows.start(handle, header.palette_offset(),
                    std::max<std::size_t>(FileReader::kBufferSize, state->row_bytes));
  if (!read_palette(*state)) {
    return img_refuse(handle, IMG_ERR_READ, errno, "the file ends in the palette of %u colors",
                      header.colors);
  }
  note_line_bytes(handle, state->row_bytes, std::uint64_t(handle->file_size));
  handle->data.p = state.release();
  return 1;
}

int img_create_bmp(img_file* handle) {
  const auto components = std::uint32_t(handle->components);
  const std::uint64_t row_bytes = padded_row(std::uint64_t(handle->width), 8 * components);
  const auto bytes = checked_product(row_bytes, handle->height);
  if (!bytes || *bytes > std::numeric_limits<std::uint32_t>::max() - kWrittenHeader) {
    return img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  }
  auto state = make_state<BmpState>(handle);
  state->row_bytes = row_bytes;
  state->out.start(handle);
  ByteWriter out(state->out.put(kWrittenHeader));
  out.text("BM", 2);
  out.le32(std::uint32_t(kWrittenHeader + *bytes));
  out.le32(0);
  out.le32(kWrittenHeader);  // where the rows begin
  out.le32(kInfoHeader);
  out.le32(std::uint32_t(handle->width));
  out.le32(std::uint32_t(handle->height));
  out.le16(1);  // planes
  out.le16(8 * components);
  out.le32(kUncompressed);
  out.le32(std::uint32_t(*bytes));
  out.zeros(16);  // resolution, no palette
  handle->data.p = state.release();
  return 1;
}

int img_read_bmp(img_file* handle, img_line* line) {
  auto& state = state_of<BmpState>(handle);
  if (handle->lacks_lines || handle->line_count >= handle->height) {
    return img_error(handle, IMG_ERR_READ, 0);
  }
  const auto row = read_row(handle, state);
  if (row.empty()) return img_error(handle, IMG_ERR_READ, errno);
  const auto planes = plane_pointers<std::uint8_t, 4>(line);
  const auto [r, g, b, a] = planes;
  const auto width = std::size_t(handle->width);
  if (state.header.has_palette()) {
    if (state.palette.look_up(row.data(), state.header.bits, width, planes)) return 1;
    return img_refuse(handle, IMG_ERR_CORRUPT, 0, "a pixel outside the palette of %u colors",
                      state.header.colors);
  }
  if (state.header.bits == 32) {
    split<std::uint8_t, 4>(row.data(), {b, g, r, a}, width);
  } else {
    split<std::uint8_t, 3>(row.data(), {b, g, r}, width);
    std::fill_n(a, width, kOpaque);
  }
  return 1;
}

int img_write_bmp(img_file* handle, img_line* line) {
  auto& state = state_of<BmpState>(handle);
  const auto [r, g, b, a] = plane_pointers<std::uint8_t, 4>(line);
  return handle->components == 4 ? write_row(handle, state, std::array{b, g, r, a})
                                 : write_row(handle, state, std::array{b, g, r});
}

int img_close_bmp(img_file* handle) {
  const auto state = take_state<BmpState>(handle);
  return state ? finish_file(handle, state->out, IMG_ERR_WRITE) : 1;
}

void img_header_bmp(img_file* handle, img_header* header) {
  const Header& read = state_of<BmpState>(handle).header;
  HeaderEntries out(header);
  out.numbers("header_bytes", read.bytes);
  out.numbers("pixel_bits", read.bits);
  out.text("compression", "none");
  if (read.has_palette()) out.numbers("palette_colors", read.colors);
  FileReader file;
  file.start(handle, kFileHeader + 24, kInfoHeader);
  ByteCursor in(file.take(8));
  const std::uint32_t x = in.le32(), y = in.le32();
  if (in && read.bytes == kInfoHeader) out.numbers("pixels_per_meter", x, y);
}

}  // namespace ka
