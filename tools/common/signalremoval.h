// A file that goes away with the process: one that only the viewer needs, or an incomplete picture
// that has a name.
#pragma once

#include <string>

// Until keep_file the file is removed when the process ends, by itself, by a fatal message or by
// a signal other than SIGKILL. There is one such file at a time.
//   Before   signals are held since before the file was made; `path` is shorter than PATH_MAX.
void remove_on_signal(const std::string& path);
void keep_file();
void remove_file_now();
