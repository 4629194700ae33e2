#!/usr/bin/env bash
# kill_trials.sh [FOLDER [TRIALS [FORMAT]]]: kills vel_diff while it replaces a precious file by a
# difference image, at random moments: half of the trials anywhere in a run, half in its last fifth,
# where the file is put in place. FOLDER holds the built programs, build/release/bin unless told
# otherwise; 400 trials, ppm. The signals take turns. Exits with 1 when a file was neither the old
# picture nor the complete new one, or when anything but SIGKILL left a file behind.
set -euo pipefail
export LC_ALL=C

bin=$(realpath "${1:-build/release/bin}")
trials=${2:-400}
format=${3:-ppm}
signals=(KILL TERM INT HUP QUIT)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
ulimit -c 0
cd "$work"
mkdir in out
"$bin/make_pair" in
printf 'a precious file' > in/old
output=out/difference.$format

# A run without a signal: how long it takes, and what it makes. Exit status 1 says that the pictures differ.
compare() { "$bin/vel_diff" -f in/first.ppm in/second.ppm "$output" > /dev/null || [[ $? -eq 1 ]]; }
compare
cp in/old "$output"
start=$EPOCHREALTIME
compare
length=$((${EPOCHREALTIME/./} - ${start/./}))  # microseconds
mv "$output" in/new

declare -A killed old new damaged left
for signal in "${signals[@]}"; do
  killed[$signal]=0 old[$signal]=0 new[$signal]=0 damaged[$signal]=0 left[$signal]=0
done

count() { local -n counters=$1; counters[$2]=$((counters[$2] + 1)); }

for ((trial = 0; trial < trials; ++trial)); do
  signal=${signals[trial % ${#signals[@]}]}
  from=$((trial / ${#signals[@]} % 2 * length * 4 / 5))
  moment=$((from + SRANDOM % (length - from) + 1))
  printf -v moment '%d.%06d' $((moment / 1000000)) $((moment % 1000000))
  cp in/old "$output"
  status=0
  { timeout --signal="$signal" "$moment" "$bin/vel_diff" -f in/first.ppm in/second.ppm "$output"; } \
    > /dev/null 2>&1 || status=$?
  [[ $status -eq 124 || $status -gt 128 ]] && count killed "$signal"
  if cmp -s in/old "$output"; then
    count old "$signal"
  elif cmp -s in/new "$output"; then
    count new "$signal"
  else
    count damaged "$signal"
  fi
  rm -f "$output"
  [[ -z $(ls -A out) ]] || count left "$signal"
  rm -rf out
  mkdir out
done

printf '%-8s %8s %8s %8s %8s %8s\n' signal killed old new neither leftover
failed=0
for signal in "${signals[@]}"; do
  printf '%-8s %8d %8d %8d %8d %8d\n' "SIG$signal" "${killed[$signal]}" "${old[$signal]}" \
    "${new[$signal]}" "${damaged[$signal]}" "${left[$signal]}"
  [[ ${damaged[$signal]} -eq 0 && ($signal == KILL || ${left[$signal]} -eq 0) ]] || failed=1
done
exit "$failed"
