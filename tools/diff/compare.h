// The run of vel_diff after its options: reads both pictures, measures, prints, writes.
#pragma once

#include "options.h"

// Compares the two pictures and prints the result. A failure ends the process with a fatal message.
// Returns the exit status: 1 when the maximum difference reaches the threshold, else 0.
int compare(const Options& options);
