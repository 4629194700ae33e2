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
scripts/tidy.sh build/clang

say "Thread sanitizer"
scripts/thread_tests.sh

say "Packages"
cmake --preset release
cmake --build --preset release --parallel "$jobs"
LUMORA_CLEAN_ROOT=1 ctest --preset release -R install.packages

say "Shared library"
cmake --preset shared
cmake --build --preset shared --parallel "$jobs"
ctest --preset shared --parallel "$jobs"
