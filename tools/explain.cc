#include "explain.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <optional>
#include <span>

#include <ka/message.h>

namespace {

using Head = std::span<const std::uint8_t>;

// A number in the header of a file: its name, its place, 1 to 4 bytes.
struct Field {
  const char* name;
  std::size_t offset;
  std::size_t bytes;
};

constexpr Field kBmp[] = {{"header size", 14, 4},
                          {"width", 18, 4},
                          {"height", 22, 4},
                          {"bits per pixel", 28, 2},
                          {"compression", 30, 4}};
constexpr Field kCoreBmp[] = {
    {"header size", 14, 4}, {"width", 18, 2}, {"height", 20, 2}, {"bits per pixel", 24, 2}};
constexpr Field kTarga[] = {{"image type", 2, 1},
                            {"width", 12, 2},
                            {"height", 14, 2},
                            {"bits per pixel", 16, 1},
                            {"bits per map entry", 7, 1}};
constexpr Field kRgb[] = {{"compression", 2, 1}, {"bytes per sample", 3, 1}, {"dimensions", 4, 2},
                          {"width", 6, 2},       {"height", 8, 2},           {"channels", 10, 2}};
constexpr Field kRla[] = {{"storage type", 18, 2},   {"color channels", 20, 2},
                          {"matte channels", 22, 2}, {"bits per sample", 658, 2},
                          {"matte type", 660, 2},    {"matte bits", 662, 2}};
constexpr Field kIff[] = {{"width", 20, 4},
                          {"height", 24, 4},
                          {"bytes per sample - 1", 36, 2},
                          {"tiles", 38, 2},
                          {"compression", 40, 4}};
constexpr std::size_t kHeadBytes = 1024;  // hold all of these

std::optional<std::uint32_t> number(Head head, std::size_t offset, std::size_t bytes, bool little) {
  if (offset + bytes > head.size()) return std::nullopt;
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < bytes; ++i) {
    value = value << 8 | head[offset + (little ? bytes - 1 - i : i)];
  }
  return value;
}

void add(std::string& text, const char* name, std::uint32_t value) {
  if (!text.empty()) text += ", ";
  text += name + std::string(" ") + std::to_string(std::int32_t(value));  // a side may be negative
}

std::string values(Head head, std::span<const Field> fields, bool little) {
  std::string text;
  for (const Field& field : fields) {
    if (const auto value = number(head, field.offset, field.bytes, little)) {
      add(text, field.name, *value);
    }
  }
  return text;
}

std::string bmp_values(Head head) {
  constexpr std::uint32_t core_header = 12;  // bytes
  const bool is_core = number(head, 14, 4, true) == core_header;
  return values(head, is_core ? std::span<const Field>(kCoreBmp) : kBmp, true);
}

std::string iff_values(Head head) {
  constexpr std::uint32_t header_chunk = 0x54424844;  // TBHD, usually the first chunk
  return number(head, 12, 4, false) == header_chunk ? values(head, kIff, false) : std::string{};
}

const char* tiff_name(std::uint32_t tag) {
  switch (tag) {
    case 256:
      return "width";
    case 257:
      return "height";
    case 258:
      return "bits per sample";
    case 259:
      return "compression";
    case 262:
      return "photometric interpretation";
    case 274:
      return "orientation";
    case 277:
      return "samples per pixel";
    case 322:
      return "tile width";
    case 339:
      return "sample format";
    default:
      return nullptr;
  }
}

// The bytes of the file from an offset on, as many as there are.
Head read_at(FILE* stream, long offset, std::span<std::uint8_t> buffer) {
  if (std::fseek(stream, offset, SEEK_SET) != 0) return {};
  return buffer.first(std::fread(buffer.data(), 1, buffer.size(), stream));
}

