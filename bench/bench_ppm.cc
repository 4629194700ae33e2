// Reading a whole P6 file from the page cache into an rgba image.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include <ka/img.h>

#include "benchmarks.h"
#include "files.h"
#include "pictures.h"
#include "ratios.h"

namespace bench {
namespace {

// A P6 file that goes away with the process.
class PpmFile {
 public:
  PpmFile() {
    const std::string header =
        "P6\n" + std::to_string(kWidth) + " " + std::to_string(kHeight) + "\n255\n";
    std::vector<std::uint8_t> file(header.begin(), header.end());
    file.resize(header.size() + kBytes);
    fill_noise(std::span(file).subspan(header.size()));
    write_file(name(), file);
  }

  static constexpr std::size_t kBytes = 3 * kPixels;
  [[nodiscard]] std::string name() const { return folder_.path("picture.ppm"); }

 private:
  TemporaryFolder folder_;
};

const PpmFile& picture() {
  static const PpmFile file;
  return file;
}

void open(img_file& handle) {
  if (!ka_img_open(&handle, picture().name().c_str(), IMG_TYPE_RGBA)) {
    fail("cannot open the picture");
  }
}

void read(img_file& handle, img_image* image) {
  if (!ka_img_image_read(&handle, image) || !ka_img_close(&handle)) {
    fail("cannot read the picture");
  }
}

void read_into_kept_image() {
  static img_image* const image = [] {
    img_file handle{};
    open(handle);
    img_image* const made = ka_img_image_alloc(&handle);
    ka_img_close(&handle);
    return made;
  }();
  img_file handle{};
  open(handle);
  read(handle, image);
}

void read_into_new_image() {
  img_file handle{};
  open(handle);
  img_image* const image = ka_img_image_alloc(&handle);
  read(handle, image);
  ka_img_image_release(image);
}

}  // namespace

void add_ppm_benchmarks() {
  add("read/p6/kept_image", PpmFile::kBytes, read_into_kept_image);
  add("read/p6/new_image", PpmFile::kBytes, read_into_new_image, true);
}

}  // namespace bench
