#include "explain.h"

#include <unistd.h>

#include <algorithm>
#include <initializer_list>

#include <ka/drivers.h>
#include <ka/message.h>

namespace {

std::string names_without(std::initializer_list<int> left_out) {
  std::string names;
  for (int format = 0; format < IMG_FORMAT_COUNT; ++format) {
    const std::string name = ka_img_format_name(format);  // "<...>" of an empty custom slot
    if (name[0] == '<' || std::ranges::find(left_out, format) != left_out.end()) continue;
    if (!names.empty()) names += ' ';
    names += name;
  }
  return names;
}

}  // namespace

std::string written_formats() {
  return names_without({IMG_FORMAT_NULL, IMG_FORMAT_LWI, KA_DRIVERS_BMP5});
}
std::string read_formats() { return names_without({IMG_FORMAT_NULL, IMG_FORMAT_ZPIC}); }

void explain(const std::string& text) {
  if (isatty(STDERR_FILENO)) ka_set_verbosity(ka_get_verbosity() | KA_INFO);
  ka_info("%s", text.c_str());
}

void explain_failure(const img_file& file) {
  const std::string name = file.display_name;
  if (file.reason[0]) {
    explain(name + ": " + file.reason);
  } else if (file.error == IMG_ERR_FORMAT) {
    explain(name + ": not in one of the formats " + read_formats());
  }
}
