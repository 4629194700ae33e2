// What the tests of all rooms share.
#pragma once

#include <gtest/gtest.h>
#include <ka/img.h>
#include <ka/msg.h>
#include <sys/resource.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace test {

// Names the rows of a table of cases by their member `name`.
template <typename Row>
std::string row_name(const testing::TestParamInfo<Row>& row) {
  return row.param.name;
}

// A folder of its own for one test, removed with everything in it.
class Scratch {
 public:
  Scratch();
  ~Scratch();
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  [[nodiscard]] std::string path(std::string_view name) const;
  // Writes a file and returns its path.
  std::string write(std::string_view name, std::string_view bytes) const;

 private:
  std::filesystem::path folder_;
};

std::string read_file(const std::string& path);
bool exists(const std::string& path);  // also a link that leads nowhere

// Bytes given as numbers, which may be above 127.
std::string bytes(std::initializer_list<int> values);

// Whether the whole text is what a POSIX extended regular expression describes.
bool matches(const std::string& text, const std::string& expression);

// An image file that is closed at the end of the block.
class Handle {
 public:
  Handle() = default;
  ~Handle() { ka_img_close(&file_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  img_file* operator->() { return &file_; }
  operator img_file*() { return &file_; }

 private:
  img_file file_{};
};

// Starts the library as every program of the system does.
void start_library();

struct ReleaseMemory {
  void operator()(img_image* image) const;
  void operator()(img_line* line) const;
};
using Image = std::unique_ptr<img_image, ReleaseMemory>;
using Line = std::unique_ptr<img_line, ReleaseMemory>;

enum Slot : std::size_t { kR, kG, kB, kA };

// An image without a file.
Image make_image(int type, int width, int height);
// Opens a file in the given type and reads it whole; empty after a failure, `error` says which.
Image read_image(const std::string& path, int type, int* error = nullptr);
// Creates a file whose own type is `type`, writes the image and closes it. Returns the error.
int write_image(const std::string& path, int format, img_image* image);

// Samples of one plane of line y, and of a line record; null for an absent plane.
std::uint8_t* plane(const img_image* image, int y, std::size_t slot);
std::uint8_t* plane(const img_line* line, std::size_t slot);
template <typename Sample>
std::vector<Sample> samples(const std::uint8_t* plane, int count) {
  const auto* const first = reinterpret_cast<const Sample*>(plane);
  return {first, first + count};
}
template <typename Sample>
void set_samples(std::uint8_t* plane, const std::vector<Sample>& values) {
  std::copy(values.begin(), values.end(), reinterpret_cast<Sample*>(plane));
}

// Collects the lines of the message log while it lives. With `verbosity` 0 the levels stay as they
// are.
class MessageLog {
 public:
  explicit MessageLog(std::uint32_t verbosity = 0);
  ~MessageLog();
  MessageLog(const MessageLog&) = delete;
  MessageLog& operator=(const MessageLog&) = delete;

  [[nodiscard]] static std::vector<std::string>& lines();  // prefix, ": " and text

 private:
  std::uint32_t saved_verbosity_;
};

// Lowers a limit of this process while it lives.
class Limit {
 public:
  Limit(__rlimit_resource resource, rlim_t value);
  ~Limit();
  Limit(const Limit&) = delete;
  Limit& operator=(const Limit&) = delete;

 private:
  __rlimit_resource resource_;
  rlimit saved_;
};

// A thread that the library knows, which something else has started.
template <typename Function>
std::jthread registered(Function function) {
  return std::jthread([function] {
    EXPECT_GT(ka_msg_register_thread(), 0);
    function();
    ka_msg_unregister_thread();
  });
}

// Runs a function in several such threads at once.
template <typename Function>
void in_threads(int count, Function function) {
  std::vector<std::jthread> threads;
  for (int i = 0; i < count; ++i) threads.push_back(registered(function));
}

int open_descriptors();  // how many files this process has open

constexpr int kCapture = -1, kClosed = -2;

struct Program {
  std::vector<std::string> arguments;      // after the program's name
  std::vector<std::string> environment{};  // NAME=value, added to the tests' own without KA_...
  int standard_output = kCapture;          // or a file descriptor
  int standard_error = kCapture;
};

struct Outcome {
  int status;            // exit status; minus the signal's number for a program that was killed
  std::string out, err;  // what was captured
  long peak_kilobytes;   // of resident memory
  double cpu_seconds;    // of the program and the system
};

// A program in one of the folders of PATH, empty when there is none.
std::string find_program(const std::string& name);

// Runs a program, or work in a process of its own, to its end. What takes longer than half a minute
// is killed.
Outcome run(const std::string& path, const Program& program);
Outcome run(const std::function<int()>& work);  // its exit status; standard output is dropped

}  // namespace test
