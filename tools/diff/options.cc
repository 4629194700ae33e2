#include "options.h"

#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include "printed.h"

namespace {

// In the words of getopt, which would print any character as it is.
void report_fault(const char* program, const char* fault, int letter) {
  std::fprintf(stderr, "%s: %s -- '%s'\n", printed(program).c_str(), fault,
               printed(std::string(1, char(letter))).c_str());
}

// A value that is not above 0, also one that is not a number, becomes the darkest gamma there is.
double parse_gamma(const char* text) {
  constexpr double smallest = 0.001;
  const double gamma = std::strtod(text, nullptr);
  return gamma > 0.0 ? gamma : smallest;
}

int parse_tolerance(const char* text) {
  return int(std::clamp<long>(std::strtol(text, nullptr, 10), INT_MIN, INT_MAX));
}

}  // namespace

bool parse_options(int argc, char** argv, Options& options) {
  optind = 1;
  opterr = 0;
  for (int letter; (letter = getopt(argc, argv, ":hg:m:saefundt:vi")) != -1;) {
    switch (letter) {
      case 'g':
        options.gamma = parse_gamma(optarg);
        break;
      case 'm':
        options.tolerance = parse_tolerance(optarg);
        break;
      case 's':
        options.brighten = true;
        break;
      case 'a':
        options.ignore_alpha = true;
        break;
      case 'e':
        options.write_if_equal = true;
        break;
      case 'f':
        options.false_color = true;
        break;
      case 'u':
        options.underlay = true;
        break;
      case 'n':
        options.no_histogram = true;
        break;
      case 'd':
        options.display = true;
        break;
      case 't':
        options.threshold = std::strtod(optarg, nullptr);
        break;
      case 'i':
        options.signed_intensity = true;
        break;
      case 'v':
        options.verbose = true;
        break;
      case '?':
        report_fault(argv[0], "invalid option", optopt);
        return false;
      case ':':
        report_fault(argv[0], "option requires an argument", optopt);
        return false;
      default:
        return false;  // -h
    }
  }
  return true;
}

bool take_names(int argc, char** argv, Options& options) {
  const int count = argc - optind;
  if (count < 2 || count > 4) return false;
  char** const names = argv + optind;
  options.first = names[0];
  options.second = names[1];
  options.output = count > 2 ? names[2] : nullptr;
  options.output_type = count > 3 ? names[3] : nullptr;
  return true;
}

void print_usage(const char* program) {
  std::fprintf(stderr,
               "%s [opts] image1 image2 [outimage [outimagetype]]\n"
               "-h\t    print help information\n"
               "-g gamma    output gamma correction (<1.0: dark, >1.0: bright)\n"
               "-m tol\t    ignore differences <= min (0..255), default 3\n"
               "-s\t    auto-brighten such that largest diff is shown white\n"
               "-a\t    ignore alpha channel\n"
               "-e\t    write output even if images match\n"
               "-f\t    use false-color range blue..red..white\n"
               "-u\t    underlay first image with 1/10 brightness\n"
               "-n\t    don't add histogram to output image\n"
               "-d\t    display difference image in a window\n"
               "-t thresh   difference in %% that causes exit code 1, default 1.0\n"
               "-i\t    signed intensity histogram (image1 - image2)\n"
               "-v          verbose messages\n",
               printed(program).c_str());
}
