#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz (Clang, ASan + UBSan, build-fuzz/)
# and runs each for SECONDS (default 60): first its saved crashes under
# tests/fuzz/regressions/<target>/ are replayed, then it is fuzzed from a
# scratch copy of tests/fuzz/corpus/<target>/, so the repository is not
# touched. Exits non-zero when a replay or a run finds a fault; the crashing
# input is left in the scratch folder, whose path is printed.
#
# Environment:
#   FUZZ_TARGETS  names to run (default: all)
#   FUZZ_JOBS     targets fuzzed at the same time (default 1)
#   FUZZ_NICE     nice level of the fuzzing processes (default 10)
#   FUZZ_OUT      scratch folder (default: a new folder under ${TMPDIR:-/tmp})
#   FUZZ_MERGE=1  merge what each run found back into tests/fuzz/corpus/
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

seconds=${1:-60}
jobs=${FUZZ_JOBS:-1}
nice_level=${FUZZ_NICE:-10}
# The targets and their longest inputs, one per line: "name max_len".
target_list="$root/tests/fuzz/targets.txt"
all_targets=$(awk '!/^#/ && NF { print $1 }' "$target_list")
targets=${FUZZ_TARGETS:-$all_targets}

max_len_of() {
  awk -v t="$1" '!/^#/ && $1 == t { print $2; found = 1 } END { if (!found) print 4096 }' "$target_list"
}

build=build-fuzz
CC=clang CXX=clang++ cmake -S . -B "$build" -DVEXO_FUZZ=ON -DVEXO_TESTS=OFF -DVEXO_WERROR=ON -DVEXO_DEMO_CA=ON \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target vexo_fuzzers >/dev/null

out=${FUZZ_OUT:-$(mktemp -d "${TMPDIR:-/tmp}/vexo-fuzz-run.XXXXXX")}
mkdir -p "$out"
echo "fuzz.sh: ${seconds} s per target, ${jobs} at a time; output in $out"

export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1:symbolize=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

failed=0

# Replays every saved crash of each target once; all must pass.
for t in $targets; do
  reg="$root/tests/fuzz/regressions/$t"
  if [ -d "$reg" ] && [ -n "$(ls -A "$reg")" ]; then
    if "$build/${t}_fuzz" -runs=1 "$reg"/* >"$out/$t.replay.log" 2>&1; then
      echo "replay $t: $(ls "$reg" | wc -l) regression inputs pass"
    else
      echo "replay $t: FAILED (see $out/$t.replay.log)"
      failed=1
    fi
  fi
done

run_one() {
  local t=$1
  local corpus="$out/corpus/$t" artifacts="$out/artifacts/$t/"
  mkdir -p "$corpus" "$artifacts"
  cp -r "$root/tests/fuzz/corpus/$t/." "$corpus/" 2>/dev/null || true
  local rc=0
  nice -n "$nice_level" "$build/${t}_fuzz" "$corpus" -max_total_time="$seconds" -max_len="$(max_len_of "$t")" \
    -timeout=10 -rss_limit_mb=1536 -print_final_stats=1 -artifact_prefix="$artifacts" \
    >"$out/$t.log" 2>&1 || rc=$?
  local execs cov
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$out/$t.log" | tail -1)
  cov=$(grep -Eo 'cov: [0-9]+ ft: [0-9]+ corp: [0-9]+/[0-9]+[a-zA-Z]*' "$out/$t.log" | tail -1)
  if [ "$rc" -eq 0 ]; then
    echo "fuzz $t: ok, ${execs:-?} executions, ${cov:-no stats}"
  else
    echo "fuzz $t: FAILED (exit $rc), ${execs:-?} executions; log $out/$t.log, input in $artifacts"
  fi
  if [ "${FUZZ_MERGE:-0}" = 1 ]; then
    "$build/${t}_fuzz" -merge=1 -max_len="$(max_len_of "$t")" "$root/tests/fuzz/corpus/$t" "$corpus" \
      >>"$out/$t.merge.log" 2>&1 || true
  fi
  return "$rc"
}

running=0
for t in $targets; do
  run_one "$t" &
  running=$((running + 1))
  if [ "$running" -ge "$jobs" ]; then
    wait -n || failed=1
    running=$((running - 1))
  fi
done
while [ "$running" -gt 0 ]; do
  wait -n || failed=1
  running=$((running - 1))
done

if [ "$failed" -ne 0 ]; then
  echo "fuzz.sh: faults found; output kept in $out"
  exit 1
fi
if [ -z "${FUZZ_OUT:-}" ]; then rm -rf "$out"; fi
echo "fuzz.sh: all targets clean"
