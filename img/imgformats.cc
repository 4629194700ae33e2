// The format tables: one row per format, in format order, and the order in which drivers are asked
// whose a file is.
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

namespace {

constexpr char kUndefined[] = "<undefined format>";

template <typename... Types>
constexpr std::uint32_t types(Types... type) {
  return ((std::uint32_t{1} << type) | ...);
}

constexpr std::uint32_t kAllTypes = 0xffffffff;
constexpr std::uint32_t kTiffTypes =
    types(IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_RGBA_FP,
          IMG_TYPE_RGB_FP, IMG_TYPE_RGBE);
constexpr std::uint32_t kTiff3Types = types(IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP);
constexpr std::uint32_t kTiff16Types = types(IMG_TYPE_RGBA_16, IMG_TYPE_RGB_16);

constexpr ka::img_driver kNoDriver = {};

constexpr ka::img_format_row kCustom = {
    .name = nullptr, .driver = kNoDriver, .topdown = 0, .best_type = IMG_TYPE_RGBA, .type_map = 0};

constinit std::array<ka::img_format_row, IMG_FORMAT_COUNT> formats = {
    {{.name = "rla",
      .driver = ka::img_driver_rla,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGBE)},
     {.name = "rlb",
      .driver = ka::img_driver_rla,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGBE)},
     {.name = "pic",
      .driver = ka::img_driver_pic,
      .topdown = 1,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGBE)},
     {.name = "alias",
      .driver = ka::img_driver_alias,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB)},
     {.name = "rgb",
      .driver = ka::img_driver_rgb,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGB, IMG_TYPE_RGB_16,
                        IMG_TYPE_RGB_FP, IMG_TYPE_RGBE)},
     {.name = "ct",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGBA_FP, IMG_TYPE_RGBE)},
     {.name = "ct16",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA_16,
      .type_map = types(IMG_TYPE_RGBA_16)},
     {.name = "st",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_S,
      .type_map = types(IMG_TYPE_S, IMG_TYPE_S_16, IMG_TYPE_S_FP)},
     {.name = "st16",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_S_16,
      .type_map = types(IMG_TYPE_S_16, IMG_TYPE_S_FP)},
     {.name = "vt",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_VTA,
      .type_map = types(IMG_TYPE_VTA)},
     {.name = "wt",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_VTS,
      .type_map = types(IMG_TYPE_VTS)},
     {.name = "zt",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_Z,
      .type_map = types(IMG_TYPE_Z)},
     {.name = "nt",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_N,
      .type_map = types(IMG_TYPE_N)},
     {.name = "tt",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_TAG,
      .type_map = types(IMG_TYPE_TAG)},
     {.name = "tif",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGBA,
      .type_map = kTiffTypes},
     {.name = "tifu",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGBA,
      .type_map = kTiffTypes},
     {.name = "tif3",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = kTiff3Types},
     {.name = "tif3u",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = kTiff3Types},
     {.name = "picture",
      .driver = ka::img_driver_catia,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB)},
     {.name = "ppm",
      .driver = ka::img_driver_ppm,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_RGB_FP, IMG_TYPE_RGBE)},
     {.name = "ctfp",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA_FP,
      .type_map = types(IMG_TYPE_RGBA_FP)},
     {.name = "map",
      .driver = ka::img_driver_map,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = kAllTypes},
     {.name = "tga",
      .driver = ka::img_driver_targa,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGBE)},
     {.name = "bmp",
      .driver = ka::img_driver_bmp,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGB, IMG_TYPE_RGBE)},
     {.name = "qntpal",
      .driver = ka::img_driver_qnt,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB)},
     {.name = "qntntsc",
      .driver = ka::img_driver_qnt,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB)},
     {.name = "Zpic",
      .driver = ka::img_driver_zpic,
      .topdown = 1,
      .best_type = IMG_TYPE_Z,
      .type_map = types(IMG_TYPE_Z)},
     {.name = "null",
      .driver = ka::img_driver_null,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = kAllTypes},
     {.name = "mt",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_M,
      .type_map = types(IMG_TYPE_M)},
     {.name = "bit",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_BIT,
      .type_map = types(IMG_TYPE_BIT)},
     {.name = "tif16",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGBA_16,
      .type_map = kTiff16Types},
     {.name = "tif16u",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGBA_16,
      .type_map = kTiff16Types},
     {.name = "tif16-3",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB_16,
      .type_map = types(IMG_TYPE_RGB_16)},
     {.name = "tif16-3u",
      .driver = ka::img_driver_tiff,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB_16,
      .type_map = types(IMG_TYPE_RGB_16)},
     {.name = "jpg",
      .driver = ka::img_driver_jfif,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB)},
     {.name = "lwi",
      .driver = ka::img_driver_lwi,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB)},
     {.name = "ps",
      .driver = ka::img_driver_ps,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB, IMG_TYPE_S)},
     {.name = "eps",
      .driver = ka::img_driver_eps,
      .topdown = 1,
      .best_type = IMG_TYPE_RGB,
      .type_map = types(IMG_TYPE_RGB, IMG_TYPE_S)},
     {.name = "cth",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBE,
      .type_map = types(IMG_TYPE_RGBE)},
     {.name = "hdr",
      .driver = ka::img_driver_hdr,
      .topdown = 1,
      .best_type = IMG_TYPE_RGBE,
      .type_map = types(IMG_TYPE_RGBE)},
     {.name = "stfp",
      .driver = ka::img_driver_ct,
      .topdown = 0,
      .best_type = IMG_TYPE_S_FP,
      .type_map = types(IMG_TYPE_S_FP)},
     {.name = "iff",
      .driver = ka::img_driver_iff,
      .topdown = 0,
      .best_type = IMG_TYPE_RGBA,
      .type_map = types(IMG_TYPE_RGBA, IMG_TYPE_RGBA_16, IMG_TYPE_RGB, IMG_TYPE_RGB_16, IMG_TYPE_S,
                        IMG_TYPE_S_16, IMG_TYPE_Z, IMG_TYPE_RGBA_FP, IMG_TYPE_RGB_FP, IMG_TYPE_RGBE,
                        IMG_TYPE_S_FP)},
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom,
     kCustom}};

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

