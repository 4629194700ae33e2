// Errors of a handle: setting and reporting them.
#include <errno.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "imgcall.h"
#include "imgoutput.h"

namespace {

constexpr int kReportNumber = 3;  // of the message that reports a handle's error

std::atomic<int> img_debug{0};
std::atomic<img_err_callback> err_cb{nullptr};

// What a message says after the display name; those with numbers take the line and the height.
struct Text {
  const char* format;
  bool has_line;
};
constexpr std::array<Text, 14> kTexts = {{
    {"", false},
    {"%s: can't read line %d of %d, incomplete file", true},
    {"%s: can't write line %d of %d, check disk space (file is incomplete)", true},
    {"%s: can't uncompress pixels in line %d of %d, file is corrupted", true},
    {"%s: can't compress pixels in line %d of %d", true},
    {"%s: unrecognized file format, not an image file", false},
    {"%s: file format subtype or version not supported", false},
    {"%s: can't create file", false},
    {"%s: can't open file for reading", false},
    {"%s: can't close file, may be incomplete", false},
    {"%s: internal error (bad argument)", false},
    {"%s: internal error (file not open)", false},
    {"%s: internal error (file not closed)", false},
    {"%s: wrong file size", false},
}};

int set_error(img_file* handle, int code, int os_error) {
  handle->error = code;
  handle->os_error = os_error;
  handle->has_new_error = 1;
  return 0;
}

}  // namespace

int ka::img_error(img_file* handle, int code, int os_error) {
  handle->reason[0] = '\0';
  return set_error(handle, code, os_error);
}

int ka::img_refuse(img_file* handle, int code, int os_error, const char* format, ...) {
  std::array<char, IMG_REASON_SIZE> reason{};  // the handle's own may be among the values
  if (os_error == 0 || os_error == EFBIG) {
    va_list values;
    va_start(values, format);
    std::vsnprintf(reason.data(), reason.size(), format, values);
    va_end(values);
  }
  std::ranges::replace_if(
      reason, [](char c) { return c != '\0' && (c < ' ' || c > '~'); }, '?');
  std::ranges::copy(reason, handle->reason);
  return set_error(handle, code, os_error);
}

void ka::img_act_on_error(img_file* handle) {
  if (!handle->has_new_error) return;
  handle->has_new_error = 0;
  ka::img_discard(handle);
  if (img_debug != 0) ka_img_err_msg(handle);
}

int ka_img_custom_format_error(img_file* handle, int code, int os_error) {
  const ka::ModuleScope scope(KA_IMG);
  return ka::img_error(handle, code, os_error);
}

int ka_img_custom_format_refuse(img_file* handle, int code, int os_error, const char* reason) {
  const ka::ModuleScope scope(KA_IMG);
  return ka::img_refuse(handle, code, os_error, "%s", reason);
}

std::size_t ka_img_error_text(const img_file* handle, char* text, std::size_t size) {
  if (handle->error <= IMG_ERR_NONE || handle->error >= int(kTexts.size())) {
    if (size > 0) text[0] = '\0';
    return 0;
  }
  const Text& error = kTexts[std::size_t(handle->error)];
  const char* const reason = handle->os_error != 0 ? ka_nstrerror(handle->os_error) : nullptr;
  char subject[256];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  if (error.has_line) {
    std::snprintf(subject, sizeof subject, error.format, handle->display_name,
                  handle->line_count + 1, handle->height);
  } else {
    std::snprintf(subject, sizeof subject, error.format, handle->display_name);
  }
#pragma GCC diagnostic pop
  return std::size_t(reason ? std::snprintf(text, size, "%s (%s)", subject, reason)
                            : std::snprintf(text, size, "%s", subject));
}

void ka_img_err_msg(img_file* handle) {
  const ka::ModuleScope scope(KA_IMG);
  std::array<char, IMG_ERROR_TEXT_SIZE> text;
  if (ka_img_error_text(handle, text.data(), text.size()) == 0) return;
  ka_nerror(kReportNumber, "%s", text.data());
  if (const auto callback = err_cb.load()) callback(handle);
}

void ka_img_err_handler(img_err_callback callback) { err_cb = callback; }

void ka_img_debug(int level) {
  const ka::ModuleScope scope(KA_IMG);
  img_debug = level;
}

int ka::img_debug_level() { return img_debug; }
