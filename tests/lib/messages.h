// The message log as texts.
#pragma once

#include <ka/message.h>

#include <string>
#include <vector>

#include "support.h"

using Texts = std::vector<std::string>;

constexpr std::uint32_t kReports = KA_ERROR | KA_WARNING | KA_INFO;

// The texts that a call reports on the levels of `mask`, numbered ones after their six digits.
template <typename Function>
Texts messages_of(Function function, std::uint32_t mask = 0x7f) {
  const test::MessageLog log(mask);
  function();
  Texts texts;
  for (const std::string& line : test::MessageLog::lines()) {
    const std::size_t end = line.find(": ");
    const std::size_t code = line.find_last_of(' ', end);
    const bool numbered = end - code == 7;
    texts.push_back((numbered ? line.substr(code + 1, 6) + " " : "") + line.substr(end + 2));
  }
  return texts;
}
