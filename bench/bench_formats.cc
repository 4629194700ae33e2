// Reading whole SGI, Targa, Radiance and native pictures from the page cache.
#include <string>

#include "benchmarks.h"
#include "format_files.h"
#include "pictures.h"

namespace bench {
namespace {

void append_sgi_row(Bytes& file, std::span<const std::uint8_t> row) {
  for_packets(
      row.size(), [&](std::size_t a, std::size_t b) { return row[a] == row[b]; },
      [&](std::size_t first, std::size_t count, bool is_run) {
        file.push_back(std::uint8_t(is_run ? count : count | 0x80));
        append(file, row.subspan(first, is_run ? 1 : count));
      });
  file.push_back(0);
}

constexpr std::size_t kSgiHeader = 512;

Bytes sgi_header(bool is_encoded) {
  Bytes file(kSgiHeader);
  put_be16(file, 0, 474);
  file[2] = is_encoded;
  file[3] = 1;
  put_be16(file, 4, 3);
  put_be16(file, 6, kWidth);
  put_be16(file, 8, kHeight);
  put_be16(file, 10, 3);
  return file;
}

Bytes verbatim_sgi(Content content) {
  Bytes file = sgi_header(false);
  for (std::size_t c = 0; c < 3; ++c) append(file, planes_of(content)[c]);
  return file;
}

// The rows of one channel after those of another, or the rows of one line together.
Bytes encoded_sgi(Content content, bool is_planar) {
  constexpr std::size_t rows = 3 * std::size_t{kHeight};
  Bytes file = sgi_header(true);
  file.resize(kSgiHeader + 8 * rows);
  for (std::size_t i = 0; i < rows; ++i) {
    const std::size_t channel = is_planar ? i / kHeight : i % 3;
    const std::size_t y = is_planar ? i % kHeight : i / 3;
    const std::size_t start = file.size(), entry = 4 * (channel * kHeight + y);
    append_sgi_row(file, row_of(planes_of(content), channel, y));
    put_be32(file, kSgiHeader + entry, start);
    put_be32(file, kSgiHeader + 4 * rows + entry, file.size() - start);
  }
  return file;
}

Bytes targa_header(int type, std::size_t depth) {
  Bytes file(18);
  file[2] = std::uint8_t(type);
  file[12] = kWidth & 0xff;
  file[13] = kWidth >> 8;
  file[14] = kHeight & 0xff;
  file[15] = kHeight >> 8;
  file[16] = std::uint8_t(8 * depth);
  return file;
}

Bytes plain_targa(Content content, std::size_t depth) {
  Bytes file = targa_header(2, depth);
  append(file, interleaved(content, depth));
  return file;
}

Bytes mapped_targa() {
  Bytes file = targa_header(1, 1);
  constexpr std::size_t colors = 256;
  file[1] = 1;
  file[6] = colors >> 8;
  file[7] = 24;
  append(file, std::span(planes_of(Content::kNoise)[0]).first(3 * colors));
  append(file, planes_of(Content::kNoise)[1]);
  return file;
}

// The planes of short runs change at different places: one plane represents all three here.
Bytes packed_targa(Content content) {
  Bytes file = targa_header(10, 3);
  for (std::size_t y = 0; y < kHeight; ++y) {
    const auto row = row_of(planes_of(content), 0, y);
    for_packets(
        row.size(), [&](std::size_t a, std::size_t b) { return row[a] == row[b]; },
        [&](std::size_t first, std::size_t count, bool is_run) {
          file.push_back(std::uint8_t(is_run ? 0x80 | (count - 1) : count - 1));
          for (std::size_t i = first; i < first + (is_run ? 1 : count); ++i) {
            file.insert(file.end(), 3, row[i]);
          }
        });
  }
  return file;
}

void append_hdr_plane(Bytes& file, std::span<const std::uint8_t> plane) {
  for_packets(
      plane.size(), [&](std::size_t a, std::size_t b) { return plane[a] == plane[b]; },
      [&](std::size_t first, std::size_t count, bool is_run) {
        file.push_back(std::uint8_t(is_run ? 128 + count : count));
        append(file, plane.subspan(first, is_run ? 1 : count));
      });
}

Bytes radiance(Content content) {
  const std::string header = "#?RADIANCE\nFORMAT=32-bit_rle_rgbe\n\n-Y " + std::to_string(kHeight) +
                             " +X " + std::to_string(kWidth) + "\n";
  Bytes file(header.begin(), header.end());
  for (std::size_t y = 0; y < kHeight; ++y) {
    append(file, std::array<std::uint8_t, 4>{2, 2, kWidth >> 8, kWidth & 255});
    for (std::size_t c = 0; c < 4; ++c) append_hdr_plane(file, row_of(planes_of(content), c, y));
  }
  return file;
}

// `sample_bytes` is the bytes of a sample, a code which kind of texture it is.
Bytes native_texture(int code, std::size_t sample_bytes) {
  Bytes file(8);
  file[0] = std::uint8_t(code);
  put_be16(file, 2, kWidth);
  put_be16(file, 4, kHeight);
  const Bytes pixels = interleaved(Content::kNoise, 4);
  for (std::size_t i = 0; i < sample_bytes; ++i) append(file, pixels);
  return file;
}

constexpr std::array kPictures = {
    Picture{"sgi/verbatim", 3, [] { return verbatim_sgi(Content::kNoise); }},
    Picture{"sgi/literals/by_line", 3, [] { return encoded_sgi(Content::kNoise, false); }},
    Picture{"sgi/literals/planar", 3, [] { return encoded_sgi(Content::kNoise, true); }},
    Picture{"sgi/short_runs/by_line", 3, [] { return encoded_sgi(Content::kShortRuns, false); }},
    Picture{"sgi/short_runs/planar", 3, [] { return encoded_sgi(Content::kShortRuns, true); }},
    Picture{"tga/mapped", 4, mapped_targa},
    Picture{"tga/16", 4, [] { return plain_targa(Content::kNoise, 2); }},
    Picture{"tga/24", 4, [] { return plain_targa(Content::kNoise, 3); }},
    Picture{"tga/32", 4, [] { return plain_targa(Content::kNoise, 4); }},
    Picture{"tga/packed/literals", 4, [] { return packed_targa(Content::kNoise); }},
    Picture{"tga/packed/short_runs", 4, [] { return packed_targa(Content::kShortRuns); }},
    Picture{"hdr/literals", 4, [] { return radiance(Content::kNoise); }},
    Picture{"hdr/short_runs", 4, [] { return radiance(Content::kShortRuns); }},
    Picture{"native/ct", 4, [] { return native_texture(3, 1); }},
    Picture{"native/ct_16", 8, [] { return native_texture(6, 2); }},
    Picture{"native/ct_fp", 16, [] { return native_texture(11, 4); }},
};

}  // namespace

void add_format_benchmarks() { add_readings(kPictures); }

}  // namespace bench
