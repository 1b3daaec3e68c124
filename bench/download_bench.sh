#!/usr/bin/env bash
# Times the resumable download of a 20 MB package from the reference
# Management server over HTTPS beside a single curl GET of the same file, and
# prints both times and their ratio (aim: at most 2). A third figure, curl
# fetching the same ranges one after another over one connection, shows how
# much of the time the server spends per range request. The download writes
# its package, package.child and a replaced, flushed dm.conf for every range
# in a folder under TMPDIR (default /tmp): on a busy disk those writes
# dominate, and TMPDIR=/dev/shm shows the time without them. Not a test.
#
# Usage: bench/download_bench.sh [BUILD_DIR] [ROUNDS]   (defaults: build, 3)
# Needs BUILD_DIR/vexo-mgmt-server and BUILD_DIR/download_bench.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${1:-$root/build}" && pwd)
rounds=${2:-3}
work=$(mktemp -d "${TMPDIR:-/tmp}/vexo-download-bench.XXXXXX")
server_pid=
cleanup() {
  if [[ -n $server_pid ]]; then kill "$server_pid" 2>/dev/null || true; wait "$server_pid" 2>/dev/null || true; fi
  rm -rf "$work"
}
trap cleanup EXIT

cd "$work"
mkdir -p data/packages cert
head -c 20971520 /dev/urandom > data/packages/bench.zip
cp "$root/data/mgmt/ca.crt" cert/server.crt
md5=$(md5sum data/packages/bench.zip | cut -d' ' -f1)

"$build/vexo-mgmt-server" serve --port 0 --tls --data data --registry registry.db > server.out 2>&1 &
server_pid=$!
port=
for _ in $(seq 100); do
  port=$(sed -n 's|^listening on https://127\.0\.0\.1:\([0-9]*\)/$|\1|p' server.out)
  [[ -n $port ]] && break
  sleep 0.05
done
[[ -n $port ]] || { echo "server did not start:"; cat server.out; exit 1; }
url="https://127.0.0.1:$port/Zelm/files/packages/bench.zip"

now_ms() { echo $(( $(date +%s%N) / 1000000 )); }
median() { sort -n | awk '{a[NR]=$1} END {print a[int((NR+1)/2)]}'; }

# The ranges of the resumable download, as one curl run (one connection).
size=20971520; last=$((size / 102400))
for i in $(seq 0 "$last"); do
  start=$((i * 102401)); end=$((i == last ? size : start + 102400))
  (( start < size )) || continue
  [[ $i -gt 0 ]] && echo "next"
  printf 'url = "%s"\nrange = "%d-%d"\noutput = "/dev/null"\ninsecure\nsilent\n' "$url" "$start" "$end"
done > ranges.cfg

curl_times=() ; dl_times=() ; range_times=()
for r in $(seq "$rounds"); do
  t0=$(now_ms)
  curl -s -k --fail -o curl.out "$url"
  t1=$(now_ms)
  [[ $(md5sum < curl.out | cut -d' ' -f1) == "$md5" ]] || { echo "curl fetched a different file"; exit 1; }
  curl_times+=($((t1 - t0)))
  t0=$(now_ms)
  "$build/download_bench" "$url" "$md5" > driver.out || { cat driver.out; tail -5 rd.log; exit 1; }
  t1=$(now_ms)
  dl_times+=($((t1 - t0)))
  t0=$(now_ms)
  curl --config ranges.cfg
  t1=$(now_ms)
  range_times+=($((t1 - t0)))
  echo "round $r: curl GET ${curl_times[-1]} ms, resumable download ${dl_times[-1]} ms," \
       "curl with the same ranges ${range_times[-1]} ms"
done
c=$(printf '%s\n' "${curl_times[@]}" | median)
d=$(printf '%s\n' "${dl_times[@]}" | median)
g=$(printf '%s\n' "${range_times[@]}" | median)
echo "20 MB over HTTPS, median of $rounds: curl GET $c ms, resumable download $d ms," \
     "ratio $(awk -v d="$d" -v c="$c" 'BEGIN {printf "%.2f", d / (c > 0 ? c : 1)}') (aim <= 2);" \
     "curl with the same $((last + 1)) ranges $g ms, ratio to it" \
     "$(awk -v d="$d" -v g="$g" 'BEGIN {printf "%.2f", d / (g > 0 ? g : 1)}')"
