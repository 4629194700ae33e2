// floor_png FILE FILE: the least that a comparison of two PNG files can do: maps both, verifies the
// checksums of their chunks, uncompresses and unfilters them and measures each pair of lines as
// floor_ppm does. Files have 8 bits and three colors and are not interlaced; the rest is taken on
// trust.
#include <libdeflate.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include <ka/imgbytes.h>

#include "floor.h"
#include "pngfilter.h"

namespace {

constexpr std::size_t kPixelBytes = 3;

struct Free {
  void operator()(std::uint8_t* bytes) const { std::free(bytes); }
};
using Bytes = std::unique_ptr<std::uint8_t, Free>;

Bytes bytes_of(std::size_t count) {
  return Bytes(static_cast<std::uint8_t*>(std::malloc(count + drivers::kPngSlack)));
}

// A damaged file ends the program.
class Decoder {
 public:
  explicit Decoder(const char* name) {
    const auto file = least::map_file(name);
    const Bytes data = bytes_of(file.size());
    std::size_t used = 0;
    ka::ByteCursor in(file.subspan(8));
    while (in.left() > 0) {
      const std::uint32_t length = in.be32();
      const auto chunk = in.take(4 + std::size_t{length});
      if (in.be32() != libdeflate_crc32(0, chunk.data(), chunk.size()) || !in) std::exit(2);
      if (std::memcmp(chunk.data(), "IHDR", 4) == 0) take_header(ka::ByteCursor(chunk.subspan(4)));
      if (std::memcmp(chunk.data(), "IDAT", 4) != 0) continue;
      std::memcpy(data.get() + used, chunk.data() + 4, length);
      used += length;
    }
    inflate({data.get(), used});
  }

  [[nodiscard]] std::uint32_t width() const { return width_; }
  [[nodiscard]] std::uint32_t height() const { return height_; }
  const std::uint8_t* next_line() {
    std::uint8_t* const row = next_;
    drivers::png_unfilter(drivers::PngFilter(*row), kPixelBytes, row + 1, above_, row_bytes());
    above_ = row + 1;
    next_ += 1 + row_bytes();
    return row + 1;
  }

 private:
  [[nodiscard]] std::size_t row_bytes() const { return kPixelBytes * width_; }

  void take_header(ka::ByteCursor in) {
    width_ = in.be32();
    height_ = in.be32();
    first_.resize(row_bytes() + drivers::kPngSlack);
    above_ = first_.data();
  }

  void inflate(std::span<const std::uint8_t> data) {
    const std::size_t count = (1 + row_bytes()) * height_;
    rows_ = bytes_of(count);
    next_ = rows_.get();
    libdeflate_decompressor* const codec = libdeflate_alloc_decompressor();
    if (libdeflate_zlib_decompress(codec, data.data(), data.size(), next_, count, nullptr) !=
        LIBDEFLATE_SUCCESS) {
      std::exit(2);
    }
    libdeflate_free_decompressor(codec);
  }

  std::uint32_t width_ = 0, height_ = 0;
  Bytes rows_;
  std::uint8_t* next_ = nullptr;
  std::vector<std::uint8_t> first_;
  const std::uint8_t* above_ = nullptr;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "%s FILE FILE\n", argv[0]);
    return 2;
  }
  Decoder first(argv[1]), second(argv[2]);
  if (first.width() != second.width() || first.height() != second.height()) return 2;
  least::Sums sums{};
  const auto measure = least::measure();
  for (std::uint32_t y = 0; y < first.height(); ++y) {
    measure(first.next_line(), second.next_line(), first.width(), sums);
  }
  return least::print(sums);
}
