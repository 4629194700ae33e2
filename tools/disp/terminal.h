// The preview in the terminal.
#pragma once

#include "options.h"

// Prints one picture, or two and their difference, in the size of the terminal, with half blocks of
// 24-bit colors. The files are read line by line. A failure is reported and ends the process.
void show_in_terminal(const Options& options);
