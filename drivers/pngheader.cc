// What the chunks of a PNG file say beside size and samples, those after the pixels as well.
#include "pngheader.h"

#include <algorithm>
#include <string>
#include <string_view>

#include <ka/imgbytes.h>
#include <ka/imgheader.h>

#include "png.h"

namespace drivers {
namespace {

constexpr std::size_t kLongestText = std::size_t{64} << 10;  // bytes, compressed or not
constexpr std::size_t kLongestChunk = kLongestText + 1024;   // that are read, with its keywords

using Bytes = std::span<const std::uint8_t>;

// The text up to the next 0, which is passed over.
std::string_view take_text(Bytes& bytes) {
  const auto end = std::ranges::find(bytes, std::uint8_t{0});
  const auto length = std::size_t(end - bytes.begin());
  const std::string_view text(reinterpret_cast<const char*>(bytes.data()), length);
  bytes = bytes.subspan(std::min(length + 1, bytes.size()));
  return text;
}

// The front of a compressed text, as far as it is sound.
std::string inflated(Bytes bytes) {
  z_stream codec{};
  if (inflateInit(&codec) != Z_OK) return {};
  std::string text(kLongestText, '\0');
  codec.next_in = bytes.data();
  codec.avail_in = uInt(bytes.size());
  codec.next_out = reinterpret_cast<Bytef*>(text.data());
  codec.avail_out = uInt(text.size());
  inflate(&codec, Z_SYNC_FLUSH);
  text.resize(codec.total_out);
  inflateEnd(&codec);
  return text;
}

bool put_text(ka::HeaderEntries& out, std::uint32_t type, Bytes bytes) {
  const std::string name = "text." + std::string(take_text(bytes));
  bool is_compressed = type == png_chunk("zTXt");
  if (type == png_chunk("iTXt")) {
    is_compressed = !bytes.empty() && bytes[0] != 0;
    bytes = bytes.subspan(std::min<std::size_t>(2, bytes.size()));
    take_text(bytes);  // language
    take_text(bytes);  // the keyword in that language
  } else if (is_compressed) {
    bytes = bytes.subspan(std::min<std::size_t>(1, bytes.size()));
  }
  if (is_compressed) return out.text(name.c_str(), inflated(bytes));
  return out.text(name.c_str(), {reinterpret_cast<const char*>(bytes.data()), bytes.size()});
}

void put_header(ka::HeaderEntries& out, ka::ByteCursor in) {
  in.skip(8);
  out.numbers("sample_bits", in.u8());
  out.choice("color_type", in.u8(),
             {"grey", "1", "RGB", "palette", "grey and alpha", "5", "RGB and alpha"});
  in.skip(2);
  out.choice("interlace", in.u8(), {"none", "Adam7"});
}

// Numbers of the chunks that have some. The first eight are chromaticities, in units of 1/100000.
bool put_numbers(ka::HeaderEntries& out, std::uint32_t type, ka::ByteCursor in) {
  constexpr double unit = 100000;
  const std::size_t bytes = in.left();
  if (type == png_chunk("gAMA")) return out.numbers("gamma", in.be32() / unit);
  if (type == png_chunk("PLTE")) return out.numbers("palette_colors", bytes / 3);
  if (type == png_chunk("eXIf")) return out.numbers("exif_bytes", bytes);
  if (type == png_chunk("sRGB")) {
    return out.choice("srgb", in.u8(), {"perceptual", "relative", "saturation", "absolute"});
  }
  if (type == png_chunk("pHYs")) {
    const std::uint32_t x = in.be32(), y = in.be32();
    return out.numbers(in.u8() == 1 ? "pixels_per_meter" : "pixel_density", x, y);
  }
  if (type == png_chunk("acTL")) {
    const std::uint32_t frames = in.be32(), plays = in.be32();
    return out.numbers("animation_frames", frames) && out.numbers("animation_plays", plays);
  }
  if (type == png_chunk("tIME")) {
    const unsigned year = in.be16(), month = in.u8(), day = in.u8();
    const unsigned hour = in.u8(), minute = in.u8();
    return out.numbers("date", year, month, day, hour, minute, in.u8());
  }
  if (type == png_chunk("cHRM")) {
    std::array<double, 8> points;
    for (double& value : points) value = in.be32() / unit;
    const auto& [wx, wy, rx, ry, gx, gy, bx, by] = points;
    return out.numbers("white", wx, wy) && out.numbers("red", rx, ry) &&
           out.numbers("green", gx, gy) && out.numbers("blue", bx, by);
  }
  return true;
}

bool put_chunk(ka::HeaderEntries& out, std::uint32_t type, Bytes bytes) {
  if (type == png_chunk("tEXt") || type == png_chunk("zTXt") || type == png_chunk("iTXt")) {
    return put_text(out, type, bytes);
  }
  if (type == png_chunk("IHDR")) put_header(out, ka::ByteCursor(bytes));
  if (type == png_chunk("iCCP")) return out.text("icc_profile", take_text(bytes));
  return put_numbers(out, type, ka::ByteCursor(bytes));
}

}  // namespace

void png_header(img_file* handle, img_header* header) {
  const Reader reader(
      ka_img_reader_alloc(handle, std::int64_t(kPngSignature.size()), kLongestChunk));
  img_reader* const in = reader.get();
  ka::HeaderEntries out(header);
  while (true) {
    const std::uint8_t* const head = ka_img_reader_take(in, kPngChunkHead);
    if (!head) return;
    ka::ByteCursor fields({head, kPngChunkHead});
    const std::uint32_t length = fields.be32(), type = fields.be32();
    if (type == png_chunk("IEND")) return;
    const std::int64_t next = ka_img_reader_position(in) + std::int64_t{length} + int{kPngCrc};
    if (type != png_chunk("IDAT") && type != png_chunk("fdAT")) {
      const std::size_t count = std::min<std::size_t>(length, kLongestChunk);
      const std::uint8_t* const bytes = ka_img_reader_take(in, count);
      if (!bytes || !put_chunk(out, type, {bytes, count})) return;
    }
    ka_img_reader_seek(in, next);
  }
}

}  // namespace drivers
