// The format tables: one row per format, in format order, and the order in which drivers are asked
// whose a file is.
#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <string_view>

#include <ka/detail/scope.h>
#include <ka/mem.h>
#include <ka/message.h>

#include "formats/drivers.h"
#include "imgcall.h"
#include "imgmap.h"
#include "pixeltypes.h"

namespace {

using Row = ka::img_format_row;

constexpr char kUndefined[] = "<undefined format>";

// A row; the best type comes before the others that can be written.
template <typename... Types>
constexpr Row row(const char* name, const ka::img_driver& driver, int topdown, int best_type,
                  Types... others) {
  const std::uint32_t types =
      ((std::uint32_t{1} << best_type) | ... | (std::uint32_t{1} << others));
  return {.name = name,
          .driver = driver,
          .topdown = topdown,
          .best_type = best_type,
          .type_map = types};
}

template <typename... Types>
constexpr Row top_first(const char* name, const ka::img_driver& driver, Types... types) {
  return row(name, driver, 1, types...);
}

template <typename... Types>
constexpr Row bottom_first(const char* name, const ka::img_driver& driver, Types... types) {
  return row(name, driver, 0, types...);
}

// A format that takes every type.
constexpr Row of_all_types(Row row) {
  row.type_map = 0xffffffff;
  return row;
}

// A format with what sets it apart.
template <typename... Flags>
constexpr Row with(Row row, Flags... flags) {
  ((row.*flags = true), ...);
  return row;
}

// A slot without a format.
constexpr Row kCustom = {
    .name = nullptr, .driver = {}, .topdown = 0, .best_type = IMG_TYPE_RGBA, .type_map = 0};

// In the order of the format numbers.
constexpr Row kBuiltIn[] = {
    bottom_first("rla", ka::img_driver_rla, IMG_TYPE_RGBA, IMG_TYPE_RGBE),
    bottom_first("rlb", ka::img_driver_rla, IMG_TYPE_RGBA, IMG_TYPE_RGBE),
    top_first("pic", ka::img_driver_pic, IMG_TYPE_RGBA, IMG_TYPE_RGBE),
    top_first("alias", ka::img_driver_alias, IMG_TYPE_RGB),
    bottom_first("rgb", ka::img_driver_rgb, IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGB,
                 IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP, IMG_TYPE_RGBE),
    bottom_first("ct", ka::img_driver_ct, IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP,
                 IMG_TYPE_RGBE),
    bottom_first("ct16", ka::img_driver_ct, IMG_TYPE_RGBA_16),
    bottom_first("st", ka::img_driver_ct, IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_S_FP),
    bottom_first("st16", ka::img_driver_ct, IMG_TYPE_S_16, IMG_TYPE_S_FP),
    bottom_first("vt", ka::img_driver_ct, IMG_TYPE_VTA),
    bottom_first("wt", ka::img_driver_ct, IMG_TYPE_VTS),
    bottom_first("zt", ka::img_driver_ct, IMG_TYPE_Z),
    bottom_first("nt", ka::img_driver_ct, IMG_TYPE_N),
    bottom_first("tt", ka::img_driver_ct, IMG_TYPE_TAG),
    top_first("tif", ka::img_driver_tiff, IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGB,
              IMG_TYPE_RGB_16, IMG_TYPE_RGBA_FP, IMG_TYPE_RGB_FP, IMG_TYPE_RGBE),
    top_first("tifu", ka::img_driver_tiff, IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGB,
              IMG_TYPE_RGB_16, IMG_TYPE_RGBA_FP, IMG_TYPE_RGB_FP, IMG_TYPE_RGBE),
    top_first("tif3", ka::img_driver_tiff, IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP),
    top_first("tif3u", ka::img_driver_tiff, IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP),
    top_first("picture", ka::img_driver_catia, IMG_TYPE_RGB),
    top_first("ppm", ka::img_driver_ppm, IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP,
              IMG_TYPE_RGBE),
    bottom_first("ctfp", ka::img_driver_ct, IMG_TYPE_RGBA_FP),
    // A mapping needs its file at full size before the first line.
    with(of_all_types(bottom_first("map", ka::img_driver_map, IMG_TYPE_RGBA)), &Row::header_at_once,
         &Row::is_mapped),
    bottom_first("tga", ka::img_driver_targa, IMG_TYPE_RGBA, IMG_TYPE_RGBE),
    bottom_first("bmp", ka::img_driver_bmp, IMG_TYPE_RGBA, IMG_TYPE_RGB, IMG_TYPE_RGBE),
    top_first("qntpal", ka::img_driver_qnt, IMG_TYPE_RGB),
    top_first("qntntsc", ka::img_driver_qnt, IMG_TYPE_RGB),
    top_first("Zpic", ka::img_driver_zpic, IMG_TYPE_Z),
    with(of_all_types(bottom_first("null", ka::img_driver_null, IMG_TYPE_RGBA)),
         &Row::takes_any_line, &Row::keeps_no_file),
    bottom_first("mt", ka::img_driver_ct, IMG_TYPE_M),
    bottom_first("bit", ka::img_driver_ct, IMG_TYPE_BIT),
    top_first("tif16", ka::img_driver_tiff, IMG_TYPE_RGBA_16, IMG_TYPE_RGB_16),
    top_first("tif16u", ka::img_driver_tiff, IMG_TYPE_RGBA_16, IMG_TYPE_RGB_16),
    top_first("tif16-3", ka::img_driver_tiff, IMG_TYPE_RGB_16),
    top_first("tif16-3u", ka::img_driver_tiff, IMG_TYPE_RGB_16),
    top_first("jpg", ka::img_driver_jfif, IMG_TYPE_RGB),
    with(top_first("lwi", ka::img_driver_lwi, IMG_TYPE_RGB), &Row::takes_any_line),
    top_first("ps", ka::img_driver_ps, IMG_TYPE_RGB, IMG_TYPE_S),
    top_first("eps", ka::img_driver_eps, IMG_TYPE_RGB, IMG_TYPE_S),
    bottom_first("cth", ka::img_driver_ct, IMG_TYPE_RGBE),
    top_first("hdr", ka::img_driver_hdr, IMG_TYPE_RGBE),
    bottom_first("stfp", ka::img_driver_ct, IMG_TYPE_S_FP),
    bottom_first("iff", ka::img_driver_iff, IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGB,
                 IMG_TYPE_RGB_16, IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_Z, IMG_TYPE_RGBA_FP,
                 IMG_TYPE_RGB_FP, IMG_TYPE_RGBE, IMG_TYPE_S_FP),
};
static_assert(std::size(kBuiltIn) == IMG_FORMAT_CUSTOM);

constinit std::array<Row, IMG_FORMAT_COUNT> formats = [] {
  std::array<Row, IMG_FORMAT_COUNT> rows;
  std::fill(std::copy(std::begin(kBuiltIn), std::end(kBuiltIn), rows.begin()), rows.end(), kCustom);
  return rows;
}();

// The order in which drivers are asked. Formats that are not here are never found by their bytes; a
// driver may change to one of them when it opens the file.
constexpr std::array kTestOrder = {
    IMG_FORMAT_RLA,   IMG_FORMAT_PIC,     IMG_FORMAT_RGB,  IMG_FORMAT_MAP,  IMG_FORMAT_JPG,
    IMG_FORMAT_TGA,   IMG_FORMAT_TIF,     IMG_FORMAT_TIFU, IMG_FORMAT_IFF,  IMG_FORMAT_HDR,
    IMG_FORMAT_BMP,   IMG_FORMAT_LWI,     IMG_FORMAT_CT,   IMG_FORMAT_CT16, IMG_FORMAT_CTFP,
    IMG_FORMAT_ST,    IMG_FORMAT_ST16,    IMG_FORMAT_STFP, IMG_FORMAT_VT,   IMG_FORMAT_WT,
    IMG_FORMAT_ZT,    IMG_FORMAT_NT,      IMG_FORMAT_MT,   IMG_FORMAT_TT,   IMG_FORMAT_CTH,
    IMG_FORMAT_BIT,   IMG_FORMAT_PICTURE, IMG_FORMAT_PPM,  IMG_FORMAT_PS,   IMG_FORMAT_EPS,
    IMG_FORMAT_ALIAS, IMG_FORMAT_QNTPAL};

constexpr std::array<const char*, 8> fbname = {"fb0", "fb1", "fb2", "fb3",
                                               "fb4", "fb5", "fb6", "fb7"};
constexpr int kContour = 23;      // a type number that exists for its name only
constexpr int kFrameBuffer = 24;  // the first of eight such

bool accepts(img_file* handle, const std::uint8_t* head, int format) {
  handle->format = format;
  const auto test = formats[std::size_t(format)].driver.test;
  return test && test(handle, head);
}

constexpr int kNoFormat = -1;

// The first custom format that stands in for `built_in` and accepts the file, or -1. Formats that
// stand in for none are asked where that is kNoFormat.
int first_custom(img_file* handle, const std::uint8_t* head, int built_in) {
  for (int format = IMG_FORMAT_CUSTOM; format < IMG_FORMAT_COUNT; ++format) {
    if (formats[std::size_t(format)].stands_in_for != built_in) continue;
    if (accepts(handle, head, format)) return format;
  }
  return -1;
}

// Quantel frames have no header: their name decides first.
bool is_quantel_name(const char* name) {
  const char* const dot = std::strrchr(name, '.');
  return dot && std::strncmp(dot, ".qnt", 4) == 0;
}

}  // namespace

