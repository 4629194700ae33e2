// floor_jpeg FILE FILE: the least that a comparison of two JPEG files can do: maps both, has the
// codec decode them line by line and measures each pair of lines as floor_ppm does.
#include "floor.h"

#include <cstdio>
#include <vector>

#include <jpeglib.h>

namespace {

// A damaged file ends the program.
class Decoder {
 public:
  explicit Decoder(const char* name) {
    codec_.err = jpeg_std_error(&errors_);
    jpeg_create_decompress(&codec_);
    const auto file = least::map_file(name);
    jpeg_mem_src(&codec_, file.data(), file.size());
    jpeg_read_header(&codec_, TRUE);
    codec_.out_color_space = JCS_RGB;
    jpeg_start_decompress(&codec_);
    line_.resize(3 * std::size_t{codec_.output_width});
  }
  ~Decoder() { jpeg_destroy_decompress(&codec_); }
  Decoder(const Decoder&) = delete;
  Decoder& operator=(const Decoder&) = delete;

  [[nodiscard]] JDIMENSION width() const { return codec_.output_width; }
  [[nodiscard]] JDIMENSION height() const { return codec_.output_height; }
  const std::uint8_t* next_line() {
    JSAMPROW row = line_.data();
    jpeg_read_scanlines(&codec_, &row, 1);
    return row;
  }

 private:
  jpeg_error_mgr errors_{};
  jpeg_decompress_struct codec_{};
  std::vector<std::uint8_t> line_;
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
  for (JDIMENSION y = 0; y < first.height(); ++y) {
    measure(first.next_line(), second.next_line(), first.width(), sums);
  }
  return least::print(sums);
}
