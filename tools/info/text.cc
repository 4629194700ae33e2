#include <algorithm>
#include <cstdio>

#include <ka/detail/cleantext.h>

#include "output.h"
#include "printed.h"

namespace {

constexpr std::size_t kLongestValue = 400;  // bytes; descriptions can have many pages

// One line, cut between two characters where it is too long.
std::string shown(const std::string& value) {
  std::string text = printed(value);
  if (text.size() <= kLongestValue) return text;
  std::size_t end = 0;
  for (std::size_t length = 1; length > 0; end += length) {
    length = std::max<std::size_t>(ka::utf8_length(std::span(text).subspan(end)), 1);
    if (end + length > kLongestValue) break;
  }
  return text.substr(0, end) + "...";
}

class Table {
 public:
  void add(const std::string& name, const std::string& value) {
    rows_.emplace_back(shown(name), shown(value));
    width_ = std::max(width_, std::min<std::size_t>(rows_.back().first.size(), 24));
  }
  void print() const {
    for (const auto& [name, value] : rows_) {
      std::printf("  %-*s  %s\n", int(width_), name.c_str(), value.c_str());
    }
  }

 private:
  std::vector<std::pair<std::string, std::string>> rows_;
  std::size_t width_ = 10;
};

std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.9g", value);
  return text;
}

std::string text_of(const Channel& channel) {
  std::string text = "no numbers";
  if (channel.numbers() > 0) {
    text = "minimum " + number(channel.minimum) + ", maximum " + number(channel.maximum) +
           ", mean " + number(channel.mean());
  }
  if (channel.nan > 0) text += ", not a number " + std::to_string(channel.nan);
  if (channel.infinite > 0) text += ", infinite " + std::to_string(channel.infinite);
  return text;
}

}  // namespace

void print_text(const FileInfo& info, bool is_first) {
  if (!info.is_open) return;
  std::printf("%s%s\n", is_first ? "" : "\n", printed(info.name).c_str());
  Table table;
  table.add("format", info.format);
  table.add("size", std::to_string(info.width) + " x " + std::to_string(info.height));
  table.add("type", info.type);
  table.add("bits", std::to_string(info.bits));
  table.add("components", std::to_string(info.components));
  table.add("levels", std::to_string(info.levels));
  table.add("first line", info.top_first ? "top" : "bottom");
  table.add("bytes", std::to_string(info.bytes));
  for (const auto& [name, value] : info.header) table.add(name, value);
  if (info.statistics) {
    for (const Channel& channel : *info.statistics) {
      table.add("channel " + channel.name, text_of(channel));
    }
  }
  table.print();
}
