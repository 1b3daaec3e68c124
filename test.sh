#!/usr/bin/env bash
# Builds the project and runs the whole suite three times, with warnings as
# errors: an optimised GCC build (Release) in build/, an AddressSanitizer +
# UndefinedBehaviorSanitizer build in build-asan/, and a Clang build in
# build-clang/; then a ThreadSanitizer build in build-tsan/ runs the tests
# labelled "threads", and every parser is fuzzed for 15 s (build-fuzz/). Prints
# the wall time of each stage and the total. Last, the Windows builds
# (scripts/windows.sh): x86_64 tested under wine64, i686 under wine32 where
# it is installed. Exits 0 only when all of them pass.
set -euo pipefail
cd "$(dirname "$0")"

# stage NAME COMMAND...: runs one stage and records its wall time.
timings=()
start_all=$SECONDS
stage() {
  local name=$1; shift
  echo "== $name =="
  local start=$SECONDS
  "$@"
  timings+=("$(printf '%-44s %4d:%02d' "$name" $(((SECONDS - start) / 60)) $(((SECONDS - start) % 60)))")
  echo "== $name: $((SECONDS - start)) s =="
}

stage "dependencies" ./scripts/install-deps.sh

jobs=$(nproc)
# run_suite DIR [CMAKE OPTIONS...]; CTEST_LABELS (ctest -L/-LE options)
# narrows the run.
run_suite() {
  local dir=$1; shift
  cmake -S . -B "$dir" -DVEXO_WERROR=ON -DVEXO_DEMO_CA=ON "$@" >/dev/null
  cmake --build "$dir" -j"$jobs"
  # shellcheck disable=SC2086  # CTEST_LABELS holds several options
  (cd "$dir" && ctest --output-on-failure --timeout 300 -j"$jobs" ${CTEST_LABELS:-})
}

normal() {
  run_suite build -DCMAKE_BUILD_TYPE=Release -DVEXO_SANITIZE=OFF -DVEXO_TSAN=OFF
}
sanitizers() (
  export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
  export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
  run_suite build-asan -DCMAKE_BUILD_TYPE=Debug -DVEXO_SANITIZE=ON -DVEXO_TSAN=OFF
)
# Clang also checks the thread rules (-Wthread-safety, which CMakeLists.txt
# turns on for Clang): with warnings as errors, a guarded record read without
# its mutex fails this stage.
clang_build() {
  CC=clang CXX=clang++ run_suite build-clang -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_SANITIZE=OFF -DVEXO_TSAN=OFF
}
threads() (
  export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1"
  # The memory bound of waiting connections is measured in the other builds:
  # ThreadSanitizer's shadow memory would count against it here.
  CTEST_LABELS="-L threads -LE memory_bound" \
    run_suite build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_SANITIZE=OFF -DVEXO_TSAN=ON
)

stage "normal build (GCC, Release)" normal
stage "sanitizer build (ASan + UBSan)" sanitizers
stage "Clang build (RelWithDebInfo)" clang_build
stage "ThreadSanitizer build (the tests with threads)" threads
stage "fuzzing (15 s per target)" ./scripts/fuzz.sh 15

# Windows: the x86_64 build and its tests under wine64; the i686 build, whose
# tests need the 32-bit Wine (wine32), which not every machine can install:
# windows.sh checks for it and says so when they do not run.
windows() {
  JOBS=$jobs ./scripts/windows.sh test x86_64
  JOBS=$jobs ./scripts/windows.sh test i686
}
stage "Windows (mingw-w64 x86_64 and i686, Wine)" windows

echo "== wall time per stage =="
printf '%s\n' "${timings[@]}"
printf '%-44s %4d:%02d\n' "total" $(((SECONDS - start_all) / 60)) $(((SECONDS - start_all) % 60))
echo "test.sh: all builds and the fuzzing passed"
