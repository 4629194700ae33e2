// Radiance pictures: a text header, then run-length encoded scanlines of shared-exponent colors.
// Layout: docs/formats.md, "Radiance HDR", which is that of "The RADIANCE Picture File Format" with
// the scanlines of its newer encoding, of any width.
#include <errno.h>

#include <algorithm>
#include <string_view>

#include <ka/imgheader.h>
#include <ka/version.h>

#include "driver.h"
#include "drivers.h"
#include "rle.h"
#include "textreader.h"

namespace ka {

namespace {

using namespace std::string_view_literals;

constexpr auto kMagic = "#?RADIANCE\n"sv;
constexpr auto kOlderMagic = "#?LUMORA - HDR image created by Lumora\n"sv;
constexpr auto kEncoding = "FORMAT=32-bit_rle_rgbe"sv;
constexpr std::size_t kTestedBytes = 1024;  // where the last header line that is checked starts
constexpr std::size_t kLongestLine = 1023;  // characters
constexpr std::size_t kLongestResolution = 127;  // characters
constexpr std::size_t kPlanes = 4;
constexpr int kLargestWidth = 65535;  // what a scanline can tell
constexpr std::uint8_t kMark = 2;     // the first two bytes of a scanline
constexpr std::size_t kScanlineHeader = 4;

struct Resolution {
  int width = 0, height = 0;
  bool topdown = true;
  bool mirrored = true;  // pixels come from right to left
};

struct HdrState {
  bool mirrored;
  FileReader scanlines;
  FileWriter out;
  Buffer packets;  // of one plane that is written
};

bool names_encoding(std::string_view line) {
  skip_blanks(line, " \t");
  return line.starts_with(kEncoding);
}

// Moves after the first empty line; false when there is none.
bool skip_header(FileReader& in) {
  int c = 0;
  while (c != '\n' && c != FileReader::kEnd) c = skip_line(in) ? in.get() : FileReader::kEnd;
  return c == '\n';
}

// Signs and axes represent the numbers after them; an axis that is left out is the other one. A
// number that does not fit an int counts as 0.
Resolution parse_resolution(std::string_view line) {
  Resolution resolution;
  bool is_negative = false, is_y = false;
  while (!line.empty()) {
    if (const auto number = take_decimal(line)) {
      (is_y ? resolution.height : resolution.width) = number->fits() ? number->value() : 0;
      (is_y ? resolution.topdown : resolution.mirrored) = is_negative;
      is_y = !is_y;
      continue;
    }
    const char c = line.front();
    if (c == '+' || c == '-') is_negative = c == '-';
    if (c == 'x' || c == 'X' || c == 'y' || c == 'Y') is_y = c == 'y' || c == 'Y';
    line.remove_prefix(1);
  }
  return resolution;
}

int failed_line(img_file* handle, const char* reason, int code, int failure = 0) {
  ka_debug("img_read_hdr: %s", reason);
  return img_refuse(handle, code, failure, "%s",
                    code == IMG_ERR_SIZE ? "the file ends in the line" : reason);
}

int read_scanline_header(img_file* handle, FileReader& in) {
  const auto header = in.take(kScanlineHeader);
  if (header.empty()) return failed_line(handle, "EOF", IMG_ERR_SIZE, errno);
  ByteCursor bytes(header);
  if (bytes.u8() != kMark || bytes.u8() != kMark) {
    return failed_line(handle, "line doesn't begin with 2 2", IMG_ERR_CORRUPT);
  }
  if (bytes.be16() != handle->width) {
    return failed_line(handle, "wrong line header length", IMG_ERR_CORRUPT);
  }
  return 1;
}

// Packets without bytes do not count in the bound. A plane may have some, up to the size of the
// reader's buffer.
int read_plane(img_file* handle, FileReader& in, std::span<std::uint8_t> plane) {
  const std::size_t usual = scanline_bound(plane.size());
  for (const std::size_t most : {usual, FileReader::kBufferSize}) {
    const auto packets = in.ahead(most);
    const int failure = errno;
    const auto [end, used, filled] = expand_scanline(packets, plane);
    if (end == RowEnd::kWhole) {
      (void)in.take(used);
      return 1;
    }
    if (end == RowEnd::kCorrupt) {
      return failed_line(handle, "scanline too long", IMG_ERR_CORRUPT);
    }
    if (packets.size() < most) return failed_line(handle, "EOF", IMG_ERR_SIZE, failure);
  }
  return failed_line(handle, "wrong line length after RLE", IMG_ERR_CORRUPT);
}

void write_scanline_header(const img_file* handle, FileWriter& out) {
  ByteWriter bytes(out.put(kScanlineHeader));
  bytes.u8(kMark);
  bytes.u8(kMark);
  bytes.be16(std::uint32_t(handle->width));
}

// "EXPOSURE=2" has its own name; most other lines are the commands that made the picture.
void put_variable(HeaderEntries& out, std::string_view line) {
  std::array<char, 64> name{};
  const std::size_t end = line.find('=');
  if (line.starts_with('#')) {
    out.text("comment", line.substr(1));
  } else if (end == 0 || end >= name.size()) {
    out.text("command", line);
  } else {
    std::ranges::copy(line.substr(0, end), name.begin());
    out.text(name.data(), line.substr(end + 1));
  }
}

}  // namespace

int img_test_hdr(img_file* handle, const std::uint8_t* head) {
  if (!as_text({head, IMG_HEAD_SIZE}).starts_with("#?")) return 0;
  FileReader in;
  in.start(handle, 0, kTestedBytes + kLongestLine);
  const std::string_view text = as_text(in.ahead(kTestedBytes + kLongestLine));
  std::string_view rest = text;
  const std::string_view magic = take_line(rest);
  if (magic != kMagic && magic != kOlderMagic) return 0;
  while (!rest.empty() && text.size() - rest.size() <= kTestedBytes) {
    const std::string_view line = take_line(rest);
    if (line == "\n") return 0;
    if (names_encoding(line)) return 1;
  }
  return 0;
}

int img_open_hdr(img_file* handle, const std::uint8_t* /*head*/) {
  auto state = make_state<HdrState>(handle);
  FileReader& in = state->scanlines;
  in.start(handle, 0);
  if (!skip_header(in)) {
    return img_refuse(handle, IMG_ERR_SIZE, errno, "the header has no empty line at its end");
  }
  const std::string_view line = read_text(in, kLongestResolution);
  if (line.empty()) {
    return img_refuse(handle, IMG_ERR_SIZE, errno, "the file ends before its width and height");
  }
  const Resolution resolution = parse_resolution(line);
  handle->width = resolution.width;
  handle->height = resolution.height;
  handle->topdown = resolution.topdown;
  if (resolution.width <= 0 || resolution.height <= 0 || resolution.width > kLargestWidth) {
    ka_debug("img_open_hdr: bad resolution line");
    return img_refuse(handle, IMG_ERR_CORRUPT, 0,
                      "width %d, height %d; widths of 1 to %d and heights above 0 are read",
                      resolution.width, resolution.height, kLargestWidth);
  }
  state->mirrored = resolution.mirrored;
  handle->data.p = state.release();
  return 1;
}

int img_create_hdr(img_file* handle) {
  if (handle->width > kLargestWidth) return img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  auto state = make_state<HdrState>(handle);
  state->packets = Buffer(scanline_bound(std::size_t(handle->width)));
  state->out.start(handle);
  std::array<char, 256> header;
  const int length = std::snprintf(
      header.data(), header.size(),
      "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\nSOFTWARE=Lumora version %s %s\n\n-Y %d +X %d\n",
      ka_lumoralib_version(), ka_lumoralib_date(), handle->height, handle->width);
  state->out.write({header.data(), std::size_t(length)});
  handle->data.p = state.release();
  return 1;
}

int img_read_hdr(img_file* handle, img_line* line) {
  auto& state = state_of<HdrState>(handle);
  if (!read_scanline_header(handle, state.scanlines)) return 0;
  for (const auto plane : line_planes<std::uint8_t, kPlanes>(handle, line)) {
    if (!read_plane(handle, state.scanlines, plane)) return 0;
    if (state.mirrored) std::ranges::reverse(plane);
  }
  return 1;
}

int img_write_hdr(img_file* handle, img_line* line) {
  auto& state = state_of<HdrState>(handle);
  write_scanline_header(handle, state.out);
  for (const auto plane : line_planes<std::uint8_t, kPlanes>(handle, line)) {
    const std::size_t bytes = compact_scanline(plane, {state.packets.data(), state.packets.size()});
    state.out.write({reinterpret_cast<const char*>(state.packets.data()), bytes});
  }
  return state.out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, state.out.error());
}

int img_close_hdr(img_file* handle) {
  const auto state = take_state<HdrState>(handle);
  return state ? finish_file(handle, state->out, IMG_ERR_WRITE) : 1;
}

void img_header_hdr(img_file* handle, img_header* header) {
  FileReader in;
  in.start(handle, 0, FileReader::kBufferSize / 16);
  HeaderEntries out(header);
  bool is_start = true, is_first = true;
  for (auto line = read_text(in, kLongestLine); !line.empty() && line != "\n";
       line = read_text(in, kLongestLine)) {
    const std::string_view text = line.substr(0, line.find('\n'));
    if (is_start && is_first) out.text("magic", text);
    if (is_start && !is_first) put_variable(out, text);
    is_start = text.size() < line.size();  // the rest of a long line is left out
    is_first = false;
  }
  const std::string_view axes = read_text(in, kLongestResolution);
  if (!axes.empty()) out.text("axes", axes.substr(0, axes.find('\n')));
}

}  // namespace ka
