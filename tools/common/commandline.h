// Command lines of vel_copy, vel_info and vel_disp. Options are declared with CLI11; what is here are
// strict numbers, and how a command line that asks for help or is wrong ends the process.
#pragma once

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <optional>
#include <string>
#include <string_view>

// Sets what all tools have in common: the name, --version, -v and --verbose. After -- all arguments
// are names.
void start_command_line(CLI::App& app, bool& verbose);

// Parses the arguments. --help and --version print on standard output and end the process with
// status 0, a wrong command line with one line on standard error and status 2.
void parse_command_line(CLI::App& app, int argc, char** argv);

// Reports what CLI11 does not know to be wrong, with status 2.
[[noreturn]] void refuse_usage(const std::string& text);

// The whole text as a number, written as in C without blanks; nothing else is one, nor are
// infinities and "nan".
[[nodiscard]] std::optional<double> parse_number(std::string_view text);
[[nodiscard]] std::optional<int> parse_integer(std::string_view text);

// Options whose value is a number from `least` to `most`.
CLI::Option* add_number(CLI::App& app, const std::string& names, std::optional<float>& value,
                        float least, float most, const std::string& help);
CLI::Option* add_integer(CLI::App& app, const std::string& names, std::optional<int>& value,
                         int least, int most, const std::string& help);