constexpr std::array<const char*, IMG_TYPE_COUNT> kTypeNames = {
    "rgba", "rgba_16", "rgb",     "rgb_16", "a",   "a_16",   "s",        "s_16", "vta",  "vts", "z",
    "n",    "tag",     "rgba_fp", "m",      "bit", "rgb_fp", "coverage", "rgbe", "a_16", "s_fp"};
constexpr std::array<const char*, 8> fbname = {"fb0", "fb1", "fb2", "fb3",
                                               "fb4", "fb5", "fb6", "fb7"};
constexpr int kContour = 23;      // a type number that exists for its name only
constexpr int kFrameBuffer = 24;  // the first of eight such

bool accepts(img_file* handle, const std::uint8_t* head, int format) {
  handle->format = format;
  const auto test = formats[std::size_t(format)].driver.test;
  return test && test(handle, head);
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
  for (int format = IMG_FORMAT_CUSTOM; format < IMG_FORMAT_COUNT; ++format) {
    if (accepts(handle, head, format)) return format;
  }
  for (const int format : kTestOrder) {
    if (accepts(handle, head, format)) return format;
  }
  return -1;
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

int ka_img_type_identify(const char* name) {
  const ka::ModuleScope scope(KA_IMG);
  if (std::strcmp(name, "contour") == 0) return kContour;
  if (std::strncmp(name, "fb", 2) == 0) {
    unsigned number = 0;
    const auto [end, failure] = std::from_chars(name + 2, name + std::strlen(name), number);
    if (failure == std::errc::result_out_of_range || number >= fbname.size()) return IMG_TYPE_COUNT;
    return kFrameBuffer + int(number);
  }
  for (std::size_t type = 0; type < kTypeNames.size(); ++type) {
    if (std::strcmp(kTypeNames[type], name) == 0) return int(type);
  }
  return IMG_TYPE_COUNT;
}

const char* ka_img_type_name(int type) {
  const ka::ModuleScope scope(KA_IMG);
  if (type >= 0 && type < IMG_TYPE_COUNT) return kTypeNames[std::size_t(type)];
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
  if (format < IMG_FORMAT_CUSTOM || format >= IMG_FORMAT_COUNT || !name || best_type < 0 ||
      best_type >= IMG_TYPE_COUNT) {
    return 0;
  }
  ka::img_format_row& row = formats[std::size_t(format)];
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
         .type_map = extra_types | types(best_type)};
  ka_mem_release(const_cast<char*>(old_name));
  ka_debug("registered new custom image format %d: \"%s\", type %s", format - IMG_FORMAT_CUSTOM,
           row.name, ka_img_type_name(best_type));
  return 1;
}
