// What the first directory of a TIFF file says, as libtiff has read it, and how many there are.
#include <ka/imgbytes.h>
#include <ka/imgheader.h>

#include "tifz.h"

namespace drivers::tifz {

namespace {

constexpr int kMostPages = 4096;  // that are counted; directories may form a circle

struct Text {
  ttag_t tag;
  const char* name;
};
constexpr Text kTexts[] = {{TIFFTAG_DOCUMENTNAME, "document"},
                           {TIFFTAG_IMAGEDESCRIPTION, "description"},
                           {TIFFTAG_MAKE, "make"},
                           {TIFFTAG_MODEL, "model"},
                           {TIFFTAG_PAGENAME, "page"},
                           {TIFFTAG_SOFTWARE, "software"},
                           {TIFFTAG_DATETIME, "date"},
                           {TIFFTAG_ARTIST, "artist"},
                           {TIFFTAG_HOSTCOMPUTER, "machine"},
                           {TIFFTAG_COPYRIGHT, "copyright"}};

// A number of so many bytes in the file's order; 0 where the file ends.
std::uint64_t number(img_reader* in, std::size_t bytes, bool is_big_endian) {
  const std::uint8_t* const digits = ka_img_reader_take(in, bytes);
  std::uint64_t value = 0;
  for (std::size_t i = 0; digits && i < bytes; ++i) {
    value = value << 8 | digits[is_big_endian ? i : bytes - 1 - i];
  }
  return value;
}

void put_pages(ka::HeaderEntries& out, img_file* handle, TIFF* tif) {
  const bool is_big_endian = TIFFIsBigEndian(tif) != 0;
  const Reader reader(ka_img_reader_alloc(handle, 0, 512));
  img_reader* const in = reader.get();
  ka_img_reader_seek(in, 2);
  const bool is_big = number(in, 2, is_big_endian) == 43;
  const std::size_t count_bytes = is_big ? 8 : 2, offset_bytes = is_big ? 8 : 4;
  ka_img_reader_seek(in, is_big ? 8 : 4);
  int pages = 0;
  for (; pages <= kMostPages; ++pages) {
    const std::uint64_t offset = number(in, offset_bytes, is_big_endian);
    if (offset == 0 || offset >= std::uint64_t(handle->file_size)) break;
    ka_img_reader_seek(in, std::int64_t(offset));
    const auto bytes =
        ka::checked_product(number(in, count_bytes, is_big_endian), is_big ? 20 : 12);
    if (!bytes || *bytes == 0 || *bytes > std::uint64_t(ka_img_reader_left(in))) break;
    ka_img_reader_seek(in, ka_img_reader_position(in) + std::int64_t(*bytes));
  }
  if (pages > 1 && pages <= kMostPages) out.numbers("pages", pages);
}

void put_resolution(ka::HeaderEntries& out, TIFF* tif) {
  float x = 0, y = 0;
  std::uint16_t unit = 0;
  if (TIFFGetField(tif, TIFFTAG_XRESOLUTION, &x)) out.numbers("x_resolution", x);
  if (TIFFGetField(tif, TIFFTAG_YRESOLUTION, &y)) out.numbers("y_resolution", y);
  if (TIFFGetField(tif, TIFFTAG_RESOLUTIONUNIT, &unit)) {
    out.choice("resolution_unit", std::size_t(unit) - 1, {"none", "inch", "centimeter"});
  }
}

void put_samples(ka::HeaderEntries& out, const State& state) {
  const TIFFCodec* const codec = TIFFFindCODEC(state.compression);
  out.text("compression", state.compression == COMPRESSION_NONE ? "none"
                          : codec                               ? codec->name
                                                                : "");
  out.choice("photometric", state.photometric,
             {"white is zero", "black is zero", "RGB", "palette", "mask", "separated", "YCbCr", "7",
              "CIELab"});
  out.numbers("samples", state.samples);
  out.numbers("sample_bits", state.bits);
  out.text("sample_format", state.kind == Sample::kFloat ? "float" : "unsigned");
  out.text("planar", state.is_planar ? "planes" : "pixels");
}

}  // namespace

void header(img_file* handle, img_header* header) {
  const State& state = state_of<State>(handle);
  TIFF* const tif = state.tif.get();
  ka::HeaderEntries out(header);
  out.text("byte_order", TIFFIsBigEndian(tif) ? "big" : "little");
  put_samples(out, state);
  std::uint32_t rows = 0, bytes = 0;
  void* block = nullptr;
  if (state.is_tiled && TIFFGetField(tif, TIFFTAG_TILELENGTH, &rows)) {
    out.numbers("tiles", state.block_width, rows);
  } else if (TIFFGetField(tif, TIFFTAG_ROWSPERSTRIP, &rows)) {
    out.numbers("rows_per_strip", rows);
  }
  for (const auto& [tag, name] : kTexts) {
    const char* text = nullptr;
    if (TIFFGetField(tif, tag, &text) && text) out.text(name, text);
  }
  put_resolution(out, tif);
  if (TIFFGetField(tif, TIFFTAG_XMLPACKET, &bytes, &block)) out.numbers("xmp_bytes", bytes);
  if (TIFFGetField(tif, TIFFTAG_ICCPROFILE, &bytes, &block)) out.numbers("icc_bytes", bytes);
  put_pages(out, handle, tif);
}

}  // namespace drivers::tifz