const ka::img_format_row& ka::img_format_at(int format) { return formats[std::size_t(format)]; }

void ka::img_init_formats() {
  for (std::size_t slot = IMG_FORMAT_CUSTOM; slot < IMG_FORMAT_COUNT; ++slot) {
    if (!formats[slot].name) formats[slot].name = ka_mem_strdup(kUndefined);
  }
  ka::img_init_map();
}

void ka::img_exit_formats() {
  ka::img_fini_map();
  for (std::size_t slot = IMG_FORMAT_CUSTOM; slot < IMG_FORMAT_COUNT; ++slot) {
    ka_mem_release(const_cast<char*>(formats[slot].name));
    formats[slot] = kCustom;
  }
}

int ka::img_identify(img_file* handle, const std::uint8_t* head) {
  if (is_quantel_name(handle->name) && accepts(handle, head, IMG_FORMAT_QNTPAL))
    return IMG_FORMAT_QNTPAL;
  const int custom = first_custom(handle, head, kNoFormat);
  if (custom >= 0) return custom;
  for (const int format : kTestOrder) {
    if (accepts(handle, head, format)) return format;
  }
  for (int format = IMG_FORMAT_CUSTOM; format < IMG_FORMAT_COUNT; ++format) {
    if (formats[std::size_t(format)].stands_in_for != kNoFormat && accepts(handle, head, format)) {
      return format;
    }
  }
  return -1;
}

