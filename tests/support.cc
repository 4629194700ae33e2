#include "support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <regex.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include <ka/db.h>
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/trans.h>

namespace test {
namespace {

constexpr unsigned kLongestRun = 30;  // seconds

void collect(std::uint32_t /*level*/, const char* line, const char* /*text*/, int /*code*/) {
  MessageLog::lines().emplace_back(line);
}

// The file behind a standard stream of the child; -1 for one that stays closed.
int target(int wanted) {
  return wanted == kCapture ? memfd_create("captured", MFD_CLOEXEC) : wanted;
}

std::string captured(int wanted, int file) {
  if (wanted != kCapture) return {};
  std::string text(std::size_t(lseek(file, 0, SEEK_END)), '\0');
  EXPECT_EQ(pread(file, text.data(), text.size(), 0), ssize_t(text.size()));
  close(file);
  return text;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> result;
  for (std::string& text : texts) result.push_back(text.data());
  result.push_back(nullptr);
  return result;
}

double seconds(const timeval& time) { return double(time.tv_sec) + double(time.tv_usec) * 1e-6; }

void become(const std::string& path, const Program& program) {
  std::vector<std::string> arguments = {path};
  arguments.insert(arguments.end(), program.arguments.begin(), program.arguments.end());
  std::vector<std::string> environment = program.environment;
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view text = *entry, name = text.substr(0, text.find('=') + 1);
    const bool is_replaced = std::ranges::any_of(
        program.environment, [name](const auto& own) { return own.starts_with(name); });
    if (!text.starts_with("KA_") && !is_replaced) environment.emplace_back(text);
  }
  for (const int number : {SIGPIPE, SIGXFSZ}) signal(number, SIG_DFL);
  execve(path.c_str(), pointers(arguments).data(), pointers(environment).data());
}

// An exception ends the process, as one that leaves main does.
[[noreturn]] void end_with(const std::function<int()>& work) noexcept { std::exit(work()); }

// Runs a child with these standard streams.
Outcome run_child(int standard_output, int standard_error, const std::function<int()>& work) {
  const int out = target(standard_output), err = target(standard_error);
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    for (const auto& [file, stream] : {std::pair{out, STDOUT_FILENO}, {err, STDERR_FILENO}}) {
      if (file == kClosed) close(stream);
      if (file >= 0) dup2(file, stream);
    }
    alarm(kLongestRun);
    end_with(work);
  }
  int status = 0;
  rusage usage{};
  EXPECT_EQ(wait4(child, &status, 0, &usage), child);
  return {.status = WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status),
          .out = captured(standard_output, out),
          .err = captured(standard_error, err),
          .peak_kilobytes = usage.ru_maxrss,
          .cpu_seconds = seconds(usage.ru_utime) + seconds(usage.ru_stime)};
}

}  // namespace

bool matches(const std::string& text, const std::string& expression) {
  regex_t compiled;
  if (regcomp(&compiled, ("^(" + expression + ")$").c_str(), REG_EXTENDED | REG_NOSUB) != 0)
    return false;
  const bool result = regexec(&compiled, text.c_str(), 0, nullptr, 0) == 0;
  regfree(&compiled);
  return result;
}

Scratch::Scratch() {
  std::string name = testing::TempDir() + "lumora_test_XXXXXX";
  if (mkdtemp(name.data()) == nullptr) ADD_FAILURE() << "no scratch folder: " << ka_strerror();
  folder_ = name;
}

Scratch::~Scratch() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

std::string Scratch::path(std::string_view name) const { return folder_ / name; }

std::string Scratch::write(std::string_view name, std::string_view bytes) const {
  std::ofstream(path(name), std::ios::binary) << bytes;
  return path(name);
}

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file) << path;
  return {std::istreambuf_iterator<char>(file), {}};
}

bool exists(const std::string& path) {
  return std::filesystem::symlink_status(path).type() != std::filesystem::file_type::not_found;
}

std::string bytes(std::initializer_list<int> values) { return {values.begin(), values.end()}; }

void start_library() {
  ka_lumoralib_attach_process();
  ka_module_push(KA_MAIN);
  ka_mem_init();
  ka_db_init();
  ka_img_init();
  ka_context_init();
  ka_trans_init();
}

void ReleaseMemory::operator()(img_image* image) const { ka_img_image_release(image); }
void ReleaseMemory::operator()(img_line* line) const { ka_mem_release(line); }

Image make_image(int type, int width, int height) {
  img_file shape{};
  shape.type = type;
  shape.width = width;
  shape.height = height;
  return Image(ka_img_image_alloc(&shape));
}

Image read_image(const std::string& path, int type, int* error) {
  Handle file;
  Image image;
  if (ka_img_open(file, path.c_str(), type)) image.reset(ka_img_image_alloc(file));
  if (image && !ka_img_image_read(file, image.get())) image.reset();
  if (error) *error = file->error;
  return image;
}

int write_image(const std::string& path, int format, img_image* image) {
  Handle file;
  file->file_type = std::uint8_t(image->type);
  if (ka_img_create(file, path.c_str(), image->type, format, image->width, image->height)) {
    ka_img_image_write(file, image);
  }
  ka_img_close(file);
  return file->error;
}

std::uint8_t* plane(const img_image* image, int y, std::size_t slot) {
  auto* const block = reinterpret_cast<std::uint8_t*>(const_cast<img_image*>(image));
  const std::uint32_t offset =
      reinterpret_cast<const img_image_line*>(block + sizeof *image)[y].offset[slot];
  return offset ? block + offset : nullptr;
}

std::uint8_t* plane(const img_line* line, std::size_t slot) {
  auto* const record = reinterpret_cast<std::uint8_t*>(const_cast<img_line*>(line));
  return line->offset[slot] ? record + line->offset[slot] : nullptr;
}

MessageLog::MessageLog(std::uint32_t verbosity) : saved_verbosity_(ka_get_verbosity()) {
  lines().clear();
  if (verbosity != 0) ka_set_verbosity(verbosity);
  ka_errorhandler(collect);
}

MessageLog::~MessageLog() {
  ka_errorhandler(nullptr);
  ka_set_verbosity(saved_verbosity_);
}

std::vector<std::string>& MessageLog::lines() {
  static std::vector<std::string> lines;
  return lines;
}

Limit::Limit(__rlimit_resource resource, rlim_t value) : resource_(resource), saved_{} {
  signal(SIGXFSZ, SIG_IGN);  // a file that may not grow is an error of write()
  EXPECT_EQ(getrlimit(resource, &saved_), 0);
  const rlimit lowered = {value, saved_.rlim_max};
  EXPECT_EQ(setrlimit(resource, &lowered), 0);
}

Limit::~Limit() { setrlimit(resource_, &saved_); }

int open_descriptors() {
  const auto entries = std::filesystem::directory_iterator("/proc/self/fd");
  return int(std::distance(begin(entries), end(entries)));
}

Outcome run(const std::string& path, const Program& program) {
  return run_child(program.standard_output, program.standard_error, [&] {
    become(path, program);
    _exit(127);
    return 0;
  });
}

Outcome run(const std::function<int()>& work) { return run_child(kCapture, kCapture, work); }

std::string find_program(const std::string& name) {
  const std::string path = run("/bin/sh", {.arguments = {"-c", "command -v " + name}}).out;
  return path.substr(0, path.find('\n'));
}

}  // namespace test
