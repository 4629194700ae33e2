// Reading whole TIFF and BMP pictures from the page cache.
#include <algorithm>

#include "benchmarks.h"
#include "format_files.h"
#include "pictures.h"

namespace bench {
namespace {

void put(Bytes& bytes, std::size_t value, std::size_t count, bool is_big = false) {
  for (std::size_t i = 0; i < count; ++i) {
    bytes.push_back(std::uint8_t(value >> 8 * (is_big ? count - 1 - i : i)));
  }
}

struct Tiff {
  unsigned bits, components;
  unsigned photometric = 2;
  unsigned compression = 1;
  bool is_big = false;  // byte order
};

// Header, directory, the bits of each sample, a color map where there is one.
Bytes tiff_header(const Tiff& tiff) {
  constexpr std::size_t entries = 10, values = 8 + 2 + 12 * entries + 4;
  const std::size_t map_bytes = tiff.photometric == 3 ? 3 * 256 * 2 : 0;
  const std::size_t strip = values + 16 + map_bytes;
  Bytes file;
  const auto number = [&](std::size_t value, std::size_t count) {
    put(file, value, count, tiff.is_big);
  };
  const auto entry = [&](std::size_t tag, std::size_t count, std::size_t value) {
    number(tag, 2);
    number(4, 2);
    number(count, 4);
    number(value, 4);
  };
  append(file, Bytes(2, tiff.is_big ? 'M' : 'I'));
  number(42, 2);
  number(8, 4);
  number(entries, 2);
  entry(256, 1, kWidth);
  entry(257, 1, kHeight);
  entry(258, tiff.components, tiff.components == 1 ? tiff.bits : values);
  entry(259, 1, tiff.compression);
  entry(262, 1, tiff.photometric);
  entry(273, 1, strip);
  entry(277, 1, tiff.components);
  entry(278, 1, kHeight);
  entry(279, 1, 0);
  entry(320, map_bytes / 2, values + 16);
  number(0, 4);
  for (int i = 0; i < 4; ++i) number(tiff.bits, 4);
  append(file, std::span(planes_of(Content::kNoise)[0]).first(map_bytes));
  return file;
}

Bytes plain_tiff(const Tiff& tiff) {
  Bytes file = tiff_header(tiff);
  const Bytes pixels = interleaved(Content::kNoise, tiff.components);
  const std::size_t bytes = pixels.size() * tiff.bits / 8;
  for (std::size_t done = 0; done < bytes; done += pixels.size()) {
    append(file, std::span(pixels).first(std::min(pixels.size(), bytes - done)));
  }
  return file;
}

// Packets of 128 bytes as they are, and runs of what three samples of a pixel have in common.
Bytes packed_tiff(Content content) {
  Bytes file = tiff_header({.bits = 8, .components = 3, .compression = 32773});
  for (std::size_t y = 0; y < kHeight; ++y) {
    const auto row = row_of(planes_of(content), 0, y);
    for (std::size_t x = 0, end; x < row.size(); x = end) {
      end = x + 1;
      if (content == Content::kNoise) {
        end = std::min(x + 42, row.size());
        file.push_back(std::uint8_t(3 * (end - x) - 1));
        for (std::size_t i = x; i < end; ++i) file.insert(file.end(), 3, row[i]);
      } else {
        while (end < row.size() && end - x < 42 && row[end] == row[x]) ++end;
        file.push_back(std::uint8_t(257 - 3 * (end - x)));
        file.push_back(row[x]);
      }
    }
  }
  return file;
}

// Rows of kWidth pixels take whole words in every depth.
Bytes bmp(unsigned bits) {
  Bytes file = {'B', 'M'};
  put(file, 0, 12);
  put(file, 40, 4);
  put(file, kWidth, 4);
  put(file, kHeight, 4);
  put(file, 1, 2);
  put(file, bits, 2);
  put(file, 0, 24);
  const auto& noise = planes_of(Content::kNoise);
  if (bits < 24) append(file, std::span(noise[0]).first(std::size_t{4} << bits));
  const Bytes pixels = interleaved(Content::kNoise, bits < 24 ? 1 : bits / 8);
  append(file, std::span(pixels).first(kPixels * bits / 8));
  return file;
}

constexpr std::array kPictures = {
    Picture{"tif/rgb", 3,
            [] {
              return plain_tiff({8, 3});
            }},
    Picture{"tif/rgba", 4,
            [] {
              return plain_tiff({8, 4});
            }},
    Picture{"tif/rgba_16", 8,
            [] {
              return plain_tiff({16, 4});
            }},
    Picture{"tif/rgba_16/big_endian", 8,
            [] { return plain_tiff({.bits = 16, .components = 4, .is_big = true}); }},
    Picture{"tif/grey_1", 3,
            [] {
              return plain_tiff({1, 1, 0});
            }},
    Picture{"tif/grey_4", 3,
            [] {
              return plain_tiff({4, 1, 1});
            }},
    Picture{"tif/grey_8", 3,
            [] {
              return plain_tiff({8, 1, 0});
            }},
    Picture{"tif/palette_8", 3,
            [] {
              return plain_tiff({8, 1, 3});
            }},
    Picture{"tif/packed/literals", 3, [] { return packed_tiff(Content::kNoise); }},
    Picture{"tif/packed/short_runs", 3, [] { return packed_tiff(Content::kShortRuns); }},
    Picture{"bmp/1", 4, [] { return bmp(1); }},
    Picture{"bmp/4", 4, [] { return bmp(4); }},
    Picture{"bmp/8", 4, [] { return bmp(8); }},
    Picture{"bmp/24", 4, [] { return bmp(24); }},
    Picture{"bmp/32", 4, [] { return bmp(32); }},
};

}  // namespace

void add_tiff_benchmarks() { add_readings(kPictures); }

}  // namespace bench
