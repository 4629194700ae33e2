// Writing of TIFF files: a header of fixed layout, then all rows in one strip, little-endian.
#include <errno.h>

#include <limits>

#include "drivers.h"
#include "img_tiff.h"
#include "imgcontext.h"
#include "linekernels.h"
#include "rle.h"
#include "rows.h"

namespace ka {

namespace {

using tiff::State;

constexpr std::size_t kHeaderBytes = 204;
constexpr std::uint32_t kDirectory = 10;    // file offsets in bytes, from here on
constexpr std::uint32_t kByteCount = 128;   // of the value of StripByteCounts
constexpr std::uint32_t kSampleBits = 184;  // of the values of BitsPerSample
constexpr std::uint32_t kSampleFormats = 196;
constexpr std::uint32_t kLargestCount = std::numeric_limits<std::uint32_t>::max();

constexpr std::uint32_t kShort = 3, kLong = 4;  // types of entries

enum Alpha : std::uint32_t { kAssociated = 1, kUnassociated = 2 };

bool writes_packets(int format) {
  return format == IMG_FORMAT_TIF || format == IMG_FORMAT_TIF3 || format == IMG_FORMAT_TIF16 ||
         format == IMG_FORMAT_TIF16_3;
}

void put_entry(ByteWriter& out, std::uint32_t tag, std::uint32_t type, std::uint32_t count,
               std::uint32_t value) {
  out.le16(tag);
  out.le16(type);
  out.le32(count);
  out.le32(value);
}

void put_four(ByteWriter& out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out.le16(value);
}

void put_header(const img_file* handle, State& state, std::uint32_t byte_count) {
  const auto width = std::uint32_t(handle->width), height = std::uint32_t(handle->height);
  const auto components = std::uint32_t(handle->components), bits = std::uint32_t(handle->bits);
  const bool has_alpha = components == 4;
  const std::uint32_t alpha = img_context().not_premultiplied ? kAssociated : kUnassociated;
  ByteWriter out(state.out.put(kHeaderBytes));
  out.text("II", 2);
  out.le16(42);
  out.le32(kDirectory);
  out.zeros(2);
  out.le16(13);                                                     // entries
  put_entry(out, 254, kLong, 1, 0);                                 // NewSubfileType
  put_entry(out, 256, kLong, 1, width);                             // ImageWidth
  put_entry(out, 257, kLong, 1, height);                            // ImageLength
  put_entry(out, 258, kShort, components, kSampleBits);             // BitsPerSample
  put_entry(out, 259, kShort, 1, state.is_compressed ? 32773 : 1);  // Compression
  put_entry(out, 262, kShort, 1, tiff::kRgb);                       // PhotometricInterpretation
  put_entry(out, 273, kLong, 1, kHeaderBytes);                      // StripOffsets
  put_entry(out, 277, kShort, 1, components);                       // SamplesPerPixel
  put_entry(out, 278, kLong, 1, height);                            // RowsPerStrip
  put_entry(out, 279, kLong, 1, byte_count);                        // StripByteCounts
  put_entry(out, 284, kShort, 1, 1);                                // PlanarConfiguration
  put_entry(out, 338, kShort, has_alpha, has_alpha ? alpha : 0);    // ExtraSamples
  put_entry(out, 339, kShort, components, kSampleFormats);          // SampleFormat
  out.le32(0);                                                      // no further directory
  out.zeros(12);
  put_four(out, bits);
  out.zeros(4);
  put_four(out, bits == 32 ? 3 : 1);  // floats, whole numbers
}

// Packets of a row; false when the file would pass what its byte count can hold.
bool compressline(State& state) {
  const std::size_t bytes = compact_packbits({state.row.data(), state.row.size()},
                                             {state.packets.data(), state.packets.size()});
  if (state.compressed + bytes > kLargestCount - kHeaderBytes) return false;
  state.compressed += bytes;
  state.out.write({reinterpret_cast<const char*>(state.packets.data()), bytes});
  return true;
}

template <typename Sample, std::size_t Components>
int writeline(img_file* handle, img_line* line) {
  auto& state = state_of<State>(handle);
  const auto width = std::size_t(handle->width);
  const auto planes = plane_pointers<Sample, Components>(line);
  if (!state.is_compressed) {
    (void)write_row(state.out, planes, width, std::endian::little);
  } else {
    pack<Sample, Components>(state.row.data(), planes, width, std::endian::little);
    if (!compressline(state)) return img_error(handle, IMG_ERR_WRITE, EFBIG);
  }
  return state.out.error() == 0 ? 1 : img_error(handle, IMG_ERR_WRITE, state.out.error());
}

template <typename Sample>
int writeline(img_file* handle, img_line* line) {
  return handle->components == 4 ? writeline<Sample, 4>(handle, line)
                                 : writeline<Sample, 3>(handle, line);
}

}  // namespace

int img_create_tiff(img_file* handle) {
  const auto row_bytes = checked_product(handle->width, handle->components, handle->bits / 8);
  const auto bytes = row_bytes ? checked_product(*row_bytes, handle->height) : std::nullopt;
  if (!bytes || *bytes > kLargestCount - kHeaderBytes) {
    return img_error(handle, IMG_ERR_SUBTYPE, EFBIG);
  }
  auto state = make_state<State>(handle);
  state->is_compressed = writes_packets(handle->format);
  if (state->is_compressed) {
    state->row = Buffer(*row_bytes);
    state->packets = Buffer(packbits_bound(*row_bytes));
  }
  state->out.start(handle);
  put_header(handle, *state, std::uint32_t(*bytes));
  handle->data.p = state.release();
  return 1;
}

int img_write_tiff(img_file* handle, img_line* line) {
  if (handle->bits == 8) return writeline<std::uint8_t>(handle, line);
  if (handle->bits == 16) return writeline<std::uint16_t>(handle, line);
  return writeline<std::uint32_t>(handle, line);
}

int img_flush_tiff(img_file* handle) {
  auto& state = state_of<State>(handle);
  if (handle->writing && !handle->error && state.is_compressed) {
    state.out.seek(kByteCount);
    ByteWriter(state.out.put(4)).le32(std::uint32_t(state.compressed));
    state.out.seek(kHeaderBytes + state.compressed);
  }
  return finish_file(handle, state.out, IMG_ERR_WRITE);
}

int img_close_tiff(img_file* handle) {
  const int flushed = handle->data.p ? img_flush_tiff(handle) : 1;
  (void)take_state<State>(handle);
  return flushed;
}

}  // namespace ka
