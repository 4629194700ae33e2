#include "formats.h"

#include <algorithm>
#include <array>
#include <span>
#include <string_view>

#include <ka/drivers.h>
#include <ka/img.h>

namespace {

struct Title {
  int format;
  const char* text;
};

constexpr auto kTitles = std::to_array<Title>({
    {IMG_FORMAT_RLA, "Wavefront RLA"},
    {IMG_FORMAT_RLB, "Wavefront RLA"},
    {IMG_FORMAT_PIC, "Softimage PIC"},
    {IMG_FORMAT_ALIAS, "Alias pix"},
    {IMG_FORMAT_RGB, "SGI RGB, run-length encoded"},
    {IMG_FORMAT_CT, "native texture: color"},
    {IMG_FORMAT_CT16, "native texture: color, 16 bits"},
    {IMG_FORMAT_ST, "native texture: scalar"},
    {IMG_FORMAT_ST16, "native texture: scalar, 16 bits"},
    {IMG_FORMAT_VT, "native texture: vectors"},
    {IMG_FORMAT_WT, "native texture: vectors"},
    {IMG_FORMAT_ZT, "native texture: depth"},
    {IMG_FORMAT_NT, "native texture: normals"},
    {IMG_FORMAT_TT, "native texture: tags"},
    {IMG_FORMAT_TIF, "TIFF, PackBits"},
    {IMG_FORMAT_TIFU, "TIFF, uncompressed"},
    {IMG_FORMAT_TIF3, "TIFF without alpha, PackBits"},
    {IMG_FORMAT_TIF3U, "TIFF without alpha, uncompressed"},
    {IMG_FORMAT_PICTURE, "CATIA picture"},
    {IMG_FORMAT_PPM, "PPM; as text unless it is rgb"},
    {IMG_FORMAT_CTFP, "native texture: color, floats"},
    {IMG_FORMAT_MAP, "memory-mapped texture"},
    {IMG_FORMAT_TGA, "Targa, uncompressed"},
    {IMG_FORMAT_BMP, "BMP"},
    {IMG_FORMAT_QNTPAL, "Quantel frame, PAL, 720 x 576"},
    {IMG_FORMAT_QNTNTSC, "Quantel frame, NTSC, 720 x 486"},
    {IMG_FORMAT_ZPIC, "Zpic depth, which is never read"},
    {IMG_FORMAT_MT, "native texture: motion"},
    {IMG_FORMAT_BIT, "native texture: bits"},
    {IMG_FORMAT_TIF16, "TIFF, 16 bits, PackBits"},
    {IMG_FORMAT_TIF16U, "TIFF, 16 bits, uncompressed"},
    {IMG_FORMAT_TIF16_3, "TIFF without alpha, 16 bits, PackBits"},
    {IMG_FORMAT_TIF16_3U, "TIFF without alpha, 16 bits, uncompressed"},
    {IMG_FORMAT_JPG, "JPEG"},
    {IMG_FORMAT_PS, "PostScript"},
    {IMG_FORMAT_EPS, "Encapsulated PostScript"},
    {IMG_FORMAT_CTH, "native texture: color, shared exponents"},
    {IMG_FORMAT_HDR, "Radiance HDR"},
    {IMG_FORMAT_STFP, "native texture: scalar, floats"},
    {IMG_FORMAT_IFF, "IFF tiled image"},
    {KA_DRIVERS_PNG, "PNG"},
    {KA_DRIVERS_EXR, "OpenEXR, ZIP"},
    {KA_DRIVERS_WEBP, "WebP, lossless unless a quality is given"},
    {KA_DRIVERS_TIFZ, "TIFF, Deflate"},
});

// By type.
constexpr std::array<const char*, IMG_TYPE_COUNT> kMeanings = {"colors and alpha",
                                                               "colors and alpha",
                                                               "colors",
                                                               "colors",
                                                               "alpha",
                                                               "alpha",
                                                               "scalar",
                                                               "scalar",
                                                               "vectors of a texture",
                                                               "vectors of a texture",
                                                               "depth",
                                                               "normals",
                                                               "tags",
                                                               "colors and alpha, floats",
                                                               "motion",
                                                               "bits",
                                                               "colors, floats",
                                                               "coverage, floats",
                                                               "colors with a shared exponent",
                                                               "alpha, floats",
                                                               "scalar, floats"};

// The others go back to their header or to a table when all lines are written.
constexpr auto kReturning =
    std::to_array({IMG_FORMAT_RLA, IMG_FORMAT_RLB, IMG_FORMAT_RGB, IMG_FORMAT_TIF, IMG_FORMAT_TIF3,
                   IMG_FORMAT_TIF16, IMG_FORMAT_TIF16_3, IMG_FORMAT_MAP, IMG_FORMAT_IFF,
                   img_format(KA_DRIVERS_EXR), img_format(KA_DRIVERS_TIFZ)});

constexpr std::array<int, 1> kWithLevels = {IMG_FORMAT_MAP};
constexpr std::array<int, 2> kWithGamma = {IMG_FORMAT_RLA, IMG_FORMAT_RLB};
constexpr std::array<int, 4> kWithAspect = {KA_DRIVERS_EXR, IMG_FORMAT_PIC, IMG_FORMAT_RLA,
                                            IMG_FORMAT_RLB};
constexpr std::array<int, 2> kWithQuality = {IMG_FORMAT_JPG, KA_DRIVERS_WEBP};
constexpr std::array<int, 1> kWithFields = {IMG_FORMAT_PIC};
constexpr std::array<int, 1> kWithFloats = {KA_DRIVERS_EXR};

std::span<const int> formats_with(Setting setting) {
  switch (setting) {
    case Setting::kPyramid:
      return kWithLevels;
    case Setting::kGamma:
      return kWithGamma;
    case Setting::kAspect:
      return kWithAspect;
    case Setting::kQuality:
      return kWithQuality;
    case Setting::kFields:
      return kWithFields;
    case Setting::kFloat:
      break;
  }
  return kWithFloats;
}

void append(std::string& list, const std::string& name) {
  if (!list.empty()) list += ", ";
  list += name;
}

std::string padded(std::string text, std::size_t width) {
  text.resize(std::max(width, text.size() + 1), ' ');
  return text;
}

// An empty custom slot has a name in angle brackets.
bool exists(int format) { return ka_img_format_name(format)[0] != '<'; }

}  // namespace

