// Where lines of the message log end up: the log file, the master of a network, a handler, standard
// error.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <ka/detail/cleantext.h>
#include <ka/detail/context.h>

#include "messagelog.h"

namespace {

constexpr std::size_t kLineSize =
    sizeof(ka_message_record::prefix) + 2 + sizeof(ka_message_record::text);
constexpr std::size_t kLogNameSize = 1024;
constexpr std::size_t kLongestText = 4096;  // of a line in the log file
constexpr std::size_t kEntrySize = kLongestText + 128;
constexpr int kMaster = 0;

std::atomic<ka_error_callback> handler{nullptr};
std::atomic<bool> do_netmessages{false};

// The log file's name is decided at the first line that is written to it.
const char* log_name() {
  static const auto name = [] {
    std::array<char, kLogNameSize> buffer{};
    const char* value = std::getenv("KA_LOGFILE");
    std::snprintf(buffer.data(), buffer.size(), "%s", value ? value : "/tmp/lumoralib.log");
    return buffer;
  }();
  return name.data();
}

// Folders that others can write to may hold a link, or a pipe that nobody reads, under the log's
// name: neither is followed or waited for there. Nor is a file with a second name, which may be one
// of the user's own files.
bool others_can_write_beside(const char* path) {
  char folder[kLogNameSize];
  std::snprintf(folder, sizeof folder, "%s", path);
  char* const slash = std::strrchr(folder, '/');
  if (slash) {
    slash[1] = '\0';
  } else {
    std::strcpy(folder, ".");
  }
  struct stat status;
  return stat(folder, &status) != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

// The log file with its permissions set; -1: not to be had.
int open_log(const char* path) {
  const bool is_shared = others_can_write_beside(path);
  const int no_link = is_shared ? O_NOFOLLOW : 0;
  const int file =
      open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | no_link, 0666);
  struct stat status;
  if (file < 0 || fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) return file;
  if (is_shared && status.st_nlink != 1) {
    close(file);
    return -1;
  }
  fchmod(file, 0666);
  return file;
}

bool local_log() {
  static const bool decided = std::getenv("KA_LOGFILE") != nullptr;
  return decided;
}

// Returns whether the line has been taken.
bool give_to_handler(const ka_message_record& record, const char* line) {
  const auto callback = handler.load();
  if (!callback) return false;
  callback(record.level, line, record.text, record.code);
  return handler.load() && record.level != KA_FATAL;
}

// The log file keeps so much of a long expression and of the end of a long file name that the line
// number has its place.
void log_assertion(const char* expression, const char* file, int line) {
  constexpr std::size_t longest = 2000;  // characters of each
  const std::size_t length = std::strlen(file);
  if (length > longest) file += length - longest;
  char text[kLongestText];
  std::snprintf(text, sizeof text, "ASSERTION FAILED %.*s: %s %d", int(longest), expression, file,
                line);
  ka::log_to_file(text);
}

}  // namespace

ka::message_network ka::network = {.is_slave = [] { return false; },
                                   .send = [](int, const ka_message_record&) { return false; },
                                   .abort = [](int) {}};

void ka::log_to_file(const char* line) {
  const int file = open_log(log_name());
  if (file < 0) return;
  const time_t now = time(nullptr);
  char date[32] = "";
  ctime_r(&now, date);
  char entry[kEntrySize];
  const int length = std::snprintf(entry, sizeof entry, "%.20s: lumoralib[%d,%d] %s\n", date + 4,
                                   int(getpid()), int(getuid()), line);
  const auto bytes = std::min(std::size_t(std::max(length, 1)), sizeof entry - 1);
  ka::clean_text({entry, bytes - 1});  // all but the end of the line
  (void)!write(file, entry, bytes);    // nobody is left to tell about a full disk
  close(file);
}

void ka::output_message(ka_message_record& record, bool may_forward) {
  ka::clean_text({record.prefix, std::strlen(record.prefix)});
  ka::clean_text({record.text, std::strlen(record.text)});
  char line[kLineSize];
  std::snprintf(line, sizeof line, "%s: %s", record.prefix, record.text);
  if (local_log()) return ka::log_to_file(line);
  const bool is_fatal = record.level == KA_FATAL;
  if (may_forward && do_netmessages) {
    record.kind = KA_RECORD_LINE;
    if (!ka::network.send(kMaster, record) || is_fatal) ka::log_to_file(line);
    if (!is_fatal) return;
  } else if (ka::network.is_slave()) {
    return ka::log_to_file(line);
  }
  if (give_to_handler(record, line)) return;
  std::fprintf(stderr, "%s%s\n%s", ka::color_of(ka::level_index(record.level)), line,
               ka::color_of(7));
}

void ka_errorhandler(ka_error_callback callback) {
  const int host = ka::context().host;
  if (host != -1 && host != kMaster) {
    ka_nerror(36, "ka_errorhandler can only be used on master");
    return;
  }
  handler = callback;
}

void ka_toggle_netmessage(int flag) { do_netmessages = flag != 0; }

void __assert(const char* expression, const char* file, int line) noexcept {
  constexpr int exit_status = 77;  // of a process that survived both signals
  log_assertion(expression, file, line);
  std::fprintf(stderr, "ASSERTION FAILED: %s: %s %d\n", expression, file, line);
  raise(SIGABRT);
  raise(SIGKILL);
  _exit(exit_status);
}
