#!/bin/bash
# Installs a built tree into a folder of its own, then builds and runs a program against what was installed: in C and in
# C++, with the archive and with the shared library, found by CMake and by pkg-config.
#   install_test.sh CMAKE GENERATOR BUILD-FOLDER WORK-FOLDER C-COMPILER C++-COMPILER
set -euo pipefail
cmake=$1 generator=$2 build=$3 work=$4/work cc=$5 cxx=$6
source=$(dirname "${BASH_SOURCE[0]}")/consumer
prefix=$work/prefix

fail() {
  echo "$*" >&2
  exit 1
}

# Runs one consumer; the library may be a shared one, the picture is also shown to the installed tool.
check() {
  local picture=$work/picture.ppm
  rm -f "$picture"
  "$1" "$picture" || fail "$1 ended with status $?"
  "$prefix/bin/vel_diff" "$picture" "$picture" || fail "the installed vel_diff ended with status $?"
}

rm -rf "$work"
"$cmake" --install "$build" --prefix "$prefix" > /dev/null
for tool in vel_diff vel_copy vel_info vel_disp; do
  [[ $tool != vel_disp || -x $prefix/bin/vel_disp ]] || continue
  [[ -f $prefix/share/man/man1/$tool.1 ]] || fail "the manual page of $tool is not installed"
  [[ -f $prefix/share/bash-completion/completions/$tool ]] || fail "the completion of $tool is not installed"
done
[[ -f $prefix/share/doc/lumora/library.md ]] || fail "the guide is not installed"
[[ ! -e $prefix/include/ka/detail ]] || fail "private headers are installed"
config=$(find "$prefix" -name LumoraConfig.cmake)
pc=$(find "$prefix" -name lumora.pc)
export LD_LIBRARY_PATH=${pc%/pkgconfig/*}${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}

for kind in static shared; do
  for language in C CXX; do
    folder=$work/$kind-$language
    "$cmake" -S "$source" -B "$folder" -G "$generator" -D CONSUMER_LANGUAGE=$language -D CONSUMER_KIND=$kind \
      -D Lumora_DIR="${config%/*}" -D CMAKE_C_COMPILER="$cc" -D CMAKE_CXX_COMPILER="$cxx" --no-warn-unused-cli \
      > "$work/log" || fail "$(cat "$work/log")"
    "$cmake" --build "$folder" > "$work/log" || fail "$(cat "$work/log")"
    check "$folder/consumer"
    [[ ! -x $folder/drivers_consumer ]] || "$folder/drivers_consumer" || fail "the further formats are not registered"
  done
done
! ldd "$work/static-C/consumer" | grep liblumora || fail "the shared library was linked in place of the archive"

command -v pkg-config > /dev/null || { echo "pkg-config is not installed: its half of the test is left out"; exit 0; }
export PKG_CONFIG_PATH=${pc%/*}
read -ra flags <<< "$(pkg-config --cflags --libs lumora)"
"$cc" -std=c11 -Wall -Wextra -Werror -x c "$source/consumer.c" -x none "${flags[@]}" -o "$work/pc_c"
check "$work/pc_c"
"$cxx" -std=c++20 -Wall -Wextra -Werror -x c++ "$source/consumer.c" -x none "${flags[@]}" -o "$work/pc_cxx"
check "$work/pc_cxx"
