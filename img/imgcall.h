// Shared by the files of the image library's core: errors of a handle, diagnostics, the format
// tables.
#pragma once

#include <ka/img.h>

#include <cstdint>

namespace ka {

// The longest line that gets its planes whatever the file holds, in pixels: none of its buffers
// passes 4 MiB.
constexpr int kTypicalWidth = 1 << 18;

// Sets the handle's error and the system error that belongs to it, 0 for none. The operation that
// was called acts on it: img_act_on_error. Returns 0, so that a failing operation is one statement.
int img_error(img_file* handle, int code, int os_error);

// The same with the handle's reason: a printf format and its values, one English phrase that states
// what was found and what would be read. A failure of the system is its own reason, so none is kept
// with `os_error`, except EFBIG, which drivers set themselves.
[[gnu::format(printf, 4, 5)]] int img_refuse(img_file* handle, int code, int os_error,
                                             const char* format, ...);

// Whether a handle has been opened or created and not closed since. Operations on a handle ask in no
// other way; its stream or its driver may have failed all the same.
inline bool img_is_open(const img_file* handle) { return handle->magic == IMG_MAGIC; }

// Whether the header has been read and lines can follow.
inline bool img_can_read(const img_file* handle) {
  return img_is_open(handle) && (handle->stream || handle->data.p) && !handle->writing &&
         handle->has_header;
}

// Whether lines can be written, the header before the first of them.
inline bool img_can_write(const img_file* handle) {
  return img_is_open(handle) && handle->stream && handle->writing;
}

// After a new error: discards the file that is being written, drops the handle's name and reports
// the error to those who ask for every one.
void img_act_on_error(img_file* handle);

// Stands at the beginning of an operation on a handle and acts on its error at the end.
class ErrorScope {
 public:
  explicit ErrorScope(img_file* handle) : handle_(handle) {}
  ~ErrorScope() {
    if (handle_) img_act_on_error(handle_);
  }
  ErrorScope(const ErrorScope&) = delete;
  ErrorScope& operator=(const ErrorScope&) = delete;

 private:
  img_file* handle_;
};

// Makes zeroed memory of ka_img_image_size bytes an image of the handle.
void img_fill_image(const img_file* handle, img_image* image);

// Reads the first line of a file that lacks lines, to get its error. False for any other file, and
// where the image would not be made either.
bool img_fails_at_once(img_file* handle);

// ka_img_open and ka_img_create for a name that has been substituted.
struct ImagePath;
int img_open(img_file* handle, const ImagePath& path, int type);
int img_create(img_file* handle, const ImagePath& path, int type, int format, int width,
               int height);

// Starts the format tables: custom slots get a name, then formats that need it are started. And the
// counterpart.
void img_init_formats();
void img_exit_formats();

// The operations of a driver, empty for one that it lacks.
struct img_driver {
  img_test_function test;
  img_open_function open;
  img_create_function create;
  img_close_function close;
  img_read_function read;
  img_write_function write;
  img_header_function header = nullptr;
};

// One row of the format tables.
struct img_format_row {
  const char* name;  // of a custom slot: a heap copy
  img_driver driver;
  int topdown;    // 1: the file's first line is the top line
  int best_type;  // of the file when the caller's is not writable or the driver states none
  std::uint32_t type_map;  // bit t: pixel type t can be written
  int stands_in_for = -1;  // the built-in format whose refused files a custom one is asked for

  // What sets a format apart from all others.
  bool header_at_once = false;  // ka_img_create writes the header, not the first line
  bool is_mapped = false;       // files are images in memory; the driver's state is a MapState
  bool takes_any_line = false;  // lines beyond the height as well, since none are kept
  bool keeps_no_file = false;   // a file is written directly, and removed when it is closed
};

// The row of a format below IMG_FORMAT_COUNT.
const img_format_row& img_format_at(int format);

// Finds out which format the file after an opened handle has: asks every driver in a fixed order,
// with the handle's format set to the slot that is asked. `head` are the first IMG_HEAD_SIZE bytes.
// Returns -1 when none accepts.
int img_identify(img_file* handle, const std::uint8_t* head);
// The custom format that stands in for a built-in one and accepts this file, or -1.
int img_identify_stand_in(img_file* handle, const std::uint8_t* head, int built_in);

// The level of ka_img_debug; bit KA_SUBVERB_FILES of the subverbosity mask is on while it is not 0.
int img_debug_level();
bool img_reports_files();

// How a line travels between the caller and the driver.
enum class LinePath {
  kDirect,     // the driver has the caller's line, whose type is the file's or compatible with it
  kWithAlpha,  // the same when a file is read that lacks alpha, which is then filled in
  kConverted   // through handle->conversion
};

// The path of the next line. Programs may change handle->type between two lines, so it is decided
// for each.
LinePath img_line_path(const img_file* handle);
// Allocates handle->conversion where there is none.
void img_allocate_conversion(img_file* handle);

// After a driver's operation that failed: one that was not called, and one of a driver outside the
// library that has set no error, set the error `code`.
void img_set_default_error(img_file* handle, bool is_called, int code);

// The result of a driver's operation, as 1 or 0, with that error. A failure is acted on.
int img_settle(img_file* handle, bool is_called, int result, int code);

// Calls the driver's create, once. Returns 1, or 0 with the handle's error.
int img_write_header(img_file* handle);

// Converts `width` pixels of one line to another type. `weights` are the four luminance weights.
// Planes of the two lines do not overlap. Types that carry data are refused as destinations with an
// error message; other pairs without a conversion leave `dst` as it is.
void img_convert(img_line* dst, const img_line* src, int dst_type, int src_type,
                 const float* weights, int width);

// True when a line of `dst_type` is a line of `src_type` plus a full alpha plane.
bool img_adds_alpha_only(int dst_type, int src_type);
// Fills the alpha plane of a line with the full value of its type.
void img_fill_alpha(img_line* line, int type, int width);

}  // namespace ka
