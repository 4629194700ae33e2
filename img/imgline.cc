// Lines of a handle: read and written through its format's driver, in the caller's pixel type.
#include <ka/detail/scope.h>

#include "imgcall.h"
#include "imgcontext.h"

namespace {

// Lines that only gain an alpha plane are read in place and need no line between.
bool needs_line_between(const img_file* handle) {
  if (img_passes_through(handle)) return false;
  return handle->writing || !img_adds_alpha_only(handle->type, handle->file_type);
}

void allocate_line_between(img_file* handle) {
  const int callers_type = handle->type;
  handle->type = handle->file_type;
  handle->conversion = ka_img_line_alloc(handle);
  handle->type = callers_type;
}

int unopened(img_file* handle) { return img_error(handle, IMG_ERR_NOT_OPEN, 0); }

// A failing line is told at once only to those who ask for every line.
void tell_failed_line(img_file* handle, int result) {
  constexpr int every_line = 3;
  if (!result && img_debug_level() >= every_line) ka_img_err_msg(handle);
}

}  // namespace

bool img_passes_through(const img_file* handle) {
  return handle->type == handle->file_type ||
         handle->type == img_compatible_type(handle->file_type);
}

void img_prepare_line_between(img_file* handle) {
  if (needs_line_between(handle)) allocate_line_between(handle);
}

int img_write_header(img_file* handle) {
  const auto create = img_format_at(handle->format).driver.create;
  return create ? create(handle) : img_error(handle, IMG_ERR_CREATE, 0);
}

int ka_img_line_read(img_file* handle, img_line* line) {
  const ka::ModuleScope scope(KA_IMG);
  if (handle->magic != IMG_MAGIC || (!handle->stream && !handle->data.p) || handle->writing)
    return unopened(handle);
  const auto read = img_format_at(handle->format).driver.read;
  int result = 0;
  if (img_passes_through(handle)) {
    result = read && read(handle, line);
  } else if (needs_line_between(handle)) {
    if (!handle->conversion) allocate_line_between(handle);
    result = read && read(handle, handle->conversion);
    img_convert(line, handle->conversion, handle->type, handle->file_type, img_luminance_weights(),
                handle->width);
  } else {
    result = read && read(handle, line);
    img_fill_alpha(line, handle->type, handle->width);
  }
  tell_failed_line(handle, result);
  ++handle->line_count;
  return result;
}

int ka_img_line_write(img_file* handle, img_line* line) {
  const ka::ModuleScope scope(KA_IMG);
  if (!handle->stream || !handle->writing) return unopened(handle);
  if (handle->line_count == -1) {
    handle->line_count = 0;
  } else if (handle->line_count == 0 && !img_write_header(handle)) {
    return 0;
  }
  if (handle->height == 0) return 1;
  if (needs_line_between(handle)) {
    if (!handle->conversion) allocate_line_between(handle);
    img_convert(handle->conversion, line, handle->file_type, handle->type, img_luminance_weights(),
                handle->width);
    line = handle->conversion;
  }
  const auto write = img_format_at(handle->format).driver.write;
  const int result = write && write(handle, line);
  tell_failed_line(handle, result);
  ++handle->line_count;
  return result;
}
