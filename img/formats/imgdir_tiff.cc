// The directory of a TIFF file: its entries, and what is refused of them at once.
#include <algorithm>
#include <optional>

#include <ka/message.h>

#include "img_tiff.h"

namespace ka {

namespace {

using tiff::Directory;
using tiff::Entry;
using tiff::Source;

constexpr std::size_t kEntryBytes = 12;
constexpr std::uint32_t kNoCompression = 1, kPackBits = 32773;
constexpr std::uint32_t kTopFirst = 1, kBottomFirst = 4;  // orientations, the left column first
constexpr std::uint32_t kSeparatePlanes = 2;

enum Tag : std::uint16_t {
  kImageWidth = 256,
  kImageLength = 257,
  kBitsPerSample = 258,
  kCompression = 259,
  kPhotometric = 262,
  kStripOffsets = 273,
  kOrientation = 274,
  kSamplesPerPixel = 277,
  kRowsPerStrip = 278,
  kStripByteCounts = 279,
  kPlanarConfiguration = 284,
  kColorMap = 320,
  kTileWidth = 322,
  kTileByteCounts = 325,
  kSampleFormat = 339
};

// The next entry of the directory; empty when the file ends.
std::optional<Entry> take_entry(Source& file) {
  const auto bytes = file.in.take(kEntryBytes);
  if (bytes.empty()) return std::nullopt;
  ByteCursor in(bytes);
  Entry entry;
  entry.tag = file.u16(in);
  entry.type = file.u16(in);
  entry.count = file.u32(in);
  std::ranges::copy(in.take(entry.field.size()), entry.field.begin());
  return entry;
}

const char* compression_name(std::uint32_t compression) {
  switch (compression) {
    case 2:
    case 3:
    case 4:
      return " (fax)";
    case 5:
      return " (LZW)";
    case 6:
    case 7:
      return " (JPEG)";
    case 8:
    case 32946:
      return " (Deflate)";
    default:
      return "";
  }
}

int note_compression(const Source& file, std::uint32_t compression, Directory& directory) {
  directory.is_compressed = compression == kPackBits;
  if (directory.is_compressed || compression == kNoCompression) return 1;
  ka_debug("%s: unsupported compression %u", file.handle->display_name, compression);
  return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0,
                    "compression %u%s is not read; %u (none) and %u (PackBits) are", compression,
                    compression_name(compression), kNoCompression, kPackBits);
}

int note_orientation(const Source& file, std::uint32_t orientation) {
  file.handle->topdown = orientation == kTopFirst;
  if (orientation == kTopFirst || orientation == kBottomFirst) return 1;
  ka_debug("%s: unsupported orientation  %d", file.handle->display_name, int(orientation));
  return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0, "orientation %u is not read; %u and %u are",
                    orientation, kTopFirst, kBottomFirst);
}

// Both tables of strips have an entry for each.
int note_strips(const Source& file, const Entry& entry, Directory& directory) {
  if (directory.strips != 0 && directory.strips != entry.count) {
    return img_refuse(file.handle, IMG_ERR_CORRUPT, 0, "tables of %u and %u strips",
                      directory.strips, entry.count);
  }
  directory.strips = entry.count;
  (entry.tag == kStripOffsets ? directory.offsets : directory.byte_counts) = entry;
  return 1;
}

int note_entry(const Source& file, const Entry& entry, Directory& directory) {
  const std::uint32_t number = file.number(entry);
  switch (entry.tag) {
    case kImageWidth:
      file.handle->width = int(number);
      return 1;
    case kImageLength:
      file.handle->height = int(number);
      return 1;
    case kBitsPerSample:
      directory.sample_bits = entry;
      return 1;
    case kCompression:
      return note_compression(file, number, directory);
    case kPhotometric:
      directory.photometric = number;
      return 1;
    case kStripOffsets:
    case kStripByteCounts:
      return note_strips(file, entry, directory);
    case kOrientation:
      return note_orientation(file, number);
    case kSamplesPerPixel:
      directory.components = number;
      return 1;
    case kRowsPerStrip:
      directory.rows_per_strip = number;
      return 1;
    case kPlanarConfiguration:
      directory.is_planar = number == kSeparatePlanes;
      return 1;
    case kColorMap:
      directory.color_map = entry;
      return 1;
    case kSampleFormat:
      directory.sample_format = entry;
      return entry.count < 2 ? tiff::refuse_format_count(file, entry.count) : 1;
    default:
      if (entry.tag < kTileWidth || entry.tag > kTileByteCounts) return 1;
      return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0, "tiles are not read; strips are");
  }
}

}  // namespace

int tiff::refuse_format_count(const Source& file, std::uint32_t count) {
  ka_debug("%s: unsupported number of sampleformat values:  %d", file.handle->display_name,
           int(count));
  return img_refuse(file.handle, IMG_ERR_SUBTYPE, 0,
                    "%u values of the sample format; each sample needs one", count);
}

int tiff::read_directory(Source& file, std::uint32_t offset, Directory& directory) {
  file.in.seek(offset);
  const auto bytes = file.in.take(2);
  if (bytes.empty()) return file.short_read("directory");
  ByteCursor in(bytes);
  for (int entries = file.u16(in); entries > 0; --entries) {
    const auto entry = take_entry(file);
    if (!entry) return file.short_read("directory");
    if (!note_entry(file, *entry, directory)) return 0;
  }
  return 1;
}

}  // namespace ka
