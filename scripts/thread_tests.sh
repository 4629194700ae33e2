#!/bin/bash
# Tests under the thread sanitizer: scripts/thread_tests.sh [threads]. All of them, or the programs that start threads.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# The one of g++ 12 does not start where a newer kernel spreads addresses widely.
as_laid_out=()
if setarch --addr-no-randomize true 2> /dev/null; then as_laid_out=(setarch --addr-no-randomize); fi

probe=$(mktemp -d)
trap 'rm -rf "$probe"' EXIT
g++ -x c++ -fsanitize=thread -o "$probe/starts" - <<< 'int main() {}'
if ! "${as_laid_out[@]}" "$probe/starts"; then
  echo "The thread sanitizer does not start on this machine: its tests are left out." >&2
  exit 0
fi

targets=() label=()
if [[ ${1-} == threads ]]; then
  targets=(--target mem_test msg_test lib_test db_test img_stress_test) label=(--label-regex threads)
fi
cmake --preset tsan
"${as_laid_out[@]}" cmake --build --preset tsan --parallel "$(nproc)" "${targets[@]}"
"${as_laid_out[@]}" ctest --preset tsan --parallel "$(nproc)" "${label[@]}"
