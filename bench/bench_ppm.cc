// Reading a whole P6 file from the page cache into an rgba image.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <ka/img.h>

#include "benchmarks.h"
#include "pictures.h"
#include "ratios.h"

namespace bench {
namespace {

// A P6 file in a temporary folder that goes away with the process.
class PpmFile {
 public:
  PpmFile() {
    std::string folder = (std::filesystem::temp_directory_path() / "lumora_benchXXXXXX").string();
    if (!mkdtemp(folder.data())) fail("cannot make a temporary folder");
    folder_ = folder;
    std::vector<std::uint8_t> samples(kBytes);
    fill_noise(samples);
    std::FILE* const file = std::fopen(name().c_str(), "wb");
    if (!file || std::fprintf(file, "P6\n%d %d\n255\n", kWidth, kHeight) < 0 ||
        std::fwrite(samples.data(), 1, samples.size(), file) != samples.size() ||
        std::fclose(file) != 0) {
      fail("cannot write the picture");
    }
  }
  ~PpmFile() {
    std::error_code ignored;  // nothing depends on it
    std::filesystem::remove_all(folder_, ignored);
  }
  PpmFile(const PpmFile&) = delete;
  PpmFile& operator=(const PpmFile&) = delete;

  static constexpr std::size_t kBytes = 3 * kPixels;
  [[nodiscard]] std::string name() const { return folder_ / "picture.ppm"; }

  [[noreturn]] static void fail(const char* what) {
    std::perror(what);
    std::exit(1);
  }

 private:
  std::filesystem::path folder_;
};

const PpmFile& picture() {
  static const PpmFile file;
  return file;
}

void open(img_file& handle) {
  if (!ka_img_open(&handle, picture().name().c_str(), IMG_TYPE_RGBA)) {
    PpmFile::fail("cannot open the picture");
  }
}

void read(img_file& handle, img_image* image) {
  if (!ka_img_image_read(&handle, image) || !ka_img_close(&handle)) {
    PpmFile::fail("cannot read the picture");
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
