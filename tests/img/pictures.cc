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

std::string written(int format, img_image* image) {
  const Scratch scratch;
  EXPECT_EQ(write_image(scratch.path("a"), format, image), IMG_ERR_NONE);
  return read_file(scratch.path("a"));
}

std::string written(int format, int type, const Lines& lines) {
  return written(format, make_picture(type, int(lines[0][0].size()), lines).get());
}

void expect_picture(const Picture& picture) {
  const Scratch scratch;
  Handle file;
  ASSERT_TRUE(ka_img_open(file, scratch.write("a", picture.file).c_str(), IMG_TYPE_FILE))
      << file->error;
  EXPECT_EQ(file->format, picture.format);
  EXPECT_EQ(file->type, picture.type);
  ASSERT_EQ(file->height, int(picture.lines.size()));
  const Image image(ka_img_image_alloc(file));
  ASSERT_TRUE(ka_img_image_read(file, image.get())) << file->error;
  EXPECT_EQ(lines_of(image.get()), picture.lines);
}

void expect_pictures(int format, int type, const std::vector<Shown>& pictures) {
  for (const auto& [name, file, lines] : pictures) {
    SCOPED_TRACE(name);
    expect_picture({name, file, format, type, lines});
  }
}

void expect_refusal(const Refusal& refusal) {
  const Scratch scratch;
  Handle file;
  const bool opened =
      ka_img_open(file, scratch.write("a", refusal.file).c_str(), IMG_TYPE_FILE) != 0;
  ASSERT_EQ(opened, refusal.line != kOpening) << file->error;
  if (opened) {
    const Line line(ka_img_line_alloc(file));
    for (int y = 0; y < refusal.line; ++y) ASSERT_TRUE(ka_img_line_read(file, line.get())) << y;
    EXPECT_FALSE(ka_img_line_read(file, line.get()));
  }
  EXPECT_EQ(file->error, refusal.error);
}

void expect_refusals(const std::vector<Refusal>& refusals) {
  for (const Refusal& refusal : refusals) {
    SCOPED_TRACE(refusal.name);
    expect_refusal(refusal);
  }
}

std::vector<int> line_errors(const std::string& file) {
  const Scratch scratch;
  Handle in;
  if (!ka_img_open(in, scratch.write("a", file).c_str(), IMG_TYPE_FILE)) return {in->error};
  const Line line(ka_img_line_alloc(in));
  std::vector<int> errors;
  for (int y = 0; y < in->height; ++y) {
    errors.push_back(ka_img_line_read(in, line.get()) ? IMG_ERR_NONE : in->error);
  }
  return errors;
}

}  // namespace test