int ka::img_identify_stand_in(img_file* handle, const std::uint8_t* head, int built_in) {
  return first_custom(handle, head, built_in);
}

int ka_img_format_identify(const char* name) {
  const ka::ModuleScope scope(KA_IMG);
  for (std::size_t format = 0; format < formats.size(); ++format) {
    if (formats[format].name && std::strcmp(formats[format].name, name) == 0) return int(format);
  }
  return -1;
}

const char* ka_img_format_name(int format) {
  const ka::ModuleScope scope(KA_IMG);
  const char* const name = formats[std::size_t(format)].name;
  return name ? name : kUndefined;
}

int ka_img_best_type(int format) {
  const ka::ModuleScope scope(KA_IMG);
  return formats[std::size_t(format)].best_type;
}

int ka_img_format_takes(int format, int type) {
  const ka::ModuleScope scope(KA_IMG);
  return ka::is_pixel_type(type) && (formats[std::size_t(format)].type_map >> type & 1) != 0;
}

int ka_img_format_is_topdown(int format) {
  const ka::ModuleScope scope(KA_IMG);
  return formats[std::size_t(format)].topdown;
}

int ka_img_type_identify(const char* name) {
  const ka::ModuleScope scope(KA_IMG);
  if (std::strcmp(name, "contour") == 0) return kContour;
  if (std::strncmp(name, "fb", 2) == 0) {
    unsigned number = 0;
    const auto [end, failure] = std::from_chars(name + 2, name + std::strlen(name), number);
    if (failure == std::errc::result_out_of_range || number >= fbname.size()) return IMG_TYPE_COUNT;
    return kFrameBuffer + int(number);
  }
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    if (std::strcmp(ka::pixel_type(type).name, name) == 0) return type;
  }
  return IMG_TYPE_COUNT;
}

const char* ka_img_type_name(int type) {
  const ka::ModuleScope scope(KA_IMG);
  if (ka::is_pixel_type(type)) return ka::pixel_type(type).name;
  if (type == kContour) return "contour";
  if (type >= kFrameBuffer && type < kFrameBuffer + int(fbname.size()))
    return fbname[std::size_t(type - kFrameBuffer)];
  return nullptr;
}

int ka_img_custom_format(int format, img_test_function test, img_create_function create,
                         img_open_function open, img_close_function close, img_read_function read,
                         img_write_function write, int topdown, const char* name,
                         std::uint32_t extra_types, int best_type) {
  const ka::ModuleScope scope(KA_IMG);
  if (format < IMG_FORMAT_CUSTOM || format >= IMG_FORMAT_COUNT || !name ||
      !ka::is_pixel_type(best_type)) {
    return 0;
  }
  Row& row = formats[std::size_t(format)];
  const char* const old_name = row.name;
  row = {.name = ka_mem_strdup(name),
         .driver = {.test = test,
                    .open = open,
                    .create = create,
                    .close = close,
                    .read = read,
                    .write = write},
         .topdown = topdown,
         .best_type = best_type,
         .type_map = extra_types | std::uint32_t{1} << best_type};
  ka_mem_release(const_cast<char*>(old_name));
  ka_debug("registered new custom image format %d: \"%s\", type %s", format - IMG_FORMAT_CUSTOM,
           row.name, ka_img_type_name(best_type));
  return 1;
}

int ka_img_custom_format_stand_in(int format, int built_in) {
  const ka::ModuleScope scope(KA_IMG);
  if (format < IMG_FORMAT_CUSTOM || format >= IMG_FORMAT_COUNT) return 0;
  if (built_in < 0 || built_in >= IMG_FORMAT_CUSTOM) return 0;
  formats[std::size_t(format)].stands_in_for = built_in;
  return 1;
}

int ka_img_custom_format_header(int format, img_header_function header) {
  const ka::ModuleScope scope(KA_IMG);
  if (format < IMG_FORMAT_CUSTOM || format >= IMG_FORMAT_COUNT) return 0;
  formats[std::size_t(format)].driver.header = header;
  return 1;
}
