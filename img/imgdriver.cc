// The checked readers, writers and line kernels for drivers outside the library.
#include <ka/imgdriver.h>

#include <algorithm>
#include <array>

#include <ka/detail/owned.h>
#include <ka/detail/scope.h>

#include "imageplanes.h"
#include "linekernels.h"
#include "stream.h"

struct img_reader {
  ka::FileReader file;
};

struct img_writer {
  ka::FileWriter file;
};

namespace {

std::uint64_t offset_of(std::int64_t offset) {
  return std::uint64_t(std::max<std::int64_t>(offset, 0));
}

// The planes of a type in the order of their slots.
std::array<void*, IMG_SLOTS> planes_of(const img_line* line, int type) {
  std::array<void*, IMG_SLOTS> planes{};
  const std::size_t first = ka::first_slot(type);
  for (std::size_t c = 0; c < std::size_t(ka_img_ncomp[type]); ++c) {
    planes[c] = ka::plane_of<void>(line, first + c);
  }
  return planes;
}

struct RowShape {
  std::size_t components, sample_bytes;
  bool swapped;
};

RowShape row_shape(int type, int order) {
  const auto bytes = std::size_t(ka_img_nbits[type]) / 8;
  return {std::size_t(ka_img_ncomp[type]), bytes, bytes > 1 && order != IMG_ORDER_HOST};
}

}  // namespace

img_reader* ka_img_reader_alloc(img_file* handle, std::int64_t offset, std::size_t most) {
  const ka::ModuleScope scope(KA_IMG);
  auto reader = ka::make_owned<img_reader>();
  reader->file.start(handle, offset_of(offset), most != 0 ? most : ka::FileReader::kBufferSize);
  return reader.release();
}

void ka_img_reader_release(img_reader* reader) {
  const ka::ModuleScope scope(KA_IMG);
  ka::Owned<img_reader>{reader};
}

const std::uint8_t* ka_img_reader_take(img_reader* reader, std::size_t count) {
  return reader->file.take(count).data();
}

const std::uint8_t* ka_img_reader_ahead(img_reader* reader, std::size_t* count) {
  const auto bytes = reader->file.ahead(*count);
  *count = bytes.size();
  return bytes.data();
}

void ka_img_reader_seek(img_reader* reader, std::int64_t offset) {
  reader->file.seek(offset_of(offset));
}

std::int64_t ka_img_reader_position(const img_reader* reader) {
  return std::int64_t(reader->file.position());
}

std::int64_t ka_img_reader_left(const img_reader* reader) {
  return std::int64_t(reader->file.left());
}

img_writer* ka_img_writer_alloc(img_file* handle) {
  const ka::ModuleScope scope(KA_IMG);
  auto writer = ka::make_owned<img_writer>();
  writer->file.start(handle);
  return writer.release();
}

void ka_img_writer_release(img_writer* writer) {
  const ka::ModuleScope scope(KA_IMG);
  ka::Owned<img_writer>{writer};
}

void ka_img_writer_put(img_writer* writer, const void* bytes, std::size_t count) {
  writer->file.write({static_cast<const char*>(bytes), count});
}

void ka_img_writer_seek(img_writer* writer, std::int64_t offset) {
  writer->file.seek(offset_of(offset));
}

std::int64_t ka_img_writer_position(const img_writer* writer) {
  return std::int64_t(writer->file.position());
}

int ka_img_writer_flush(img_writer* writer) { return writer->file.flush(); }

int ka_img_writer_error(const img_writer* writer) { return writer->file.error(); }

void ka_img_line_unpack(img_line* line, int type, const void* row, int width, int order) {
  const RowShape shape = row_shape(type, order);
  ka::split_kernel(shape.components, shape.sample_bytes, shape.swapped)(
      row, planes_of(line, type).data(), std::size_t(width));
}

void ka_img_line_pack(const img_line* line, int type, void* row, int width, int order) {
  const RowShape shape = row_shape(type, order);
  ka::pack_kernel(shape.components, shape.sample_bytes, shape.swapped)(
      row, planes_of(line, type).data(), std::size_t(width));
}

void* ka_img_line_plane(const img_line* line, int slot) {
  return ka::plane_of<void>(line, std::size_t(slot));
}
