#include <ka/drivers.h>

#include <array>
#include <cstdarg>
#include <cstdio>

#include <ka/message.h>
#include <ka/msg.h>

#include "drivers.h"

int ka_drivers_register() {
  using namespace drivers;
  return int{register_png(KA_DRIVERS_PNG) && register_exr(KA_DRIVERS_EXR)};
}

int drivers::refuse(img_file* handle, int code, const char* format, ...) {
  std::array<char, IMG_REASON_SIZE> reason{};
  va_list values;
  va_start(values, format);
  std::vsnprintf(reason.data(), reason.size(), format, values);
  va_end(values);
  return ka_img_custom_format_refuse(handle, code, 0, reason.data());
}

void drivers::note(const img_file* handle, const char* format, ...) {
  std::array<char, 256> text{};
  va_list values;
  va_start(values, format);
  std::vsnprintf(text.data(), text.size(), format, values);
  va_end(values);
  ka_warning("%s: %s", handle->display_name, text.data());
}
