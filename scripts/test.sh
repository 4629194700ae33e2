#!/bin/bash
# Builds everything and runs all tests: as it is released, and under the address and undefined behaviour sanitizers. Then
# what finds faults without a test that shows them: a second compiler with all warnings, static analysis of the files
# that changed last, and the thread sanitizer on the tests that start threads.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh test
jobs=$(nproc)
for preset in release asan; do
  cmake --preset "$preset"
  cmake --build --preset "$preset" --parallel "$jobs"
  ctest --preset "$preset" --parallel "$jobs"
done

cmake --preset warnings
cmake --build --preset warnings --parallel "$jobs"
scripts/tidy.sh build/warnings 10
scripts/thread_tests.sh threads
