#include <ka/drivers.h>

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

#include <ka/message.h>
#include <ka/msg.h>

#include "drivers.h"

int ka_drivers_register() {
  using namespace drivers;
  return int{register_png(KA_DRIVERS_PNG) && register_exr(KA_DRIVERS_EXR) &&
             register_webp(KA_DRIVERS_WEBP) && register_tifz(KA_DRIVERS_TIFZ) &&
             register_bmp5(KA_DRIVERS_BMP5)};
}

std::uint32_t drivers::profile_of(std::span<const std::uint8_t> icc) {
  return std::max(std::uint32_t(crc32_z(0, icc.data(), icc.size())), 1U);
}

int drivers::check_line_memory(img_file* handle, std::uint64_t pixel_bytes) {
  constexpr std::uint64_t callers_bytes = 4;  // of a pixel in most programs
  const std::uint64_t width = std::uint64_t(handle->width);
  if (width * (pixel_bytes + callers_bytes) <= memory_limit(handle)) return 1;
  return refuse(handle, IMG_ERR_READ, "the file is too short for lines of %d pixels",
                handle->width);
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
