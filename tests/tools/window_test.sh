#!/bin/bash
# vel_disp in a real window of a virtual screen: keys are sent to it and pixels of the screen looked at; and vel_diff -d
# with it. Everything is waited for, so that a slow machine does no harm.
#   window_test.sh FOLDER-OF-THE-TOOLS
set -uo pipefail
tools=$1
for program in Xvfb xdotool import convert; do
  command -v $program > /dev/null || { echo "left out: $program is not installed"; exit 77; }
done
work=$(mktemp -d)
trap 'kill $(jobs -p) 2> /dev/null; wait; rm -rf "$work"' EXIT
cd "$work" || exit 1

fail() {
  echo "$*" >&2
  exit 1
}

# Repeats a command until it succeeds.
wait_for() {
  for ((i = 0; i < 150; ++i)); do
    "$@" > /dev/null 2>&1 && return
    sleep 0.2
  done
  fail "in vain: $*"
}

Xvfb -displayfd 1 -screen 0 1200x800x24 -nolisten tcp -noreset > display 2> log &
wait_for grep -q . display
DISPLAY=:$(head -n 1 display)
export DISPLAY PATH=$tools:$PATH
unset WAYLAND_DISPLAY SDL_VIDEODRIVER

# The color of the middle of the shown picture, which has a line of text below.
has_color() {
  [[ $(import -window "$window" -depth 8 ppm:- | convert - -format '%[hex:p{160,90}]' info:) == "$1" ]]
}
has_title() {
  [[ $(xdotool getwindowname "$window") == "$1" ]]
}
find_window() {
  wait_for xdotool search --onlyvisible --class vel_disp
  window=$(xdotool search --onlyvisible --class vel_disp | head -n 1)
  wait_for xdotool windowfocus --sync "$window"
  xdotool mousemove --window "$window" 160 90
}

ppm() {
  printf 'P6\n300 180\n255\n'
  for ((i = 0; i < 54000; ++i)); do printf '%b' "$1"; done
}
ppm '\0377\0100\0' > a.ppm
ppm '\0377\0100\0200' > b.ppm

vel_disp -imgtitle 'one - two' a.ppm b.ppm &
viewer=$!
find_window
wait_for has_title 'one - two'
wait_for has_color FF4000
while IFS=: read -r keys color; do
  # shellcheck disable=SC2086
  xdotool key $keys
  wait_for has_color "$color"
done << END
space:FF4080
Tab:FF4000
g:404040
a:FFFFFF
c:FF4000
e e:FF8000
0:FF4000
d:817E00
d:FF4000
f plus plus plus:FF4000
END
cp b.ppm new.ppm
mv new.ppm a.ppm  # another file of that name
wait_for has_color FF4080
head -c 1000 b.ppm > a.ppm  # an incomplete one: the old picture stays
sleep 1
has_color FF4080 || fail "an incomplete file is shown"
ppm '\0377\0100\0' > a.ppm
wait_for has_color FF4000
xdotool windowsize "$window" 500 400
wait_for has_color FF4000
xdotool key q
wait $viewer || fail "the viewer ended with status $?"

vel_diff -d -n a.ppm b.ppm > /dev/null &
viewer=$!
find_window
wait_for has_title 'a.ppm - b.ppm'
wait_for has_color 000080
xdotool key Escape
wait $viewer
[[ $? -eq 1 ]] || fail "vel_diff has another status with a viewer"
