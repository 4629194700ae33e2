// Fuzz target of one family of image formats: opens a file made of the input, reads it line by line
// in the file's own pixel type and as a whole in rgba, closes it whatever happened. FUZZ_FORMATS
// lists the family's formats; of others only the header is read. FUZZ_SIZES lists the file sizes of
// a format without a header: inputs become files of one of them, zero behind the input, and only
// the first lines are read.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <ka/img.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/trans.h>

namespace {

constexpr std::array kFormats = {FUZZ_FORMATS};
constexpr std::int64_t kMostPixels = 1'000'000;  // larger pictures only cost time

bool start_library() {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_set_verbosity(KA_FATAL);
  ka_mem_init();
  ka_img_init();
  ka_context_init();
  return true;
}

#ifdef FUZZ_SIZES
constexpr std::array kSizes = {FUZZ_SIZES};
constexpr int kMostLines = 4;

// The input's length tells which size it gets.
void set_size(int file, std::size_t input) {
  if (ftruncate(file, kSizes[input % kSizes.size()]) != 0) std::abort();
}
#else
constexpr int kMostLines = kMostPixels;
void set_size(int /*file*/, std::size_t /*input*/) {}
#endif

// The input as a file in memory, with a name that can be opened.
class MemoryFile {
 public:
  MemoryFile(const std::uint8_t* data, std::size_t size) : file_(memfd_create("input", 0)) {
    if (file_ < 0 || write(file_, data, size) != static_cast<ssize_t>(size)) std::abort();
    set_size(file_, size);
    std::snprintf(name_.data(), name_.size(), "/proc/self/fd/%d", file_);
  }
  ~MemoryFile() { close(file_); }
  MemoryFile(const MemoryFile&) = delete;
  MemoryFile& operator=(const MemoryFile&) = delete;

  [[nodiscard]] const char* name() const { return name_.data(); }

 private:
  int file_;
  std::array<char, 32> name_;
};

bool is_worth_reading(const img_file& file) {
  if (std::ranges::find(kFormats, file.format) == kFormats.end()) return false;
  return file.width <= kMostPixels && file.height <= kMostPixels &&
         std::int64_t{file.width} * file.height <= kMostPixels;
}

// A line that fails does not end the file for a caller who goes on.
void read_lines(img_file& file) {
  img_line* const line = ka_img_line_alloc(&file);
  for (int y = 0; y < std::min(file.height, kMostLines); ++y) ka_img_line_read(&file, line);
  ka_mem_release(line);
}

void read_image(img_file& file) {
  if (file.height > kMostLines) return read_lines(file);
  img_image* const image = ka_img_image_alloc(&file);
  if (image) ka_img_image_read(&file, image);
  ka_img_image_release(image);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = start_library();
  const MemoryFile input(data, size);
  img_file file{};
  if (ka_img_open(&file, input.name(), IMG_TYPE_FILE) && is_worth_reading(file)) read_lines(file);
  ka_img_close(&file);
  if (ka_img_open(&file, input.name(), IMG_TYPE_RGBA) && is_worth_reading(file)) read_image(file);
  ka_img_close(&file);
  return 0;
}
