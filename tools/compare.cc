#include "compare.h"

#include <errno.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include <ka/message.h>

#include "measure.h"
#include "picture.h"

namespace {

constexpr int kPanelLines = 114;  // of the histogram above the difference image

ka::MeasureSettings measure_settings(const Options& options) {
  return {.tolerance = options.tolerance,
          .ignore_alpha = options.ignore_alpha,
          .signed_intensity = options.signed_intensity,
          .brighten = options.brighten};
}

[[noreturn]] void different_sizes() { ka_fatal("files have different sizes"); }

// Measures while both files are read line by line. What is told of a damaged file is the same as if
// the first had been read whole before the second.
ka::Difference measure_streams(Picture& first, Picture& second,
                               const ka::MeasureSettings& settings) {
  ka::Meter meter(settings);
  for (int i = 0; i < first.height(); ++i) {
    if (!first.read_line()) first.tell_failure();
    if (!second.read_line()) {
      first.read_rest();
      second.tell_failure();
    }
    meter.add_line(first.line_number(), first.planes(), second.planes(), first.width());
  }
  first.close();
  second.close();
  return meter.result();
}

ka::Difference measure_buffers(const img_image* first, const img_image* second,
                               const ka::MeasureSettings& settings) {
  ka_progress("pass 1: max diff");
  const ka::Difference difference = ka::measure(first, second, second->height, settings);
  ka_progress(
      "pass 2: histogram");  // nobody sees the histograms unless a difference image shows them
  return difference;
}

// Whole pictures are kept only where somebody needs them: for a difference image, for files whose
// lines do not come in the same order, and to show the messages of each file together.
ka::Difference read_and_measure(Picture& first, Picture& second, bool keep_whole,
                                const ka::MeasureSettings& settings) {
  if (!first.open()) first.tell_failure();
  ImageBuffer first_image = keep_whole ? first.read() : nullptr;
  if (!second.open()) {
    if (!first_image) first.read_rest();
    second.tell_failure();
  }
  if (!keep_whole && first.same_size(second) && first.same_order(second)) {
    return measure_streams(first, second, settings);
  }
  if (!first_image) first_image = first.read();
  const ImageBuffer second_image = second.read();
  if (!first.same_size(second)) different_sizes();
  return measure_buffers(first_image.get(), second_image.get(), settings);
}

// Not (below the threshold) is also true of a threshold that is not a number.
const char* verdict(const ka::Difference& difference, double threshold) {
  if (difference.count == 0) return "identical";
  return std::fabs(difference.maximum_percent) < threshold ? "similar" : "different";
}

void print_result(const Picture& first, const Picture& second, const ka::Difference& difference,
                  const Options& options) {
  if (difference.count == 0) {
    std::printf("%s %s: no differences.\n", first.name(), second.name());
  } else {
    const double share = 100.0 * difference.count / first.width() / first.height();
    std::printf("differing pixels:\t%7.3f%% (%d of %d)\n", share, difference.count,
                first.width() * first.height());
    std::printf("average difference:\t%7.3f%%\n",
                ka::average_percent(difference, measure_settings(options)));
    std::printf("maximum difference:\t%7.3f%%\n", difference.maximum_percent);
  }
  std::printf("== \"%s\" and \"%s\" are %s\n", first.name(), second.name(),
              verdict(difference, options.threshold));
  // A script that reads the verdict must not take a lost one for "identical".
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    ka_fatal("cannot write to standard output (%s)", ka_strerror());
  }
}

// The format that an output name or type stands for.
int output_format(const Options& options) {
  const char* const type =
      options.output_type ? options.output_type : std::strrchr(options.output, '.');
  if (!type) ka_fatal("missing output image file type");
  const int format = *type ? ka_img_format_identify(type + 1) : -1;
  if (format < 0) ka_fatal("unknown extension \"%s\"", type);
  return format;
}

bool wants_difference_image(const Options& options, const ka::Difference& difference) {
  if (difference.count == 0 && !options.write_if_equal) return false;
  return options.output || options.display;
}

}  // namespace

int compare(const Options& options) {
  Picture first(options.first, options.no_histogram ? 0 : kPanelLines);
  Picture second(options.second, 0);
  const bool keep_whole = options.verbose || options.output || options.display;
  const ka::Difference difference =
      read_and_measure(first, second, keep_whole, measure_settings(options));
  print_result(first, second, difference, options);
  if (wants_difference_image(options, difference)) {
    if (options.output) (void)output_format(options);
    ka_fatal("cannot create %s", options.output ? options.output : "the image to display");
  }
  return std::fabs(difference.maximum_percent) >= options.threshold ? 1 : 0;
}
