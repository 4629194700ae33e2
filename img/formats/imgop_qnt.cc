// Quantel video frames: raw lines of 720 pixels in the order Cb, Y, Cr, Y, top line first, as many
// as the norm has. Pictures of other sizes are written centred on black, or cropped. Layout and
// arithmetic: docs/formats.md, "Quantel frames".
#include <errno.h>

#include <algorithm>
#include <array>

#include <ka/detail/targets.h>

#include "driver.h"
#include "drivers.h"
#include "linekernels.h"

namespace ka {

namespace {

constexpr int kFrameWidth = 720;  // pixels
constexpr int kPalLines = 576, kNtscLines = 486;
constexpr std::size_t kPairs = kFrameWidth / 2;
constexpr std::size_t kPairBytes = 4;
constexpr std::size_t kRowBytes = kPairs * kPairBytes;
constexpr std::array<std::uint8_t, kPairBytes> kBlackPair = {128, 16, 128, 16};
constexpr int kBlackLuma = 16, kNoChroma = 128;

// Sums have 16 binary places.
constexpr int kPlaces = 16;
constexpr int kFraction = (1 << kPlaces) - 1;

// How a side of the picture lies in the frame: all even but the count.
struct Placement {
  int frame;   // the first column or line of the frame that shows the picture
  int source;  // the first column or line of the picture that is shown
  int count;   // how many are shown
};

struct QntState {
  FileReader in;
  FileWriter out;
  Placement columns, lines;  // of a picture that is written
  int frame_lines;           // of the norm
  int source_line;           // lines of the picture so far
  int frame_line;            // lines of the frame so far
};

Placement place(int size, int frame_size) {
  if (size > frame_size) return {0, (size - frame_size) / 2 / 2 * 2, frame_size};
  return {(frame_size - size) / 2 / 2 * 2, 0, size};
}

using Half =
    std::array<std::uint8_t, kPairs>;  // samples of the first or second pixels of all pairs
struct Pairs {
  Half cb, cr;
  std::array<Half, 2> luma;
};
using Colors = std::array<std::array<Half, 2>, 3>;

constexpr std::uint8_t to_sample(int sum) {
  return std::uint8_t(std::clamp(sum, 0, 0xffffff) >> kPlaces);
}

KA_KERNEL void decode_pairs(const Pairs& pairs, Colors& colors) {
  for (std::size_t pixel = 0; pixel < 2; ++pixel) {
    for (std::size_t i = 0; i < kPairs; ++i) {
      const int y = std::max(pairs.luma[pixel][i] - kBlackLuma, 0) * 76310;
      const int u = pairs.cb[i] - kNoChroma, v = pairs.cr[i] - kNoChroma;
      colors[0][pixel][i] = to_sample(y + 104635 * v);
      colors[1][pixel][i] = to_sample(y - 53294 * v - 25690 * u);
      colors[2][pixel][i] = to_sample(y + 132278 * u);
    }
  }
}
constexpr auto& decode_kernels = kernels_of<decode_pairs>;

struct Weights {
  int red, green, blue;
};
constexpr Weights kLuma = {16829, 33039, 6416};
// Of the first pixel of a pair, and of the second, which counts for the pair after it as well.
constexpr Weights kCbFirst = {-4853, -9530, 14383}, kCbSecond = {-2426, -4765, 7191};
constexpr Weights kCrFirst = {14386, -12046, -2340}, kCrSecond = {7193, -6023, -1170};

using Planes = std::array<const std::uint8_t*, 3>;

int weigh(const Planes& planes, std::size_t x, const Weights& weights) {
  return weights.red * planes[0][x] + weights.green * planes[1][x] + weights.blue * planes[2][x];
}

// The whole part of a sum along a line; its fraction goes into the next sum.
class Carry {
 public:
  std::uint8_t take(int sum, int zero) {
    sum += fraction_;
    fraction_ = sum & kFraction;
    return std::uint8_t((sum >> kPlaces) + zero);
  }

 private:
  int fraction_ = 0;
};

// Chroma of the pairs of a line: a quarter of the pixel before, half of the first, a quarter of the
// second. The rest of the line is black.
class Chroma {
 public:
  Chroma(const Weights& first, const Weights& second) : first_(first), second_(second) {}

