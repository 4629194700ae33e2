#include "options.h"

#include <ka/img.h>

#include <string_view>

#include "commandline.h"

namespace {

constexpr float kMostStops = 64, kLeastGamma = 0.1F, kMostGamma = 10;

// The one long option with a single dash, as vel_diff passes it.
std::vector<char*> with_long_dashes(int argc, char** argv) {
  static char title[] = "--imgtitle";
  std::vector<char*> arguments(argv, argv + argc);
  bool are_names = false;
  for (std::size_t i = 1; i < arguments.size() && !are_names; ++i) {
    const std::string_view argument = arguments[i];
    are_names = argument == "--";
    if (argument == "-imgtitle") arguments[i] = title;
    if (argument == "-imgtitle" || argument == "--imgtitle") ++i;  // its value
  }
  return arguments;
}

}  // namespace

Options parse_options(int argc, char** argv) {
  Options options;
  CLI::App app("Shows a picture, or two and where they differ, in a window or in the terminal.");
  start_command_line(app, options.verbose);
  app.add_option("--imgtitle", options.title, "Title of the window; -imgtitle is the same");
  app.add_flag("--terminal", options.terminal, "Show a preview in the terminal, open no window");
  app.add_option("--layer", options.layer, "Layer, part or picture of the files that is shown");
  add_number(app, "--exposure", options.exposure, -kMostStops, kMostStops,
             "Exposure to begin with, in stops");
  add_number(app, "--gamma", options.gamma, kLeastGamma, kMostGamma, "Gamma to begin with");
  app.add_option("file", options.names, "One picture or two")->required()->expected(1, 2);
  std::vector<char*> arguments = with_long_dashes(argc, argv);
  parse_command_line(app, int(arguments.size()), arguments.data());
  if (options.layer.size() >= IMG_LAYER_SIZE) refuse_usage("--layer: the name is too long");
  return options;
}
