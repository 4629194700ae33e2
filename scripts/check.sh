#!/bin/bash
# The checks of a developer, beside scripts/test.sh: formatting, a second compiler with all warnings, static analysis,
# the thread sanitizer, tools with the shared library, the manual page, Debian packages.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh check
jobs=$(nproc)
say() { printf '\n== %s\n' "$*"; }

say "Formatting"
git ls-files -z -- '*.cc' '*.h' '*.c' | xargs -0 clang-format-14 --dry-run -Werror

say "Manual page"
mandoc -Tlint -W warning docs/vel_diff.1

say "clang"
cmake --preset clang
cmake --build --preset clang --parallel "$jobs"
ctest --preset clang --parallel "$jobs"

say "clang-tidy"
# It counts the warnings of system headers that it does not show: those lines are noise.
git ls-files -z -- '*.cc' | xargs -0 -n1 -P"$jobs" clang-tidy-14 -p build/clang --quiet 2>&1 |
  sed '/^[0-9]* warnings\? generated\.$/d'

say "Thread sanitizer"
# The one of g++ 12 does not start where a newer kernel spreads addresses widely.
as_laid_out=()
if setarch --addr-no-randomize true 2> /dev/null; then as_laid_out=(setarch --addr-no-randomize); fi
cmake --preset tsan
"${as_laid_out[@]}" cmake --build --preset tsan --parallel "$jobs"
"${as_laid_out[@]}" ctest --preset tsan --parallel "$jobs"

say "Packages"
cmake --preset release
cmake --build --preset release --parallel "$jobs"
LUMORA_CLEAN_ROOT=1 ctest --preset release -R install.packages

say "Shared library"
cmake --preset shared
cmake --build --preset shared --parallel "$jobs"
ctest --preset shared --parallel "$jobs"
