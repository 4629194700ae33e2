// TIFF files that the built-in driver refuses, decoded by libtiff: other compressions, tiles, BigTIFF,
// other bits and sample formats. What is read: docs/formats.md, "TIFF through libtiff".
#include "tifz.h"

#include <ka/imgbytes.h>

#include <algorithm>
#include <initializer_list>

namespace drivers::tifz {

namespace {

constexpr std::uint16_t kClassic = 42, kBig = 43;
constexpr std::array<std::uint8_t, 19> kTypeBytes = {0, 1, 1, 2, 4, 8, 1, 1, 2, 4,
                                                     8, 4, 8, 4, 0, 0, 8, 8, 8};

// Numbers of the file's directory, in its byte order.
struct Numbers {
  img_reader* in;
  bool is_little;
  bool sound = true;

  std::uint64_t take(std::size_t bytes) {
    const std::uint8_t* const number = ka_img_reader_take(in, bytes);
    sound = sound && number;
    std::uint64_t value = 0;
    for (std::size_t i = 0; sound && i < bytes; ++i) {
      value = value << 8 | number[is_little ? bytes - 1 - i : i];
    }
    return value;
  }
};

// Entries may all point to the same bytes, and libtiff keeps a copy for each: their sum is bounded.
// Returns 1, or 0 with the handle's error.
int check_directory(img_file* handle, const std::uint8_t* head) {
  const Reader reader(ka_img_reader_alloc(handle, 2, 0));
  Numbers in{reader.get(), head[0] == 'I'};
  const bool is_big = in.take(2) == kBig;
  if (is_big) in.take(4);
  const std::uint64_t directory = in.take(is_big ? 8 : 4);
  if (directory > std::uint64_t(handle->file_size)) {
    return refuse(handle, IMG_ERR_READ, "the file ends before its directory");
  }
  ka_img_reader_seek(reader.get(), std::int64_t(directory));
  std::uint64_t bytes = 0;
  for (std::uint64_t entries = in.take(is_big ? 8 : 2); entries > 0 && in.sound; --entries) {
    in.take(2);
    const std::uint64_t type = in.take(2), count = in.take(is_big ? 8 : 4);
    in.take(is_big ? 8 : 4);
    const std::uint64_t size = type < kTypeBytes.size() ? kTypeBytes[type] : 0;
    const auto entry = ka::checked_product(count, size);
    if (!entry || *entry > memory_limit(handle) || (bytes += *entry) > memory_limit(handle)) {
      return refuse(handle, IMG_ERR_CORRUPT, "directory entries larger than the file");
    }
  }
  return in.sound ? 1 : refuse(handle, IMG_ERR_READ, "the file ends in its directory");
}

std::uint16_t number(TIFF* tif, ttag_t tag) {
  std::uint16_t value = 0;
  TIFFGetFieldDefaulted(tif, tag, &value);
  return value;
}

bool is_one_of(unsigned value, std::initializer_list<unsigned> values) {
  return std::ranges::find(values, value) != values.end();
}

// Returns 1, or 0 with the handle's error.
int check_compression(img_file* handle, const State& state) {
  const unsigned compression = state.compression;
  if (!is_one_of(compression, {COMPRESSION_NONE, COMPRESSION_CCITTRLE, COMPRESSION_CCITTFAX3,
                               COMPRESSION_CCITTFAX4, COMPRESSION_LZW, COMPRESSION_JPEG,
                               COMPRESSION_ADOBE_DEFLATE, COMPRESSION_DEFLATE, COMPRESSION_PACKBITS,
                               COMPRESSION_LZMA, COMPRESSION_ZSTD, COMPRESSION_WEBP}) ||
      !TIFFIsCODECConfigured(state.compression)) {
    const TIFFCodec* const codec = TIFFFindCODEC(state.compression);
    return refuse(handle, IMG_ERR_SUBTYPE, "compression %u%s%s%s is not read", compression,
                  codec ? " (" : "", codec ? codec->name : "", codec ? ")" : "");
  }
  return 1;
}

int check_samples(img_file* handle, State& state, unsigned format) {
  const unsigned bits = state.bits;
  state.kind = format == SAMPLEFORMAT_IEEEFP ? Sample::kFloat : Sample::kUnsigned;
  const bool is_read = state.kind == Sample::kFloat
                           ? is_one_of(bits, {16, 32, 64})
                           : is_one_of(format, {SAMPLEFORMAT_UINT, SAMPLEFORMAT_VOID}) &&
                                 ((bits >= 1 && bits <= 16) || bits == 32);
  if (is_read) return 1;
  return refuse(handle, IMG_ERR_SUBTYPE,
                "samples of %u bits in format %u are not read; unsigned ones and floats are", bits,
                format);
}

int read_palette(img_file* handle, State& state) {
  std::array<std::uint16_t*, 3> map{};
  const std::size_t colors = std::size_t{1} << std::min<int>(state.bits, 8);
  if (state.bits > 8 ||
      !TIFFGetField(state.tif.get(), TIFFTAG_COLORMAP, &map[0], &map[1], &map[2])) {
    return refuse(handle, IMG_ERR_SUBTYPE, "a palette of %d bits is not read, nor a missing one",
                  state.bits);
  }
  for (std::size_t c = 0; c < map.size(); ++c) {
    for (std::size_t i = 0; i < colors; ++i) {
      state.palette[c].push_back(std::uint8_t(map[c][i] >> 8));
    }
  }
  return 1;
}

// The colors of a pixel. Returns 1, or 0 with the handle's error.
int read_photometric(img_file* handle, State& state) {
  TIFF* const tif = state.tif.get();
  if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &state.photometric)) {
    state.photometric = state.samples < 3 ? PHOTOMETRIC_MINISBLACK : PHOTOMETRIC_RGB;
  }
  const bool is_jpeg = state.compression == COMPRESSION_JPEG;
  if (state.photometric == PHOTOMETRIC_YCBCR && is_jpeg && state.samples == 3) {
    TIFFSetField(tif, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    state.photometric = PHOTOMETRIC_RGB;
  }
  if (state.photometric > PHOTOMETRIC_PALETTE) {
    const unsigned found = state.photometric;
    return refuse(handle, IMG_ERR_SUBTYPE, "photometric interpretation %u%s is not read", found,
                  found == PHOTOMETRIC_SEPARATED ? " (CMYK)"
                  : found == PHOTOMETRIC_YCBCR   ? " (YCbCr) outside JPEG"
                  : found == PHOTOMETRIC_CIELAB  ? " (CIE Lab)"
                                                 : "");
  }
  state.colors = state.photometric == PHOTOMETRIC_RGB ? 3 : 1;
  if (state.samples < state.colors) {
    return refuse(handle, IMG_ERR_SUBTYPE, "%u samples per pixel", unsigned{state.samples});
  }
  state.has_alpha = state.samples > state.colors;
  if (state.samples > state.colors + 1) {
    note(handle, "samples 1 to %zu of %u are read", state.colors + 1, unsigned{state.samples});
  }
  if (state.photometric == PHOTOMETRIC_MINISWHITE && state.kind == Sample::kFloat) {
    return refuse(handle, IMG_ERR_SUBTYPE, "floats where 0 is white are not read");
  }
  return state.photometric == PHOTOMETRIC_PALETTE ? read_palette(handle, state) : 1;
}

int read_sides(img_file* handle, const State& state) {
  std::uint32_t width = 0, height = 0;
  TIFFGetField(state.tif.get(), TIFFTAG_IMAGEWIDTH, &width);
  TIFFGetField(state.tif.get(), TIFFTAG_IMAGELENGTH, &height);
  if (width == 0 || height == 0 || width > INT32_MAX || height > INT32_MAX) {
    return refuse(handle, IMG_ERR_SUBTYPE, "width %u, height %u are not read", width, height);
  }
  handle->width = int(width);
  handle->height = int(height);
  const unsigned orientation = number(state.tif.get(), TIFFTAG_ORIENTATION);
  handle->topdown = orientation != ORIENTATION_BOTLEFT;
  if (is_one_of(orientation, {ORIENTATION_TOPLEFT, ORIENTATION_BOTLEFT})) return 1;
  return refuse(handle, IMG_ERR_SUBTYPE, "orientation %u is not read; 1 and 4 are", orientation);
}

int choose_type(const State& state) {
  if (state.kind == Sample::kFloat) return state.has_alpha ? IMG_TYPE_RGBA_FP : IMG_TYPE_RGB_FP;
  if (state.bits > 8) return state.has_alpha ? IMG_TYPE_RGBA_16 : IMG_TYPE_RGB_16;
  return state.has_alpha ? IMG_TYPE_RGBA : IMG_TYPE_RGB;
}

// Sizes of what is decoded at once, by us or inside a codec. Blocks may share their bytes, and tiles may be larger than the
// picture: what all of them take to decode is bounded. Returns 1, or 0 with the handle's error.
int plan_blocks(img_file* handle, State& state) {
  TIFF* const tif = state.tif.get();
  const auto width = std::uint32_t(handle->width), height = std::uint32_t(handle->height);
  state.block_width = width;
  std::uint32_t rows = height;
  std::uint64_t block = 0, row = 0;
  if (state.is_tiled) {
    TIFFGetField(tif, TIFFTAG_TILEWIDTH, &state.block_width);
    TIFFGetField(tif, TIFFTAG_TILELENGTH, &rows);
    block = TIFFTileSize64(tif);
    row = TIFFTileRowSize64(tif);
  } else {
    TIFFGetFieldDefaulted(tif, TIFFTAG_ROWSPERSTRIP, &rows);
    rows = std::min(rows, height);
    block = TIFFStripSize64(tif);
    row = TIFFScanlineSize64(tif);
  }
  if (state.block_width == 0 || rows == 0 || block == 0 || row == 0)
    return state.file.fail(IMG_ERR_CORRUPT);
  state.blocks = state.is_tiled ? (width - 1) / state.block_width + 1 : 1;
  const bool decodes_rows = !state.is_tiled && !state.is_planar;
  const bool is_whole =
      !decodes_rows || is_one_of(state.compression, {COMPRESSION_WEBP, COMPRESSION_JPEG,
                                                     COMPRESSION_ZSTD, COMPRESSION_LZMA});
  const std::uint64_t planes = state.is_planar ? state.samples : 1;
  const std::uint64_t limit = memory_limit(handle), bands = (height - 1) / rows + 1;
  const auto most = ka::checked_product(state.blocks, planes, is_whole ? block : row);
  if (!most || *most > limit) {
    return refuse(handle, IMG_ERR_SUBTYPE, "%s of %llu bytes: too large for the file",
                  state.is_tiled ? "tiles" : "strips", static_cast<unsigned long long>(block));
  }
  const auto all = ka::checked_product(state.blocks, planes, block, bands);
  const auto pixels = ka::checked_product(width, height, state.samples, (state.bits + 7) / 8);
  if (!all || !pixels || *all / 4 > *pixels + limit / 4) {
    return refuse(handle, IMG_ERR_SUBTYPE, "tiles much larger than the picture");
  }
  state.band_rows = decodes_rows ? 1 : rows;
  state.block_bytes = std::size_t(decodes_rows ? row : block);
  state.block_row_bytes = std::size_t(row);
  state.band.resize(std::size_t(decodes_rows ? row : *most) + 2);  // packed_at
  return 1;
}

// Strips may overlap in the file: reading all of them is bounded, too.
int check_strips(img_file* handle, State& state) {
  TIFF* const tif = state.tif.get();
  const std::uint32_t count = state.is_tiled ? TIFFNumberOfTiles(tif) : TIFFNumberOfStrips(tif);
  constexpr std::uint64_t most_times = 64;
  std::uint64_t bytes = 0;
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint64_t strip = TIFFGetStrileByteCount(tif, i);
    bytes += std::min(strip, std::uint64_t(handle->file_size));
    if (bytes > most_times * std::uint64_t(handle->file_size)) {
      return refuse(handle, IMG_ERR_CORRUPT, "strips that overlap");
    }
  }
  return 1;
}

