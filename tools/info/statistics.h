// Minimum, maximum and mean of the channels of a picture, in its own pixel type.
#pragma once

#include <ka/img.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

struct Channel {
  std::string name;
  // Of the numbers among the samples. Without any, minimum is above maximum.
  double minimum = std::numeric_limits<double>::infinity();
  double maximum = -std::numeric_limits<double>::infinity();
  double sum = 0;
  std::uint64_t samples = 0;            // all of them
  std::uint64_t nan = 0, infinite = 0;  // samples that count in nothing else

  [[nodiscard]] std::uint64_t numbers() const { return samples - nan - infinite; }
  [[nodiscard]] double mean() const { return sum / double(numbers()); }
};

// Adds up lines, in any order.
class Statistics {
 public:
  // Before: `type` is not IMG_TYPE_RGBE, whose components mean nothing alone.
  Statistics(int type, int width);
  void add_line(const img_line* line);
  [[nodiscard]] const std::vector<Channel>& channels() const { return channels_; }

 private:
  using Add = void (*)(const void*, std::size_t, Channel&);
  std::size_t width_;
  Add add_;
  std::vector<Channel> channels_;
};
