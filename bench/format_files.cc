#include "format_files.h"

#include <algorithm>
#include <memory>
#include <string>

#include <ka/imgowner.h>

#include "files.h"
#include "pictures.h"
#include "ratios.h"

namespace bench {
namespace {

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
  ka::ImageBuffer image_;
};

}  // namespace

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

Bytes interleaved(Content content, std::size_t depth) {
  Bytes pixels(depth * kPixels);
  for (std::size_t i = 0; i < kPixels; ++i) {
    for (std::size_t c = 0; c < depth; ++c) pixels[depth * i + c] = planes_of(content)[c][i];
  }
  return pixels;
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

void append_be16(Bytes& bytes, std::size_t value) {
  bytes.resize(bytes.size() + 2);
  put_be16(bytes, bytes.size() - 2, value);
}
void append_be32(Bytes& bytes, std::size_t value) {
  append_be16(bytes, value >> 16);
  append_be16(bytes, value);
}
void append_text(Bytes& bytes, std::string_view text) {
  for (const char character : text) bytes.push_back(std::uint8_t(character));
}

void append_runs(Bytes& bytes, Content content) {
  for (std::size_t y = 0; y < kHeight; ++y) {
    const auto row = row_of(planes_of(content), 0, y);
    for (std::size_t i = 0, end; i < row.size(); i = end) {
      for (end = i + 1; end < row.size() && end - i < 255 && row[end] == row[i];) ++end;
      bytes.push_back(std::uint8_t(end - i));
      bytes.insert(bytes.end(), 3, row[i]);
    }
  }
}

void add_readings(std::span<const Picture> pictures) {
  for (const Picture& picture : pictures) {
    const auto reading = std::make_shared<Reading>(picture);
    add(std::string("read/") + picture.name, picture.pixel_bytes * picture.pixels,
        [reading] { (*reading)(); });
  }
}

}  // namespace bench
