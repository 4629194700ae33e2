// Reading whole CATIA and LWI pictures from the page cache.
#include <algorithm>
#include <string_view>

#include "benchmarks.h"
#include "format_files.h"
#include "pictures.h"

namespace bench {
namespace {

Bytes lwi(Content content) {
  Bytes file = {21, 0, 22, 0, 23, 0, 24, 0, 19, 12};
  file.resize(8 + 27);
  put_be32(file, 8 + 6, kWidth);
  put_be32(file, 8 + 10, kHeight);
  file[8 + 14] = 17;
  append_runs(file, content);
  return file;
}

void put_le32(Bytes& bytes, std::size_t at, std::size_t value) {
  for (std::size_t i = 0; i < 4; ++i) bytes[at + i] = std::uint8_t(value >> 8 * i);
}
void put_text(Bytes& bytes, std::size_t at, std::string_view text) {
  std::ranges::copy(text, bytes.begin() + long(at));
}

void append_catia_block(Bytes& file, std::span<const std::uint8_t> samples, bool as_pairs) {
  Bytes pairs;
  for (std::size_t i = 0, end; as_pairs && i < samples.size(); i = end) {
    for (end = i + 1; end < samples.size() && end < i + 255 && samples[end] == samples[i];) ++end;
    append(pairs, std::array{std::uint8_t(end - i), samples[i]});
  }
  const std::span<const std::uint8_t> data = as_pairs ? pairs : samples;
  const std::size_t start = file.size();
  file.resize(start + 80);
  put_le32(file, start, data.size());
  append(file, data);
  file.resize((file.size() + 79) / 80 * 80);
}

Bytes catia(Content content) {
  Bytes file(1200);
  put_text(file, 96, "PIXEL   ");
  put_text(file, 114, "2");
  put_text(file, 152, "PICTURE ");
  put_le32(file, 1120, kWidth);
  put_le32(file, 1124, kHeight);
  put_le32(file, 1128, 1);
  put_le32(file, 1132, 10407);
  constexpr std::size_t block = 262144 / kWidth * kWidth;
  for (std::size_t c = 0; c < 3; ++c) {
    for (std::size_t i = 0; i < kPixels; i += block) {
      const auto plane = std::span(planes_of(content)[c]);
      append_catia_block(file, plane.subspan(i, std::min(block, kPixels - i)),
                         content == Content::kShortRuns);
    }
  }
  return file;
}

constexpr std::array kPictures = {
    Picture{"catia/plain", 3, [] { return catia(Content::kNoise); }},
    Picture{"catia/short_runs", 3, [] { return catia(Content::kShortRuns); }},
    Picture{"lwi/single", 3, [] { return lwi(Content::kNoise); }},
    Picture{"lwi/short_runs", 3, [] { return lwi(Content::kShortRuns); }},
};

}  // namespace

void add_catia_benchmarks() { add_readings(kPictures); }

}  // namespace bench
