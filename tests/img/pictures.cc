#include "pictures.h"

#include <bit>
#include <cstring>
#include <utility>

namespace test {
namespace {

static_assert(std::endian::native == std::endian::little);  // samples are moved as bytes

// Bytes from one sample to the next, and samples of a plane. Bits are moved as bytes.
std::size_t sample_bytes(const img_image* image) { return std::size_t(image->bits + 7) / 8; }
std::size_t plane_samples(const img_image* image) {
  const auto width = std::size_t(image->width);
  return image->bits == 1 ? (width + 7) / 8 : width;
}

}  // namespace

Planes planes_of(const img_image* image, int y) {
  const std::size_t size = sample_bytes(image);
  Planes planes;
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    const std::uint8_t* sample = plane(image, y, slot);
    if (!sample) continue;
    planes.emplace_back(plane_samples(image));
    for (std::uint32_t& value : planes.back()) {
      std::memcpy(&value, std::exchange(sample, sample + size), size);
    }
  }
  return planes;
}

Lines lines_of(const img_image* image) {
  Lines lines;
  for (int y = 0; y < image->height; ++y) lines.push_back(planes_of(image, y));
  return lines;
}

Planes flat(std::size_t width, std::initializer_list<std::uint32_t> values) {
  Planes planes;
  for (const std::uint32_t value : values) planes.emplace_back(width, value);
  return planes;
}

Image make_picture(int type, int width, const Lines& lines) {
  Image image = make_image(type, width, int(lines.size()));
  const std::size_t size = sample_bytes(image.get());
  for (int y = 0; y < image->height; ++y) {
    auto next = lines[std::size_t(y)].begin();
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      std::uint8_t* sample = plane(image.get(), y, slot);
      if (!sample) continue;
      for (const std::uint32_t value : *next++) {
        std::memcpy(std::exchange(sample, sample + size), &value, size);
      }
    }
  }
  return image;
}

std::string be(int count, std::int64_t value) {
  return count == 0 ? "" : be(count - 1, value >> 8) + char(value);
}
std::string le(int count, std::int64_t value) {
  return count == 0 ? "" : char(value) + le(count - 1, value >> 8);
}

std::string repeated(std::size_t count, std::string_view text) {
  std::string all;
  for (std::size_t i = 0; i < count; ++i) all += text;
  return all;
}

std::string written(int format, img_image* image) {
  const Scratch scratch;
  EXPECT_EQ(write_image(scratch.path("a"), format, image), IMG_ERR_NONE);
  return read_file(scratch.path("a"));
}

std::string written(int format, int type, const Lines& lines) {
  return written(format, make_picture(type, int(lines[0][0].size()), lines).get());
}

void expect_picture(const Picture& picture) {
  OpenFile file(picture.file);
  ASSERT_TRUE(file.is_open()) << file->error;
  EXPECT_EQ(file->format, picture.format);
  EXPECT_EQ(file->type, picture.type);
  ASSERT_EQ(file->height, int(picture.lines.size()));
  const Image image(ka_img_image_alloc(file));
  ASSERT_TRUE(is_done(ka_img_image_read(file, image.get()))) << file->error;
  EXPECT_EQ(lines_of(image.get()), picture.lines);
}

void expect_refusal(const Refusal& refusal) {
  OpenFile in(refusal.file);
  ASSERT_EQ(in.is_open(), refusal.line != kOpening) << in->error;
  if (in.is_open()) {
    for (int y = 0; y < refusal.line; ++y) ASSERT_TRUE(in.read_line()) << y;
    EXPECT_FALSE(in.read_line());
  }
  EXPECT_EQ(std::pair(in->error, in->os_error), std::pair(refusal.error, 0));
  const std::string reason = refusal.reason == "nothing" ? "" : refusal.reason;
  EXPECT_TRUE(refusal.reason.empty() || in->reason == reason) << in->reason;
  if (refusal.is_reported) ka_img_err_msg(in);
}

void expect_refusals(const std::vector<Refusal>& refusals) {
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.name);
    expect_refusal(refusal);
  }
}

bool is_done(int result) {
  EXPECT_TRUE(result == 0 || result == 1) << result;
  return result == 1;
}

OpenFile::OpenFile(const std::string& file, int type)
    : path_(scratch_.write("a", file)),
      is_open_(is_done(ka_img_open(file_, path_.c_str(), type))),
      line_{} {
  if (!is_open_) return;
  image_ = make_image(file_->type, file_->width, 1);
  point_at(line_, image_.get(), 0);
}

void point_at(img_line& line, const img_image* image, int y) {
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    const std::uint8_t* const samples = plane(image, y, slot);
    if (samples) line.offset[slot] = samples - reinterpret_cast<const std::uint8_t*>(&line);
  }
}

NewFile::NewFile(int format, int type, int width, int height) {
  file_->file_type = std::uint8_t(type);
  EXPECT_TRUE(is_done(ka_img_create(file_, path_.c_str(), type, format, width, height)))
      << file_->error;
  line_.reset(ka_img_line_alloc(file_));
}

std::string NewFile::contents() {
  if (!file_->stream) return read_file(path_);
  return read_file("/proc/self/fd/" + std::to_string(fileno(file_->stream)));
}

}  // namespace test
