// What the segments of a JPEG file before its first scan say. Layout: "JPEG File Interchange Format",
// version 1.02; ITU-T T.81, annex B, for frames; T.872 for the Adobe segment.
#include <ka/imgheader.h>

#include <algorithm>
#include <string_view>

#include "driver.h"
#include "drivers.h"
#include "textreader.h"

namespace ka {

namespace {

using namespace std::string_view_literals;

enum Marker : std::uint8_t {
  kFrame = 0xc0,  // of the first kind, to kLastFrame
  kTables = 0xc4,
  kReserved = 0xc8,
  kConditioning = 0xcc,
  kLastFrame = 0xcf,
  kFirstRestart = 0xd0,
  kEnd = 0xd9,
  kScan = 0xda,
  kJfif = 0xe0,
  kExif = 0xe1,
  kProfile = 0xe2,
  kAdobe = 0xee,
  kComment = 0xfe
};
constexpr std::size_t kLongestSegment = 65535;  // bytes, its length field included

bool is_frame(int marker) {
  return marker >= kFrame && marker <= kLastFrame && marker != kTables && marker != kReserved &&
         marker != kConditioning;
}

// Whether the segment has that identifier, which is then passed over.
bool skip_name(ByteCursor& in, std::string_view name) {
  ByteCursor after = in;
  if (as_text(after.take(name.size())) != name) return false;
  in = after;
  return true;
}

void put_frame(HeaderEntries& out, int marker, ByteCursor in) {
  out.choice("coding", std::size_t(marker - kFrame) & 3,
             {"baseline", "extended", "progressive", "lossless"});
  if (marker > kReserved) out.text("entropy", "arithmetic");
  out.numbers("precision", in.u8());
  in.skip(4);  // height, width
  for (int components = in.u8(); components > 0 && in; --components) {
    const unsigned id = in.u8(), factors = in.u8();
    in.skip(1);  // quantization table
    if (in) out.numbers("component", id, factors >> 4, factors & 15);
  }
}

void put_jfif(HeaderEntries& out, ByteCursor in) {
  const unsigned major = in.u8(), minor = in.u8();
  out.numbers("jfif_version", major, minor);
  const unsigned unit = in.u8(), x = in.be16(), y = in.be16();
  if (!in) return;
  out.choice("density_unit", unit, {"none", "inch", "centimeter"});
  out.numbers("density", x, y);
}

void put_segment(HeaderEntries& out, int marker, std::span<const std::uint8_t> bytes) {
  ByteCursor in(bytes);
  if (is_frame(marker)) put_frame(out, marker, in);
  if (marker == kJfif && skip_name(in, "JFIF\0"sv)) put_jfif(out, in);
  if (marker == kExif && skip_name(in, "Exif\0\0"sv)) out.numbers("exif_bytes", in.left());
  if (marker == kExif && skip_name(in, "http://ns.adobe.com/xap/1.0/\0"sv)) {
    out.numbers("xmp_bytes", in.left());
  }
  if (marker == kProfile && skip_name(in, "ICC_PROFILE\0"sv)) out.numbers("icc_bytes", in.left());
  if (marker == kAdobe && skip_name(in, "Adobe"sv)) {
    in.skip(6);  // version, flags
    out.choice("adobe_transform", in.u8(), {"none", "YCbCr", "YCCK"});
  }
  if (marker == kComment) out.text("comment", as_text(bytes));
}

// The next marker, after any number of fill bytes; FileReader::kEnd where there is none.
int take_marker(FileReader& in) {
  if (in.get() != 0xff) return FileReader::kEnd;
  int marker = 0xff;
  while (marker == 0xff) marker = in.get();
  return marker;
}

}  // namespace

void img_header_jfif(img_file* handle, img_header* header) {
  FileReader in;
  in.start(handle, 2, kLongestSegment);  // after the start of the image
  HeaderEntries out(header);
  for (int marker = take_marker(in); marker > 0 && marker != kScan && marker != kEnd;
       marker = take_marker(in)) {
    if (marker < kFrame || (marker >= kFirstRestart && marker < kEnd)) continue;  // no segment
    const auto field = in.take(2);
    const std::size_t length = ByteCursor(field).be16();
    if (length < 2) return;
    const auto bytes = in.take(length - 2);
    if (bytes.size() < length - 2) return;
    put_segment(out, marker, bytes);
  }
}

}  // namespace ka
