// What the files of the JFIF driver share: the state of an open file, and the blocks of one that
// has several scans.
#pragma once

#include <setjmp.h>

#include <cstdio>

#include <jpeglib.h>

#include "driver.h"

namespace ka {

// Every scan passes over the whole picture. Encoders make about ten of them.
constexpr int kMostScans = 100;

// The coefficients of a file of several scans in place of the codec's own arrays, which take 128
// bytes for a block of which the file may have a bit: rows of blocks are packed while the codec
// does not use them.
class JpegBlocks {
 public:
  struct Component;

  JpegBlocks();
  ~JpegBlocks();
  JpegBlocks(const JpegBlocks&) = delete;
  JpegBlocks& operator=(const JpegBlocks&) = delete;

  // Room for `rows` rows of so many blocks, all zero, of which `most` are used at a time.
  Component* add(std::size_t blocks, std::size_t rows, std::size_t most);

  // Rows of a component, until its next call.
  JBLOCKARRAY access(Component& component, std::size_t first, std::size_t count, bool is_written);

  // Bytes that the packed rows and those in use take.
  [[nodiscard]] std::size_t bytes() const { return bytes_; }

 private:
  void pack_row(Component& component, std::size_t row, const JBLOCK* blocks);

  vector<Owned<Component>> components_;
  std::size_t bytes_ = 0;
};

struct JfifState {
  JfifState() = default;
  ~JfifState() {
    jpeg_destroy_decompress(&reader);
    jpeg_destroy_compress(&writer);
  }
  JfifState(const JfifState&) = delete;
  JfifState& operator=(const JfifState&) = delete;

  jpeg_error_mgr errors{};
  jmp_buf jump{};
  bool aborted = false;  // the codec has failed and is not called again
  bool damaged = false;  // since pixels would have been made up
  Buffer row;            // interleaved samples of a line

  jpeg_decompress_struct reader{};
  jpeg_source_mgr source{};
  jpeg_progress_mgr progress{};
  FileReader in;
  std::uint64_t file_size = 0;
  int scans = 0;             // that are counted in `passes`
  std::uint64_t passes = 0;  // over a block
  JpegBlocks blocks;
  bool ended = false;  // the codec has asked for more than the file holds
  int failure = 0;     // error number of the system then, 0 for the end of the file

  jpeg_compress_struct writer{};
  jpeg_destination_mgr destination{};
  Buffer written;  // bytes on their way to `out`
  FileWriter out;
};

template <typename Codec>
JfifState& codec_state(const Codec* codec) {
  return *static_cast<JfifState*>(codec->client_data);
}

// Ends a call of the codec where the file is too small for its pixels and blocks. Where its blocks
// would take much more memory than the file, they are packed from here on. Before: the header has
// been read.
void img_jfif_prepare_blocks(j_decompress_ptr reader);

// Called by the codec all the while that it reads: ends a call that would keep the reader busy with
// next to no data.
void img_jfif_count_scans(j_common_ptr codec);

}  // namespace ka
