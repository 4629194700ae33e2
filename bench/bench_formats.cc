// Reading whole pictures of the uncompressed and run-length encoded formats from the page cache, in
// the file's own pixel type.
#include <algorithm>
#include <array>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <ka/img.h>

#include "benchmarks.h"
#include "files.h"
#include "pictures.h"
#include "ratios.h"

namespace bench {
namespace {

using Bytes = std::vector<std::uint8_t>;

struct ReleaseImage {
  void operator()(img_image* image) const { ka_img_image_release(image); }
};
using Image = std::unique_ptr<img_image, ReleaseImage>;

// What the rows of a picture look like to a run-length encoder.
enum class Content { kNoise, kShortRuns };

// Noise, or stretches of 1 to 16 equal samples.
Bytes make_plane(Content content, std::uint32_t seed) {
  Bytes plane(kPixels);
  std::uint32_t state = seed;
  const auto random = [&state] { return (state = state * 1664525 + 1013904223) >> 24; };
  for (std::size_t i = 0; i < plane.size();) {
    const std::size_t length = content == Content::kNoise ? 1 : 1 + random() % 16;
    const std::size_t end = std::min(i + length, plane.size());
    std::fill(plane.begin() + long(i), plane.begin() + long(end), std::uint8_t(random()));
    i = end;
  }
  return plane;
}

using Planes = std::array<Bytes, 4>;

// The planes of a picture, in lines of kWidth samples.
const Planes& planes_of(Content content) {
  static std::array<Planes, 2> made;
  Planes& planes = made[std::size_t(content)];
  for (std::uint32_t c = 0; c < planes.size() && planes[c].empty(); ++c) {
    planes[c] = make_plane(content, c + 1);
  }
  return planes;
}

std::span<const std::uint8_t> row_of(const Planes& planes, std::size_t channel, std::size_t y) {
  return std::span(planes[channel]).subspan(y * kWidth, kWidth);
}

void append(Bytes& bytes, std::span<const std::uint8_t> more) {
  bytes.resize(bytes.size() + more.size());
  std::ranges::copy(more, bytes.end() - long(more.size()));
}
void put_be16(Bytes& bytes, std::size_t at, std::size_t value) {
  bytes[at] = std::uint8_t(value >> 8);
  bytes[at + 1] = std::uint8_t(value);
}
void put_be32(Bytes& bytes, std::size_t at, std::size_t value) {
  put_be16(bytes, at, value >> 16);
  put_be16(bytes, at + 2, value);
}

// Runs of equal elements and stretches of others, up to 127 elements each: put(first, count,
// is_run).
template <typename Equal, typename Put>
void for_packets(std::size_t count, Equal equal, Put put) {
  constexpr std::size_t longest = 127;
  for (std::size_t i = 0, end; i < count; i = end) {
    const bool is_run = i + 1 < count && equal(i, i + 1);
    end = i + 1;
    while (end < count && end - i < longest && equal(end - 1, end) == is_run) ++end;
    if (!is_run && end < count && end - i > 1 && equal(end - 1, end)) --end;
    put(i, end - i, is_run);
  }
}

void append_sgi_row(Bytes& file, std::span<const std::uint8_t> row) {
  for_packets(
      row.size(), [&](std::size_t a, std::size_t b) { return row[a] == row[b]; },
      [&](std::size_t first, std::size_t count, bool is_run) {
        file.push_back(std::uint8_t(is_run ? count : count | 0x80));
        append(file, row.subspan(first, is_run ? 1 : count));
      });
  file.push_back(0);
}

constexpr std::size_t kSgiHeader = 512;

Bytes sgi_header(bool is_encoded) {
  Bytes file(kSgiHeader);
  put_be16(file, 0, 474);
  file[2] = is_encoded;
  file[3] = 1;
  put_be16(file, 4, 3);
  put_be16(file, 6, kWidth);
  put_be16(file, 8, kHeight);
  put_be16(file, 10, 3);
  return file;
}

Bytes verbatim_sgi(Content content) {
  Bytes file = sgi_header(false);
  for (std::size_t c = 0; c < 3; ++c) append(file, planes_of(content)[c]);
  return file;
}

// The rows of one channel behind those of another, or the rows of one line together.
Bytes encoded_sgi(Content content, bool is_planar) {
  constexpr std::size_t rows = 3 * std::size_t{kHeight};
  Bytes file = sgi_header(true);
  file.resize(kSgiHeader + 8 * rows);
  for (std::size_t i = 0; i < rows; ++i) {
    const std::size_t channel = is_planar ? i / kHeight : i % 3;
    const std::size_t y = is_planar ? i % kHeight : i / 3;
    const std::size_t start = file.size(), entry = 4 * (channel * kHeight + y);
    append_sgi_row(file, row_of(planes_of(content), channel, y));
    put_be32(file, kSgiHeader + entry, start);
    put_be32(file, kSgiHeader + 4 * rows + entry, file.size() - start);
  }
  return file;
}

// Pixels of `depth` bytes, one behind the other.
Bytes interleaved(Content content, std::size_t depth) {
  Bytes pixels(depth * kPixels);
  for (std::size_t i = 0; i < kPixels; ++i) {
    for (std::size_t c = 0; c < depth; ++c) pixels[depth * i + c] = planes_of(content)[c][i];
  }
  return pixels;
}

Bytes targa_header(int type, std::size_t depth) {
  Bytes file(18);
  file[2] = std::uint8_t(type);
  file[12] = kWidth & 0xff;
  file[13] = kWidth >> 8;
  file[14] = kHeight & 0xff;
  file[15] = kHeight >> 8;
  file[16] = std::uint8_t(8 * depth);
  return file;
}

Bytes plain_targa(Content content, std::size_t depth) {
  Bytes file = targa_header(2, depth);
  append(file, interleaved(content, depth));
  return file;
}

Bytes mapped_targa() {
  Bytes file = targa_header(1, 1);
  constexpr std::size_t colours = 256;
  file[1] = 1;
  file[6] = colours >> 8;
  file[7] = 24;
  append(file, std::span(planes_of(Content::kNoise)[0]).first(3 * colours));
  append(file, planes_of(Content::kNoise)[1]);
  return file;
}

// The planes of short runs change at different places: one plane stands for all three here.
Bytes packed_targa(Content content) {
  Bytes file = targa_header(10, 3);
  for (std::size_t y = 0; y < kHeight; ++y) {
    const auto row = row_of(planes_of(content), 0, y);
    for_packets(
        row.size(), [&](std::size_t a, std::size_t b) { return row[a] == row[b]; },
        [&](std::size_t first, std::size_t count, bool is_run) {
          file.push_back(std::uint8_t(is_run ? 0x80 | (count - 1) : count - 1));
          for (std::size_t i = first; i < first + (is_run ? 1 : count); ++i) {
            file.insert(file.end(), 3, row[i]);
          }
        });
  }
  return file;
}

// `sample_bytes` tells the bytes of a sample, a code which kind of texture it is.
Bytes native_texture(int code, std::size_t sample_bytes) {
  Bytes file(8);
  file[0] = std::uint8_t(code);
  put_be16(file, 2, kWidth);
  put_be16(file, 4, kHeight);
  const Bytes pixels = interleaved(Content::kNoise, 4);
  for (std::size_t i = 0; i < sample_bytes; ++i) append(file, pixels);
  return file;
}

constexpr std::size_t kTileSide = 64;

void append_be16(Bytes& bytes, std::size_t value) {
  bytes.push_back(std::uint8_t(value >> 8));
  bytes.push_back(std::uint8_t(value));
}
void append_be32(Bytes& bytes, std::size_t value) {
  append_be16(bytes, value >> 16);
  append_be16(bytes, value);
}
void append_text(Bytes& bytes, std::string_view text) {
  for (const char character : text) bytes.push_back(std::uint8_t(character));
}

// The planes of a tile's bytes, the last component first; samples of two equal bytes where wanted.
void append_tile(Bytes& file, Content content, std::size_t x1, std::size_t y1, bool is_encoded,
                 std::size_t sample_bytes) {
  const std::size_t x2 = x1 + kTileSide - 1,
                    y2 = std::min<std::size_t>(y1 + kTileSide, kHeight) - 1;
  append_text(file, "RGBA");
  const std::size_t start = file.size();
  append_be32(file, 0);
  for (const std::size_t bound : {x1, y1, x2, y2}) append_be16(file, bound);
  std::array<Bytes, 3> planes;
  for (std::size_t c = 0; c < 3; ++c) {
    for (std::size_t y = y1; y <= y2; ++y) {
      append(planes[c], row_of(planes_of(content), 2 - c, y).subspan(x1, kTileSide));
    }
  }
  for (std::size_t p = 0; is_encoded && p < 3 * sample_bytes; ++p) {
    const Bytes& plane = planes[p % 3];
    for_packets(
        plane.size(), [&](std::size_t a, std::size_t b) { return plane[a] == plane[b]; },
        [&](std::size_t first, std::size_t count, bool is_run) {
          file.push_back(std::uint8_t(is_run ? 0x80 | (count - 1) : count - 1));
          append(file, std::span(plane).subspan(first, is_run ? 1 : count));
        });
  }
  for (std::size_t i = 0; !is_encoded && i < planes[0].size(); ++i) {
    for (const Bytes& plane : planes) file.insert(file.end(), sample_bytes, plane[i]);
  }
  put_be32(file, start, file.size() - start - 4);
  file.resize((file.size() + 3) / 4 * 4);
}

Bytes tiled_iff(Content content, bool is_encoded, std::size_t sample_bytes) {
  Bytes file;
  append_text(file, "FOR4----CIMGTBHD");
  append_be32(file, 24);
  append_be32(file, kWidth);
  append_be32(file, kHeight);
  append_be32(file, 0);
  append_be32(file, 1);
  append_be16(file, sample_bytes - 1);
  append_be16(file, kWidth / kTileSide * ((kHeight + kTileSide - 1) / kTileSide));
  append_be32(file, is_encoded);
  append_text(file, "FOR4----TBMP");
  for (std::size_t y = 0; y < kHeight; y += kTileSide) {
    for (std::size_t x = 0; x < kWidth; x += kTileSide) {
      append_tile(file, content, x, y, is_encoded, sample_bytes);
    }
  }
  return file;
}

struct Picture {
  const char* name;
  std::size_t pixel_bytes;
  Bytes (*make)();
};

constexpr std::array kPictures = {
    Picture{"sgi/verbatim", 3, [] { return verbatim_sgi(Content::kNoise); }},
    Picture{"sgi/literals/by_line", 3, [] { return encoded_sgi(Content::kNoise, false); }},
    Picture{"sgi/literals/planar", 3, [] { return encoded_sgi(Content::kNoise, true); }},
    Picture{"sgi/short_runs/by_line", 3, [] { return encoded_sgi(Content::kShortRuns, false); }},
    Picture{"sgi/short_runs/planar", 3, [] { return encoded_sgi(Content::kShortRuns, true); }},
    Picture{"tga/mapped", 4, mapped_targa},
    Picture{"tga/16", 4, [] { return plain_targa(Content::kNoise, 2); }},
    Picture{"tga/24", 4, [] { return plain_targa(Content::kNoise, 3); }},
    Picture{"tga/32", 4, [] { return plain_targa(Content::kNoise, 4); }},
    Picture{"tga/packed/literals", 4, [] { return packed_targa(Content::kNoise); }},
    Picture{"tga/packed/short_runs", 4, [] { return packed_targa(Content::kShortRuns); }},
    Picture{"iff/raw", 3, [] { return tiled_iff(Content::kNoise, false, 1); }},
    Picture{"iff/raw_16", 6, [] { return tiled_iff(Content::kNoise, false, 2); }},
    Picture{"iff/short_runs", 3, [] { return tiled_iff(Content::kShortRuns, true, 1); }},
    Picture{"iff/short_runs_16", 6, [] { return tiled_iff(Content::kShortRuns, true, 2); }},
    Picture{"native/ct", 4, [] { return native_texture(3, 1); }},
    Picture{"native/ct_16", 8, [] { return native_texture(6, 2); }},
    Picture{"native/ct_fp", 16, [] { return native_texture(11, 4); }},
};

// A picture's file and the image that it is read into, made when they are first needed.
class Reading {
 public:
  explicit Reading(const Picture& picture) : picture_(picture) {}

  void operator()() {
    if (path_.empty()) prepare();
    img_file handle{};
    if (!ka_img_open(&handle, path_.c_str(), IMG_TYPE_FILE)) fail(path_);
    if (!image_) image_.reset(ka_img_image_alloc(&handle));
    if (!ka_img_image_read(&handle, image_.get()) || !ka_img_close(&handle)) fail(path_);
  }

 private:
  void prepare() {
    static const TemporaryFolder folder;
    std::string name = picture_.name;
    std::ranges::replace(name, '/', '_');
    path_ = folder.path(name);
    write_file(path_, picture_.make());
  }

  Picture picture_;
  std::string path_;
  Image image_;
};

}  // namespace

void add_format_benchmarks() {
  for (const Picture& picture : kPictures) {
    const auto reading = std::make_shared<Reading>(picture);
    add(std::string("read/") + picture.name, picture.pixel_bytes * kPixels,
        [reading] { (*reading)(); });
  }
}

}  // namespace bench
