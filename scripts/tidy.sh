#!/bin/bash
# Static analysis: scripts/tidy.sh BUILD-FOLDER [FILES]. Of all sources, or of so many that changed last.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
build=$1

if [[ $# -gt 1 ]]; then
  changed() { git log --max-count=50 --name-only --diff-filter=d --format= -- '*.cc' |
      awk -v most="$1" '!seen[$0]++ && ++count <= most'; }
else
  changed() { git ls-files -- '*.cc'; }
fi
# What no compiler command is known for was left out of this build.
changed "${2-}" | while read -r file; do
  if [[ -f $file ]] && grep -qF "/$file\"" "$build/compile_commands.json"; then printf '%s\0' "$file"; fi
done |
  # It counts the warnings of system headers that it does not show: those lines are noise.
  xargs -0 -r -n1 -P"$(nproc)" clang-tidy-14 -p "$build" --quiet 2>&1 | sed '/^[0-9]* warnings\? generated\.$/d'
