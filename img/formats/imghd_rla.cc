// What the header of an RLA file says, field by field. Layout: docs/formats.md, "RLA".
#include <ka/imgheader.h>

#include "driver.h"
#include "drivers.h"

namespace ka {

namespace {

constexpr std::size_t kHeaderBytes = 740;

void put_window(HeaderEntries& out, const char* name, ByteCursor& in) {
  const auto side = [&] { return int(std::int16_t(in.be16())); };
  const int left = side(), right = side(), bottom = side(), top = side();
  out.numbers(name, left, right, bottom, top);
}

void put_origin(HeaderEntries& out, ByteCursor& in) {
  out.field("name", in.take(128));
  out.field("description", in.take(128));
  out.field("program", in.take(64));
  out.field("machine", in.take(32));
  out.field("user", in.take(32));
  out.field("date", in.take(20));
}

}  // namespace

void img_header_rla(img_file* handle, img_header* header) {
  FileReader file;
  file.start(handle, 0, kHeaderBytes);
  ByteCursor in(file.take(kHeaderBytes));
  if (in.left() == 0) return;
  HeaderEntries out(header);
  put_window(out, "window", in);
  put_window(out, "active_window", in);
  out.numbers("frame", in.be16());
  in.skip(2);  // storage: only one is read
  out.numbers("color_channels", in.be16());
  out.numbers("matte_channels", in.be16());
  out.numbers("auxiliary_channels", in.be16());
  out.numbers("revision", in.be16());
  out.field("gamma", in.take(16));
  for (const char* const color : {"red", "green", "blue", "white"}) out.field(color, in.take(24));
  out.numbers("job", in.be32());
  put_origin(out, in);
  out.field("aspect_name", in.take(24));
  out.field("aspect", in.take(8));
  out.field("channels", in.take(32));
  out.numbers("field", in.be16());
  out.field("time", in.take(12));
  out.field("filter", in.take(32));
  out.numbers("channel_bits", in.be16());
  in.skip(8);  // types and bits of mattes and auxiliary channels
  out.field("auxiliary", in.take(32));
}

}  // namespace ka
