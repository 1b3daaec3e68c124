#!/usr/bin/env bash
# Builds the project and runs the whole suite twice: a normal build in build/,
# then an AddressSanitizer + UndefinedBehaviorSanitizer build in build-asan/.
# Exits 0 only when both pass.
set -euo pipefail
cd "$(dirname "$0")"

./scripts/install-deps.sh

jobs=$(nproc)
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j"$jobs")
}

echo "== normal build =="
run_suite build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_SANITIZE=OFF

echo "== sanitizer build (ASan + UBSan) =="
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DVEXO_SANITIZE=ON

echo "test.sh: both builds passed"
