#!/usr/bin/env bash
# vel_copy.sh [-n PAIRS] [-b FOLDER] [FROM:TO...]: vel_copy beside cat, and beside `gm convert`, `vips copy` and
# `oiiotool`, as far as they are installed, for pairs of formats that both know. FOLDER holds the built programs,
# build/release/bin unless told otherwise. A row has the formats, the program, the CPU time and the size of the file
# of vel_copy in units of the program's. Without pairs: all there are, which takes most of an hour.
set -euo pipefail
export LC_ALL=C OMP_NUM_THREADS=1 VIPS_CONCURRENCY=1

bin=build/release/bin pairs=5
while getopts n:b: option; do
  case $option in
    n) pairs=$OPTARG ;;
    b) bin=$OPTARG ;;
    *) exit 2 ;;
  esac
done
shift $((OPTIND - 1))
bin=$(realpath "$bin")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

# tifu, tif and tifz: TIFF without compression, with PackBits, with Deflate. rgb: SGI.
declare -A extension=([tifu]=tif [tif]=tif [tifz]=tif [rgb]=sgi)
formats=(ppm tifu tif tifz rgb tga bmp hdr jpg png exr webp)
if [[ $# -eq 0 ]]; then
  for from in "${formats[@]}"; do
    for to in "${formats[@]}"; do set -- "$@" "$from:$to"; done
  done
fi

name() { echo "$1.${extension[$1]:-$1}"; }  # of a file of a format

# ours FROM TO, with_gm FROM TO, ...: fills `command`, with the settings that give the same kind of file as vel_copy's.
# Returns 1 for what the program does not know.
ours() {
  command=("$bin/vel_copy" -f "$2" "$(name "$1")" "ours.$(name "$2")")
  [[ $2 != exr ]] || command+=(--half)
  [[ $2 != ppm ]] || command+=(-t rgb)
}
with_gm() {
  local -A settings=([tifu]="-compress None" [tif]="-compress RLE" [tifz]="-compress Zip" [rgb]="-compress RLE"
    [tga]="-compress None -type TrueColorMatte" [bmp]="-compress None" [jpg]="-quality 75" [ppm]="-depth 8"
    [png]="-quality 12" [webp]="-define webp:lossless=true,webp:method=0")
  [[ -v settings[$2] && $1 != hdr && $1 != exr ]] || return 1
  # shellcheck disable=SC2206
  command=(gm convert "$(name "$1")" ${settings[$2]} "theirs.$(name "$2")")
}
with_vips() {
  local -A settings=([ppm]="" [tifu]="[compression=none]" [tif]="[compression=packbits]" [tifz]="[compression=deflate]"
    [hdr]="" [jpg]="[Q=75]" [png]="[compression=1]" [webp]="[lossless,effort=0]")
  [[ -v settings[$2] && $1 != rgb && $1 != tga && $1 != bmp ]] || return 1
  command=(vips copy "$(name "$1")" "theirs.$(name "$2")${settings[$2]}")
}
with_oiiotool() {
  local -A settings=([ppm]="" [tifu]="--compression none" [tif]="--compression packbits" [tifz]="--compression zip"
    [rgb]="--compression rle" [tga]="--ch R,G,B,A=1 --compression none" [bmp]="" [hdr]="" [jpg]="--compression jpeg:75"
    [png]="--attrib png:compressionLevel 1" [exr]="-d half --compression zip" [webp]="--compression lossless")
  # shellcheck disable=SC2206
  command=(oiiotool --threads 1 "$(name "$1")" ${settings[$2]} -o "theirs.$(name "$2")")
}

"$bin/make_scene" "$(name ppm)"
for format in "${formats[@]:1}"; do
  ours ppm "$format"
  "${command[@]}" 2> warnings
  mv "ours.$(name "$format")" "$(name "$format")"
done

# cpu COMMAND... -- COMMAND...: the ratio of their CPU times.
cpu() { "$bin/compare_processes" -n "$pairs" "$@" | awk '$1 == "cpu" { print $2 }'; }
bytes() { stat -c %s "$1"; }

for pair in "$@"; do
  from=${pair%:*} to=${pair#*:}
  ours "$from" "$to"
  mine=("${command[@]}")
  if [[ " ppm tifu tga bmp " == *" $from "* && " ppm tifu tga bmp " == *" $to "* ]]; then
    cat "$(name "$from")" > cat.in
    cat "$(name "$to")" > cat.out
    ratio=$(cpu "${mine[@]}" -- sh -c "cat $(name "$from") > cat.in; cat $(name "$to") > cat.out")
    printf '%-5s %-5s %-9s %6.2f\n' "$from" "$to" cat "$ratio"
  fi
  for program in gm vips oiiotool; do
    type -P "$program" > /dev/null || continue
    "with_$program" "$from" "$to" || continue
    "${command[@]}" > /dev/null 2>&1 || continue
    ratio=$(cpu "${mine[@]}" -- "${command[@]}")
    printf '%-5s %-5s %-9s %6.2f %6.2f\n' "$from" "$to" "$program" "$ratio" \
      "$(awk -v a="$(bytes "ours.$(name "$to")")" -v b="$(bytes "theirs.$(name "$to")")" 'BEGIN { print a / b }')"
    rm "theirs.$(name "$to")"
  done
done
