// The open file: exact reads and writes past the buffer of the C library, and "how much does the
// file still hold".
#pragma once

#include <ka/detail/owned.h>
#include <ka/img.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace ka {

// Reads exactly `count` bytes at the position of the stream's file descriptor. Returns 1, or 0 at
// the end of the file and on a failure of the system, with the reason in errno.
int img_fread(void* buffer, std::size_t count, FILE* stream);

// Moves the position of the stream's file descriptor. Returns 1, or 0 when the system refuses.
int img_fseek(FILE* stream, std::int64_t offset, int whence);

// Reads a file through a private buffer, from front to back or row by row wherever the rows
// stand. Several readers of one file do not disturb each other.
class FileReader {
 public:
  // Two readers and the lines they fill stay in a second-level cache; larger buffers measured
  // slower.
  static constexpr std::size_t kBufferSize = std::size_t{128} << 10;
  static constexpr int kEnd = -1;

  // Starts at a byte offset. Before: the handle is open, its file_size is set. `buffer_size` bounds
  // what one call of take can give.
  void start(img_file* handle, std::uint64_t offset, std::size_t buffer_size = kBufferSize);

  // Goes on at another byte offset. Where much of what was read was passed over, less is read at a
  // time: rows that lie far apart cost what they take.
  void seek(std::uint64_t offset);

  // Goes on at an offset before which reading goes on later, as in files whose last line comes
  // first: when the `count` bytes from there on are not at hand, those before them are read as
  // well.
  void seek_back(std::uint64_t offset, std::size_t count);

  // Bytes from here to the end of the file, as large as it was when it was opened.
  [[nodiscard]] std::uint64_t left() const { return left_; }

  // The byte offset of what comes next, at most the size of the file.
  [[nodiscard]] std::uint64_t position() const { return size_ - left_; }

  // The next `count` bytes, valid until the next call; empty when fewer are left or when the system
  // failed, with the reason in errno (0 for an early end). `count` is at most the buffer's size.
  [[nodiscard]] std::span<const std::uint8_t> take(std::size_t count) {
    if (count > std::size_t(end_ - at_) && !fill(count)) return {};
    const auto bytes = std::span(at_, count);
    at_ += count;
    left_ -= count;
    return bytes;
  }

  // The bytes from here on that are at hand, valid until the next call and not taken yet: at least
  // `count`, fewer only when the file ends or the system failed, with the reason in errno (0 for the
  // end). `count` is at most the buffer's size.
  [[nodiscard]] std::span<const std::uint8_t> ahead(std::size_t count) {
    if (count > std::size_t(end_ - at_)) fill(std::size_t(std::min<std::uint64_t>(count, left_)));
    return {at_, end_};
  }

  // Copies the next bytes, as many as `bytes` has room for. False as take is empty; nothing is then
  // taken.
  [[nodiscard]] bool read(std::span<std::uint8_t> bytes);

  // The next byte, or kEnd.
  [[nodiscard]] int get() {
    if (at_ == end_ && !fill(1)) return kEnd;
    --left_;
    return *at_++;
  }

 private:
  bool fill(std::size_t count);     // makes `count` bytes available
  void jump(std::uint64_t offset);  // goes there with an empty buffer

  FILE* stream_ = nullptr;
  Buffer buffer_;
  const std::uint8_t* at_ = nullptr;   // the next byte
  const std::uint8_t* end_ = nullptr;  // after the last byte in the buffer
  std::uint64_t size_ = 0;             // of the file
  std::uint64_t left_ = 0;             // bytes from at_ to the end of the file
  std::size_t portion_ = 0;            // bytes to read at a time, when no more are asked for
};

// Writes a file through a private buffer, from front to back unless asked otherwise.
class FileWriter {
 public:
  static constexpr std::size_t kBufferSize = std::size_t{128} << 10;

  void start(img_file* handle);

  // Room for the next `count` bytes, to be filled before the next call. `count` is at most
  // kBufferSize.
  [[nodiscard]] std::span<std::uint8_t> put(std::size_t count);
  // Copies bytes, as many as there are.
  void write(std::span<const char> bytes);

  // Goes on at another byte offset.
  void seek(std::uint64_t offset);

  // The byte offset of what is put next.
  [[nodiscard]] std::uint64_t position() const { return start_ + used_; }

  // Hands everything to the system. The error number of the first failure, 0 for none, is kept:
  // nothing is written after it.
  int flush();
  [[nodiscard]] int error() const { return error_; }

 private:
  FILE* stream_ = nullptr;
  Buffer buffer_;
  std::uint64_t base_ = 0;   // where the picture begins in the file: offsets count from there
  std::uint64_t start_ = 0;  // byte offset of the buffer's first byte
  std::size_t used_ = 0;
  int error_ = 0;
};

}  // namespace ka
