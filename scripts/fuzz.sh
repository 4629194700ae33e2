#!/usr/bin/env bash
# fuzz.sh [SECONDS]: builds the fuzz targets with clang and runs each for SECONDS (60), one after the
# other. What they learn is kept in build/fuzz/corpus, what breaks one in build/fuzz/findings.
set -euo pipefail

seconds=${1:-60}
cd "$(dirname "$0")/.."
scripts/setup.sh check
cmake --preset fuzz
cmake --build --preset fuzz -j"$(nproc)"
findings=build/fuzz/findings
mkdir -p "$findings"
failed=0
for target in build/fuzz/bin/fuzz_*; do
  family=${target##*/fuzz_}
  learned=build/fuzz/corpus/$family
  mkdir -p "$learned"
  echo "== $family"
  "$target" -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=1024 \
    -print_final_stats=1 -artifact_prefix="$findings/$family-" \
    "$learned" "fuzz/corpus/$family" || failed=1
done
exit "$failed"
