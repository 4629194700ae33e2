// What vel_copy, vel_info and vel_disp share: messages in the form "vel_copy: TEXT", their start and
// their end. vel_diff has messages of its own.
#pragma once

#include <ka/img.h>

#include <string>

// How all of these tools end.
enum { kDone = 0, kFailed = 1, kWrongUsage = 2 };

// Prepares the process; from here on warnings and errors of the library are lines of this tool, on
// standard error or, as always, in the file that KA_LOGFILE names. With `verbose` information
// and progress are shown as well.
void start_tool(const char* name);
void set_verbose();

// The name that start_tool was given.
[[nodiscard]] const char* tool_name();

// Prints a line on standard error, as the message log would show it: it stays one line, and commands
// no terminal.
void report(const std::string& text);
// The same, and ends the process with status 1.
[[noreturn]] void fail(const std::string& text);

// Why an operation on a file has failed: the name, the error, the driver's reason.
[[nodiscard]] std::string failure_text(const img_file& file);

// Writes out what standard output still holds. What is lost there is a failure.
void finish_output();
