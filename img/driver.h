// Scaffolding of format drivers: their state lives and dies with the handle, their lines are planes
// of samples.
#pragma once

#include <errno.h>
#include <ka/detail/owned.h>
#include <ka/img.h>
#include <ka/message.h>

#include <array>
#include <optional>
#include <span>

#include "imageplanes.h"
#include "imgcall.h"
#include "stream.h"

namespace ka {

// New state for a handle. The driver hands it over with `handle->data.p = state.release()` when
// nothing can fail any more; until then it goes away with the block.
template <typename State>
[[nodiscard]] Owned<State> make_state(img_file* /*handle*/) {
  return make_owned<State>();
}

// Before: the driver's open or create has succeeded. Anything else is a mistake of the program and
// ends it.
template <typename State>
[[nodiscard]] State& state_of(img_file* handle) {
  if (!handle->data.p) __assert("ifp->data.p != 0", __FILE__, __LINE__);
  return *static_cast<State*>(handle->data.p);
}

// Takes the state from the handle, to be released on return; empty when there is none.
template <typename State>
[[nodiscard]] Owned<State> take_state(img_file* handle) {
  Owned<State> state(static_cast<State*>(handle->data.p));
  handle->data.p = nullptr;
  return state;
}

// Ends a file that was written through `out`: the remainder goes to the system. Nothing is added to
// a file that has failed before, and nothing to one that was read. Returns 1, or 0 with the
// handle's error set to `code`.
inline int finish_file(img_file* handle, FileWriter& out, int code) {
  if (!handle->writing || handle->error) return 1;
  const int failure = out.flush();
  return failure == 0 ? 1 : img_error(handle, code, failure);
}

// States the pixel type of the file that is being opened.
inline void state_file_type(img_file* handle, int type) {
  handle->file_type = std::uint8_t(IMG_TYPE_COUNT + type);
}

// Notes whether the file can hold a line: each takes `needed` bytes at least, of `left` ones. A line
// that long and longer than usual gets no planes, and the driver has to fail it without them. Nor
// does one that packets make much longer than the file: its planes, of `pixel_bytes` in the file's
// type, would take more memory than a file of that size may.
inline void note_line_bytes(img_file* handle, std::optional<std::uint64_t> needed,
                            std::uint64_t left, std::uint64_t pixel_bytes = 3) {
  constexpr std::uint64_t free_memory = std::uint64_t{16} << 20, memory_per_byte = 64;
  constexpr std::uint64_t callers_bytes = 4;  // of a pixel in most programs
  const auto width = std::uint64_t(handle->width);
  const bool is_costly = width * (pixel_bytes + callers_bytes) >
                         free_memory + memory_per_byte * std::uint64_t(handle->file_size);
  handle->lacks_lines = handle->width > kTypicalWidth && (!needed || *needed > left || is_costly);
}

// Refuses to create a picture whose sides its header cannot hold: up to `largest` fit. Returns 1,
// or 0 with the handle's error.
inline int check_sides(img_file* handle, int largest) {
  if (handle->width <= largest && handle->height <= largest) return 1;
  return img_refuse(handle, IMG_ERR_SUBTYPE, EFBIG, "%d x %d; the format has sides of up to %d",
                    handle->width, handle->height, largest);
}

// The first `Count` planes of a line, handle->width samples each.
template <typename Sample, std::size_t Count>
[[nodiscard]] std::array<std::span<Sample>, Count> line_planes(const img_file* handle,
                                                               img_line* line) {
  std::array<std::span<Sample>, Count> planes;
  for (std::size_t slot = 0; slot < Count; ++slot) {
    planes[slot] = {plane_of<Sample>(line, slot), std::size_t(handle->width)};
  }
  return planes;
}

}  // namespace ka
