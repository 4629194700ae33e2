#include "types.h"

#include <algorithm>
#include <array>
#include <climits>

#include <ka/img.h>

#include "formats.h"

namespace {

enum class Kind { kGrey, kAlpha, kColor, kData };

Kind kind_of(int type) {
  switch (type) {
    case IMG_TYPE_VTA:
    case IMG_TYPE_VTS:
    case IMG_TYPE_Z:
    case IMG_TYPE_N:
    case IMG_TYPE_M:
    case IMG_TYPE_TAG:
    case IMG_TYPE_COVERAGE:
      return Kind::kData;
    case IMG_TYPE_A:
    case IMG_TYPE_A_16:
    case IMG_TYPE_A_FP:
      return Kind::kAlpha;
    case IMG_TYPE_S:
    case IMG_TYPE_S_16:
    case IMG_TYPE_S_FP:
    case IMG_TYPE_BIT:
      return Kind::kGrey;
    default:
      return Kind::kColor;
  }
}

bool is_rgbe(int type) { return type == IMG_TYPE_RGBE; }
bool is_float(int type) { return ka_img_nbits[type] == 32; }
bool is_color(int type) { return kind_of(type) == Kind::kColor; }
bool has_alpha(int type) { return is_color(type) && !is_rgbe(type) && ka_img_ncomp[type] == 4; }

// Types with the same samples.
bool are_alike(int a, int b) {
  constexpr std::array<std::array<int, 2>, 6> pairs = {{{IMG_TYPE_A, IMG_TYPE_S},
                                                        {IMG_TYPE_A_16, IMG_TYPE_S_16},
                                                        {IMG_TYPE_A_FP, IMG_TYPE_S_FP},
                                                        {IMG_TYPE_VTA, IMG_TYPE_VTS},
                                                        {IMG_TYPE_Z, IMG_TYPE_COVERAGE},
                                                        {IMG_TYPE_N, IMG_TYPE_M}}};
  return a == b || std::ranges::any_of(pairs, [&](const auto& pair) {
           return (pair[0] == a && pair[1] == b) || (pair[0] == b && pair[1] == a);
         });
}

// Shared exponents in a file that cannot say so: the exponent would be read as alpha.
bool is_misread(int format, int type) {
  return is_rgbe(type) && ka_img_best_type(format) != IMG_TYPE_RGBE && format != IMG_FORMAT_MAP &&
         format != IMG_FORMAT_PPM;
}

// Floats that the format keeps as something smaller.
bool is_rounded(int format, int type) {
  return type == IMG_TYPE_RGB_FP && format == IMG_FORMAT_RGB;
}

int cost(int type) { return ka_img_nbits[type] * ka_img_ncomp[type]; }

int smallest_keeping_all(int format, int type) {
  int found = IMG_TYPE_COUNT, least = INT_MAX;
  for (int to = 0; to < IMG_TYPE_COUNT; ++to) {
    if (!ka_img_format_takes(format, to) || !keeps_all(type, to)) continue;
    if (is_misread(format, to) || is_rounded(format, to) || cost(to) >= least) continue;
    found = to;
    least = cost(to);
  }
  return found;
}

int without_alpha(int type) {
  switch (type) {
    case IMG_TYPE_RGBA:
      return IMG_TYPE_RGB;
    case IMG_TYPE_RGBA_16:
      return IMG_TYPE_RGB_16;
    case IMG_TYPE_RGBA_FP:
      return IMG_TYPE_RGB_FP;
    default:
      return type;
  }
}

std::string samples(int type) {
  if (is_rgbe(type)) return "shared exponents";
  if (is_float(type)) return "floats";
  return std::to_string(ka_img_nbits[type]) + " bits per sample";
}

std::string lost_channels(int from, int to) {
  if (is_color(from) && kind_of(to) == Kind::kAlpha) {
    return has_alpha(from) ? "only alpha is kept" : "colors become grey";
  }
  if (has_alpha(from) && to == IMG_TYPE_BIT) return "only alpha is kept";
  const bool loses_alpha = has_alpha(from) && !has_alpha(to);
  const bool loses_colors = is_color(from) && !is_color(to);
  if (loses_alpha && loses_colors) return "alpha is dropped, colors become grey";
  return loses_alpha ? "alpha is dropped" : loses_colors ? "colors become grey" : "";
}

bool loses_depth(int from, int to) {
  if (is_rgbe(from) || is_rgbe(to)) return from != to && !(is_rgbe(from) && is_float(to));
  return ka_img_nbits[to] < ka_img_nbits[from];
}

}  // namespace

bool keeps_all(int from, int to) {
  if (are_alike(from, to)) return true;
  if (kind_of(from) == Kind::kData || kind_of(to) == Kind::kData) return false;
  return !loses_depth(from, to) && lost_channels(from, to).empty();
}

bool can_become(int from, int to) { return are_alike(from, to) || kind_of(to) != Kind::kData; }

int type_in(int format, int type) {
  if (ka_img_format_takes(format, type) && !is_misread(format, type)) return type;
  const int keeping = smallest_keeping_all(format, type);
  if (keeping != IMG_TYPE_COUNT) return keeping;
  const int best = ka_img_best_type(format), smaller = without_alpha(best);
  return !has_alpha(type) && ka_img_format_takes(format, smaller) ? smaller : best;
}

std::string loss(int format, int from, int to) {
  if (kind_of(from) == Kind::kData && !are_alike(from, to)) {
    return type_name(from) + " is shown as " + type_name(to);
  }
  std::string text = lost_channels(from, to);
  const auto add = [&](const std::string& more) { text += (text.empty() ? "" : ", ") + more; };
  if (loses_depth(from, to)) add(samples(from) + " become " + samples(to));
  if (is_misread(format, to)) add("exponents will be read as alpha");
  if (is_rounded(format, to)) add("floats are kept as 16 bits");
  if (format == IMG_FORMAT_PPM && is_float(to)) add("floats are kept with six digits");
  return text;
}