bool is_written(int format) {
  return std::ranges::find(kTitles, format, &Title::format) != kTitles.end() && exists(format);
}

bool is_sequential(int format) {
  return std::ranges::find(kReturning, img_format(format)) == kReturning.end();
}

std::string type_name(int type) { return type == IMG_TYPE_A_FP ? "a_fp" : ka_img_type_name(type); }

int type_of(const std::string& name) {
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    if (type_name(type) == name) return type;
  }
  return IMG_TYPE_COUNT;
}

std::string types_of(int format) {
  std::string names;
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    if (ka_img_format_takes(format, type)) append(names, type_name(type));
  }
  return names;
}

std::string format_list() {
  std::string list;
  for (const auto& [format, text] : kTitles) {
    if (!exists(format)) continue;
    const std::string types = format == IMG_FORMAT_MAP ? "all types" : types_of(format);
    list += padded(ka_img_format_name(format), 9) + padded(text, 43) + types + "\n";
  }
  return list;
}

std::string type_list() {
  std::string list;
  for (int type = 0; type < IMG_TYPE_COUNT; ++type) {
    const int count = ka_img_ncomp[type];
    list += padded(type_name(type), 9) + std::to_string(count) + " x " +
            padded(std::to_string(ka_img_nbits[type]), 3) + kMeanings[std::size_t(type)] + "\n";
  }
  return list;
}

bool knows(int format, Setting setting) {
  return std::ranges::find(formats_with(setting), format) != formats_with(setting).end();
}

std::string knowing(Setting setting) {
  std::string names;
  for (const int format : formats_with(setting)) {
    if (exists(format)) append(names, ka_img_format_name(format));
  }
  return names;
}
