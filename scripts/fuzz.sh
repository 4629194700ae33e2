#!/bin/bash
# fuzz.sh [SECONDS [TARGET...]]: searches for inputs that break the library. Builds the fuzz targets with clang and runs
# each, or those that are named, for SECONDS (60), JOBS (the number of processors) at a time.
#
#   JOBS=1 scripts/fuzz.sh 600 ppm tif                 # two targets, one after the other
#   RUNS=10000000 nice scripts/fuzz.sh 36000           # each until it has had so many executions, in all runs together
#
# It prints a line per target: executions and seconds of this run, executions of all runs, new seeds, the finding. The
# exit status is 1 when there is a finding. Several may run at once with different targets. All that it leaves is in
# build/fuzz/:
#   findings/TARGET-*     inputs that broke TARGET (crash, leak, more than 10 s or 1 GiB);
#                         build/fuzz/bin/fuzz_TARGET FILE repeats one
#   corpus/TARGET/        inputs learned, minimised after each run; the next run begins with them
#   new/TARGET/           those of them that reach code that no seed in fuzz/corpus reaches
#   logs/TARGET.log       output of the last run; TARGET.merge.log of minimising
#   executions.txt        a line per run: time, commit, target, executions, seconds
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

seconds=${1:-60}
jobs=${JOBS:-$(nproc)}
runs=${RUNS:-0}
for number in "$seconds" "$jobs" "$runs"; do
  if [[ ! $number =~ ^[0-9]{1,12}$ ]]; then
    echo "fuzz.sh: \"$number\" is no number" >&2
    exit 2
  fi
done
shift $(($# > 0))

scripts/setup.sh check
mkdir -p build
(
  flock 9
  cmake --preset fuzz > /dev/null
  cmake --build --preset fuzz --parallel "$(nproc)" --target fuzzers
) 9> build/fuzz.lock
bin=build/fuzz/bin out=build/fuzz history=build/fuzz/executions.txt
targets=("$@")
if [[ $# -eq 0 ]]; then targets=("$bin"/fuzz_*) && targets=("${targets[@]#"$bin"/fuzz_}"); fi
for target in "${targets[@]}"; do
  if [[ ! -x $bin/fuzz_$target ]]; then
    echo "fuzz.sh: there is no target \"$target\"" >&2
    exit 2
  fi
done
mkdir -p "$out"/{findings,corpus,new,logs}
touch "$history"
commit=$(git describe --always --dirty 2> /dev/null || echo unknown)
limits=(-max_len=4096 -timeout=10 -rss_limit_mb=1024)

# The folders of a target's seeds. The whole way of a picture begins with the files of all readers.
seeds() {
  if [[ $1 == whole ]]; then
    find fuzz/corpus -mindepth 1 -maxdepth 1 -type d ! -name text ! -name written
  else
    find fuzz/corpus -mindepth 1 -maxdepth 1 -type d -name "$1"
  fi
}

executions_so_far() { awk -v target="$1" '$3 == target { sum += $4 } END { printf "%d\n", sum }' "$history"; }

# Keeps of corpus/TARGET what it takes to reach the same code as often, and copies what reaches new code to new/TARGET.
minimise() {
  local target=$1 corpus=$out/corpus/$1 smaller=$out/corpus/$1.new reached=$out/new/$1.reached
  shift
  rm -rf "$smaller" "$reached" "$out/new/$target"
  mkdir -p "$smaller" "$reached" "$out/new/$target"
  "$bin/fuzz_$target" "${limits[@]}" -merge=1 "$smaller" "$corpus"
  rm -rf "$corpus"
  mv "$smaller" "$corpus"
  "$bin/fuzz_$target" "${limits[@]}" -merge=1 -use_counters=0 "$reached" "$@"
  find "$reached" -type f -printf '%f\n' | sort > "$out/new/$target.seeds"
  "$bin/fuzz_$target" "${limits[@]}" -merge=1 -use_counters=0 "$reached" "$corpus"
  find "$reached" -type f -printf '%f\n' | sort | comm -13 "$out/new/$target.seeds" - |
    while read -r name; do cp "$reached/$name" "$out/new/$target/"; done
  rm -rf "$reached" "$out/new/$target.seeds"
}

# Runs a target, writes its line to logs/TARGET.result. A status other than 0 is a finding.
fuzz() {
  local target=$1 log=$out/logs/$1.log status=0 spent=$SECONDS before executions folders remaining=-1
  before=$(executions_so_far "$target")
  if ((runs > 0)); then
    if ((before >= runs)); then
      printf '%-9s %12d %7d %12d %5s %s\n' "$target" 0 0 "$before" - "enough" > "$out/logs/$target.result"
      return 0
    fi
    remaining=$((runs - before))
  fi
  mapfile -t folders < <(seeds "$target")
  mkdir -p "$out/corpus/$target"
  "$bin/fuzz_$target" -max_total_time="$seconds" -runs="$remaining" "${limits[@]}" -print_final_stats=1 \
    -artifact_prefix="$out/findings/$target-" "$out/corpus/$target" "${folders[@]}" > "$log" 2>&1 || status=$?
  spent=$((SECONDS - spent))
  executions=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  executions=${executions:-0}
  echo "$(date -u +%FT%TZ) $commit $target $executions $spent" >> "$history"
  local finding="none" added="?"
  if ((status != 0)); then
    finding=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    finding=${finding:-"status $status, see $log"}
  fi
  if minimise "$target" "${folders[@]}" > "$out/logs/$target.merge.log" 2>&1; then
    added=$(find "$out/new/$target" -type f | wc -l)
  fi
  printf '%-9s %12d %7d %12d %5s %s\n' "$target" "$executions" "$spent" "$((before + executions))" "$added" "$finding" \
    > "$out/logs/$target.result"
  return "$status"
}

# Jobs are process groups, so that an interrupted run ends what it started.
set -m
running=()
# shellcheck disable=SC2317  # the trap calls it
stop() {
  trap '' INT TERM
  for group in "${running[@]}"; do kill -- "-$group" 2> /dev/null || true; done
  wait
  exit 130
}
trap stop INT TERM

status=0
for target in "${targets[@]}"; do
  rm -f "$out/logs/$target.result"
  if (($(jobs -rp | wc -l) >= jobs)); then wait -n || status=1; fi
  fuzz "$target" &
  running+=($!)
done
for job in "${running[@]}"; do wait "$job" || status=1; done

printf '%-9s %12s %7s %12s %5s %s\n' target executions seconds total new finding
for target in "${targets[@]}"; do
  cat "$out/logs/$target.result" 2> /dev/null || { echo "$target did not run" && status=1; }
done
exit "$status"
