// vel_info says what image files are: format, size, pixel type, the entries of the header, statistics.
#include <ka/message.h>

#include "commandline.h"
#include "inspect.h"
#include "output.h"
#include "start.h"
#include "tool.h"

namespace {

struct Options {
  bool json = false, statistics = false, verbose = false;
  std::string layer;
  std::vector<std::string> names;
};

Options parse_options(int argc, char** argv) {
  Options options;
  CLI::App app("Says what image files are: format, size, pixel type and what the header holds.");
  start_command_line(app, options.verbose);
  app.add_flag("-j,--json", options.json, "Print one JSON document for all files");
  app.add_flag("-s,--stats", options.statistics,
               "Read all pixels: minimum, maximum and mean of each channel");
  app.add_option("-l,--layer", options.layer, "Open this layer, channel or part of each file");
  app.add_option("file", options.names, "Image files")->required();
  parse_command_line(app, argc, argv);
  if (options.layer.size() >= IMG_LAYER_SIZE) {
    refuse_usage("--layer: a name has up to " + std::to_string(IMG_LAYER_SIZE - 1) + " characters");
  }
  return options;
}

}  // namespace

int main(int argc, char** argv) {
  start_tool("vel_info");
  const Options options = parse_options(argc, argv);
  // The header is listed whole: warnings about what of a file is not read would repeat it.
  ka_set_verbosity(KA_FATAL | KA_ERROR);
  if (options.verbose) set_verbose();
  start_library();
  int status = kDone;
  bool is_first = true;
  std::vector<FileInfo> infos;
  for (const std::string& name : options.names) {
    FileInfo info = inspect(name, options.layer, options.statistics);
    if (!info.error.empty()) {
      if (!options.json) finish_output();  // the message comes after the files before this one
      report(info.error);
      status = kFailed;
    }
    if (options.json) {
      infos.push_back(std::move(info));
    } else {
      print_text(info, is_first);
      is_first = is_first && !info.is_open;
    }
  }
  if (options.json) print_json(infos);
  finish_output();
  return status;
}
