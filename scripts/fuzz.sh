#!/usr/bin/env bash
# Fuzzes the recording readers and the raw word decoder: builds the libFuzzer harnesses of fuzz/ (the
# fuzz preset: clang, AddressSanitizer and UndefinedBehaviorSanitizer) and runs
# each for the given seconds (default 30) on a scratch copy of its seed corpus.
# A single allocation over 256 MB counts as a failure: what a reader allocates
# must be bounded by the file. Inputs that fail land in build/fuzz/artifacts.
# Exits non-zero on any crash, leak, timeout or out-of-memory.
#
# The seed is fixed (CT_FUZZ_SEED, default 1) and each harness stops after a
# set number of inputs (CT_FUZZ_RUNS=0 lifts that), so that the test command
# tries the same inputs on every run, or a prefix of them on a slow machine,
# and fails only when the code changed. CT_FUZZ_SEED=0 CT_FUZZ_RUNS=0 with a
# longer time explores.
#
#   bash scripts/fuzz.sh [seconds_per_harness]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-30}"
seed="${CT_FUZZ_SEED:-1}"
harnesses=(part_reader file_reader replay raw_decoder)
# About 30 s of each on a 2-core machine.
declare -A runs=([part_reader]=250000 [file_reader]=150000 [replay]=12000 [raw_decoder]=100000)
limit_runs="${CT_FUZZ_RUNS:-1}"

bash scripts/install-deps.sh
export CCACHE_BASEDIR="$PWD"

echo "== fuzz build =="
cmake --preset fuzz >/dev/null
nice -n 10 cmake --build --preset fuzz -j2

build=build/fuzz
artifacts="$build/artifacts"
work="$build/fuzz-work"
rm -rf "$work"
mkdir -p "$artifacts" "$work"
# The harnesses write each input to files; memory is quicker than a disk.
scratch_parent=/tmp
[ -d /dev/shm ] && [ -w /dev/shm ] && scratch_parent=/dev/shm
scratch="$(mktemp -d "$scratch_parent/ct_fuzz.XXXXXX")"
trap 'rm -rf "$scratch"' EXIT
export CT_FUZZ_SCRATCH="$scratch"

failed=()
summary=()
for h in "${harnesses[@]}"; do
  echo "== fuzzing $h for ${seconds}s =="
  corpus="$work/$h"
  mkdir -p "$corpus" "$artifacts/$h"
  cp fuzz/corpus/"$h"/* "$corpus"/
  log="$work/$h.log"
  status=0
  run_limit=()
  [ "$limit_runs" != 0 ] && run_limit=(-runs="${runs[$h]}")
  "$build/fuzz/ct_fuzz_$h" -max_total_time="$seconds" "${run_limit[@]}" -rss_limit_mb=2048 -malloc_limit_mb=256 \
    -max_len=16384 -timeout=30 -seed="$seed" -print_final_stats=1 -artifact_prefix="$artifacts/$h/" \
    "$corpus" >"$log" 2>&1 || status=$?
  executions="$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)"
  summary+=("$(printf '%-12s %12s executions  %s' "$h" "${executions:-?}" "$([ $status -eq 0 ] && echo ok || echo FAILED)")")
  if [ $status -ne 0 ]; then
    failed+=("$h")
    grep -E '^(==[0-9]+==ERROR|SUMMARY|artifact_prefix|Test unit written|.*runtime error)' "$log" | head -20 || true
    echo "(full log: $log)"
  fi
done

echo "== fuzzing summary (${seconds}s per harness) =="
printf '%s\n' "${summary[@]}"
if [ ${#failed[@]} -ne 0 ]; then
  echo "fuzzing failed in: ${failed[*]}; inputs in $artifacts" >&2
  exit 1
fi
