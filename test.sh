#!/usr/bin/env bash
# Builds the project and runs the whole suite three times, with warnings as
# errors: an optimised GCC build (Release) in build/, an AddressSanitizer +
# UndefinedBehaviorSanitizer build in build-asan/, and a Clang build in
# build-clang/; then fuzzes every parser for 15 s (build-fuzz/). Exits 0 only
# when all four pass.
set -euo pipefail
cd "$(dirname "$0")"

./scripts/install-deps.sh

jobs=$(nproc)
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DVEXO_WERROR=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j"$jobs")
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

echo "== fuzzing (15 s per target) =="
./scripts/fuzz.sh 15

echo "test.sh: all four stages passed"
