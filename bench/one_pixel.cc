// one_pixel FOLDER: what it costs to declare a texture of 1 GB and to look at one of its pixels,
// mapped and cached: resident memory and bytes read, in KB.
#include <ka/imgaccess.h>
#include <ka/imgcache.h>
#include <ka/imgelement.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "library.h"

namespace {

constexpr int kSide = 16384;  // of four bytes each

bool write(const std::string& path) {
  img_file file{};
  if (!ka_img_create(&file, path.c_str(), IMG_TYPE_RGBA, IMG_FORMAT_MAP, kSide, kSide))
    return false;
  img_line* const line = ka_img_line_alloc(&file);
  bool written = true;
  for (int y = 0; y < kSide && written; ++y) written = ka_img_line_write(&file, line) != 0;
  ka_mem_release(line);
  return ka_img_close(&file) && written;
}

// The number after a word in a file of /proc.
long number(const char* file, const char* word) {
  std::FILE* const stream = std::fopen(file, "r");
  long value = 0;
  for (char line[256]; stream && std::fgets(line, sizeof line, stream);) {
    if (std::strncmp(line, word, std::strlen(word)) == 0) {
      value = std::strtol(line + std::strlen(word), nullptr, 10);
    }
  }
  if (stream) std::fclose(stream);
  return value;
}
long resident() {
  return number("/proc/self/status", "RssAnon:") + number("/proc/self/status", "RssFile:");
}
long bytes_read() { return number("/proc/self/io", "rchar:") / 1024; }

bool measure(const char* name, const std::string& path, int request) {
  const long memory = resident(), read = bytes_read();
  img_file handle{};
  std::string copy = path;
  handle.name = copy.data();
  handle.type = IMG_TYPE_FILE;
  std::uint32_t tag = 0;
  ka_img_cache_request(request);
  if (!ka_img_placeholder_dbcreate(&handle, &tag, 0)) return false;
  const auto* const image = static_cast<const img_image*>(ka_job_access(tag));
  if (!image) return false;
  float color[4];
  ka_img_get_color(image, color, kSide / 2, kSide / 3);
  std::printf("%s: %ld KB resident, %ld KB read\n", name, resident() - memory, bytes_read() - read);
  ka_db_unpin(tag);
  return ka_db_delete(tag) != 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string path = std::string(argv[1]) + "/one_pixel.map";
  setenv("KA_1TC_LIMIT", "2000000", 1);  // KB: mapped unless asked otherwise
  start_library();
  const bool done = write(path) && measure("mapped", path, 0) && measure("cached", path, 3);
  unlink(path.c_str());
  return done ? 0 : 1;
}
