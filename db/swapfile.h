// Files of swapped elements: a header of 64 bytes, whose first word is the version, then the data as
// they are in memory. Anybody may write to the folder: files are created exclusively, links are
// never followed, and what is read back is the file that was written.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

namespace ka {

constexpr std::size_t kSwapHeaderBytes = 64;
constexpr std::uint32_t kSwapVersion = 1;
constexpr std::size_t kSwapFolderSize = 961;  // bytes of a folder with its closing zero
constexpr std::size_t kSwapPathSize = kSwapFolderSize + 64;

// Which file a path led to. The number of a file that was removed may be given out again, but not to
// a file of this user by another one.
struct SwapFileIdentity {
  dev_t device;
  ino_t inode;
};

// A file descriptor.
class SwapDescriptor {
 public:
  explicit SwapDescriptor(int number) : number_(number) {}
  ~SwapDescriptor();
  SwapDescriptor(const SwapDescriptor&) = delete;
  SwapDescriptor& operator=(const SwapDescriptor&) = delete;

  explicit operator bool() const { return number_ >= 0; }
  [[nodiscard]] int number() const { return number_; }
  int close();  // 0, or -1 with errno

 private:
  int number_;
};

// Writes a file. Everything that fails leaves errno; a file that is not finished is removed.
class SwapWriter {
 public:
  explicit SwapWriter(const char* path);
  ~SwapWriter();
  SwapWriter(const SwapWriter&) = delete;
  SwapWriter& operator=(const SwapWriter&) = delete;

  explicit operator bool() const { return bool(file_); }
  // The header and the data.
  [[nodiscard]] bool write(const void* data, std::size_t size);
  [[nodiscard]] bool finish(SwapFileIdentity& identity);

 private:
  const char* path_;
  SwapDescriptor file_;
  bool is_finished_ = false;
};

// Reads a file back. Everything that fails leaves errno, 0 for a file that is too short.
class SwapReader {
 public:
  SwapReader(const char* path, const SwapFileIdentity& identity);

  explicit operator bool() const { return bool(file_); }
  [[nodiscard]] bool read_header(std::uint32_t& version);
  [[nodiscard]] std::size_t data_size() const {
    return size_ < kSwapHeaderBytes ? 0 : size_ - kSwapHeaderBytes;
  }
  [[nodiscard]] bool read(void* data, std::size_t size);

 private:
  std::size_t size_ = 0;  // of the file
  SwapDescriptor file_;
};

// Calls function(directory, name) for every file of a folder. False: it cannot be opened.
bool for_each_file(const char* folder, void (*function)(int directory, const char* name, void*),
                   void* argument);
template <typename Function>
bool for_each_file(const char* folder, Function function) {
  const auto call = [](int directory, const char* name, void* argument) {
    (*static_cast<Function*>(argument))(directory, name);
  };
  return for_each_file(folder, call, &function);
}

}  // namespace ka
