// Native textures: a small header and raw interleaved samples, bottom line first. One family serves
// every pixel type of this system; a subtype code in the first byte says which. Layout:
// docs/formats.md, "Native textures". Everything is big-endian.
#include <errno.h>

#include <array>
#include <cstring>
#include <optional>

#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "rows.h"

namespace ka {

namespace {

constexpr int kLargestSide = 65535;      // what the header can hold
constexpr std::size_t kShortHeader = 4;  // of square images, read only: no height
constexpr std::size_t kHeaderBytes = 8;

struct Subtype {
  int format;
  int type;                  // of the pixels
  std::size_t header_bytes;  // kShortHeader or kHeaderBytes
  unsigned pixel_bits;
};

// Indexed by the subtype code.
constexpr std::array<Subtype, 16> kSubtypes = {{
    {IMG_FORMAT_CT, IMG_TYPE_RGBA, kShortHeader, 32},
    {IMG_FORMAT_ST, IMG_TYPE_S, kShortHeader, 8},
    {IMG_FORMAT_VT, IMG_TYPE_VTA, kShortHeader, 32},
    {IMG_FORMAT_CT, IMG_TYPE_RGBA, kHeaderBytes, 32},
    {IMG_FORMAT_ST, IMG_TYPE_S, kHeaderBytes, 8},
    {IMG_FORMAT_VT, IMG_TYPE_VTA, kHeaderBytes, 32},  // also written for wt
    {IMG_FORMAT_CT16, IMG_TYPE_RGBA_16, kHeaderBytes, 64},
    {IMG_FORMAT_ST16, IMG_TYPE_S_16, kHeaderBytes, 16},
    {IMG_FORMAT_ZT, IMG_TYPE_Z, kHeaderBytes, 32},
    {IMG_FORMAT_NT, IMG_TYPE_N, kHeaderBytes, 96},
    {IMG_FORMAT_TT, IMG_TYPE_TAG, kHeaderBytes, 32},
    {IMG_FORMAT_CTFP, IMG_TYPE_RGBA_FP, kHeaderBytes, 128},
    {IMG_FORMAT_MT, IMG_TYPE_M, kHeaderBytes, 96},
    {IMG_FORMAT_BIT, IMG_TYPE_BIT, kHeaderBytes, 1},
    {IMG_FORMAT_CTH, IMG_TYPE_RGBE, kHeaderBytes, 32},
    {IMG_FORMAT_STFP, IMG_TYPE_S_FP, kHeaderBytes, 32},
}};

struct Header {
  std::uint8_t code;
  int width, height;

