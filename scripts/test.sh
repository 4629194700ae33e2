#!/bin/bash
# Builds everything and runs all tests: as it is released, and under the address and undefined behaviour sanitizers.
# Then a second compiler, static analysis of the files that changed last, and the tests that start threads under the
# thread sanitizer.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh test
jobs=$(nproc)
for preset in release asan; do
  cmake --preset "$preset"
  cmake --build --preset "$preset" --parallel "$jobs"
  ctest --preset "$preset" --parallel "$jobs"
done

cmake --preset clang -DLUMORA_BENCH=OFF
cmake --build --preset clang --parallel "$jobs"
scripts/tidy.sh build/clang 16
scripts/thread_tests.sh threads
