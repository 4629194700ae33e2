#include <cstdio>

#include <ka/detail/cleantext.h>
#include <nlohmann/json.hpp>

#include "output.h"

namespace {

using Json = nlohmann::ordered_json;

constexpr int kVersion = 1;  // of the document's form

// JSON is UTF-8: each byte that is not part of a character becomes U+FFFD.
std::string valid(const std::string& text) {
  std::string result;
  for (std::span<const char> rest(text); !rest.empty();) {
    const std::size_t length = ka::utf8_length(rest);
    const auto lead = std::uint8_t(rest[0]);
    const auto second = length > 2 ? std::uint8_t(rest[1]) : std::uint8_t{0x80};
    const bool is_outside = (lead == 0xed && second > 0x9f) || (lead == 0xf4 && second > 0x8f);
    if (length == 0 || is_outside) {
      result += "\ufffd";
      rest = rest.subspan(1);
    } else {
      result.append(rest.data(), length);
      rest = rest.subspan(length);
    }
  }
  return result;
}

Json json_of(const Channel& channel) {
  const bool has_numbers = channel.numbers() > 0;
  const auto value = [&](double number) { return has_numbers ? Json(number) : Json(nullptr); };
  return {{"channel", channel.name},           {"minimum", value(channel.minimum)},
          {"maximum", value(channel.maximum)}, {"mean", value(channel.mean())},
          {"samples", channel.samples},        {"nan", channel.nan},
          {"infinite", channel.infinite}};
}

Json json_of(const FileInfo& info) {
  Json file{{"name", valid(info.name)}};
  if (!info.error.empty()) file["error"] = valid(info.error);
  if (!info.is_open) return file;
  file["format"] = valid(info.format);
  file["width"] = info.width;
  file["height"] = info.height;
  file["type"] = info.type;
  file["bits"] = info.bits;
  file["components"] = info.components;
  file["levels"] = info.levels;
  file["first_line"] = info.top_first ? "top" : "bottom";
  file["bytes"] = info.bytes;
  file["header"] = Json::array();
  for (const auto& [name, value] : info.header) {
    file["header"].push_back({{"name", valid(name)}, {"value", valid(value)}});
  }
  if (!info.statistics) return file;
  file["statistics"] = Json::array();
  for (const Channel& channel : *info.statistics) file["statistics"].push_back(json_of(channel));
  return file;
}

}  // namespace

void print_json(const std::vector<FileInfo>& infos) {
  Json document{{"version", kVersion}, {"files", Json::array()}};
  for (const FileInfo& info : infos) document["files"].push_back(json_of(info));
  std::printf("%s\n", document.dump(2).c_str());
}