// The first value of each entry of the first directory that says what a pixel is.
std::string tiff_values(FILE* stream, Head head) {
  constexpr std::size_t entry_bytes = 12, most_entries = 64;
  constexpr std::uint32_t short_type = 3;
  const bool little = !head.empty() && head[0] == 'I';
  std::array<std::uint8_t, 2 + most_entries * entry_bytes> buffer;
  const Head directory = read_at(stream, long(number(head, 4, 4, little).value_or(0)), buffer);
  const std::size_t count = number(directory, 0, 2, little).value_or(0);
  std::string text;
  for (std::size_t i = 0; i < count && 2 + (i + 1) * entry_bytes <= directory.size(); ++i) {
    const Head entry = directory.subspan(2 + i * entry_bytes, entry_bytes);
    const char* const name = tiff_name(*number(entry, 0, 2, little));
    if (!name) continue;
    const std::size_t bytes = number(entry, 2, 2, little) == short_type ? 2 : 4;
    const bool is_elsewhere = *number(entry, 4, 4, little) > 4 / bytes;
    std::array<std::uint8_t, 4> values;
    const Head field = is_elsewhere ? read_at(stream, long(*number(entry, 8, 4, little)), values)
                                    : entry.subspan(8);
    if (const auto value = number(field, 0, bytes, little)) add(text, name, *value);
  }
  return text;
}

// What the header of a file says, as far as a refusal may depend on it; empty for other formats.
std::string header_values(const img_file& file) {
  std::array<std::uint8_t, kHeadBytes> buffer;
  const Head head = read_at(file.stream, 0, buffer);
  switch (file.format) {
    case IMG_FORMAT_BMP:
      return bmp_values(head);
    case IMG_FORMAT_TGA:
      return values(head, kTarga, true);
    case IMG_FORMAT_RGB:
      return values(head, kRgb, false);
    case IMG_FORMAT_RLA:
    case IMG_FORMAT_RLB:
      return values(head, kRla, false);
    case IMG_FORMAT_IFF:
      return iff_values(head);
    default:
      return (file.format >= IMG_FORMAT_TIF && file.format <= IMG_FORMAT_TIF3U) ||
                     (file.format >= IMG_FORMAT_TIF16 && file.format <= IMG_FORMAT_TIF16_3U)
                 ? tiff_values(file.stream, head)
                 : std::string{};
  }
}

// A refusal that has one reason only in its format; empty for other formats.
std::string only_reason(const img_file& file) {
  if (file.error != IMG_ERR_SUBTYPE) return {};
  switch (file.format) {
    case IMG_FORMAT_PPM:
      return "samples of two bytes are not read";
    case IMG_FORMAT_PS:
    case IMG_FORMAT_EPS:
      return "PostScript is read only if this library has written it";
    default:
      return {};
  }
}

std::string names_without(std::initializer_list<int> left_out) {
  std::string names;
  for (int format = 0; format < IMG_FORMAT_CUSTOM; ++format) {
    if (std::ranges::find(left_out, format) != left_out.end()) continue;
    if (!names.empty()) names += ' ';
    names += ka_img_format_name(format);
  }
  return names;
}

}  // namespace

std::string written_formats() { return names_without({IMG_FORMAT_NULL, IMG_FORMAT_LWI}); }
std::string read_formats() { return names_without({IMG_FORMAT_NULL, IMG_FORMAT_ZPIC}); }

void explain(const std::string& text) {
  if (isatty(STDERR_FILENO)) ka_set_verbosity(ka_get_verbosity() | KA_INFO);
  ka_info("%s", text.c_str());
}

void explain_refusal(const img_file& file) {
  const std::string name = file.display_name;
  if (file.error == IMG_ERR_FORMAT) {
    explain(name + (file.file_size == 0 ? ": the file is empty"
                                        : ": not in one of the formats " + read_formats()));
  } else if (file.stream && file.os_error == 0) {
    const std::string reason = only_reason(file), header = header_values(file);
    const std::string of_format = std::string(": ") + ka_img_format_name(file.format) + " header: ";
    if (!reason.empty()) return explain(name + ": " + reason);
    if (!header.empty()) explain(name + of_format + header);
  }
}