void read_profile(img_file* handle, TIFF* tif) {
  std::uint32_t size = 0;
  void* profile = nullptr;
  if (TIFFGetField(tif, TIFFTAG_ICCPROFILE, &size, &profile) && size > 0) {
    handle->profile = profile_of({static_cast<const std::uint8_t*>(profile), size});
  }
}

int read_layout(img_file* handle, State& state) {
  TIFF* const tif = state.tif.get();
  state.compression = number(tif, TIFFTAG_COMPRESSION);
  state.bits = number(tif, TIFFTAG_BITSPERSAMPLE);
  state.samples = number(tif, TIFFTAG_SAMPLESPERPIXEL);
  state.is_tiled = TIFFIsTiled(tif) != 0;
  state.is_planar = number(tif, TIFFTAG_PLANARCONFIG) == PLANARCONFIG_SEPARATE && state.samples > 1;
  if (!read_sides(handle, state) || !check_compression(handle, state)) return 0;
  if (!check_samples(handle, state, number(tif, TIFFTAG_SAMPLEFORMAT))) return 0;
  if (!read_photometric(handle, state)) return 0;
  state.type = choose_type(state);
  const auto components = std::uint64_t(ka_img_ncomp[state.type]);
  if (!check_line_memory(handle, components * std::uint64_t(ka_img_nbits[state.type]) / 8))
    return 0;
  if (!plan_blocks(handle, state) || !check_strips(handle, state)) return 0;
  if (!TIFFLastDirectory(tif)) note(handle, "the first page is read; there are more");
  read_profile(handle, tif);
  return 1;
}

