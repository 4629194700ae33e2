// What the first directory of a TIFF file says, and how many there are. Layout: "TIFF, Revision 6.0".
#include <ka/imgheader.h>

#include <algorithm>

#include "drivers.h"
#include "img_tiff.h"
#include "textreader.h"

namespace ka {

namespace {

using tiff::Source;

constexpr std::size_t kEntryBytes = 12, kField = 4;
constexpr std::uint16_t kText = 2, kRational = 5;  // types of entries
constexpr std::uint32_t kLongestText = 65535;
constexpr int kMostPages = 4096;  // that are counted; directories may form a circle

enum Tag : std::uint16_t {
  kCompression = 259,
  kPhotometric = 262,
  kSamples = 277,
  kRowsPerStrip = 278,
  kPlanar = 284,
  kResolutionUnit = 296,
};
struct Named {
  std::uint16_t tag;
  const char* name;
};
constexpr Named kTexts[] = {{269, "document"}, {270, "description"}, {271, "make"}, {272, "model"},
                            {285, "page"},     {305, "software"},    {306, "date"}, {315, "artist"},
                            {316, "machine"},  {33432, "copyright"}};
constexpr Named kRationals[] = {{282, "x_resolution"}, {283, "y_resolution"}};
constexpr Named kBlocks[] = {{700, "xmp_bytes"}, {34675, "icc_bytes"}};

template <std::size_t Count>
const char* name_of(const Named (&names)[Count], std::uint16_t tag) {
  const auto* const found = std::ranges::find(names, tag, &Named::tag);
  return found == std::end(names) ? nullptr : found->name;
}

// The value of an entry whose four bytes may be its offset.
std::span<const std::uint8_t> value_of(Source& values, std::span<const std::uint8_t> field,
                                       std::size_t bytes) {
  if (bytes <= kField) return field.first(bytes);
  ByteCursor in(field);
  values.in.seek(values.u32(in));
  return values.in.take(std::size_t(std::min<std::uint64_t>(bytes, values.in.left())));
}

void put_number(HeaderEntries& out, std::uint16_t tag, std::uint32_t number) {
  switch (tag) {
    case kCompression:
      if (number == 1) out.text("compression", "none");
      if (number != 1) out.text("compression", "PackBits");  // others are not read
      break;
    case kPhotometric:
      out.choice("photometric", number, {"white is zero", "black is zero", "RGB", "palette"});
      break;
    case kSamples:
      out.numbers("samples", number);
      break;
    case kRowsPerStrip:
      out.numbers("rows_per_strip", number);
      break;
    case kPlanar:
      out.choice("planar", number - 1, {"pixels", "planes"});
      break;
    case kResolutionUnit:
      out.choice("resolution_unit", number - 1, {"none", "inch", "centimeter"});
      break;
    default:
      break;
  }
}

// `values` is a second reader: values are anywhere in the file.
void put_entry(HeaderEntries& out, Source& values, std::span<const std::uint8_t> bytes) {
  ByteCursor in(bytes);
  const std::uint16_t tag = values.u16(in), type = values.u16(in);
  const std::uint32_t count = values.u32(in);
  const auto field = bytes.last(kField);
  const char* const text = name_of(kTexts, tag);
  const char* const rational = name_of(kRationals, tag);
  const char* const block = name_of(kBlocks, tag);
  if (text && type == kText)
    out.field(text, value_of(values, field, std::min(count, kLongestText)));
  if (rational && type == kRational) {
    ByteCursor value(value_of(values, field, 8));
    const double numerator = values.u32(value), denominator = values.u32(value);
    if (value && denominator != 0) out.numbers(rational, numerator / denominator);
  }
  if (block) out.numbers(block, count);
  ByteCursor number(field);
  put_number(out, tag, type == tiff::kShort ? values.u16(number) : values.u32(number));
}

// Goes to the directory after the one whose entries have been passed. False where there is none.
bool next_directory(Source& file) {
  const auto bytes = file.in.take(4);
  ByteCursor in(bytes);
  const std::uint32_t offset = file.u32(in);
  file.in.seek(offset);
  return in && offset != 0;
}

int take_count(Source& file) {
  const auto bytes = file.in.take(2);
  ByteCursor in(bytes);
  return file.u16(in);
}

void put_pages(HeaderEntries& out, Source& file) {
  int pages = 1;
  for (; pages <= kMostPages && next_directory(file); ++pages) {
    const int entries = take_count(file);
    if (entries == 0) break;
    file.in.seek(file.in.position() + std::size_t(entries) * kEntryBytes);
  }
  if (pages > 1 && pages <= kMostPages) out.numbers("pages", pages);
}

}  // namespace

void img_header_tiff(img_file* handle, img_header* header) {
  FileReader head;
  head.start(handle, 0, 8);
  const auto bytes = head.take(8);
  if (bytes.empty()) return;
  const std::endian order = bytes[0] == 'I' ? std::endian::little : std::endian::big;
  Source file{handle, {}, order}, values{handle, {}, order};
  file.in.start(handle, 0, 4096);
  values.in.start(handle, 0, kLongestText);
  ByteCursor in(bytes);
  in.skip(4);
  file.in.seek(file.u32(in));
  HeaderEntries out(header);
  out.text("byte_order", order == std::endian::little ? "little" : "big");
  for (int entries = take_count(file); entries > 0; --entries) {
    const auto entry = file.in.take(kEntryBytes);
    if (entry.empty()) return;
    put_entry(out, values, entry);
  }
  put_pages(out, file);
}

}  // namespace ka
