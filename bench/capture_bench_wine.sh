#!/usr/bin/env bash
# capture_bench on Linux and, in the same run, its x86_64 Windows build under
# wine64; prints both reports one after the other.
# usage: bench/capture_bench_wine.sh [iterations]   (builds: build/ and
#        build-win-x86_64/, from cmake and scripts/windows.sh build x86_64)
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
n=${1:-20}
linux=$repo/build/capture_bench
win=$repo/build-win-x86_64/capture_bench.exe
for f in "$linux" "$win"; do
  [ -x "$f" ] || [ -f "$f" ] || { echo "capture_bench_wine.sh: $f is missing; build it first" >&2; exit 1; }
done
prefix=$repo/build-win-x86_64/wine
wine_env=(WINEPREFIX="$prefix" WINEARCH=win64 WINEDEBUG=-all WINEDLLOVERRIDES=mscoree,mshtml=)
work=$(mktemp -d "${TMPDIR:-/tmp}/capture_bench.XXXXXX")
trap 'env "${wine_env[@]}" wineserver -k 2>/dev/null || true; rm -rf "$work"' EXIT
# The Wine server runs before the measured program, so its start-up is not counted.
env "${wine_env[@]}" wineserver -p
env "${wine_env[@]}" /usr/lib/wine/wine64 cmd /c exit
echo "== Linux ($(uname -m), native)"
(cd "$work" && "$linux" "$n")
echo "== Windows x86_64 under $(/usr/lib/wine/wine64 --version 2>/dev/null || echo wine64)"
(cd "$work" && env "${wine_env[@]}" /usr/lib/wine/wine64 "$win" "$n")