  std::uint8_t take(const Planes& planes, std::size_t first, std::size_t second) {
    const int before = before_;
    before_ = weigh(planes, second, second_);
    return carry_.take(weigh(planes, first, first_) + before_ + before, kNoChroma);
  }

 private:
  const Weights& first_;
  const Weights& second_;
  int before_ = 0;
  Carry carry_;
};

// An odd last column pairs with itself.
void encode_pairs(const Planes& planes, std::size_t columns, std::uint8_t* pair) {
  Carry luma;
  Chroma cb(kCbFirst, kCbSecond), cr(kCrFirst, kCrSecond);
  for (std::size_t x = 0; x < columns; x += 2, pair += kPairBytes) {
    const std::size_t second = std::min(x + 1, columns - 1);
    pair[0] = cb.take(planes, x, second);
    pair[1] = luma.take(weigh(planes, x, kLuma), kBlackLuma);
    pair[2] = cr.take(planes, x, second);
    pair[3] = luma.take(weigh(planes, second, kLuma), kBlackLuma);
  }
}

// A black line at the end of the frame, to be drawn on.
std::uint8_t* add_line(QntState& state) {
  std::uint8_t* const row = state.out.put(kRowBytes).data();
  for (std::size_t i = 0; i < kRowBytes; ++i) row[i] = kBlackPair[i % kPairBytes];
  ++state.frame_line;
  return row;
}

// Fills what the picture leaves of the frame, and hands it to the system.
int img_qnt_copyout(img_file* handle, QntState& state) {
  while (state.frame_line < state.frame_lines) add_line(state);
  return finish_file(handle, state.out, IMG_ERR_WRITE);
}

}  // namespace

int img_test_qnt(img_file* handle, const std::uint8_t* /*head*/) {
  const auto is_frame_of = [handle](int lines) {
    return handle->file_size == std::int64_t{kRowBytes} * lines;
  };
  return is_frame_of(kPalLines) || is_frame_of(kNtscLines);
}

int img_open_qnt(img_file* handle, const std::uint8_t* /*head*/) {
  auto state = make_state<QntState>(handle);
  state->in.start(handle, 0);
  handle->width = kFrameWidth;
  handle->height = int(handle->file_size / std::int64_t{kRowBytes});
  handle->data.p = state.release();
  return 1;
}

int img_create_qnt(img_file* handle) {
  auto state = make_state<QntState>(handle);
  state->frame_lines = handle->format == IMG_FORMAT_QNTNTSC ? kNtscLines : kPalLines;
  state->columns = place(handle->width, kFrameWidth);
  state->lines = place(handle->height, state->frame_lines);
  state->out.start(handle);
  while (state->frame_line < state->lines.frame) add_line(*state);
  handle->data.p = state.release();
  return 1;
}

int img_read_qnt(img_file* handle, img_line* line) {
  static const auto decode = best_kernel(decode_kernels);
  const auto row = state_of<QntState>(handle).in.take(kRowBytes);
  if (row.empty()) return img_error(handle, IMG_ERR_READ, errno);
  Pairs pairs;
  auto& [first, second] = pairs.luma;
  split<std::uint8_t, kPairBytes>(
      row.data(), {pairs.cb.data(), first.data(), pairs.cr.data(), second.data()}, kPairs);
  Colors colors;
  decode(pairs, colors);
  const auto planes = plane_pointers<std::uint8_t, 3>(line);
  for (std::size_t c = 0; c < planes.size(); ++c) {
    pack<std::uint8_t, 2>(planes[c], {colors[c][0].data(), colors[c][1].data()}, kPairs);
  }
  return 1;
}

int img_write_qnt(img_file* handle, img_line* line) {
  auto& state = state_of<QntState>(handle);
  const int shown = state.source_line++ - state.lines.source;
  if (shown < 0 || shown >= state.lines.count) return 1;
  std::uint8_t* const row = add_line(state);
  auto planes = plane_pointers<const std::uint8_t, 3>(line);
  for (auto& plane : planes) plane += state.columns.source;
  encode_pairs(planes, std::size_t(state.columns.count), row + 2 * state.columns.frame);
  return state.out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, state.out.error());
}

int img_close_qnt(img_file* handle) {
  const auto state = take_state<QntState>(handle);
  return state && handle->writing ? img_qnt_copyout(handle, *state) : 1;
}

}  // namespace ka
