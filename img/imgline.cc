// Lines of a handle: read and written through its format's driver, in the caller's pixel type.
#include <ka/detail/scope.h>

#include "imageplanes.h"
#include "imgcall.h"
#include "imgcontext.h"

namespace {

// Lines that only gain an alpha plane are read in place and need no line between.
bool needs_line_between(const img_file* handle) {
  if (ka::img_passes_through(handle)) return false;
  return handle->writing || !ka::img_adds_alpha_only(handle->type, handle->file_type);
}

void allocate_line_between(img_file* handle) {
  const int callers_type = handle->type;
  handle->type = handle->file_type;
  handle->conversion = ka_img_line_alloc(handle);
  handle->type = callers_type;
}

// The planes of a line that lines of `type` have: no driver finds one that its file lacks.
img_line planes_of_type(const img_line* line, int type) {
  img_line planes{};
  const std::size_t first = ka::first_slot(type);
  const std::size_t end = first + std::size_t(ka_img_ncomp[type]);
  for (std::size_t slot = first; slot < end; ++slot) {
    ka::set_plane(&planes, slot, ka::plane_of<std::uint8_t>(line, slot));
  }
  return planes;
}

// Lines after the last one would follow the end of the picture.
bool is_beyond_last(const img_file* handle) {
  return handle->line_count >= handle->height && !ka::img_format_at(handle->format).takes_any_line;
}

int unopened(img_file* handle) { return ka::img_error(handle, IMG_ERR_NOT_OPEN, 0); }

// A failing line is reported at once only to those who ask for every line.
void report_failed_line(img_file* handle, int result) {
  constexpr int every_line = 3;
  if (!result && ka::img_debug_level() >= every_line) ka_img_err_msg(handle);
}

}  // namespace

bool ka::img_passes_through(const img_file* handle) {
  return handle->type == handle->file_type ||
         handle->type == ka::compatible_type(handle->file_type);
}

void ka::img_prepare_line_between(img_file* handle) {
  if (needs_line_between(handle)) allocate_line_between(handle);
}

void ka::img_set_default_error(img_file* handle, bool is_called, int code) {
  const bool is_silent = is_called && handle->format < IMG_FORMAT_CUSTOM;
  if (!is_silent && handle->error == IMG_ERR_NONE) ka::img_error(handle, code, 0);
}

int ka::img_settle(img_file* handle, bool is_called, int result, int code) {
  if (result) return 1;
  img_set_default_error(handle, is_called, code);
  ka::img_act_on_error(handle);
  return 0;
}

int ka::img_write_header(img_file* handle) {
  if (handle->has_header) return 1;
  if (handle->error != IMG_ERR_NONE) return 0;  // the file is gone
  const auto create = ka::img_format_at(handle->format).driver.create;
  const int result = create ? create(handle) : 0;
  handle->has_header = ka::img_settle(handle, create, result, IMG_ERR_CREATE) != 0;
  return handle->has_header;
}

int ka_img_line_read(img_file* handle, img_line* line) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  if (!ka::img_can_read(handle)) return unopened(handle);
  const auto read = ka::img_format_at(handle->format).driver.read;
  int result = 0;
  if (handle->lacks_lines) {
    img_line none{};
    result = read && read(handle, &none);
  } else if (needs_line_between(handle)) {
    if (!handle->conversion) allocate_line_between(handle);
    result = read && read(handle, handle->conversion);
    ka::img_convert(line, handle->conversion, handle->type, handle->file_type,
                    ka::img_luminance_weights(), handle->width);
  } else {
    img_line planes = planes_of_type(line, handle->file_type);
    result = read && read(handle, &planes);
    if (!ka::img_passes_through(handle)) ka::img_fill_alpha(line, handle->type, handle->width);
  }
  result = ka::img_settle(handle, read, result, IMG_ERR_READ);
  report_failed_line(handle, result);
  ++handle->line_count;
  return result;
}

int ka_img_line_write(img_file* handle, img_line* line) {
  const ka::ModuleScope scope(KA_IMG);
  const ka::ErrorScope errors(handle);
  if (!ka::img_can_write(handle)) return unopened(handle);
  if (!ka::img_write_header(handle)) return 0;
  if (handle->line_count == -1) handle->line_count = 0;
  if (handle->height == 0) return 1;
  if (needs_line_between(handle)) {
    if (!handle->conversion) allocate_line_between(handle);
    ka::img_convert(handle->conversion, line, handle->file_type, handle->type,
                    ka::img_luminance_weights(), handle->width);
    line = handle->conversion;
  }
  const auto write = ka::img_format_at(handle->format).driver.write;
  const bool can_write = write && !is_beyond_last(handle);
  const int result =
      ka::img_settle(handle, can_write, can_write ? write(handle, line) : 0, IMG_ERR_WRITE);
  report_failed_line(handle, result);
  ++handle->line_count;
  return result;
}
