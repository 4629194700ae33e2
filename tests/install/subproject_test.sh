#!/bin/bash
# The library inside another project that says nothing of it: optimised, warnings are no errors, no targets but its own.
#   subproject_test.sh CMAKE GENERATOR SOURCE-FOLDER WORK-FOLDER C-COMPILER C++-COMPILER
set -euo pipefail
work=$4/subproject
rm -rf "$work"
"$1" -S "$(dirname "${BASH_SOURCE[0]}")/subproject" -B "$work" -G "$2" -D LUMORA_SOURCE="$3" -D CMAKE_C_COMPILER="$5" \
  -D CMAKE_CXX_COMPILER="$6"
! grep -e -Werror "$work/compile_commands.json" > /dev/null
[[ $(grep '"command".*/lib/libsubst\.cc' "$work/compile_commands.json") == *" -O3 "* ]]
