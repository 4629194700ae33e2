// What the files of the PNG driver share: chunks, the shape of a picture, its rows.
#pragma once

#include <ka/mem.h>
#include <libdeflate.h>
#define ZLIB_CONST
#include <zlib.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "drivers.h"
#include "pngfilter.h"

namespace drivers {

inline constexpr std::array<std::uint8_t, 8> kPngSignature = {0x89, 'P',  'N',  'G',
                                                              '\r', '\n', 0x1a, '\n'};
inline constexpr std::size_t kPngChunkHead = 8, kPngCrc = 4;  // bytes
inline constexpr std::uint32_t kPngLongestChunk = 0x7fffffff;

enum PngColor : std::uint8_t {
  kPngGrey = 0,
  kPngRgb = 2,
  kPngPalette = 3,
  kPngGreyAlpha = 4,
  kPngRgba = 6
};

// The four letters of a chunk's type, and whether readers that do not know it may pass it over.
constexpr std::uint32_t png_chunk(const char (&name)[5]) {
  std::uint32_t type = 0;
  for (int i = 0; i < 4; ++i) type = type << 8 | std::uint8_t(name[i]);
  return type;
}
constexpr bool png_is_optional(std::uint32_t type) { return (type & 0x20000000) != 0; }

// Accounted memory whose contents are open: what is not touched has no pages.
struct ReleaseBytes {
  void operator()(std::uint8_t* bytes) const {
    ka_mem_dorelease(__FILE__, __LINE__, KA_IMG, bytes);
  }
};
using PngBytes = std::unique_ptr<std::uint8_t, ReleaseBytes>;
inline PngBytes png_bytes(std::size_t count) {
  return PngBytes(
      static_cast<std::uint8_t*>(ka_mem_doalloc(__FILE__, __LINE__, KA_IMG, count, false)));
}

// Why reading failed.
struct PngFault {
  int code = IMG_ERR_NONE;
  int os_error = 0;
  const char* reason = "";
};

// Every pixel of an interlaced picture is in one of seven passes; another picture has one.
struct PngPass {
  std::uint64_t columns = 0, rows = 0;
  unsigned x = 0, dx = 1, y = 0, dy = 1;  // where they are in the picture
  std::size_t row_bytes = 0;              // without the filter's
  std::uint64_t offset = 0;               // of the first row in the uncompressed data

  [[nodiscard]] bool has_row(int line) const {
    return columns > 0 && unsigned(line) >= y && (unsigned(line) - y) % dy == 0;
  }
};

struct PngShape {
  int width, height;
  unsigned bits;  // of a sample
  PngColor color;
  bool interlaced;
  std::size_t pixel_bytes;  // of the filters, 1 where pixels share a byte
  std::array<PngPass, 7> passes;
  std::size_t pass_count;
  std::uint64_t data_bytes;  // uncompressed

  void find_passes();
};

// The compressed data: what the IDAT chunks hold, in portions.
class PngData {
 public:
  // From the first chunk on. With `verify` nothing of a damaged chunk is given, and each is read
  // twice; without it the fault shows after the chunk.
  PngData(img_file* handle, std::int64_t offset, bool verify);

  // The next bytes, valid until the next call; empty at the end and after a fault.
  std::span<const std::uint8_t> next();
  [[nodiscard]] const PngFault& fault() const { return fault_; }
  [[nodiscard]] std::int64_t bytes_left() const { return ka_img_reader_left(in_.get()); }

 private:
  bool begin_chunk();
  bool end_chunk();
  bool is_sound();
  bool matches(const std::uint8_t* stored, std::uint32_t crc);
  bool fail(int code, const char* reason);
  bool fail_reading();  // the file ends, or the system failed

  Reader in_;
  bool verify_, in_chunk_ = false, cut_ = false;
  std::uint32_t left_ = 0;  // of the chunk
  std::uint32_t crc_ = 0;
  PngFault fault_;
};

// Uncompresses from the start of the data in portions, to where it is damaged.
class PngInflater {
 public:
  PngInflater(img_file* handle, std::int64_t offset);
  ~PngInflater();
  PngInflater(const PngInflater&) = delete;
  PngInflater& operator=(const PngInflater&) = delete;

  bool read(std::uint8_t* bytes, std::size_t count);
  bool skip(std::uint64_t count);
  // Whether the data ends soundly. More of it than the picture needs does no harm.
  bool finish();
  [[nodiscard]] const PngFault& fault() const { return fault_; }

 private:
  bool feed();
  bool take_number(std::size_t count, std::uint32_t& value);
  bool begin();
  bool advance();
  bool fail(const PngFault& fault);

  PngData data_;
  z_stream codec_{};
  bool begun_ = false, ended_ = false;
  std::uint32_t checksum_ = 1;
  PngFault fault_;
};

// The rows of a picture. They are uncompressed at once where memory allows that and nothing is
// damaged, else one by one: then each pass goes through all of the data up to its own rows.
class PngRows {
 public:
  PngRows(img_file* handle, const PngShape& shape, std::int64_t offset);

  // The next row of a pass, unfiltered; null after a fault.
  const std::uint8_t* next(std::size_t pass);
  [[nodiscard]] const PngFault& fault() const { return fault_; }

 private:
  struct Cursor {
    std::uint64_t rows_left;
    std::uint8_t* at;           // the filter's byte of the next row, when all are at hand
    const std::uint8_t* above;  // null before the first row
    PngBytes row, row_above;    // when they are not
    std::unique_ptr<PngInflater> inflater;
  };

  bool inflate_all(img_file* handle);
  void start_cursor(img_file* handle, Cursor& cursor, const PngPass& pass);
  std::uint8_t* inflate_row(Cursor& cursor, const PngPass& pass);

  const PngShape& shape_;
  std::int64_t offset_;
  std::size_t last_pass_ = 0;
  PngBytes all_;      // rows with their filters
  PngBytes nothing_;  // a row of zeros
  std::array<Cursor, 7> cursors_{};
  PngFault fault_;
};

// Operations of the writer.
int create_png(img_file* handle);
int write_png(img_file* handle, img_line* line);
int close_png_writer(img_file* handle);

}  // namespace drivers
