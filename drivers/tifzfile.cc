// The handle's file under libtiff: reading, writing, messages.
#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "tifz.h"

namespace {

using drivers::tifz::File;

File& file_of(thandle_t handle) { return *static_cast<File*>(handle); }

tmsize_t read_bytes(thandle_t handle, void* bytes, tmsize_t count) {
  File& file = file_of(handle);
  if (file.out) return 0;
  tmsize_t done = 0;
  while (done < count) {
    const ssize_t got = pread(fileno(file.handle->stream), static_cast<char*>(bytes) + done,
                              std::size_t(count - done), file.position);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) file.os_error = errno;
    if (got <= 0) break;
    done += got;
    file.position += got;
  }
  return done;
}

tmsize_t write_bytes(thandle_t handle, void* bytes, tmsize_t count) {
  File& file = file_of(handle);
  if (!file.out) return 0;
  ka_img_writer_seek(file.out.get(), file.position);
  ka_img_writer_put(file.out.get(), bytes, std::size_t(count));
  if (ka_img_writer_error(file.out.get()) != 0) return 0;
  file.position += count;
  file.end = std::max(file.end, file.position);
  return count;
}

toff_t seek(thandle_t handle, toff_t offset, int whence) {
  File& file = file_of(handle);
  const std::int64_t base = whence == SEEK_SET ? 0 : whence == SEEK_CUR ? file.position : file.end;
  const auto target = std::int64_t(std::uint64_t(base) + offset);
  if (target < 0) return toff_t(-1);
  file.position = target;
  return toff_t(target);
}

int leave_open(thandle_t /*handle*/) { return 0; }
toff_t size(thandle_t handle) { return toff_t(file_of(handle).end); }

int keep_message(TIFF* /*tif*/, void* user, const char* /*module*/, const char* format,
                 va_list values) {
  File& file = *static_cast<File*>(user);
  if (file.message[0] == '\0')
    std::vsnprintf(file.message.data(), file.message.size(), format, values);
  return 1;  // no other handler is asked
}

// Damaged JPEG data is decoded with a warning.
int keep_jpeg_warning(TIFF* tif, void* user, const char* module, const char* format,
                      va_list values) {
  if (module && std::strcmp(module, "JPEGLib") == 0)
    keep_message(tif, user, module, format, values);
  return 1;
}

}  // namespace

TIFF* File::open(const char* mode, std::uint64_t most_memory) {
  TIFFOpenOptions* const options = TIFFOpenOptionsAlloc();
  if (!options) return nullptr;
  TIFFOpenOptionsSetMaxSingleMemAlloc(options, tmsize_t(most_memory));
  TIFFOpenOptionsSetErrorHandlerExtR(options, keep_message, this);
  TIFFOpenOptionsSetWarningHandlerExtR(options, keep_jpeg_warning, this);
  TIFF* const tif = TIFFClientOpenExt(handle->display_name, mode, this, read_bytes, write_bytes,
                                      seek, leave_open, size, nullptr, nullptr, options);
  TIFFOpenOptionsFree(options);
  return tif;
}

int File::fail(int code) {
  if (out && ka_img_writer_error(out.get()) != 0) os_error = ka_img_writer_error(out.get());
  if (os_error != 0) return ka_img_custom_format_error(handle, code, os_error);
  return ka_img_custom_format_refuse(handle, code, 0, message.data());
}
