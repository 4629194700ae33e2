#include "commandline.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include <ka/version.h>

#include "printed.h"
#include "tool.h"

namespace {

template <typename T>
std::optional<T> parse_whole(std::string_view text) {
  T value{};
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return value;
}

std::string shortest(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%g", value);
  return text;
}

// CLI11 puts the option's name before the text.
[[noreturn]] void refuse_number(const std::string& names, const std::string& text, double least,
                                double most) {
  throw CLI::ValidationError(
      names, "\"" + text + "\" is no number from " + shortest(least) + " to " + shortest(most));
}

[[noreturn]] void end_with(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  finish_output();
  std::exit(kDone);
}

}  // namespace

void start_command_line(CLI::App& app, bool& verbose) {
  app.name(tool_name());
  app.set_version_flag(
      "--version", std::string(tool_name()) + " " + std::to_string(KA_VERSION_MAJOR) + "." +
                       std::to_string(KA_VERSION_MINOR) + "." + std::to_string(KA_VERSION_PATCH));
  app.add_flag("-v,--verbose", verbose, "Say what is being done");
}

void parse_command_line(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp&) {
    end_with(app.help());
  } catch (const CLI::CallForVersion& version) {
    end_with(version.what() + std::string("\n"));
  } catch (const CLI::ParseError& error) {
    refuse_usage(error.what());
  }
}

void refuse_usage(const std::string& text) {
  report(text + " (try " + tool_name() + " --help)");
  std::exit(kWrongUsage);
}

std::optional<double> parse_number(std::string_view text) {
  const auto value = parse_whole<double>(text);
  return value && std::isfinite(*value) ? value : std::nullopt;
}

std::optional<int> parse_integer(std::string_view text) { return parse_whole<int>(text); }

CLI::Option* add_number(CLI::App& app, const std::string& names, std::optional<float>& value,
                        float least, float most, const std::string& help) {
  const auto set = [=, &value](const std::string& text) {
    const auto number = parse_number(text);
    if (!number || *number < least || *number > most) refuse_number(names, text, least, most);
    value = float(*number);
  };
  return app.add_option_function<std::string>(names, set, help);
}

CLI::Option* add_integer(CLI::App& app, const std::string& names, std::optional<int>& value,
                         int least, int most, const std::string& help) {
  const auto set = [=, &value](const std::string& text) {
    const auto number = parse_integer(text);
    if (!number || *number < least || *number > most) refuse_number(names, text, least, most);
    value = *number;
  };
  return app.add_option_function<std::string>(names, set, help);
}
