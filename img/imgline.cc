// Lines of a handle: read and written through its format's driver, in the caller's pixel type.
#include <ka/detail/scope.h>

#include "imageplanes.h"
#include "imgcall.h"
#include "imgcontext.h"

namespace {

// Lines after the last one would follow the end of the picture.
bool is_beyond_last(const img_file* handle) {
  return handle->line_count >= handle->height && !ka::img_format_at(handle->format).takes_any_line;
}

// The driver gets only those planes of the caller's line that the file's type has.
int read_in_place(img_file* handle, const img_line* line, img_read_function read) {
  const std::size_t first = ka::first_slot(handle->file_type);
  const std::size_t end = first + std::size_t(ka_img_ncomp[handle->file_type]);
  img_line planes{};
  for (std::size_t slot = first; slot < end; ++slot) {
    ka::set_plane(&planes, slot, ka::plane_of<std::uint8_t>(line, slot));
  }
  return read && read(handle, &planes);
}

int read_converted(img_file* handle, img_line* line, img_read_function read) {
  ka::img_allocate_conversion(handle);
  const int result = read && read(handle, handle->conversion);
  ka::img_convert(line, handle->conversion, handle->type, handle->file_type,
                  ka::img_luminance_weights(), handle->width);
  return result;
}

// Has the driver, which may lack the operation, read the next line. Returns its result.
int read_next(img_file* handle, img_line* line, img_read_function read) {
  if (handle->lacks_lines) {
    img_line none{};
    return read && read(handle, &none);  // fails with the error of the file
  }
  const ka::LinePath path = ka::img_line_path(handle);
  if (path == ka::LinePath::kConverted) return read_converted(handle, line, read);
  const int result = read_in_place(handle, line, read);
  if (path == ka::LinePath::kWithAlpha) ka::img_fill_alpha(line, handle->type, handle->width);
  return result;
}

int unopened(img_file* handle) { return ka::img_error(handle, IMG_ERR_NOT_OPEN, 0); }

// A failing line is reported at once only to those who ask for every line.
void report_failed_line(img_file* handle, int result) {
  constexpr int every_line = 3;
  if (!result && ka::img_debug_level() >= every_line) ka_img_err_msg(handle);
}

}  // namespace

ka::LinePath ka::img_line_path(const img_file* handle) {
  if (handle->type == handle->file_type || handle->type == ka::compatible_type(handle->file_type)) {
    return LinePath::kDirect;
  }
  const bool adds_alpha_only = ka::img_adds_alpha_only(handle->type, handle->file_type);
  return adds_alpha_only && !handle->writing ? LinePath::kWithAlpha : LinePath::kConverted;
}

void ka::img_allocate_conversion(img_file* handle) {
  if (handle->conversion) return;
  const int callers_type = handle->type;
  handle->type = handle->file_type;
  handle->conversion = ka_img_line_alloc(handle);
  handle->type = callers_type;
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
  const int result = ka::img_settle(handle, read, read_next(handle, line, read), IMG_ERR_READ);
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
  if (ka::img_line_path(handle) == ka::LinePath::kConverted) {
    ka::img_allocate_conversion(handle);
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
