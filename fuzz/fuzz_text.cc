// Fuzz target of the parsers of short texts. The first character of the input chooses the parser,
// the rest are its lines:
//   s  substitution: the rules; the name
//   l  the name; a linktab.ini
//   r  registry: name, key and value of up to three items; the text
//   v  a message list
#include <ka/mem.h>
#include <ka/message.h>
#include <ka/msg.h>
#include <ka/registry.h>
#include <ka/subst.h>
#include <ka/trans.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// Every message is formatted, and none is shown.
void swallow(std::uint32_t /*level*/, const char* /*line*/, const char* /*text*/, int /*code*/) {}

bool start_library() {
  if (!ka_lumoralib_attach_process()) std::abort();
  ka_module_push(KA_MAIN);
  ka_errorhandler(swallow);
  ka_set_verbosity(0x7f);
  ka_set_subverbosity(KA_LIB, KA_SUBVERB_DEFAULT | KA_SUBVERB_FILES);
  ka_mem_init();
  ka_context_init();
  return true;
}

// Takes the first line off the input, up to its first zero byte.
std::string take_line(std::string& input) {
  const std::size_t end = std::min(input.find('\n'), input.size());
  std::string line = input.substr(0, end).c_str();
  input.erase(0, end + 1);
  return line;
}

void substitute(const std::string& name) {
  ka_lib_subst_exit();
  for (const std::size_t size : {std::size_t{8}, std::size_t{5000}}) {
    std::string buffer(size, '#');
    ka_string_substitute(buffer.data(), name.c_str(), size);
    if (buffer.find('\0') == std::string::npos) std::abort();
  }
}

void use_rules(std::string input) {
  setenv("KA_LUM_SUBSTITUTE", take_line(input).c_str(), 1);
  substitute(input);
}

void use_linktab(std::string input) {
  const std::string name = take_line(input);
  const int file = memfd_create("linktab", 0);
  if (file < 0 || write(file, input.data(), input.size()) != ssize_t(input.size())) std::abort();
  std::array<char, 32> path;
  std::snprintf(path.data(), path.size(), "/proc/self/fd/%d", file);
  setenv("KA_LUM_SUBSTITUTE", "", 1);
  setenv("SI_LINKTAB_LOCATION", path.data(), 1);
  substitute(name);
  unsetenv("SI_LINKTAB_LOCATION");
  close(file);
}

// Values of values may multiply: three short ones come to an end. Shell commands are not for
// fuzzing.
void use_registry(std::string input) {
  constexpr int most_items = 3;
  constexpr std::size_t longest_value = 48;
  ka_lib_registry_init();
  for (int i = 0; i < most_items && !input.empty(); ++i) {
    const std::string name = take_line(input), key = take_line(input), value = take_line(input);
    if (!ka_lib_registry_add(name.c_str(), "comment", "")) ka_lib_registry_begin(name.c_str());
    if (key == "system") continue;
    ka_lib_registry_add(name.c_str(), key.c_str(), value.substr(0, longest_value).c_str());
  }
  const std::string text = take_line(input).substr(0, longest_value);
  for (const int side_effects : {0, 1}) {
    ka_mem_release(ka_lib_registry_lookup(text.c_str(), side_effects));
  }
  ka_lib_registry_print(nullptr);
  ka_lib_registry_exit();
}

void use_list(const std::string& input) {
  std::uint32_t mask;
  ka_parse_subverbosity(&mask, input.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  [[maybe_unused]] static const bool started = start_library();
  if (size == 0) return 0;
  const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
  switch (data[0]) {
    case 's':
      use_rules(input);
      break;
    case 'l':
      use_linktab(input);
      break;
    case 'r':
      use_registry(input);
      break;
    default:
      use_list(input);
      break;
  }
  return 0;
}
