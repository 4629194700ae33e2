// Message log: formats lines. It stands below everything else of the runtime: it takes no lock,
// allocates nothing and works from the first instruction of the process, because every other part
// reports through it.
#include "messagelog.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>

#include <ka/detail/context.h>

const char* const ka_modname[KA_MODULE_COUNT] = {
    "NULL",  "MSG",   "PAR",   "MEM",   "DB",    "PHEN",  "TASK",    "SCENE", "RC",       "GAPKA",
    "IMG",   "ECHO",  "KA",    "RCLM",  "SBS",   "RCH",   "IMATTER", "GEOSI", "TEST",     "LINK",
    "P2SD",  "DISP",  "LPROF", "JOB",   "MAIN",  "GEOKA", "MATTER",  "TRANS", "INVENTOR", "LIB",
    "API",   "SPDL",  "PHCR",  "RCB",   "RCC",   "RCI",   "RCGI",    "RCHW",  "SIMP",     "SURF",
    "CAPI",  "GAPAD", "GAPCU", "GAPDI", "GAPIS", "GAPPO", "GAPFA",   "GAPTE", "GEOCO",    "GEOEV",
    "GEOMO", "GEOST", "GEOTE", "JPG",   "RCFG"};

namespace {

constexpr std::size_t kWorkingSize = 4096;  // bytes of a formatted text before it is shortened
constexpr std::size_t kTextSize = sizeof(ka_message_record::text);
constexpr std::size_t kKeptEnd = 147;  // characters kept of each end of a long text
constexpr std::int32_t kNetworkThread = 1024;
constexpr int kAbortCode = 4;  // tells other layers that a fatal message ends the process
constexpr std::array<const char*, 7> kLevelNames = {"fatal", "error", "warn", "info",
                                                    "progr", "debug", "vdebg"};
static_assert(sizeof(ka_message_record) == 364 && offsetof(ka_message_record, text) == 64);

std::atomic<std::uint32_t> level_mask{KA_FATAL | KA_ERROR | KA_WARNING};

// The module on top of the stack; a number that a program has made up counts as none.
int current_module(const ka_context& context) {
  const int module = ka::module_at(context, 0);
  return module >= 0 && module < KA_MODULE_COUNT ? module : KA_NULL;
}

int message_code(int module, std::uint32_t level, int number) {
  const bool geometry = module == KA_GEOKA || (module >= KA_GAPAD && module <= KA_GEOTE);
  const int base = geometry ? 90000 : module * 10000;
  return base + 1000 * std::max(int(ka::level_index(level)), 1) + number % 1000;
}

// Arguments that have no text, such as a wide character that the locale lacks, leave the format.
void format_or_copy(std::span<char> text, const char* format, va_list arguments) {
  if (std::vsnprintf(text.data(), text.size(), format, arguments) >= 0) return;
  std::snprintf(text.data(), text.size(), "%s", format);
}

void format_text(char (&text)[kTextSize], const char* format, va_list arguments) {
  char work[kWorkingSize];
  format_or_copy(work, format, arguments);
  const std::size_t length = std::strlen(work);
  if (length < kTextSize) {
    std::memcpy(text, work, length + 1);
  } else {
    std::snprintf(text, sizeof text, "%.*s[...]%s", int(kKeptEnd), work, work + length - kKeptEnd);
  }
}

void format_prefix(ka_message_record& record, const ka_context& context, int module, int number) {
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
  if (context.thread < kNetworkThread) {
    at += std::snprintf(at, room(), ".%-3d", context.thread);
  } else {
    at += std::snprintf(at, room(), ".n  ");
  }
  at += std::snprintf(at, room(), "%-5s", kLevelNames[ka::level_index(record.level)]);
  if (number != 0 && (mask & KA_SUBVERB_MSGCODE)) std::snprintf(at, room(), "  %06d", record.code);
}

void message(std::uint32_t level, int number, const char* format, va_list arguments) {
  const int saved_errno = errno;
  const ka_context& context = ka::context();
  const int module = current_module(context);
  ka_message_record record{.kind = KA_RECORD_LINE,
                           .level = level,
                           .code = message_code(module, level, number),
                           .world = context.world,
                           .session = context.session,
                           .transaction = context.transaction,
                           .prefix = {},
                           .text = {}};
  format_text(record.text, format, arguments);
  format_prefix(record, context, module, number);
  const bool from_master_network = context.thread == kNetworkThread && context.host == 0;
  ka::output_message(record, !from_master_network);
  errno = saved_errno;
}

[[noreturn]] void end_process(const char* format, va_list arguments) {
  char line[kWorkingSize];
  const int module = current_module(ka::context());
  const int start = std::snprintf(line, sizeof line, "%-4.4s fatal: ", ka_modname[module]);
  format_or_copy(std::span(line).subspan(std::size_t(start)), format, arguments);
  ka::log_to_file(line);
  ka::network.abort(kAbortCode);
  std::exit(1);
}

bool is_shown(std::uint32_t level) {
  return (level_mask.load(std::memory_order_relaxed) & level) != 0;
}

}  // namespace

std::size_t ka::level_index(std::uint32_t level) {
  return std::min<std::size_t>(std::size_t(std::countr_zero(level)), kLevelNames.size());
}

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

void ka::take_level_mask(std::uint32_t mask) { level_mask = mask; }

void ka_set_verbosity(std::uint32_t mask) {
  ka::take_level_mask(mask);
  if (ka::context().host == 0) ka::send_verbosities(-1);  // the master's settings hold on all hosts
}

std::uint32_t ka_get_verbosity() { return level_mask; }

const char* ka_strerror() { return ka_nstrerror(errno); }

const char* ka_nstrerror(int number) {
  static thread_local char text[128];
  return strerror_r(number, text, sizeof text);
}
