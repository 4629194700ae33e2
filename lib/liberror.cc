// Message log. It stands below everything else of the runtime: it takes no lock, allocates nothing
// and works from the first instruction of the process, because every other part reports through it.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <ka/detail/context.h>
#include <ka/message.h>

const char* const ka_modname[KA_MODULE_COUNT] = {
    "NULL",  "MSG",   "PAR",   "MEM",   "DB",    "PHEN",  "TASK",    "SCENE", "RC",       "GAPKA",
    "IMG",   "ECHO",  "KA",    "RCLM",  "SBS",   "RCH",   "IMATTER", "GEOSI", "TEST",     "LINK",
    "P2SD",  "DISP",  "LPROF", "JOB",   "MAIN",  "GEOKA", "MATTER",  "TRANS", "INVENTOR", "LIB",
    "API",   "SPDL",  "PHCR",  "RCB",   "RCC",   "RCI",   "RCGI",    "RCHW",  "SIMP",     "SURF",
    "CAPI",  "GAPAD", "GAPCU", "GAPDI", "GAPIS", "GAPPO", "GAPFA",   "GAPTE", "GEOCO",    "GEOEV",
    "GEOMO", "GEOST", "GEOTE", "JPG",   "RCFG"};

namespace {

constexpr std::size_t kWorkingSize = 4096;  // bytes of a formatted text before it is shortened
constexpr std::size_t kTextSize = 300;
constexpr std::size_t kPrefixSize = 40;
constexpr std::size_t kKeptEnd = 147;  // characters kept of each end of a long text
constexpr std::size_t kLineSize = kPrefixSize + 2 + kTextSize;
constexpr std::size_t kLogNameSize = 1024;
constexpr std::array<const char*, 7> kLevelNames = {"fatal", "error", "warn", "info",
                                                    "progr", "debug", "vdebg"};

// Settings are read on every message and changed at start-up: a reader sees the old or the new
// value.
std::atomic<std::uint32_t> level_mask{KA_FATAL | KA_ERROR | KA_WARNING};
std::array<std::atomic<std::uint32_t>, KA_MODULE_COUNT> msg_bitmap;
std::atomic<bool> masks_are_set{false};
std::atomic<ka_error_callback> handler{nullptr};
std::atomic<bool> do_netmessages{false};

// One formatted line on its way to the output.
struct Record {
  std::uint32_t level;
  int code;
  char prefix[kPrefixSize];
  char text[kTextSize];
};

std::size_t level_index(std::uint32_t level) {
  return std::min<std::size_t>(std::size_t(std::countr_zero(level)), kLevelNames.size());
}

int message_code(int module, std::uint32_t level, int number) {
  const bool geometry = module == KA_GEOKA || (module >= KA_GAPAD && module <= KA_GEOTE);
  const int base = geometry ? 90000 : module * 10000;
  return base + 1000 * std::max(int(level_index(level)), 1) + number % 1000;
}

void format_text(char (&text)[kTextSize], const char* format, va_list arguments) {
  char work[kWorkingSize];
  if (std::vsnprintf(work, sizeof work, format, arguments) < 0) work[0] = '\0';
  const std::size_t length = std::strlen(work);
  std::replace(work, work + length, '\n', ' ');
  if (length < kTextSize) {
    std::memcpy(text, work, length + 1);
  } else {
    std::snprintf(text, sizeof text, "%.*s[...]%s", int(kKeptEnd), work, work + length - kKeptEnd);
  }
}

void format_prefix(Record& record, const ka_context& context, int module, int number) {
  const std::uint32_t mask = ka_get_subverbosity(module);
  char* at = record.prefix;
  char* const end = at + sizeof record.prefix;
  const auto room = [&] { return std::size_t(end - at); };
  if (mask & KA_SUBVERB_MSGTRANS) at += std::snprintf(at, room(), "%07x ", context.transaction);
  if (context.host == -1) {
    at += std::snprintf(at, room(), "%-4.4s  ", ka_modname[module]);
  } else {
    at += std::snprintf(at, room(), "%-4.4s%2d", ka_modname[module], context.host);
  }
  if (context.thread <= 1023) {
    at += std::snprintf(at, room(), ".%-3d", context.thread);
  } else {
    at += std::snprintf(at, room(), ".n  ");
  }
  at += std::snprintf(at, room(), "%-5s", kLevelNames[level_index(record.level)]);
  if (number != 0 && (mask & KA_SUBVERB_MSGCODE)) std::snprintf(at, room(), "  %06d", record.code);
}

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
// name: neither is followed or waited for there.
bool others_can_write_beside(const char* path) {
  char folder[kLogNameSize];
  std::snprintf(folder, sizeof folder, "%s", path);
  char* const slash = std::strrchr(folder, '/');
  if (!slash) return others_can_write_beside("./");
  slash[1] = '\0';
  struct stat status;
  return stat(folder, &status) != 0 || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

int open_log(const char* path) {
  const int no_link = others_can_write_beside(path) ? O_NOFOLLOW : 0;
  return open(path, O_WRONLY | O_APPEND | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | no_link,
              0666);
}

// Appends one line; a file that cannot be opened loses it without notice.
void log_to_file(const char* line) {
  const int file = open_log(log_name());
  if (file < 0) return;
  struct stat status;
  if (fstat(file, &status) == 0 && S_ISREG(status.st_mode)) fchmod(file, 0666);
  const time_t now = time(nullptr);
  char date[32] = "";
  ctime_r(&now, date);
  char entry[kWorkingSize + 128];
  const int length = std::snprintf(entry, sizeof entry, "%.20s: lumoralib[%d,%d] %s\n", date + 4,
                                   int(getpid()), int(getuid()), line);
  const auto bytes = std::min(std::size_t(std::max(length, 0)), sizeof entry - 1);
  (void)!write(file, entry, bytes);  // nobody is left to tell about a full disk
  close(file);
}

bool local_log() {
  static const bool decided = std::getenv("KA_LOGFILE") != nullptr;
  return decided;
}

void output_message(const Record& record) {
  char line[kLineSize];
  std::snprintf(line, sizeof line, "%s: %s", record.prefix, record.text);
  if (local_log()) return log_to_file(line);
  if (const auto callback = handler.load()) {
    callback(record.level, line, record.text, record.code);
    if (handler.load() && record.level != KA_FATAL) return;
  }
  std::fprintf(stderr, "%s\n", line);
}

void message(std::uint32_t level, int number, const char* format, va_list arguments) {
  const int saved_errno = errno;
  const ka_context& context = ka::context();
  const int module = ka::module_at(context, 0);
  Record record{};
  record.level = level;
  record.code = message_code(module, level, number);
  format_text(record.text, format, arguments);
  format_prefix(record, context, module, number);
  output_message(record);
  errno = saved_errno;
}

[[noreturn]] void end_process(const char* format, va_list arguments) {
  char line[kWorkingSize];
  const int module = ka::module_at(ka::context(), 0);
  const int start = std::snprintf(line, sizeof line, "%-4.4s fatal: ", ka_modname[module]);
  std::vsnprintf(line + start, sizeof line - std::size_t(start), format, arguments);
  log_to_file(line);
  std::exit(1);
}

bool is_shown(std::uint32_t level) {
  return (level_mask.load(std::memory_order_relaxed) & level) != 0;
}

}  // namespace

void ka_fatal(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  message(KA_FATAL, 0, format, arguments);
  va_end(arguments);
  va_start(arguments, format);
  end_process(format, arguments);
}

void ka_nfatal(int number, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  message(KA_FATAL, number, format, arguments);
  va_end(arguments);
  va_start(arguments, format);
  end_process(format, arguments);
}

// Every other level is the same few lines: test the mask, and only then look at the arguments.
#define KA_MESSAGE_FUNCTION(name, level)  \
  void name(const char* format, ...) {    \
    if (!is_shown(level)) return;         \
    va_list arguments;                    \
    va_start(arguments, format);          \
    message(level, 0, format, arguments); \
    va_end(arguments);                    \
  }
#define KA_NUMBERED_MESSAGE_FUNCTION(name, level)  \
  void name(int number, const char* format, ...) { \
    if (!is_shown(level)) return;                  \
    va_list arguments;                             \
    va_start(arguments, format);                   \
    message(level, number, format, arguments);     \
    va_end(arguments);                             \
  }

KA_MESSAGE_FUNCTION(ka_error, KA_ERROR)
KA_MESSAGE_FUNCTION(ka_warning, KA_WARNING)
KA_MESSAGE_FUNCTION(ka_info, KA_INFO)
KA_MESSAGE_FUNCTION(ka_progress, KA_PROGRESS)
KA_MESSAGE_FUNCTION(ka_debug, KA_DEBUG)
KA_MESSAGE_FUNCTION(ka_vdebug, KA_VDEBUG)
KA_NUMBERED_MESSAGE_FUNCTION(ka_nerror, KA_ERROR)
KA_NUMBERED_MESSAGE_FUNCTION(ka_nwarning, KA_WARNING)

void ka_set_verbosity(std::uint32_t mask) { level_mask = mask; }

std::uint32_t ka_get_verbosity() { return level_mask; }

void ka_lib_init_subverbosity() {
  if (masks_are_set.exchange(true)) return;
  for (auto& mask : msg_bitmap) mask = KA_SUBVERB_DEFAULT;
}

void ka_set_subverbosity(int module, std::uint32_t mask) {
  ka_lib_init_subverbosity();
  if (module == KA_NULL) {
    for (auto& entry : msg_bitmap) entry = mask;
  } else if (module > KA_NULL && module < KA_MODULE_COUNT) {
    msg_bitmap[std::size_t(module)] = mask;
  }
}

std::uint32_t ka_get_subverbosity(int module) {
  return msg_bitmap[std::size_t(module)].load(std::memory_order_relaxed);
}

void ka_errorhandler(ka_error_callback callback) { handler = callback; }

void ka_toggle_netmessage(int flag) { do_netmessages = flag != 0; }

const char* ka_strerror() { return ka_nstrerror(errno); }

const char* ka_nstrerror(int number) {
  static thread_local char text[128];
  return strerror_r(number, text, sizeof text);
}
