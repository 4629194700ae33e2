// Softimage's linktab.ini: a table of folders with their names on NT and on UNIX, one pair a line.
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <optional>

#include <ka/message.h>

#include "subst.h"

namespace {

using ka::kBlanks;

constexpr std::size_t kMaxLine = 2046;    // characters
constexpr std::size_t kMaxFolder = 1536;  // characters of a folder from the environment

// The folders that the drives A to Z stand for, with slashes, also at the end; empty: no such
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

std::string_view skip_blanks(std::string_view line) {
  return line.substr(std::min(line.find_first_not_of(kBlanks), line.size()));
}

class LinktabReader {
 public:
  LinktabReader(const char* file, ka::SubstRules& rules) : file_(file), rules_(rules) {}

  void parse(std::string_view line) {
    ++number_;
    line = skip_blanks(line.substr(0, line.find('\r')));
    if (line.empty() || line.front() == '#') return;
    const auto nt_path = take_nt_path(line);
    if (!nt_path) return;
    const std::string_view unix_string = first_field(skip_blanks(line));
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

struct CloseFile {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Empty for what cannot be opened, and for a folder, which can but has no lines.
File open_file(const char* name) {
  File file(std::fopen(name, "re"));
  struct stat status;
  if (file && fstat(fileno(file.get()), &status) == 0 && S_ISDIR(status.st_mode)) file.reset();
  return file;
}

// False at the end of the file.
bool read_line(std::FILE* file, ka::string& line) {
  line.clear();
  int c = std::getc(file);
  const bool any = c != EOF;
  for (; c != EOF && c != '\n'; c = std::getc(file)) {
    if (line.size() < kMaxLine) line += char(c);
  }
  return any;
}

}  // namespace

void ka::subst_read_linktab(SubstRules& rules) {
  const char* const location = std::getenv("SI_LINKTAB_LOCATION");
  const char* const folder = location ? location : std::getenv("SI_LOCATION");
  if (!folder) return;
  char path[kMaxFolder + sizeof "/linktab.ini"];
  std::snprintf(path, sizeof path, "%.*s/linktab.ini", int(kMaxFolder), folder);
  const char* name = path;
  File file = open_file(name);
  if (!file && location) file = open_file(name = location);
  if (!file) return;
  ka_info("reading Softimage ini file \"%s\"", name);
  LinktabReader reader(name, rules);
  for (ka::string line; read_line(file.get(), line);) reader.parse(line);
  ka_debug("finished reading \"%s\"", name);
}
