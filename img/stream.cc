#include "stream.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr std::int64_t kHere = -1;          // the position of the file descriptor
constexpr std::size_t kLeastPortion = 512;  // bytes; the system takes as long for fewer

// Reads up to `count` bytes at an offset, fewer only at the end of the file; -1 on a failure.
ssize_t read_up_to(void* buffer, std::size_t count, FILE* stream, std::int64_t offset) {
  auto* const bytes = static_cast<std::uint8_t*>(buffer);
  std::size_t done = 0;
  while (done < count) {
    const ssize_t got =
        offset == kHere ? read(fileno(stream), bytes + done, count - done)
                        : pread(fileno(stream), bytes + done, count - done, offset + off_t(done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += std::size_t(got);
  }
  return ssize_t(done);
}

}  // namespace

int ka::img_fread(void* buffer, std::size_t count, FILE* stream) {
  errno = 0;
  return read_up_to(buffer, count, stream, kHere) == ssize_t(count);
}

int ka::img_fseek(FILE* stream, std::int64_t offset, int whence) {
  return lseek(fileno(stream), offset, whence) >= 0;
}

namespace ka {

void FileReader::start(img_file* handle, std::uint64_t offset, std::size_t buffer_size) {
  stream_ = handle->stream;
  size_ = std::uint64_t(handle->file_size);
  buffer_ = Buffer(std::size_t(std::min<std::uint64_t>(size_, buffer_size)));
  at_ = end_ = buffer_.data();
  left_ = size_ - std::min(offset, size_);
  portion_ = buffer_.size();
}

void FileReader::jump(std::uint64_t offset) {
  at_ = end_ = buffer_.data();
  left_ = size_ - std::min(offset, size_);
}

void FileReader::seek(std::uint64_t offset) {
  const std::uint64_t here = size_ - left_;
  const std::uint64_t front = here - std::uint64_t(at_ - buffer_.data());
  if (offset >= front && offset <= here + std::uint64_t(end_ - at_)) {
    at_ = buffer_.data() + (offset - front);
    left_ = size_ - std::min(offset, size_);
    return;
  }
  const auto held = std::size_t(end_ - buffer_.data()), unused = std::size_t(end_ - at_);
  if (unused > held / 2) portion_ = std::max(portion_ / 2, kLeastPortion);
  jump(offset);
}

void FileReader::seek_back(std::uint64_t offset, std::size_t count) {
  const std::uint64_t here = size_ - left_;
  const std::uint64_t front = here - std::uint64_t(at_ - buffer_.data());
  const std::uint64_t behind = here + std::uint64_t(end_ - at_);
  const std::uint64_t end = std::min(offset + count, size_);
  if (offset >= front && end <= behind) return seek(offset);
  const bool goes_on = offset < front && end >= front;
  portion_ =
      goes_on ? std::min(2 * portion_, buffer_.size()) : std::max(portion_ / 2, kLeastPortion);
  const std::size_t wanted = std::min(std::max(portion_, count), buffer_.size());
  const std::uint64_t before = wanted - std::min(count, wanted);
  jump(offset - std::min(offset, before));
  fill(std::size_t(std::min<std::uint64_t>(wanted, left_)));
  seek(offset);
}

bool FileReader::fill(std::size_t count) {
  errno = 0;
  if (count > left_ || count > buffer_.size()) return false;
  const auto kept = std::size_t(end_ - at_);
  const std::uint64_t behind =
      size_ - left_ + kept;  // file offset of what comes after the kept bytes
  if (end_ != buffer_.data()) portion_ = 2 * std::min(portion_, buffer_.size());  // goes on
  std::memmove(buffer_.data(), at_, kept);
  const std::size_t most = std::min(std::max(portion_, count), buffer_.size());
  const auto wanted = std::size_t(std::min<std::uint64_t>(most, left_)) - kept;
  const ssize_t got = read_up_to(buffer_.data() + kept, wanted, stream_, std::int64_t(behind));
  at_ = buffer_.data();
  end_ = at_ + kept + std::max<ssize_t>(got, 0);
  return std::size_t(end_ - at_) >= count;
}

bool FileReader::read(std::span<std::uint8_t> bytes) {
  errno = 0;
  if (bytes.size() > left_) return false;
  while (!bytes.empty()) {
    const auto part = take(std::min(bytes.size(), buffer_.size()));
    if (part.empty()) return false;
    std::memcpy(bytes.data(), part.data(), part.size());
    bytes = bytes.subspan(part.size());
  }
  return true;
}

void FileWriter::start(img_file* handle) {
  stream_ = handle->stream;
  buffer_ = Buffer(kBufferSize);
  base_ = std::uint64_t(std::max<off_t>(lseek(fileno(stream_), 0, SEEK_CUR), 0));
}

std::span<std::uint8_t> FileWriter::put(std::size_t count) {
  if (count > buffer_.size() - used_) flush();
  const auto room = std::span(buffer_.data() + used_, count);
  used_ += count;
  return room;
}

void FileWriter::write(std::span<const char> bytes) {
  while (!bytes.empty()) {
    const auto part = bytes.first(std::min(bytes.size(), kBufferSize));
    std::memcpy(put(part.size()).data(), part.data(), part.size());
    bytes = bytes.subspan(part.size());
  }
}

void FileWriter::seek(std::uint64_t offset) {
  flush();
  if (error_ == 0 && base_ != 0 && (fcntl(fileno(stream_), F_GETFL) & O_APPEND) != 0) {
    error_ = ESPIPE;  // whatever is written would go to the end
  }
  const auto place = std::int64_t(base_ + offset);
  if (error_ == 0 && !ka::img_fseek(stream_, place, SEEK_SET)) error_ = errno;
  start_ = offset;
}

int FileWriter::flush() {
  std::size_t done = 0;
  while (error_ == 0 && done < used_) {
    const ssize_t written = ::write(fileno(stream_), buffer_.data() + done, used_ - done);
    if (written >= 0) {
      done += std::size_t(written);
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  start_ += used_;
  used_ = 0;
  return error_;
}

}  // namespace ka
