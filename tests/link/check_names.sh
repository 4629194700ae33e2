#!/bin/bash
# Both libraries define, for other programs, what the public headers declare: no name less and no name more. The
# drivers of further formats are a library of their own.
#   check_names.sh INCLUDE-FOLDER ARCHIVE SHARED-LIBRARY NM C-COMPILER
set -euo pipefail
include=$1 archive=$2 shared=$3 nm=$4 cc=$5

# Functions stand before a parenthesis, variables after extern. Lines of system headers are left out.
declared() {
  for header in "$include"/ka/*.h; do [[ $header == */drivers.h ]] || printf '#include <ka/%s>\n' "${header##*/}"; done |
    "$cc" -std=c11 -E -I "$include" - |
    awk '/^# /{ours = $3 ~ /\/ka\/[a-z]+\.h"$/; next} ours' | tr '\n' ' ' |
    grep -oE '\b(ka|img)_[a-z0-9_]+ *\(|\b__assert *\(|extern [^;(]*\b(ka|img)_[a-z0-9_]+ *[[;]' |
    sed -E 's/ *[[;(]$//; s/.*[ *]//' | sort -u
}
names() { sed -E 's/@.*//' | awk 'NF == 3 && $3 != "LUMORA_3" {print $3}' | sort -u; }

same=0
"$nm" --extern-only --defined-only "$archive" | names | diff <(declared) - || same=1
"$nm" --dynamic --defined-only "$shared" | names | diff <(declared) - || same=1
exit $same
