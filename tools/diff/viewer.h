// The viewer of pictures, a program that is found through PATH.
#pragma once

#include <string>

// Shows a file under a title and waits for the viewer. Both reach it as they are, whatever
// characters they hold; a name that starts with a dash, and would be an option, gets "./" before
// it. What becomes of the viewer is not looked at.
void run_viewer(std::string title, std::string name);
