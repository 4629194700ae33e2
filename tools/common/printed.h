// Names on their way to standard output and standard error, past the message log.
#pragma once

#include <string>

#include <ka/detail/cleantext.h>

// The text as the message log would show it: it neither ends a line nor commands a terminal.
[[nodiscard]] inline std::string printed(std::string text) {
  ka::clean_text(text);
  return text;
}
