// What the drivers of this folder share: their registration, owners, and the limits of a picture.
#pragma once

#include <ka/img.h>
#include <ka/imgdriver.h>
#include <ka/mem.h>

#include <cstdint>
#include <memory>
#include <span>

namespace drivers {

// Each fills one slot. They return 1, or 0 when it could not be filled.
int register_png(int format);
int register_exr(int format);
int register_webp(int format);
int register_tifz(int format);
int register_bmp5(int format);

struct ReleaseReader {
  void operator()(img_reader* reader) const { ka_img_reader_release(reader); }
};
using Reader = std::unique_ptr<img_reader, ReleaseReader>;

struct ReleaseWriter {
  void operator()(img_writer* writer) const { ka_img_writer_release(writer); }
};
using Writer = std::unique_ptr<img_writer, ReleaseWriter>;

// A driver's state: it lives from its open or create operation to its close operation.
template <typename State>
State& state_of(img_file* handle) {
  return *static_cast<State*>(handle->data.p);
}
template <typename State>
std::unique_ptr<State> take_state(img_file* handle) {
  std::unique_ptr<State> state(static_cast<State*>(handle->data.p));
  handle->data.p = nullptr;
  return state;
}

// States the pixel type of the file that is being opened.
inline void state_file_type(img_file* handle, int type) {
  handle->file_type = std::uint8_t(IMG_TYPE_COUNT + type);
}

// The memory that a file may take beside the caller's buffers, in bytes.
inline std::uint64_t memory_limit(const img_file* handle) {
  constexpr std::uint64_t at_once = std::uint64_t{64} << 20, per_byte = 64;
  return at_once + per_byte * std::uint64_t(handle->file_size);
}

// The checksum of a color profile for img_file.profile: never 0.
std::uint32_t profile_of(std::span<const std::uint8_t> icc);

// Refuses a file whose lines, of `pixel_bytes` in its own type, would take more memory than its size
// justifies. Returns 1, or 0 with the handle's error.
int check_line_memory(img_file* handle, std::uint64_t pixel_bytes);

// Sets the handle's error and a reason: a printf format and its values, one English phrase. Returns 0.
[[gnu::format(printf, 3, 4)]] int refuse(img_file* handle, int code, const char* format, ...);

// Says what a file holds that is not read, to those who ask for warnings.
[[gnu::format(printf, 2, 3)]] void note(const img_file* handle, const char* format, ...);

}  // namespace drivers
