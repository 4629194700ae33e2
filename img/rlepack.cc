// Encoders of run-length packets.
#include "rle.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <type_traits>

#include "linekernels.h"

namespace ka {
namespace {

// What the encoders of a form put into packets, and how they count it. Without `kKeepsRuns` the
// rest of a run that a packet does not hold is examined again; with it, it stays a run, and so do
// the last two samples of a line.
struct ByteForm {
  static constexpr std::size_t kShortestRun = 3, kLongestRun = 128, kLongestLiteral = 128;
  static constexpr bool kKeepsRuns = false;
  static void copy(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes) {
    std::memcpy(out, in, bytes);
  }
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = std::uint8_t(literal ? count - 1 : count + 127);
    return out;
  }
};

struct MixedForm : ByteForm {
  static constexpr std::size_t kLongestRun = 65535;
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    if (literal || count <= 128) return ByteForm::put(out, count, literal);
    *out++ = 128;
    *out++ = std::uint8_t(count >> 8);
    *out++ = std::uint8_t(count);
    return out;
  }
};

struct SignedForm : ByteForm {
  static constexpr std::size_t kLongestRun = 127, kLongestLiteral = 127;
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = std::uint8_t(literal ? 256 - count : count - 1);
    return out;
  }
};

struct ScanlineForm : ByteForm {
  static constexpr std::size_t kShortestRun = 2, kLongestRun = 127, kLongestLiteral = 127;
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = std::uint8_t(literal ? count : count + 128);
    return out;
  }
};

struct CountedForm : ByteForm {
  static constexpr std::size_t kLongestRun = 126, kLongestLiteral = 126;
  static constexpr bool kKeepsRuns = true;
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = std::uint8_t(literal ? count + 128 : count);
    return out;
  }
};

struct WordForm : CountedForm {
  static void copy(std::uint8_t* out, const std::uint8_t* in, std::size_t bytes) {
    pack<const std::uint16_t, 1>(out, {reinterpret_cast<const std::uint16_t*>(in)}, bytes / 2,
                                 std::endian::big);
  }
  static std::uint8_t* put(std::uint8_t* out, std::size_t count, bool literal) {
    *out++ = 0;
    return CountedForm::put(out, count, literal);
  }
};

// Encodes a row of whole pixels of `Size` bytes.
template <typename Form, std::size_t Size>
std::size_t compact(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  const std::uint8_t* const pixels = row.data();
  const std::size_t count = row.size() / Size;
  const auto are_equal = [&](std::size_t a, std::size_t b) {
    return std::memcmp(pixels + a * Size, pixels + b * Size, Size) == 0;
  };
  const auto starts_run = [&](std::size_t at) {
    if (count - at < Form::kShortestRun) return Form::kKeepsRuns;
    return are_equal(at, at + 1) && (Form::kShortestRun == 2 || are_equal(at, at + 2));
  };
  std::uint8_t* out = packets.data();
  bool goes_on = false;  // a run that the last packet did not hold
  for (std::size_t at = 0, end; at < count; at = end) {
    const bool literal = !goes_on && !starts_run(at);
    const std::size_t most =
        std::min(count, at + (literal ? Form::kLongestLiteral : Form::kLongestRun));
    end = at + 1;
    if (literal) {
      while (end < most && !starts_run(end)) ++end;
    } else {
      while (end < most && are_equal(end, at)) ++end;
      goes_on = Form::kKeepsRuns && end < count && are_equal(end, at);
    }
    out = Form::put(out, end - at, literal);
    const std::size_t stored = (literal ? end - at : 1) * Size;
    Form::copy(out, pixels + at * Size, stored);
    out += stored;
  }
  return std::size_t(out - packets.data());
}

}  // namespace

std::size_t compact_packbits(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  constexpr std::uint8_t full = 127, run_of_two = 255;  // control bytes
  constexpr std::size_t longest_run = 128;              // bytes
  enum class State { kBase, kLiteral, kLiteralRun };
  State state = State::kBase;
  std::uint8_t* out = packets.data();
  std::uint8_t* literal = nullptr;  // control byte of the last literal
  for (std::size_t at = 0; at < row.size();) {
    const std::uint8_t value = row[at];
    std::size_t end = at + 1;
    while (end < row.size() && row[end] == value) ++end;
    while (at < end) {
      const std::size_t left = end - at;
      if (state == State::kLiteralRun) {  // out[-2] and out[-1] are a run
        const bool joins = left <= 2 && out[-2] == run_of_two && *literal < full - 1;
        if (joins) {
          out[-2] = out[-1];
          *literal = std::uint8_t(*literal + 2);
        }
        state = joins && *literal < full ? State::kLiteral : State::kBase;
      }
      if (left > 1) {
        const std::size_t count = std::min(left, longest_run);
        *out++ = std::uint8_t(257 - count);
        *out++ = value;
        at += count;
        if (state == State::kLiteral) state = State::kLiteralRun;
        continue;
      }
      if (state == State::kBase) {
        literal = out++;
        *literal = 0;
        state = State::kLiteral;
      } else if (++*literal == full) {
        state = State::kBase;
      }
      *out++ = value;
      ++at;
    }
  }
  return std::size_t(out - packets.data());
}

template <typename Sample>
std::size_t compact_counted(std::span<const Sample> line, std::span<std::uint8_t> packets) {
  constexpr std::size_t size = sizeof(Sample);
  using Form = std::conditional_t<size == 1, CountedForm, WordForm>;
  const std::span row(reinterpret_cast<const std::uint8_t*>(line.data()), line.size_bytes());
  const std::size_t used = compact<Form, size>(row, packets);
  std::fill_n(packets.data() + used, size, std::uint8_t{0});
  return used + size;
}

std::size_t compact_bytes(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  return compact<ByteForm, 1>(row, packets);
}

std::size_t compact_signed(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  return compact<SignedForm, 1>(row, packets);
}

std::size_t compact_mixed(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets,
                          std::size_t pixel_bytes) {
  constexpr std::array compact_size = {compact<MixedForm, 1>, compact<MixedForm, 2>,
                                       compact<MixedForm, 3>, compact<MixedForm, 4>};
  return compact_size[pixel_bytes - 1](row, packets);
}

std::size_t compact_scanline(std::span<const std::uint8_t> row, std::span<std::uint8_t> packets) {
  return compact<ScanlineForm, 1>(row, packets);
}

template std::size_t compact_counted(std::span<const std::uint8_t>, std::span<std::uint8_t>);
template std::size_t compact_counted(std::span<const std::uint16_t>, std::span<std::uint8_t>);

}  // namespace ka
