#include "options.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include <ka/img.h>

#include "commandline.h"
#include "formats.h"
#include "tool.h"

namespace {

constexpr float kLeastRatio = 0.001F, kMostRatio = 1000;  // of gamma and aspect

[[noreturn]] void end_with(const std::string& list) {
  std::fputs(list.c_str(), stdout);
  finish_output();
  std::exit(kDone);
}

// As many whole numbers as there is room for, with `separator` between them.
template <std::size_t Count>
bool parse_integers(std::string_view text, char separator, std::array<int, Count>& numbers) {
  for (std::size_t i = 0; i < Count; ++i) {
    const std::size_t length = i + 1 < Count ? text.find(separator) : text.size();
    if (length == std::string_view::npos) return false;
    const auto number = parse_integer(text.substr(0, length));
    if (!number) return false;
    numbers[i] = *number;
    if (i + 1 < Count) text.remove_prefix(length + 1);
  }
  return true;
}

Size parse_size(const std::string& text) {
  std::array<int, 2> n{};
  if (!parse_integers(text, 'x', n) || n[0] < 1 || n[1] < 1) {
    throw CLI::ValidationError("--resize", "\"" + text + "\" is no size such as 640x480");
  }
  return {n[0], n[1]};
}

Window parse_window(const std::string& text) {
  std::array<int, 4> n{};
  if (!parse_integers(text, ',', n) || n[0] < 0 || n[1] < 0 || n[2] < 1 || n[3] < 1) {
    throw CLI::ValidationError("--crop",
                               "\"" + text + "\" is no part of a picture such as 0,0,640,480");
  }
  return {n[0], n[1], {n[2], n[3]}};
}

int parse_format(const std::string& name) {
  if (name == "help") end_with(format_list());
  const int format = ka_img_format_identify(name.c_str());
  if (format < 0 || !is_written(format)) {
    throw CLI::ValidationError("--format", "\"" + name + "\" is no format that is written");
  }
  return format;
}

int parse_type(const std::string& name) {
  if (name == "help") end_with(type_list());
  const int type = type_of(name);
  if (type == IMG_TYPE_COUNT) {
    throw CLI::ValidationError("--type", "\"" + name + "\" is no pixel type");
  }
  return type;
}

// The values are those of the parameter.
float parse_fields(const std::string& text) {
  constexpr std::array<const char*, 3> names = {"odd", "even", "both"};
  for (std::size_t i = 0; i < names.size(); ++i) {
    if (text == names[i]) return float(i + 1);
  }
  throw CLI::ValidationError("--fields", "\"" + text + "\" is not odd, even or both");
}

struct Layers {
  std::string part, layer;

  [[nodiscard]] std::string text() const {
    return part.empty() || layer.empty() ? part + layer : part + "." + layer;
  }
};

void add_options(CLI::App& app, Options& options, Layers& layers) {
  using Text = std::string;
  app.add_option_function<Text>(
      "-f,--format", [&](const Text& text) { options.format = parse_format(text); },
      "Format of the output; \"help\" lists all. Default: the extension of its name");
  app.add_option_function<Text>(
      "-t,--type", [&](const Text& text) { options.type = parse_type(text); },
      "Pixel type of the output; \"help\" lists all. Default: that of the input");
  app.add_flag("-c,--pyramid", options.pyramid, "Add reduced levels (map)");
  app.add_option_function<Text>(
      "-r,--resize", [&](const Text& text) { options.size = parse_size(text); },
      "Filter the picture to the size WxH");
  app.add_option_function<Text>(
      "-x,--crop", [&](const Text& text) { options.window = parse_window(text); },
      "Take the part X,Y,W,H, counted from the top left, before any resizing");
  add_number(app, "-g,--gamma", options.gamma, kLeastRatio, kMostRatio,
             "Gamma in the header (rla, rlb)");
  add_number(app, "--aspect", options.aspect, kLeastRatio, kMostRatio,
             "Aspect of a pixel in the header (exr, pic, rla, rlb)");
  add_number(app, "-q,--quality", options.quality, 1, 100, "Quality, 1 to 100 (jpg, webp)");
  app.add_option_function<Text>(
      "--fields", [&](const Text& text) { options.fields = parse_fields(text); },
      "Fields in the header: odd, even or both (pic)");
  auto* const floats = app.add_flag_callback(
      "--float", [&] { options.as_float = true; }, "Samples of 32 bits (exr)");
  app.add_flag_callback(
         "--half", [&] { options.as_float = false; }, "Samples of 16 bits (exr)")
      ->excludes(floats);
  app.add_option("--layer", layers.layer, "Layer of the input that is read (exr)");
  app.add_option("--part", layers.part, "Part of the input that is read, by name or number (exr)");
  app.add_option("input", options.input, "File that is read; - is standard input")->required();
  app.add_option("output", options.output, "File that is written; - is standard output")
      ->required();
}

int format_of_name(const std::string& name) {
  const char* const dot = std::strrchr(name.c_str(), '.');
  if (!dot || name == "-") refuse_usage(name + ": no extension; -f names the format");
  const int format = ka_img_format_identify(dot + 1);
  if (format < 0 || !is_written(format)) {
    refuse_usage(name + ": \"" + (dot + 1) + "\" is no format that is written; -f names one");
  }
  return format;
}

// Options that the format would not look at.
void check_settings(const Options& options) {
  const struct {
    const char* option;
    Setting setting;
    bool is_given;
  } rows[] = {{"--pyramid", Setting::kPyramid, options.pyramid},
              {"--gamma", Setting::kGamma, options.gamma.has_value()},
              {"--aspect", Setting::kAspect, options.aspect.has_value()},
              {"--quality", Setting::kQuality, options.quality.has_value()},
              {"--fields", Setting::kFields, options.fields.has_value()},
              {"--float", Setting::kFloat, options.as_float == true},
              {"--half", Setting::kFloat, options.as_float == false}};
  for (const auto& row : rows) {
    if (!row.is_given || knows(options.format, row.setting)) continue;
    refuse_usage(std::string(row.option) + ": " + ka_img_format_name(options.format) +
                 " files have no such setting; it is for " + knowing(row.setting));
  }
}

}  // namespace

Options parse_options(int argc, char** argv) {
  CLI::App app("Converts a picture from one file format to another.");
  Options options;
  Layers layers;
  start_command_line(app, options.verbose);
  add_options(app, options, layers);
  parse_command_line(app, argc, argv);
  options.layer = layers.text();
  if (options.layer.size() >= IMG_LAYER_SIZE) refuse_usage("the name of the layer is too long");
  if (options.format < 0) options.format = format_of_name(options.output);
  check_settings(options);
  if (options.type && !ka_img_format_takes(options.format, *options.type)) {
    refuse_usage(std::string(ka_img_format_name(options.format)) +
                 " files have no pixels of type " + type_name(*options.type) + "; they take " +
                 types_of(options.format));
  }
  return options;
}
