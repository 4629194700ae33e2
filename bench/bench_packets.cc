// Reading whole IFF, RLA and PIC pictures from the page cache.
#include <algorithm>
#include <array>

#include "benchmarks.h"
#include "format_files.h"
#include "pictures.h"

namespace bench {
namespace {

constexpr std::size_t kTileSide = 64;

// The planes of a tile's bytes, the last component first; samples of two equal bytes where wanted.
void append_tile(Bytes& file, Content content, std::size_t x1, std::size_t y1, bool is_encoded,
                 std::size_t sample_bytes) {
  const std::size_t x2 = x1 + kTileSide - 1,
                    y2 = std::min<std::size_t>(y1 + kTileSide, kHeight) - 1;
  append_text(file, "RGBA");
  const std::size_t start = file.size();
  append_be32(file, 0);
  for (const std::size_t bound : {x1, y1, x2, y2}) append_be16(file, bound);
  std::array<Bytes, 3> planes;
  for (std::size_t c = 0; c < 3; ++c) {
    for (std::size_t y = y1; y <= y2; ++y) {
      append(planes[c], row_of(planes_of(content), 2 - c, y).subspan(x1, kTileSide));
    }
  }
  for (std::size_t p = 0; is_encoded && p < 3 * sample_bytes; ++p) {
    const Bytes& plane = planes[p % 3];
    for_packets(
        plane.size(), [&](std::size_t a, std::size_t b) { return plane[a] == plane[b]; },
        [&](std::size_t first, std::size_t count, bool is_run) {
          file.push_back(std::uint8_t(is_run ? 0x80 | (count - 1) : count - 1));
          append(file, std::span(plane).subspan(first, is_run ? 1 : count));
        });
  }
  for (std::size_t i = 0; !is_encoded && i < planes[0].size(); ++i) {
    for (const Bytes& plane : planes) file.insert(file.end(), sample_bytes, plane[i]);
  }
  put_be32(file, start, file.size() - start - 4);
  file.resize((file.size() + 3) / 4 * 4);
}

Bytes tiled_iff(Content content, bool is_encoded, std::size_t sample_bytes) {
  Bytes file;
  append_text(file, "FOR4----CIMGTBHD");
  append_be32(file, 24);
  append_be32(file, kWidth);
  append_be32(file, kHeight);
  append_be32(file, 0);
  append_be32(file, 1);
  append_be16(file, sample_bytes - 1);
  append_be16(file, kWidth / kTileSide * ((kHeight + kTileSide - 1) / kTileSide));
  append_be32(file, is_encoded);
  append_text(file, "FOR4----TBMP");
  for (std::size_t y = 0; y < kHeight; y += kTileSide) {
    for (std::size_t x = 0; x < kWidth; x += kTileSide) {
      append_tile(file, content, x, y, is_encoded, sample_bytes);
    }
  }
  return file;
}

void append_rla_record(Bytes& file, std::span<const std::uint8_t> row) {
  const std::size_t start = file.size();
  append_be16(file, 0);
  for_packets(
      row.size(), [&](std::size_t a, std::size_t b) { return row[a] == row[b]; },
      [&](std::size_t first, std::size_t count, bool is_run) {
        file.push_back(std::uint8_t(is_run ? count - 1 : 256 - count));
        append(file, row.subspan(first, is_run ? 1 : count));
      });
  put_be16(file, start, file.size() - start - 2);
}

// Of red, green, blue and matte. Samples of 16 bits have two equal bytes.
Bytes rla(Content content, bool is_top_first, std::size_t sample_bytes) {
  constexpr std::size_t header = 740;
  Bytes file(header + 4 * kHeight);
  for (const std::size_t window : {0UL, 8UL}) {
    put_be16(file, window + 2, kWidth - 1);
    put_be16(file, window + 6, kHeight - 1);
  }
  put_be16(file, 20, 3);
  put_be16(file, 22, 1);
  file[28] = '2';
  put_be16(file, 658, 8 * sample_bytes);
  put_be16(file, 662, 8 * sample_bytes);
  for (std::size_t i = 0; i < kHeight; ++i) {
    const std::size_t y = is_top_first ? kHeight - 1 - i : i;
    put_be32(file, header + 4 * y, file.size());
    for (std::size_t c = 0; c < 4; ++c) {
      Bytes row;
      for (std::size_t k = 0; k < sample_bytes; ++k) append(row, row_of(planes_of(content), c, y));
      append_rla_record(file, row);
    }
  }
  return file;
}

// The planes of short runs change at different places: one plane represents all three here. A
// literal packet counts from 0, a run from 129.
Bytes mixed_pic(Content content) {
  Bytes file(112);
  put_be32(file, 0, 0x5380f634);
  put_be16(file, 92, kWidth);
  put_be16(file, 94, kHeight);
  put_be32(file, 104, 0x010802e0);
  put_be32(file, 108, 0x00080210);
  for (std::size_t y = 0; y < kHeight; ++y) {
    for (const std::size_t channels : {3UL, 1UL}) {
      const auto row = row_of(planes_of(content), 3 - channels, y);
      for_packets(
          row.size(), [&](std::size_t a, std::size_t b) { return row[a] == row[b]; },
          [&](std::size_t first, std::size_t count, bool is_run) {
            file.push_back(std::uint8_t(is_run ? count + 127 : count - 1));
            for (std::size_t i = first; i < first + (is_run ? 1 : count); ++i) {
              file.insert(file.end(), channels, row[i]);
            }
          });
    }
  }
  return file;
}

Bytes verbatim_pic() {
  Bytes file(108);
  put_be32(file, 0, 0x5380f634);
  put_be16(file, 92, kWidth);
  put_be16(file, 94, kHeight);
  put_be32(file, 104, 0x000800f0);
  append(file, interleaved(Content::kNoise, 4));
  return file;
}

constexpr std::array kPictures = {
    Picture{"iff/raw", 3, [] { return tiled_iff(Content::kNoise, false, 1); }},
    Picture{"iff/raw_16", 6, [] { return tiled_iff(Content::kNoise, false, 2); }},
    Picture{"iff/short_runs", 3, [] { return tiled_iff(Content::kShortRuns, true, 1); }},
    Picture{"iff/short_runs_16", 6, [] { return tiled_iff(Content::kShortRuns, true, 2); }},
    Picture{"pic/verbatim", 4, verbatim_pic},
    Picture{"pic/mixed/literals", 4, [] { return mixed_pic(Content::kNoise); }},
    Picture{"pic/mixed/short_runs", 4, [] { return mixed_pic(Content::kShortRuns); }},
    Picture{"rla/literals", 4, [] { return rla(Content::kNoise, false, 1); }},
    Picture{"rla/literals/top_first", 4, [] { return rla(Content::kNoise, true, 1); }},
    Picture{"rla/literals_16", 8, [] { return rla(Content::kNoise, false, 2); }},
    Picture{"rla/short_runs", 4, [] { return rla(Content::kShortRuns, false, 1); }},
};

}  // namespace

void add_packet_benchmarks() { add_readings(kPictures); }

}  // namespace bench
