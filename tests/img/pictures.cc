#include "pictures.h"

#include <cstring>

namespace test {
namespace {

// Bytes from one sample to the next, and samples of a plane. Bits are moved as bytes.
std::size_t sample_bytes(const img_image* image) { return std::size_t(image->bits + 7) / 8; }
std::size_t plane_samples(const img_image* image) {
  const auto width = std::size_t(image->width);
  return image->bits == 1 ? (width + 7) / 8 : width;
}

std::uint32_t load(const std::uint8_t* sample, std::size_t size) {
  if (size == 1) return *sample;
  if (size == 2) return *reinterpret_cast<const std::uint16_t*>(sample);
  return *reinterpret_cast<const std::uint32_t*>(sample);
}

void store(std::uint8_t* sample, std::size_t size, std::uint32_t value) {
  if (size == 1) *sample = std::uint8_t(value);
  if (size == 2) *reinterpret_cast<std::uint16_t*>(sample) = std::uint16_t(value);
  if (size == 4) *reinterpret_cast<std::uint32_t*>(sample) = value;
}

}  // namespace

Planes planes_of(const img_image* image, int y) {
  const std::size_t size = sample_bytes(image);
  Planes planes;
  for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
    const std::uint8_t* const from = plane(image, y, slot);
    if (!from) continue;
    planes.emplace_back(plane_samples(image));
    for (std::size_t i = 0; i < planes.back().size(); ++i) {
      planes.back()[i] = load(from + i * size, size);
    }
  }
  return planes;
}

Lines lines_of(const img_image* image) {
  Lines lines;
  for (int y = 0; y < image->height; ++y) lines.push_back(planes_of(image, y));
  return lines;
}

Image make_picture(int type, int width, const Lines& lines) {
  Image image = make_image(type, width, int(lines.size()));
  const std::size_t size = sample_bytes(image.get());
  for (int y = 0; y < image->height; ++y) {
    auto next = lines[std::size_t(y)].begin();
    for (std::size_t slot = 0; slot < IMG_SLOTS; ++slot) {
      std::uint8_t* const to = plane(image.get(), y, slot);
      if (!to) continue;
      for (std::size_t i = 0; i < next->size(); ++i) store(to + i * size, size, (*next)[i]);
      ++next;
    }
  }
  return image;
}

std::string written(int format, img_image* image) {
  const Scratch scratch;
  EXPECT_EQ(write_image(scratch.path("a"), format, image), IMG_ERR_NONE);
  return read_file(scratch.path("a"));
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

}  // namespace test