int test(img_file* /*handle*/, const std::uint8_t* head) {
  ka::ByteCursor little({head + 2, 2}), big({head + 2, 2});
  const bool is_little = head[0] == 'I' && head[1] == 'I',
             is_big = head[0] == 'M' && head[1] == 'M';
  const std::uint16_t magic = is_little ? little.le16() : big.be16();
  return (is_little || is_big) && (magic == kClassic || magic == kBig);
}

int open(img_file* handle, const std::uint8_t* head) try {
  if (!check_directory(handle, head)) return 0;
  auto state = std::make_unique<State>();
  state->file.handle = handle;
  state->file.end = handle->file_size;
  state->tif.reset(state->file.open("rm", memory_limit(handle)));
  if (!state->tif) return state->file.fail(IMG_ERR_CORRUPT);
  state->file.forget();
  if (!read_layout(handle, *state)) return 0;
  state_file_type(handle, state->type);
  handle->data.p = state.release();
  return 1;
} catch (const std::bad_alloc&) {
  return refuse(handle, IMG_ERR_SUBTYPE, "not enough memory");
}

}  // namespace

}  // namespace drivers::tifz

int drivers::register_tifz(int format) {
  return ka_img_custom_format(format, tifz::test, tifz::create, tifz::open, tifz::close,
                              tifz::read_line, tifz::write_line, 1, "tifz", tifz::kWritten,
                              IMG_TYPE_RGBA) &&
         ka_img_custom_format_stand_in(format, IMG_FORMAT_TIF) &&
         ka_img_custom_format_header(format, tifz::header);
}
