#!/usr/bin/env bash
# Builds the project and runs the whole suite three times, with warnings as
# errors: an optimised GCC build (Release) in build/, an AddressSanitizer +
# UndefinedBehaviorSanitizer build in build-asan/, and a Clang build in
# build-clang/; then a ThreadSanitizer build in build-tsan/ runs the tests that
# involve threads, and every parser is fuzzed for 15 s (build-fuzz/). Exits 0
# only when all of them pass.
set -euo pipefail
cd "$(dirname "$0")"

./scripts/install-deps.sh

jobs=$(nproc)
# run_suite DIR [CMAKE OPTIONS...]; CTEST_FILTER (a -R pattern) and
# CTEST_EXCLUDE (an -E pattern) narrow the run.
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DVEXO_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j"$jobs" ${CTEST_FILTER:+-R "$CTEST_FILTER"} ${CTEST_EXCLUDE:+-E "$CTEST_EXCLUDE"})
}

echo "== normal build (GCC, Release) =="
run_suite build -DCMAKE_BUILD_TYPE=Release -DVEXO_SANITIZE=OFF -DVEXO_TSAN=OFF

echo "== sanitizer build (ASan + UBSan) =="
(
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DVEXO_SANITIZE=ON -DVEXO_TSAN=OFF
)

echo "== Clang build (RelWithDebInfo) =="
CC=clang CXX=clang++ run_suite build-clang -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_SANITIZE=OFF -DVEXO_TSAN=OFF

echo "== ThreadSanitizer build (the tests with threads) =="
(
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
  # The memory bound of waiting connections is measured in the other builds:
  # ThreadSanitizer's shadow memory would count against it here.
  CTEST_FILTER='^(Listener|Dispatch|LogTest|Lock|Tls|CaptureEndToEnd|ManagementEndToEnd|PostAuth|ApiTest)' \
    CTEST_EXCLUDE='^ListenerMemoryTest' run_suite build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_SANITIZE=OFF -DVEXO_TSAN=ON
)

echo "== fuzzing (15 s per target) =="
./scripts/fuzz.sh 15

echo "test.sh: all builds and the fuzzing passed"
