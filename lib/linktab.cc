// Softimage's linktab.ini: a table of folders with their names on NT and on UNIX, one pair a line.
#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <optional>

#include <ka/detail/textlines.h>
#include <ka/message.h>

#include "substrules.h"

namespace {

using ka::kBlanks;

constexpr std::size_t kMaxLine = 2046;                  // characters
constexpr std::size_t kMaxFile = std::size_t{1} << 20;  // bytes
constexpr int kNoSettings = 46;  // of the message about anything else under the file's name
constexpr std::size_t kMaxFolder = 1536;  // characters of a folder from the environment

// The folders that the drives A to Z represent, with slashes, also at the end; empty: no such
// drive. No mount table of this platform tells them.
constexpr std::array<std::string_view, 26> kDrives{};

ka::string with_slashes(std::string_view folder) {
  ka::string result(folder);
  std::ranges::replace(result, '\\', '/');
  if (!result.empty() && result.back() != '/') result += '/';
  return result;
}

// The letter of a drive's folder; 0: none.
char drive_of(std::string_view folder) {
  const ka::string wanted = with_slashes(folder);
  if (wanted.empty()) return '\0';
  const auto found = std::ranges::find(kDrives, std::string_view(wanted));
  return found == kDrives.end() ? '\0' : char('A' + (found - kDrives.begin()));
}

std::string_view first_field(std::string_view line) {
  return line.substr(0, line.find_first_of(kBlanks));
}

class LinktabReader {
 public:
  LinktabReader(const char* file, ka::SubstRules& rules) : file_(file), rules_(rules) {}

  void parse(std::string_view line) {
    ++number_;
    line = line.substr(0, line.find('\r'));
    ka::skip_blanks(line, kBlanks);
    if (line.empty() || line.front() == '#') return;
    const auto nt_path = take_nt_path(line);
    if (!nt_path) return;
    ka::skip_blanks(line, kBlanks);
    const std::string_view unix_string = first_field(line);
    if (unix_string.empty()) return ka_debug("%s %d: missing UNIX string", file_, number_);
    ka::subst_add_rule(rules_, with_slashes(unix_string), *nt_path);
  }

 private:
  // Takes the first field off the line; empty, after a debug message, for a faulty one.
  std::optional<ka::string> take_nt_path(std::string_view& line) const {
    const std::size_t end = line.find_first_of(" \t!");
    const bool names_drive = end != std::string_view::npos && line[end] == '!';
    char drive = '\0';
    if (names_drive) {
      const ka::string folder(line.substr(0, end));
      drive = drive_of(folder);
      if (!drive) ka_debug("%s %d: no drive for \"%s\"", file_, number_, folder.c_str());
      line.remove_prefix(end + 1);
    }
    std::string_view nt_string = first_field(line);
    if (names_drive && nt_string.empty()) {
      ka_debug("%s %d: missing NT string after '!'", file_, number_);
      return std::nullopt;
    }
    if (nt_string.size() == line.size()) {
      ka_debug("%s %d: missing NT string", file_, number_);
      return std::nullopt;
    }
    line.remove_prefix(nt_string.size());
    if (!names_drive && (drive = drive_of(nt_string))) nt_string = {};
    ka::string path = drive ? ka::string{drive, ':', '/'} : ka::string{};
    path += nt_string;
    return with_slashes(path);
  }

  const char* file_;
  ka::SubstRules& rules_;
  int number_ = 0;  // of the line, from 1 on
};

// What an open file holds, up to one byte more than it may.
ka::string read_open(int file) {
  ka::string bytes(kMaxFile + 1, '\0');
  std::size_t size = 0;
  while (size < bytes.size()) {
    const ssize_t got = read(file, bytes.data() + size, bytes.size() - size);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    size += std::size_t(got);
  }
  bytes.resize(size);
  return bytes;
}

// Empty for what cannot be opened, and for a folder, which can but has no lines. Everything else
// that is no file of settings is empty after an error message; a pipe is not waited for.
std::optional<ka::string> read_file(const char* name) {
  const int file = open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (file < 0) return std::nullopt;
  struct stat status;
  const bool is_known = fstat(file, &status) == 0;
  std::optional<ka::string> bytes;
  if (is_known && S_ISREG(status.st_mode) && status.st_size <= off_t{kMaxFile}) {
    bytes = read_open(file);
  }
  close(file);
  if (bytes && bytes->size() <= kMaxFile) return bytes;
  if (is_known && S_ISDIR(status.st_mode)) return std::nullopt;
  ka_nerror(kNoSettings, "path substitution: \"%s\" is not a regular file of at most 1 MiB", name);
  return std::nullopt;
}

// Takes the next line off the text, without its line feed and what passes its greatest length.
std::string_view take_limited_line(std::string_view& text) {
  const std::string_view line = ka::take_line(text);
  return line.substr(0, std::min(line.find('\n'), kMaxLine));
}

}  // namespace

void ka::subst_read_linktab(SubstRules& rules) {
  const char* const location = std::getenv("SI_LINKTAB_LOCATION");
  const char* const folder = location ? location : std::getenv("SI_LOCATION");
  if (!folder) return;
  char path[kMaxFolder + sizeof "/linktab.ini"];
  std::snprintf(path, sizeof path, "%.*s/linktab.ini", int(kMaxFolder), folder);
  const char* name = path;
  auto file = read_file(name);
  if (!file && location) file = read_file(name = location);
  if (!file) return;
  ka_info("reading Softimage ini file \"%s\"", name);
  LinktabReader reader(name, rules);
  for (std::string_view rest = *file; !rest.empty();) reader.parse(take_limited_line(rest));
  ka_debug("finished reading \"%s\"", name);
}
