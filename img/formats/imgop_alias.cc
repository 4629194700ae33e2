// Alias pix images: a 10-byte header, then run-length packets of 24-bit pixels, top line first.
// Layout: docs/formats.md, "Alias pix". Numbers are big-endian.
#include <errno.h>

#include <algorithm>
#include <optional>

#include <ka/imgbytes.h>
#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"
#include "rle.h"
#include "stream.h"

namespace ka {

namespace {

constexpr std::size_t kHeaderBytes = 10;
constexpr int kLargestSide = 4095;    // pixels, of a file that is read
constexpr int kLargestField = 65535;  // what the header can hold
constexpr std::size_t kLongestRun = 255;

struct Size {
  int width, height;  // pixels, lines
};

struct AliasState {
  FileReader packets;  // of a file that is read
  FileWriter out;      // of a file that is written
};

std::optional<Size> parse_header(std::span<const std::uint8_t> head) {
  ByteCursor in(head);
  const Size size{in.be16(), in.be16()};
  const int x = in.be16(), y = in.be16(), bits = in.be16();
  const auto is_side = [](int side) { return side >= 1 && side <= kLargestSide; };
  if (!is_side(size.width) || !is_side(size.height)) return std::nullopt;
  if (x > kLargestSide || y > kLargestSide || (bits != 24 && bits != 32)) return std::nullopt;
  return size;
}

// The longest stretch of equal pixels at the front of the planes that one packet holds.
std::size_t run_length(std::span<const std::uint8_t> red, std::span<const std::uint8_t> green,
                       std::span<const std::uint8_t> blue) {
  const std::size_t longest = std::min(red.size(), kLongestRun);
  std::size_t length = 1;
  while (length < longest && red[length] == red[0] && green[length] == green[0] &&
         blue[length] == blue[0]) {
    ++length;
  }
  return length;
}

// Hands the packets that are still here to the system.
int img_alias_copyout(img_file* handle, AliasState& state) {
  return finish_file(handle, state.out, IMG_ERR_WRITE);
}

}  // namespace

int img_test_alias(img_file* /*handle*/, const std::uint8_t* head) {
  return parse_header({head, IMG_HEAD_SIZE}).has_value();
}

int img_open_alias(img_file* handle, const std::uint8_t* head) {
  const auto size = parse_header({head, IMG_HEAD_SIZE});
  if (!size) return img_error(handle, IMG_ERR_SUBTYPE, 0);
  auto state = make_state<AliasState>(handle);
  state->packets.start(handle, kHeaderBytes);
  handle->width = size->width;
  handle->height = size->height;
  handle->data.p = state.release();
  return 1;
}

int img_create_alias(img_file* handle) {
  if (!check_sides(handle, kLargestField)) return 0;
  auto state = make_state<AliasState>(handle);
  state->out.start(handle);
  ByteWriter out(state->out.put(kHeaderBytes));
  out.be16(std::uint32_t(handle->width));
  out.be16(std::uint32_t(handle->height));
  out.be32(0);  // origin
  out.be16(24);
  handle->data.p = state.release();
  return 1;
}

int img_read_alias(img_file* handle, img_line* line) {
  auto& in = state_of<AliasState>(handle).packets;
  const auto [red, green, blue] = plane_pointers<std::uint8_t, 3>(line);
  const auto width = std::size_t(handle->width);
  const std::size_t wanted = std::min<std::uint64_t>(width * kRunBytes, in.left());
  const auto packets = in.ahead(wanted);
  const int failure = errno;
  const auto row = expand_runs(packets, {blue, green, red}, width);
  if (row.end == RowEnd::kShort && packets.size() < wanted) {  // the system gave less
    return img_error(handle, IMG_ERR_READ, failure);
  }
  if (row.end != RowEnd::kWhole) {
    return img_refuse(handle, IMG_ERR_CORRUPT, 0,
                      row.end == RowEnd::kShort
                          ? "the file ends in the line"
                          : "a packet is empty or passes the end of the line");
  }
  (void)in.take(row.used);
  return 1;
}

int img_write_alias(img_file* handle, img_line* line) {
  auto& out = state_of<AliasState>(handle).out;
  auto [red, green, blue] = line_planes<const std::uint8_t, 3>(handle, line);
  while (!red.empty()) {
    const std::size_t length = run_length(red, green, blue);
    const auto packet = out.put(kRunBytes);
    packet[0] = std::uint8_t(length);
    packet[1] = blue[0];
    packet[2] = green[0];
    packet[3] = red[0];
    for (auto* const plane : {&red, &green, &blue}) drop_front(*plane, length);
  }
  return out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, out.error());
}

int img_close_alias(img_file* handle) {
  const auto state = take_state<AliasState>(handle);
  return state ? img_alias_copyout(handle, *state) : 1;
}

void img_header_alias(img_file* handle, img_header* header) {
  FileReader file;
  file.start(handle, 4, kHeaderBytes);  // after width and height
  ByteCursor in(file.take(6));
  HeaderEntries out(header);
  const int x = in.be16(), y = in.be16(), bits = in.be16();
  if (!in) return;
  out.numbers("origin", x, y);
  out.numbers("pixel_bits", bits);
}

}  // namespace ka
