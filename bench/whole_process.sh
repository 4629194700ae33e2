#!/usr/bin/env bash
# whole_process.sh [FOLDER [FORMAT...]]: what vel_diff costs as a process. FOLDER holds the built
# programs, build/release/bin unless told otherwise. The formats besides PPM are those of the table
# below unless told otherwise. Exits with 1 when a limit is passed.
# Times are compared while other work may slow both: each figure is a median over pairs of runs.
set -euo pipefail
export LC_ALL=C

# How long a pair of pictures may take, in units of floor_ppm on the same pair as P6.
declare -A limits=([tifu]=3 [bmp]=3 [tga]=3 [tif]=6 [rgb]=6 [hdr]=6)

bin=$(realpath "${1:-build/release/bin}")
shift $(($# > 0))
formats=("$@")
[[ $# -gt 0 ]] || formats=(tifu bmp tga tif rgb hdr)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
"$bin/make_pair" .
printf 'P6\n1 1\n255\nabc' | tee one.ppm > two.ppm

# compare ROW PAIRS COMMAND... -- COMMAND...: one row of compare_processes.
compare() {
  local row=$1 pairs=$2
  shift 2
  "$bin/compare_processes" -n "$pairs" "$@" | grep "^$row"
}

failed=0
# judge TEXT VALUE LIMIT DETAILS
judge() {
  printf '%-52s %6.2f  (at most %s)  %s\n' "$1" "$2" "$3" "$4"
  awk -v value="$2" -v limit="$3" 'BEGIN { exit !(value <= limit) }' || failed=1
}

read -r _ ratio details < <(compare cpu 101 \
  "$bin/vel_diff" first.ppm second.ppm -- "$bin/floor_ppm" first.ppm second.ppm)
judge "CPU time, 3840x2160, in units of floor_ppm" "$ratio" 3 "$details"

for format in "${formats[@]}"; do
  for picture in first second; do
    "$bin/write_as" "$format" "$picture.ppm" "$picture.$format"
  done
  read -r _ ratio details < <(compare cpu 101 "$bin/vel_diff" "first.$format" "second.$format" \
    -- "$bin/floor_ppm" first.ppm second.ppm)
  judge "the same as $format" "$ratio" "${limits[$format]}" "$details"
  rm "first.$format" "second.$format"
done

for picture in first second; do
  "$bin/write_as" jpg "$picture.ppm" "$picture.jpg"
done
read -r _ ratio details < <(compare cpu 51 \
  "$bin/vel_diff" first.jpg second.jpg -- "$bin/floor_jpeg" first.jpg second.jpg)
judge "CPU time as jpg, in units of floor_jpeg" "$ratio" 1.2 "$details"

if [[ -x $bin/floor_png ]]; then
  for picture in first second; do
    "$bin/write_as" png "$picture.ppm" "$picture.png"
  done
  read -r _ ratio details < <(compare cpu 51 \
    "$bin/vel_diff" first.png second.png -- "$bin/floor_png" first.png second.png)
  judge "CPU time as png, in units of floor_png" "$ratio" 1.15 "$details"
fi

read -r _ ratio details < <(compare wall 301 "$bin/vel_diff" one.ppm two.ppm -- /bin/true)
judge "time from start to end, 1x1, in units of /bin/true" "$ratio" 3 "$details"

# Pictures are kept whole with -v. A buffer has a header of 120 bytes, and per line a table entry of
# 16 bytes and four planes; the first has room for 114 lines of a histogram.
line=$((16 + 4 * 3840))
buffers=$((2 * (120 + 2160 * line) + 114 * line))
read -r _ _ details < <(compare peak 5 \
  "$bin/vel_diff" -v first.ppm second.ppm -- "$bin/vel_diff" -v first.ppm second.ppm)
peak=${details#(}
peak=${peak%% *}
judge "peak memory beyond buffers and histogram panel, MiB" \
  "$(awk -v peak="$peak" -v buffers="$buffers" 'BEGIN { print (peak * 1024 - buffers) / 1048576 }')" 2 "($peak KiB)"
exit "$failed"
