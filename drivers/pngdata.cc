// Rows of PNG files: IDAT chunks, their compressed data, filters.
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <ka/imgbytes.h>

#include "png.h"

namespace drivers {
namespace {

constexpr std::size_t kPortion = std::size_t{256} << 10;  // of the file, in the second-level cache
constexpr std::uint64_t kReserved = std::uint64_t{4}
                                    << 20;  // of the memory bound, for codecs and lines

constexpr PngPass kAdam7[] = {
    {.x = 0, .dx = 8, .y = 0, .dy = 8}, {.x = 4, .dx = 8, .y = 0, .dy = 8},
    {.x = 0, .dx = 4, .y = 4, .dy = 8}, {.x = 2, .dx = 4, .y = 0, .dy = 4},
    {.x = 0, .dx = 2, .y = 2, .dy = 4}, {.x = 1, .dx = 2, .y = 0, .dy = 2},
    {.x = 0, .dx = 1, .y = 1, .dy = 2}};

// Large buffers that are filled from front to back cost less with large pages.
PngBytes large_bytes(std::size_t count) {
  constexpr std::size_t page = std::size_t{2} << 20;
  PngBytes bytes = png_bytes(count);
  const auto first = (reinterpret_cast<std::uintptr_t>(bytes.get()) + page - 1) / page * page;
  const auto end = (reinterpret_cast<std::uintptr_t>(bytes.get()) + count) / page * page;
  // NOLINTNEXTLINE(performance-no-int-to-ptr): an address between two others
  if (end > first) madvise(reinterpret_cast<void*>(first), end - first, MADV_HUGEPAGE);
  return bytes;
}

struct ReleaseCodec {
  void operator()(libdeflate_decompressor* codec) const { libdeflate_free_decompressor(codec); }
};

// Whether the data is that many bytes, which it then stores.
bool inflate_whole(std::span<const std::uint8_t> data, std::uint8_t* bytes, std::size_t count) {
  const std::unique_ptr<libdeflate_decompressor, ReleaseCodec> codec(
      libdeflate_alloc_decompressor());
  std::size_t stored = 0;
  return codec &&
         libdeflate_zlib_decompress(codec.get(), data.data(), data.size(), bytes, count, &stored) ==
             LIBDEFLATE_SUCCESS &&
         stored == count;
}

}  // namespace

void PngShape::find_passes() {
  constexpr PngPass whole;
  const std::uint64_t samples = color == kPngRgb         ? 3
                                : color == kPngRgba      ? 4
                                : color == kPngGreyAlpha ? 2
                                                         : 1;
  pixel_bytes = std::max<std::size_t>(1, samples * bits / 8);
  pass_count = interlaced ? std::size(kAdam7) : 1;
  data_bytes = 0;
  for (std::size_t i = 0; i < pass_count; ++i) {
    PngPass& pass = passes[i];
    pass = interlaced ? kAdam7[i] : whole;
    const auto count = [](int side, unsigned first, unsigned step) {
      return (std::uint64_t(side) + step - 1 - first) / step;
    };
    pass.columns = count(width, pass.x, pass.dx);
    pass.rows = count(height, pass.y, pass.dy);
    if (pass.columns == 0) pass.rows = 0;
    pass.row_bytes = (pass.columns * samples * bits + 7) / 8;
    pass.offset = data_bytes;
    data_bytes += pass.rows * (1 + pass.row_bytes);
  }
}

PngData::PngData(img_file* handle, std::int64_t offset, bool verify)
    : in_(ka_img_reader_alloc(handle, offset, kPortion)), verify_(verify) {}

bool PngData::fail(int code, const char* reason) {
  fault_ = {code, 0, reason};
  return false;
}

bool PngData::fail_reading() {
  fault_ = {IMG_ERR_READ, errno, "the file ends in the pixels"};
  return false;
}

bool PngData::matches(const std::uint8_t* stored, std::uint32_t crc) {
  if (ka::ByteCursor({stored, kPngCrc}).be32() == crc) return true;
  return fail(IMG_ERR_CORRUPT, "the checksum of an IDAT chunk differs");
}

// Verifies the chunk without taking it: a long one is read twice.
bool PngData::is_sound() {
  std::size_t held = left_ + kPngCrc;
  if (held <= kPortion) {
    const std::uint8_t* const bytes = ka_img_reader_ahead(in_.get(), &held);
    if (held < left_ + kPngCrc) return fail_reading();
    const std::uint32_t found = left_ > 0 ? libdeflate_crc32(crc_, bytes, left_) : crc_;
    return matches(bytes + left_, found);
  }
  const std::int64_t start = ka_img_reader_position(in_.get());
  std::uint32_t crc = crc_;
  for (std::uint32_t left = left_; left > 0;) {
    const auto count = std::min<std::uint32_t>(left, kPortion);
    const std::uint8_t* const bytes = ka_img_reader_take(in_.get(), count);
    if (!bytes) return fail_reading();
    crc = libdeflate_crc32(crc, bytes, count);
    left -= count;
  }
  const std::uint8_t* const stored = ka_img_reader_take(in_.get(), kPngCrc);
  if (!stored) return fail_reading();
  const bool result = matches(stored, crc);
  ka_img_reader_seek(in_.get(), start);
  return result;
}

bool PngData::begin_chunk() {
  constexpr std::size_t type_bytes = 4;
  const std::uint8_t* const head = ka_img_reader_take(in_.get(), kPngChunkHead);
  if (!head) return fail_reading();
  ka::ByteCursor fields({head, kPngChunkHead});
  left_ = fields.be32();
  if (fields.be32() != png_chunk("IDAT")) return false;
  if (left_ > kPngLongestChunk)
    return fail(IMG_ERR_CORRUPT, "an IDAT chunk of more than 2^31 bytes");
  crc_ = libdeflate_crc32(0, head + kPngChunkHead - type_bytes, type_bytes);
  in_chunk_ = true;
  const std::int64_t held = bytes_left();
  cut_ = held < std::int64_t{left_} + std::int64_t{kPngCrc};
  if (cut_) left_ = std::uint32_t(std::min<std::int64_t>(held, left_));
  return cut_ || !verify_ || is_sound();
}

bool PngData::end_chunk() {
  if (!in_chunk_) return true;
  errno = 0;
  if (cut_) return fail_reading();
  const std::uint8_t* const stored = ka_img_reader_take(in_.get(), kPngCrc);
  if (!stored) return fail_reading();
  in_chunk_ = false;
  return verify_ || matches(stored, crc_);
}

std::span<const std::uint8_t> PngData::next() {
  if (fault_.code != IMG_ERR_NONE) return {};
  while (left_ == 0) {
    if (!end_chunk() || !begin_chunk()) {
      left_ = 0;
      return {};
    }
  }
  const auto count = std::min<std::uint32_t>(left_, kPortion);
  const std::uint8_t* const bytes = ka_img_reader_take(in_.get(), count);
  if (!bytes) {
    fail_reading();
    return {};
  }
  if (!verify_) crc_ = libdeflate_crc32(crc_, bytes, count);
  left_ -= count;
  return {bytes, count};
}

// The codec sees the data without its head and its checksum, which libdeflate finds faster.
PngInflater::PngInflater(img_file* handle, std::int64_t offset) : data_(handle, offset, true) {
  if (inflateInit2(&codec_, -MAX_WBITS) != Z_OK) fault_ = {IMG_ERR_READ, ENOMEM, ""};
}

PngInflater::~PngInflater() { inflateEnd(&codec_); }

bool PngInflater::fail(const PngFault& fault) {
  fault_ = fault;
  return false;
}

// Gives the codec bytes where it has none.
bool PngInflater::feed() {
  if (codec_.avail_in > 0) return true;
  const auto bytes = data_.next();
  if (bytes.empty()) {
    const PngFault& fault = data_.fault();
    return fail(fault.code != IMG_ERR_NONE
                    ? fault
                    : PngFault{IMG_ERR_CORRUPT, 0, "the IDAT chunks end before the last line"});
  }
  codec_.next_in = bytes.data();
  codec_.avail_in = uInt(bytes.size());
  return true;
}

// The next bytes as a number, of the data's head or its end.
bool PngInflater::take_number(std::size_t count, std::uint32_t& value) {
  for (value = 0; count > 0; --count) {
    if (!feed()) return false;
    value = value << 8 | *codec_.next_in++;
    --codec_.avail_in;
  }
  return true;
}

bool PngInflater::begin() {
  constexpr unsigned deflated = 8, dictionary = 0x20;
  std::uint32_t head = 0;
  begun_ = true;
  if (!take_number(2, head)) return false;
  const bool is_known =
      head % 31 == 0 && (head >> 8 & 15) == deflated && head >> 12 < 8 && !(head & dictionary);
  return is_known || fail({IMG_ERR_CORRUPT, 0, "the compressed data has a damaged head"});
}

bool PngInflater::read(std::uint8_t* bytes, std::size_t count) {
  if (fault_.code != IMG_ERR_NONE || (!begun_ && !begin())) return false;
  std::uint8_t* const first = bytes;
  for (std::uint8_t* const end = bytes + count; bytes < end;) {
    if (ended_) return fail({IMG_ERR_CORRUPT, 0, "the compressed data ends before the last line"});
    const auto room = uInt(std::min<std::size_t>(std::size_t(end - bytes), std::size_t{1} << 30));
    codec_.next_out = bytes;
    codec_.avail_out = room;
    if (!advance()) return false;
    bytes += room - codec_.avail_out;
  }
  checksum_ = libdeflate_adler32(checksum_, first, count);
  return true;
}

// Uncompresses what there is room for, or less.
bool PngInflater::advance() {
  const int result = inflate(&codec_, Z_NO_FLUSH);
  ended_ = result == Z_STREAM_END;
  if (result == Z_BUF_ERROR || (result == Z_OK && codec_.avail_out > 0)) return feed();
  return ended_ || result == Z_OK || fail({IMG_ERR_CORRUPT, 0, "the compressed data is damaged"});
}

bool PngInflater::skip(std::uint64_t count) {
  std::array<std::uint8_t, std::size_t{16} << 10> unused;
  for (; count > 0; count -= std::min<std::uint64_t>(count, unused.size())) {
    if (!read(unused.data(), std::size_t(std::min<std::uint64_t>(count, unused.size())))) {
      return false;
    }
  }
  return true;
}

bool PngInflater::finish() {
  std::uint8_t more;
  codec_.next_out = &more;
  codec_.avail_out = 1;
  while (!ended_) {
    if (!advance()) return false;
    if (codec_.avail_out == 0) return true;
  }
  std::uint32_t stored = 0;
  if (!take_number(4, stored)) return false;
  return stored == checksum_ || fail({IMG_ERR_CORRUPT, 0, "the checksum of the data differs"});
}

PngRows::PngRows(img_file* handle, const PngShape& shape, std::int64_t offset)
    : shape_(shape), offset_(offset) {
  std::size_t longest = 0;
  for (std::size_t i = 0; i < shape.pass_count; ++i) {
    longest = std::max(longest, shape.passes[i].row_bytes);
    if (shape.passes[i].rows > 0) last_pass_ = i;
  }
  nothing_ = png_bytes(longest + kPngSlack);
  std::memset(nothing_.get(), 0, longest + kPngSlack);
  if (!inflate_all(handle)) all_.reset();
  for (std::size_t i = 0; i < shape.pass_count; ++i) {
    Cursor& cursor = cursors_[i];
    cursor.rows_left = shape.passes[i].rows;
    if (all_) {
      cursor.at = all_.get() + shape.passes[i].offset;
    } else if (cursor.rows_left > 0) {
      start_cursor(handle, cursor, shape.passes[i]);
    }
  }
}

// Returns false where memory does not allow it, something is damaged, or nothing was compressed: then
// rows are copied faster one by one.
bool PngRows::inflate_all(img_file* handle) {
  PngData data(handle, offset_, false);
  const auto most = std::uint64_t(data.bytes_left());  // of compressed bytes
  constexpr std::uint64_t best_ratio = 1032;           // of the compression
  if (shape_.data_bytes + most + kReserved > memory_limit(handle) ||
      shape_.data_bytes / best_ratio > most) {
    return false;
  }
  auto bytes = data.next();
  constexpr unsigned block_type = 6;  // of the first block, after the head; 0: stored
  const bool is_stored = bytes.size() > 2 && (bytes[2] & block_type) == 0;
  if (is_stored && most > shape_.data_bytes && !shape_.interlaced) return false;
  const PngBytes compressed = large_bytes(std::size_t(most));
  std::size_t count = 0;
  for (; !bytes.empty(); bytes = data.next()) {
    std::memcpy(compressed.get() + count, bytes.data(), bytes.size());
    count += bytes.size();
  }
  if (data.fault().code != IMG_ERR_NONE) return false;
  all_ = large_bytes(std::size_t(shape_.data_bytes) + kPngSlack);
  std::memset(all_.get() + shape_.data_bytes, 0, kPngSlack);
  return inflate_whole({compressed.get(), count}, all_.get(), std::size_t(shape_.data_bytes));
}

void PngRows::start_cursor(img_file* handle, Cursor& cursor, const PngPass& pass) {
  cursor.row = png_bytes(1 + pass.row_bytes + kPngSlack);
  cursor.row_above = png_bytes(1 + pass.row_bytes + kPngSlack);
  cursor.inflater = std::make_unique<PngInflater>(handle, offset_);
}

std::uint8_t* PngRows::inflate_row(Cursor& cursor, const PngPass& pass) {
  PngInflater& inflater = *cursor.inflater;
  std::swap(cursor.row, cursor.row_above);
  const bool is_first = cursor.rows_left == pass.rows;
  const bool is_last = cursor.rows_left == 1 && &pass == &shape_.passes[last_pass_];
  if ((is_first && !inflater.skip(pass.offset)) ||
      !inflater.read(cursor.row.get(), 1 + pass.row_bytes) || (is_last && !inflater.finish())) {
    fault_ = inflater.fault();
    return nullptr;
  }
  return cursor.row.get();
}

const std::uint8_t* PngRows::next(std::size_t index) {
  if (fault_.code != IMG_ERR_NONE) return nullptr;
  const PngPass& pass = shape_.passes[index];
  Cursor& cursor = cursors_[index];
  std::uint8_t* const row = all_ ? cursor.at : inflate_row(cursor, pass);
  if (!row) return nullptr;
  if (row[0] >= kPngFilters) {
    fault_ = {IMG_ERR_CORRUPT, 0, "a filter that the format does not have"};
    return nullptr;
  }
  png_unfilter(PngFilter(row[0]), shape_.pixel_bytes, row + 1,
               cursor.above ? cursor.above : nothing_.get(), pass.row_bytes);
  cursor.above = row + 1;
  if (all_) cursor.at += 1 + pass.row_bytes;
  --cursor.rows_left;
  return row + 1;
}

}  // namespace drivers
