// Reading whole Alias, PostScript and Quantel pictures from the page cache.
#include <string>

#include "benchmarks.h"
#include "format_files.h"
#include "pictures.h"

namespace bench {
namespace {

Bytes alias(Content content) {
  Bytes file(10);
  put_be16(file, 0, kWidth);
  put_be16(file, 2, kHeight);
  file[9] = 24;
  append_runs(file, content);
  return file;
}

// Lines of 13 pixels in hexadecimal.
Bytes postscript() {
  const std::string size = std::to_string(kWidth) + " " + std::to_string(kHeight);
  const std::string head =
      "%!PS-Adobe-3.0\n%%Creator: Lumora\n% lu image data " + size + " color\nluimage\n";
  Bytes file(head.begin(), head.end());
  constexpr std::size_t row_bytes = 3 * std::size_t{kWidth}, text_bytes = 39;
  const Bytes pixels = interleaved(Content::kNoise, 3);
  for (std::size_t i = 0; i < pixels.size(); ++i) {
    file.push_back(std::uint8_t("0123456789abcdef"[pixels[i] >> 4]));
    file.push_back(std::uint8_t("0123456789abcdef"[pixels[i] & 15]));
    const std::size_t end = i % row_bytes + 1;
    if (end % text_bytes == 0 || end == row_bytes) file.push_back('\n');
  }
  return file;
}

constexpr std::size_t kFramePixels = 720 * 576;

Bytes quantel_frame() {
  const auto noise = std::span(planes_of(Content::kNoise)[0]).first(2 * kFramePixels);
  return {noise.begin(), noise.end()};
}

constexpr std::array kPictures = {
    Picture{"alias/single_pixels", 3, [] { return alias(Content::kNoise); }},
    Picture{"alias/short_runs", 3, [] { return alias(Content::kShortRuns); }},
    Picture{"ps/colour", 3, postscript},
    Picture{"qnt", 3, quantel_frame, kFramePixels},
};

}  // namespace

void add_alias_benchmarks() { add_readings(kPictures); }

}  // namespace bench
