// Files that are measured with: in a folder of their own that goes away with the process, read from
// the page cache.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <span>
#include <string>
#include <string_view>

namespace bench {

[[noreturn]] inline void fail(std::string_view what) {
  std::perror(std::string(what).c_str());
  std::exit(1);
}

class TemporaryFolder {
 public:
  TemporaryFolder() {
    std::string folder = (std::filesystem::temp_directory_path() / "lumora_benchXXXXXX").string();
    if (!mkdtemp(folder.data())) fail("cannot make a temporary folder");
    folder_ = folder;
  }
  ~TemporaryFolder() {
    std::error_code ignored;  // nothing depends on it
    std::filesystem::remove_all(folder_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  [[nodiscard]] std::string path(std::string_view name) const { return folder_ / name; }

 private:
  std::filesystem::path folder_;
};

inline void write_file(const std::string& path, std::span<const std::uint8_t> bytes) {
  std::FILE* const file = std::fopen(path.c_str(), "wb");
  if (!file || std::fwrite(bytes.data(), 1, bytes.size(), file) != bytes.size() ||
      std::fclose(file) != 0) {
    fail("cannot write " + path);
  }
}

}  // namespace bench
