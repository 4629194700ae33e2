// The window, with SDL.
#pragma once

#include "viewer.h"

// Connects to the system's window system. False: there is none, neither X11 nor Wayland.
[[nodiscard]] bool start_windows();

// Shows the viewer until the user leaves.
void run_window(Viewer& viewer);
