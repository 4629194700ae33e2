// Reading a whole JPEG file from the page cache, and beside it the least loop around the same codec
// with the same settings: lines into one buffer, nothing kept.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <jpeglib.h>

#include <ka/img.h>
#include <ka/imgload.h>

#include "benchmarks.h"
#include "files.h"
#include "pictures.h"
#include "ratios.h"

namespace bench {
namespace {

// A smooth picture with a little noise, as cameras make them.
void fill_image(img_image* image) {
  std::vector<std::uint8_t> noise(kWidth);
  fill_noise(noise);
  for (int y = 0; y < kHeight; ++y) {
    for (std::size_t slot = 0; slot < 3; ++slot) {
      auto* const plane = static_cast<std::uint8_t*>(ka_img_plane(image, y, int(slot)));
      for (std::size_t x = 0; x < kWidth; ++x) {
        const std::size_t level = (x * (slot + 1) + std::size_t(y) * (3 - slot)) / 16;
        plane[x] =
            std::uint8_t((level & 127) + noise[(x + std::size_t(y) * 7 + slot) % kWidth] / 16);
      }
    }
  }
}

// A file that goes away with the process, and the image that it is read into.
class JpegFile {
 public:
  JpegFile() {
    img_file handle{};
    handle.file_type = IMG_TYPE_RGB;
    if (!ka_img_create(&handle, name().c_str(), IMG_TYPE_RGB, IMG_FORMAT_JPG, kWidth, kHeight)) {
      fail("cannot create the picture");
    }
    image_ = ka_img_image_alloc(&handle);
    fill_image(image_);
    if (!ka_img_image_write(&handle, image_) || !ka_img_close(&handle)) {
      fail("cannot write the picture");
    }
  }
  ~JpegFile() { ka_img_image_release(image_); }
  JpegFile(const JpegFile&) = delete;
  JpegFile& operator=(const JpegFile&) = delete;

  [[nodiscard]] std::string name() const { return folder_.path("picture.jpg"); }
  [[nodiscard]] img_image* image() const { return image_; }

 private:
  TemporaryFolder folder_;
  img_image* image_;
};

const JpegFile& picture() {
  static const JpegFile file;
  return file;
}

void read_with_library() {
  img_file handle{};
  if (!ka_img_open(&handle, picture().name().c_str(), IMG_TYPE_FILE) ||
      !ka_img_image_read(&handle, picture().image()) || !ka_img_close(&handle)) {
    fail("cannot read the picture");
  }
}

void read_with_codec() {
  std::FILE* const file = std::fopen(picture().name().c_str(), "rb");
  if (!file) fail("cannot open the picture");
  jpeg_error_mgr errors;
  jpeg_decompress_struct codec{};
  codec.err = jpeg_std_error(&errors);
  jpeg_create_decompress(&codec);
  jpeg_stdio_src(&codec, file);
  jpeg_read_header(&codec, TRUE);
  codec.out_color_space = JCS_RGB;
  jpeg_start_decompress(&codec);
  static std::vector<std::uint8_t> line(std::size_t{3} * kWidth);
  JSAMPROW row = line.data();
  while (codec.output_scanline < codec.output_height) jpeg_read_scanlines(&codec, &row, 1);
  jpeg_finish_decompress(&codec);
  jpeg_destroy_decompress(&codec);
  std::fclose(file);
}

}  // namespace

void add_jpeg_benchmarks() {
  constexpr std::size_t bytes = 3 * kPixels;
  add("read/jpg", bytes, read_with_library);
  add("read/jpg/codec_only", bytes, read_with_codec);
}

}  // namespace bench
