// Runs a fuzz target over all files of the folders that are named, as an ordinary test: every seed
// must come through, and there must be seeds.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

bool read_file(const std::filesystem::path& path, std::vector<std::uint8_t>& bytes) {
  std::FILE* const file = std::fopen(path.c_str(), "rb");
  if (!file) return false;
  bytes.resize(std::filesystem::file_size(path));
  const std::size_t got = std::fread(bytes.data(), 1, bytes.size(), file);
  return std::fclose(file) == 0 && got == bytes.size();
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::printf("%s\n", entry.path().c_str());  // the last one printed is the one that broke it
      std::fflush(stdout);
      std::vector<std::uint8_t> bytes;
      if (!read_file(entry.path(), bytes)) return 1;
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      ++count;
    }
  }
  return count > 0 ? 0 : 1;
}