  [[nodiscard]] const Subtype& subtype() const { return kSubtypes[code]; }
  [[nodiscard]] std::uint64_t line_bytes() const {
    return (std::uint64_t(width) * subtype().pixel_bits + 7) / 8;
  }
  [[nodiscard]] std::uint64_t file_bytes() const {
    return subtype().header_bytes + std::uint64_t(height) * line_bytes();
  }
};

struct CtState {
  FileReader in;
  FileWriter out;
};

std::optional<Header> parse_header(std::span<const std::uint8_t> head) {
  ByteCursor in(head);
  Header header{};
  header.code = in.u8();
  if (header.code >= kSubtypes.size() || in.u8() != 0) return std::nullopt;
  header.width = in.be16();
  header.height = header.subtype().header_bytes == kShortHeader ? header.width : in.be16();
  return header;
}

// Color and scalar textures are found under one name for their 8-bit, 16-bit and float forms.
bool is_found_as(int found, int tested) {
  switch (tested) {
    case IMG_FORMAT_CT:
      return found == IMG_FORMAT_CT || found == IMG_FORMAT_CT16 || found == IMG_FORMAT_CTFP;
    case IMG_FORMAT_ST:
      return found == IMG_FORMAT_ST || found == IMG_FORMAT_ST16;
    default:
      return found == tested;
  }
}

// The code that holds a file's pixels. Color and scalar formats store the depth that they are
// given; the exponent of shared-exponent colors is in the alpha byte.
std::optional<std::uint8_t> code_for(int format, int type) {
  int wanted = format;
  if (format == IMG_FORMAT_CT && type == IMG_TYPE_RGBA_16) wanted = IMG_FORMAT_CT16;
  if (format == IMG_FORMAT_CT && type == IMG_TYPE_RGBA_FP) wanted = IMG_FORMAT_CTFP;
  if (format == IMG_FORMAT_ST && type == IMG_TYPE_S_16) wanted = IMG_FORMAT_ST16;
  if ((format == IMG_FORMAT_ST || format == IMG_FORMAT_ST16) && type == IMG_TYPE_S_FP)
    wanted = IMG_FORMAT_STFP;
  if (format == IMG_FORMAT_WT) wanted = IMG_FORMAT_VT;
  for (std::size_t code = 0; code < kSubtypes.size(); ++code) {
    if (kSubtypes[code].format == wanted && kSubtypes[code].header_bytes == kHeaderBytes) {
      return std::uint8_t(code);
    }
  }
  return std::nullopt;
}

// The planes of a line from the first one on, as many as the type has components.
template <typename Sample, std::size_t Components>
std::array<Sample*, Components> planes_of(const img_file* handle, const img_line* line) {
  std::array<Sample*, Components> planes;
  for (std::size_t c = 0; c < Components; ++c) {
    planes[c] = plane_of<Sample>(line, first_slot(handle->file_type) + c);
  }
  return planes;
}

template <typename Sample, std::size_t Components>
bool move_samples(img_file* handle, CtState& state, const img_line* line) {
  const auto planes = planes_of<Sample, Components>(handle, line);
  const auto width = std::size_t(handle->width);
  return handle->writing ? write_row(state.out, planes, width, std::endian::big)
                         : read_row(state.in, planes, width, std::endian::big);
}

template <typename Sample>
bool move_line(img_file* handle, CtState& state, const img_line* line) {
  switch (handle->components) {
    case 1:
      return move_samples<Sample, 1>(handle, state, line);
    case 2:
      return move_samples<Sample, 2>(handle, state, line);
    case 3:
      return move_samples<Sample, 3>(handle, state, line);
    default:
      return move_samples<Sample, 4>(handle, state, line);
  }
}

// Eight pixels to a byte, in memory as in the file.
bool move_bits(img_file* handle, CtState& state, const img_line* line) {
  const std::array planes = {plane_of<std::uint8_t>(line, first_slot(IMG_TYPE_BIT))};
  const auto bytes = (std::size_t(handle->width) + 7) / 8;
  return handle->writing ? write_row(state.out, planes, bytes) : read_row(state.in, planes, bytes);
}

bool move(img_file* handle, img_line* line) {
  CtState& state = state_of<CtState>(handle);
  switch (handle->bits) {
    case 1:
      return move_bits(handle, state, line);
    case 8:
      return move_line<std::uint8_t>(handle, state, line);
    case 16:
      return move_line<std::uint16_t>(handle, state, line);
    default:
      return move_line<std::uint32_t>(handle, state, line);
  }
}

}  // namespace

int img_test_ct(img_file* handle, const std::uint8_t* head) {
  const auto header = parse_header({head, IMG_HEAD_SIZE});
  return header && is_found_as(header->subtype().format, handle->format) &&
         header->file_bytes() == std::uint64_t(handle->file_size);
}

int img_open_ct(img_file* handle, const std::uint8_t* head) {
  const auto header = parse_header({head, IMG_HEAD_SIZE});
  if (!header) return img_error(handle, IMG_ERR_SUBTYPE, 0);
  auto state = make_state<CtState>(handle);
  state->in.start(handle, header->subtype().header_bytes);
  handle->width = header->width;
  handle->height = header->height;
  state_file_type(handle, header->subtype().type);
  handle->data.p = state.release();
  return 1;
}

int img_create_ct(img_file* handle) {
  const auto code = code_for(handle->format, handle->file_type);
  if (!code) return img_error(handle, IMG_ERR_SUBTYPE, 0);
  if (!check_sides(handle, kLargestSide)) return 0;
  auto state = make_state<CtState>(handle);
  state->out.start(handle);
  ByteWriter out(state->out.put(kHeaderBytes));
  out.u8(*code);
  out.u8(0);
  out.be16(std::uint32_t(handle->width));
  out.be16(std::uint32_t(handle->height));
  out.be16(0);
  handle->data.p = state.release();
  return 1;
}

int img_read_ct(img_file* handle, img_line* line) {
  return move(handle, line) ? 1 : img_error(handle, IMG_ERR_READ, errno);
}

int img_write_ct(img_file* handle, img_line* line) {
  return move(handle, line)
             ? 1
             : img_error(handle, IMG_ERR_WRITE, state_of<CtState>(handle).out.error());
}

int img_close_ct(img_file* handle) {
  const auto state = take_state<CtState>(handle);
  return state ? finish_file(handle, state->out, IMG_ERR_WRITE) : 1;
}

void img_header_ct(img_file* handle, img_header* header) {
  FileReader in;
  in.start(handle, 0, kHeaderBytes);
  const int code = in.get();
  if (code < 0 || std::size_t(code) >= kSubtypes.size()) return;
  HeaderEntries out(header);
  out.numbers("subtype", code);
  out.numbers("header_bytes", kSubtypes[std::size_t(code)].header_bytes);
}

}  // namespace ka
