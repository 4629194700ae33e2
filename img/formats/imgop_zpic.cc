// Zpic depth images: floats without a header, big-endian, top line first. They are only written:
// nothing in them tells their size. Layout: docs/formats.md, "Zpic".
#include <array>
#include <bit>
#include <cstring>

#include "driver.h"
#include "drivers.h"
#include "rows.h"

namespace ka {

namespace {

constexpr std::uint32_t kSign = 0x80000000;
constexpr auto kBackground = std::bit_cast<std::uint32_t>(-100000.0F);  // where no depth is known

struct ZpicState {
  FileWriter out;
};

// Stored depths grow towards the eye. Samples are handled as their bits: what is not a number keeps
// its own.
void negate(std::uint8_t* stored, const std::uint32_t* depths, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const bool is_zero = (depths[i] & ~kSign) == 0;
    std::uint32_t bits = is_zero ? kBackground : depths[i] ^ kSign;
    if constexpr (std::endian::native == std::endian::little) bits = __builtin_bswap32(bits);
    std::memcpy(stored + i * sizeof bits, &bits, sizeof bits);
  }
}

}  // namespace

int img_test_zpic(img_file* /*handle*/, const std::uint8_t* /*head*/) { return 0; }

int img_open_zpic(img_file* handle, const std::uint8_t* /*head*/) {
  return img_error(handle, IMG_ERR_FORMAT, 0);
}

int img_create_zpic(img_file* handle) {
  auto state = make_state<ZpicState>(handle);
  state->out.start(handle);
  handle->data.p = state.release();
  return 1;
}

int img_read_zpic(img_file* handle, img_line* /*line*/) {
  return img_error(handle, IMG_ERR_READ, 0);
}

int img_write_zpic(img_file* handle, img_line* line) {
  auto& out = state_of<ZpicState>(handle).out;
  const auto planes = plane_pointers<std::uint32_t, 1>(line);
  const bool written = move_row(planes, std::size_t(handle->width), FileWriter::kBufferSize,
                                [&](const auto& part, std::size_t pixels) {
                                  negate(out.put(pixels * sizeof(float)).data(), part[0], pixels);
                                  return out.error() == 0;
                                });
  return written ? 1 : img_error(handle, IMG_ERR_WRITE, out.error());
}

int img_close_zpic(img_file* handle) {
  const auto state = take_state<ZpicState>(handle);
  return state ? finish_file(handle, state->out, IMG_ERR_WRITE) : 1;
}

}  // namespace ka
