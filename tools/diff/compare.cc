#include "compare.h"

#include <errno.h>

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <ka/message.h>

#include "compose.h"
#include "explain.h"
#include "measure.h"
#include "output.h"
#include "picture.h"
#include "printed.h"

namespace {

ka::ComposeSettings settings_of(const Options& options) {
  return {.measure = {.tolerance = options.tolerance,
                      .ignore_alpha = options.ignore_alpha,
                      .signed_intensity = options.signed_intensity,
                      .brighten = options.brighten},
          .gamma = options.gamma,
          .false_color = options.false_color,
          .underlay = options.underlay};
}

int panel_lines(const Options& options) { return options.no_histogram ? 0 : ka::kPanelLines; }

// Measures while both files are read line by line. What is reported of a damaged file is the same as if
// the first had been read whole before the second.
ka::Difference measure_streams(Picture& first, Picture& second,
                               const ka::MeasureSettings& settings) {
  ka::Meter meter(settings);
  const int lines = std::max(first.lines_to_read(), second.lines_to_read());
  for (int i = 0; i < lines; ++i) {
    if (!first.read_line()) first.report_error();
    if (!second.read_line()) {
      first.read_rest();
      second.report_error();
    }
    meter.add_line(first.line_number(), first.planes(), second.planes(), first.width());
  }
  first.close();
  second.close();
  return meter.result();
}

// Whole pictures, kept only where they are needed.
struct Buffers {
  ka::ImageBuffer first, second;
};

[[noreturn]] void refuse_sizes(const Picture& first, const Picture& second) {
  explain(first.size_text() + ", " + second.size_text());
  ka_fatal("files have different sizes");
}

// Both pictures are needed whole for a difference image, for files whose lines do not come in the
// same order, and to show the messages of each file together. Of different sizes neither is kept.
ka::Difference read_and_measure(Picture& first, Picture& second, bool keep_whole,
                                const ka::MeasureSettings& settings, Buffers& buffers) {
  if (!first.open()) first.report_error();
  if (keep_whole && second.would_open_as_large_as(first)) {
    buffers.first = first.read();
  } else if (keep_whole) {
    first.read_rest();
  }
  const bool is_open = second.open();
  if (!is_open || !first.same_size(second)) {
    if (!buffers.first) first.read_rest();
    if (!is_open) second.report_error();
    second.read_rest();
    refuse_sizes(first, second);
  }
  first.compare_profile(second);
  if (!keep_whole && first.same_order(second)) return measure_streams(first, second, settings);
  if (!buffers.first) buffers.first = first.read();
  buffers.second = second.read();
  ka_progress("pass 1: max diff");
  return ka::measure(buffers.first.get(), buffers.second.get(), second.height(), settings);
}

// Not (below the threshold) is also true of a threshold that is not a number.
const char* verdict(const ka::Difference& difference, double threshold) {
  if (difference.count == 0) return "identical";
  return std::fabs(difference.maximum_percent) < threshold ? "similar" : "different";
}

void print_result(const Picture& first, const Picture& second, const ka::Difference& difference,
                  const ka::MeasureSettings& settings, const Options& options) {
  const std::string first_name = printed(first.name()), second_name = printed(second.name());
  if (difference.count == 0) {
    std::printf("%s %s: no differences.\n", first_name.c_str(), second_name.c_str());
  } else {
    const double share = 100.0 * difference.count / first.width() / first.height();
    std::printf("differing pixels:\t%7.3f%% (%d of %d)\n", share, difference.count,
                first.width() * first.height());
    std::printf("average difference:\t%7.3f%%\n", ka::average_percent(difference, settings));
    std::printf("maximum difference:\t%7.3f%%\n", difference.maximum_percent);
  }
  std::printf("== \"%s\" and \"%s\" are %s\n", first_name.c_str(), second_name.c_str(),
              verdict(difference, options.threshold));
  // A script that reads the verdict must not take a lost one for "identical".
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    ka_fatal("cannot write to standard output (%s)", ka_strerror());
  }
}

// Draws the panel, writes the image and shows it.
void put_out(Buffers& buffers, const Picture& picture, const ka::Histograms& histograms,
             const ka::ComposeSettings& settings, const Options& options) {
  if (!options.no_histogram) {
    ka::draw_panel(buffers.first.get(), picture.height(), histograms, settings);
  }
  OutputFile output(options);
  output.write(buffers.first.get(), picture.height() + panel_lines(options));
  if (options.display) output.show(options);
}

}  // namespace

int compare(const Options& options) {
  const ka::ComposeSettings settings = settings_of(options);
  Picture first(options.first, panel_lines(options));
  Picture second(options.second, 0);
  const bool may_put_out = options.output || options.display;
  Buffers buffers;
  const ka::Difference difference =
      read_and_measure(first, second, may_put_out || options.verbose, settings.measure, buffers);
  ka_progress("pass 2: histogram");
  const bool puts_out = may_put_out && (difference.count != 0 || options.write_if_equal);
  ka::Histograms histograms;  // seen in a difference image only
  if (puts_out) {
    histograms = ka::compose_difference(buffers.first.get(), buffers.second.get(), second.height(),
                                        settings, difference.scale);
  }
  print_result(first, second, difference, settings.measure, options);
  if (puts_out) put_out(buffers, first, histograms, settings, options);
  return std::fabs(difference.maximum_percent) >= options.threshold ? 1 : 0;
}
