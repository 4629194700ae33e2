// vel_disp shows a picture in a window, or two and where they differ; without a window system in the
// terminal.
#include "options.h"
#include "start.h"
#include "terminal.h"
#include "tool.h"
#include "window.h"

int main(int argc, char** argv) {
  start_tool("vel_disp");
  const Options options = parse_options(argc, argv);
  if (options.verbose) set_verbose();
  start_library();
  if (options.terminal || !start_windows()) {
    show_in_terminal(options);
    return kDone;
  }
  Viewer viewer(options);
  std::string failure;
  if (!viewer.load(failure)) fail(failure);
  run_window(viewer);
  return kDone;
}
