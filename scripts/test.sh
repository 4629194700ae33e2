#!/bin/bash
# Builds everything and runs all tests: as it is released, and under the address and undefined behaviour sanitizers.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

scripts/setup.sh test
jobs=$(nproc)
for preset in release asan; do
  cmake --preset "$preset"
  cmake --build --preset "$preset" --parallel "$jobs"
  ctest --preset "$preset" --parallel "$jobs"
done
