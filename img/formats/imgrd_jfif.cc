// What a JPEG file may cost: its pixels, its blocks and the scans over them are held against its
// bytes, and blocks of which it has next to nothing are kept packed.
#include <algorithm>
#include <cstring>

#include "img_jfif.h"

#include <jerror.h>

namespace ka {

namespace {

// Each scan passes over the blocks of its components, and those of one may take next to no bytes.
// But the first takes a bit for each block at least, and few scans follow for one component: an
// honest file of n bytes passes over fewer blocks than 64 * n, beside those that cost nothing much.
constexpr std::uint64_t kPassesPerByte = 64;
constexpr std::uint64_t kFreePasses = std::uint64_t{1} << 22;

// Arithmetic coding has no least bits of a block. A picture without contents may be large, a larger
// one has to have some.
constexpr std::uint64_t kPixelsPerByte = 4096;
constexpr std::uint64_t kFreePixels = std::uint64_t{1} << 26;

// A file of several scans is kept as coefficients, 128 bytes for 64 of them, until its last scan.
// The first scan takes a bit for each 64 at least, so that an honest file of n bytes needs no more
// than 1024 * n; the rest is for small pictures. Up to a part of that the codec keeps them itself,
// and packed ones with the rows in use take little more.
constexpr std::uint64_t kMemoryPerByte = 1024;
constexpr std::uint64_t kPlainMemoryPerByte = 48;
constexpr std::uint64_t kFreeMemory = std::uint64_t{16} << 20;

// Packed blocks: one with up to kMostListed coefficients that are not 0 is their number, and for
// each its place and value. kWhole is followed by all 64, kSame by how many blocks, in two bytes,
// are as the one before.
constexpr std::size_t kMostListed = 40;
constexpr std::uint8_t kWhole = 65, kSame = 66;
constexpr std::size_t kListedBytes = 1 + sizeof(JCOEF);
constexpr std::size_t kMostPacked = 1 + sizeof(JBLOCK) + 1 + sizeof(std::uint16_t);  // of a block

std::uint8_t* put_same(std::uint8_t* out, std::uint16_t count) {
  if (count == 0) return out;
  *out++ = kSame;
  std::memcpy(out, &count, sizeof count);
  return out + sizeof count;
}

std::uint8_t* put_block(std::uint8_t* out, const JBLOCK& block) {
  const auto listed = std::size_t(DCTSIZE2 - std::ranges::count(block, JCOEF{0}));
  if (listed > kMostListed) {
    *out++ = kWhole;
    std::memcpy(out, block, sizeof block);
    return out + sizeof block;
  }
  *out++ = std::uint8_t(listed);
  for (std::size_t i = 0; i < DCTSIZE2; ++i) {
    if (block[i] == 0) continue;
    *out = std::uint8_t(i);
    std::memcpy(out + 1, &block[i], sizeof block[i]);
    out += kListedBytes;
  }
  return out;
}

// The codec's loops for several instruction sets want their blocks so.
constexpr std::size_t kAlignment = 32;
std::uint8_t* aligned(std::uint8_t* memory) {
  const auto past = reinterpret_cast<std::uintptr_t>(memory) % kAlignment;
  return past == 0 ? memory : memory + (kAlignment - past);
}

// Unpacks a row into blocks that are zero.
void unpack(const Buffer& row, JBLOCK* block) {
  const std::uint8_t* const end = row.data() + row.size();
  for (const std::uint8_t* in = row.data(); in != end;) {
    const std::uint8_t code = *in++;
    if (code == kSame) {
      std::uint16_t count;
      std::memcpy(&count, in, sizeof count);
      in += sizeof count;
      for (; count > 0; --count, ++block) std::memcpy(block, block - 1, sizeof *block);
      continue;
    }
    if (code == kWhole) {
      std::memcpy(block, in, sizeof *block);
      in += sizeof *block;
    }
    for (std::size_t i = 0; code != kWhole && i < code; ++i, in += kListedBytes) {
      std::memcpy(&(*block)[in[0]], in + 1, sizeof(JCOEF));
    }
    ++block;
  }
}

std::uint64_t plain_memory(const JfifState& state) {
  return kFreeMemory + kPlainMemoryPerByte * state.file_size;
}

void check_memory(j_common_ptr codec) {
  const JfifState& state = codec_state(codec);
  if (state.blocks.bytes() > plain_memory(state) + kFreeMemory)
    ERREXIT(codec, JERR_NO_BACKING_STORE);
}

jvirt_barray_ptr request_blocks(j_common_ptr codec, int /*pool*/, boolean /*zero*/,
                                JDIMENSION blocks, JDIMENSION rows, JDIMENSION most) {
  JfifState& state = codec_state(codec);
  auto* const component = state.blocks.add(blocks, rows, most);
  check_memory(codec);
  return reinterpret_cast<jvirt_barray_ptr>(component);
}

JBLOCKARRAY access_blocks(j_common_ptr codec, jvirt_barray_ptr rows, JDIMENSION first,
                          JDIMENSION count, boolean is_written) {
  JfifState& state = codec_state(codec);
  auto& component = *reinterpret_cast<JpegBlocks::Component*>(rows);
  const JBLOCKARRAY blocks = state.blocks.access(component, first, count, is_written != FALSE);
  check_memory(codec);
  return blocks;
}

// Bytes of the coefficients of all components.
std::uint64_t block_bytes(const jpeg_decompress_struct& reader) {
  std::uint64_t blocks = 0;
  for (int c = 0; c < reader.num_components; ++c) {
    const jpeg_component_info& component = reader.comp_info[c];
    blocks += std::uint64_t{component.width_in_blocks} * component.height_in_blocks;
  }
  return blocks * sizeof(JBLOCK);
}

}  // namespace

struct JpegBlocks::Component {
  std::size_t blocks;                // of a row
  vector<Buffer> rows;               // packed; empty while all zero
  Buffer window;                     // rows in use
  vector<JBLOCKROW> row;             // in the window
  Buffer packed;                     // room for a row
  std::size_t first = 0, count = 0;  // rows in the window
  bool is_written = false;
};

JpegBlocks::JpegBlocks() = default;
JpegBlocks::~JpegBlocks() = default;

JpegBlocks::Component* JpegBlocks::add(std::size_t blocks, std::size_t rows, std::size_t most) {
  auto component = make_owned<Component>();
  component->blocks = blocks;
  component->rows.resize(rows);
  component->window = Buffer(most * blocks * sizeof(JBLOCK) + kAlignment);
  component->packed = Buffer(blocks * kMostPacked);
  bytes_ += component->window.size();
  auto* const block = reinterpret_cast<JBLOCK*>(aligned(component->window.data()));
  for (std::size_t i = 0; i < most; ++i) component->row.push_back(block + i * blocks);
  components_.push_back(std::move(component));
  return components_.back().get();
}

void JpegBlocks::pack_row(Component& component, std::size_t row, const JBLOCK* blocks) {
  std::uint8_t* out = component.packed.data();
  std::uint16_t same = 0;
  for (std::size_t i = 0; i < component.blocks; ++i) {
    if (i > 0 && std::memcmp(blocks[i], blocks[i - 1], sizeof(JBLOCK)) == 0) {
      ++same;
      continue;
    }
    out = put_block(put_same(out, same), blocks[i]);
    same = 0;
  }
  const auto bytes = std::size_t(put_same(out, same) - component.packed.data());
  Buffer& kept = component.rows[row];
  bytes_ += bytes;
  bytes_ -= kept.size();
  if (kept.size() != bytes) kept = Buffer(bytes);
  std::memcpy(kept.data(), component.packed.data(), bytes);
}

JBLOCKARRAY JpegBlocks::access(Component& component, std::size_t first, std::size_t count,
                               bool is_written) {
  const std::size_t end = component.first + component.count;
  // The codec's smoothing looks at rows that it has not asked for.
  const std::size_t reach =
      is_written ? count : std::min(component.row.size(), component.rows.size() - first);
  if (first < component.first || first + reach > end) {
    for (std::size_t i = 0; component.is_written && i < component.count; ++i) {
      pack_row(component, component.first + i, component.row[i]);
    }
    std::memset(component.row[0], 0, reach * component.blocks * sizeof(JBLOCK));
    for (std::size_t i = 0; i < reach; ++i) unpack(component.rows[first + i], component.row[i]);
    component.first = first;
    component.count = reach;
    component.is_written = false;
  }
  component.is_written = component.is_written || is_written;
  return component.row.data() + (first - component.first);
}

void img_jfif_prepare_blocks(j_decompress_ptr reader) {
  const JfifState& state = codec_state(reader);
  const std::uint64_t pixels = std::uint64_t{reader->output_width} * reader->output_height;
  const std::uint64_t most_pixels = kFreePixels + kPixelsPerByte * state.file_size;
  if (reader->arith_code && pixels > most_pixels) ERREXIT(reader, JERR_NO_BACKING_STORE);
  if (!jpeg_has_multiple_scans(reader)) return;
  const std::uint64_t bytes = block_bytes(*reader);
  if (bytes > kFreeMemory + kMemoryPerByte * state.file_size)
    ERREXIT(reader, JERR_NO_BACKING_STORE);
  if (bytes <= plain_memory(state)) return;
  reader->mem->request_virt_barray = request_blocks;
  reader->mem->access_virt_barray = access_blocks;
}

void img_jfif_count_scans(j_common_ptr codec) {
  JfifState& state = codec_state(codec);
  jpeg_decompress_struct& reader = state.reader;
  if (reader.input_scan_number == state.scans) return;
  state.scans = reader.input_scan_number;
  if (state.scans > kMostScans) ERREXIT(codec, JERR_NOTIMPL);
  if (!jpeg_has_multiple_scans(&reader)) return;
  state.passes += std::uint64_t{reader.MCUs_per_row} * reader.MCU_rows_in_scan *
                  std::uint64_t(reader.blocks_in_MCU);
  if (state.passes > kFreePasses + kPassesPerByte * state.file_size) {
    ERREXIT(codec, JERR_NO_BACKING_STORE);
  }
}

}  // namespace ka
