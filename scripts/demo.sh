#!/bin/bash
# Builds the tool and an example, renders two pictures that differ a little, compares them and makes
# a picture of the difference.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh
cmake --preset release
cmake --build --preset release --target vel_diff vel_disp render_example

bin=build/release/bin
pictures=build/demo
mkdir -p "$pictures"
"$bin/render_example" "$pictures/scene.ppm"
"$bin/render_example" -m "$pictures/moved.ppm"

# Shows a command, runs it, and shows its exit status.
run() {
  printf '\n$ %s\n' "$*"
  status=0
  "$@" || status=$?
  printf '(exit status %d)\n' "$status"
}
run "$bin/vel_diff" -f -u "$pictures/scene.ppm" "$pictures/moved.ppm" "$pictures/difference.ppm"
[[ $status -eq 1 ]] || exit 1  # the pictures differ

cat << END

In the second picture the yellow sphere has moved. Exit status 1 says that the largest difference of a pixel
reaches 1 percent of what is possible. $pictures/difference.ppm shows where, in false colors, under
a histogram; any viewer for PPM files shows the three pictures. What to do next:

  $bin/vel_disp $pictures/scene.ppm $pictures/moved.ppm
      shows both in a window: space changes between them, d shows the difference, h lists the keys
  $bin/vel_diff -t 50 $pictures/scene.ppm $pictures/moved.ppm
      allows differences below 50 percent: the pictures count as similar, the exit status is 0
  $bin/vel_diff -h
      prints the options; docs/vel_diff.1 is the manual page
  scripts/test.sh
      builds everything and runs all tests
  examples/render_example.cc
      shows how a program writes a picture with the library
END
if [[ -t 1 ]]; then
  printf '\n$ %s\n' "$bin/vel_disp --terminal $pictures/difference.ppm"
  "$bin/vel_disp" --terminal "$pictures/difference.ppm"
fi
