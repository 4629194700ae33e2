#include "resample.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>

namespace {

Taps mean(std::int64_t from, std::int64_t to, std::int64_t i) {
  // In units of 1 / to pixels: the new one covers as many as `from`, each of the old ones `to`.
  const std::int64_t begin = i * from, end = begin + from;
  Taps taps{.first = int(begin / to), .weights = {}};
  for (std::int64_t k = taps.first; k * to < end; ++k) {
    const std::int64_t covered = std::min(end, (k + 1) * to) - std::max(begin, k * to);
    taps.weights.push_back(double(covered) / double(from));
  }
  return taps;
}

Taps interpolation(std::int64_t from, std::int64_t to, std::int64_t i) {
  const std::int64_t twice = 2 * to, place = (2 * i + 1) * from - to;  // in units of 1 / twice
  if (place <= 0) return {.first = 0, .weights = {1.0}};
  const std::int64_t k = place / twice, part = place % twice;
  if (part == 0 || k + 1 >= from) return {.first = int(std::min(k, from - 1)), .weights = {1.0}};
  const double second = double(part) / double(twice);
  return {.first = int(k), .weights = {1.0 - second, second}};
}

template <typename Sample>
void add_taps(const void* plane, const std::vector<Taps>& across, double* out) {
  const auto* const samples = static_cast<const Sample*>(plane);
  for (const Taps& taps : across) {
    const Sample* sample = samples + taps.first;
    double sum = 0;
    for (const double weight : taps.weights) sum += weight * double(*sample++);
    *out++ = sum;
  }
}

template <typename Sample>
void round_to(void* plane, const double* values, std::size_t count) {
  auto* const samples = static_cast<Sample*>(plane);
  for (std::size_t i = 0; i < count; ++i) {
    if constexpr (std::is_floating_point_v<Sample>) {
      samples[i] = Sample(values[i]);
    } else {
      using Limits = std::numeric_limits<Sample>;
      samples[i] =
          Sample(std::floor(std::clamp<double>(values[i], Limits::min(), Limits::max()) + 0.5));
    }
  }
}

void to_bits(void* plane, const double* values, std::size_t count) {
  auto* const samples = static_cast<float*>(plane);
  for (std::size_t i = 0; i < count; ++i) samples[i] = values[i] >= 0.5 ? 1.0F : 0.0F;
}

bool is_signed(int type) { return type == IMG_TYPE_VTA || type == IMG_TYPE_VTS; }

}  // namespace

Taps taps_of(int from, int to, int i) {
  return to < from ? mean(from, to, i) : interpolation(from, to, i);
}

Resampler::Resampler(int from_width, int from_height, int to_width, int to_height, int type,
                     bool as_bits)
    : from_height_(from_height),
      to_width_(to_width),
      to_height_(to_height),
      type_(type),
      as_bits_(as_bits) {
  across_.reserve(std::size_t(to_width));
  for (int x = 0; x < to_width; ++x) across_.push_back(taps_of(from_width, to_width, x));
  const std::size_t samples = std::size_t(to_width) * std::size_t(ka_img_ncomp[type]);
  for (Row* const row : {&rows_[0], &rows_[1], &sum_}) row->resize(samples);
}

void Resampler::narrow(const img_line* line, Row& row) const {
  double* out = row.data();
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    const void* const plane = ka_img_line_plane(line, slot);
    if (!plane) continue;
    if (is_signed(type_)) {
      add_taps<std::int16_t>(plane, across_, out);
    } else if (ka_img_nbits[type_] == 8) {
      add_taps<std::uint8_t>(plane, across_, out);
    } else if (ka_img_nbits[type_] == 16) {
      add_taps<std::uint16_t>(plane, across_, out);
    } else {
      add_taps<float>(plane, across_, out);
    }
    out += to_width_;
  }
}

void Resampler::store(img_line* line) const {
  const double* values = sum_.data();
  const auto count = std::size_t(to_width_);
  for (int slot = 0; slot < IMG_SLOTS; ++slot) {
    void* const plane = ka_img_line_plane(line, slot);
    if (!plane) continue;
    if (as_bits_) {
      to_bits(plane, values, count);
    } else if (is_signed(type_)) {
      round_to<std::int16_t>(plane, values, count);
    } else if (ka_img_nbits[type_] == 8) {
      round_to<std::uint8_t>(plane, values, count);
    } else if (ka_img_nbits[type_] == 16) {
      round_to<std::uint16_t>(plane, values, count);
    } else {
      round_to<float>(plane, values, count);
    }
    values += count;
  }
}

// Lines are asked for in their order, at most one back.
const Resampler::Row& Resampler::row(int number, const std::function<const img_line*()>& next) {
  for (; lines_read_ <= number; ++lines_read_) {
    narrow(next(), rows_[std::size_t(lines_read_) % rows_.size()]);
  }
  return rows_[std::size_t(number) % rows_.size()];
}

void Resampler::read(const std::function<const img_line*()>& next, img_line* line) {
  const Taps down = taps_of(from_height_, to_height_, lines_made_++);
  for (std::size_t i = 0; i < down.weights.size(); ++i) {
    const Row& values = row(down.first + int(i), next);
    const double weight = down.weights[i];
    for (std::size_t k = 0; k < sum_.size(); ++k) {
      sum_[k] = weight * values[k] + (i == 0 ? 0.0 : sum_[k]);
    }
  }
  store(line);
}
