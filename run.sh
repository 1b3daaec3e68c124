#!/usr/bin/env bash
# Starts the RD service with the simulated Aratek A600 scanner on 127.0.0.1:11100
# (or the next free port), provisioned by the reference Management server.
# Installs what is missing, builds what it runs (the library, the simulated
# devices, vexo-host, vexoctl and vexo-mgmt-server) in build-run/, a folder
# ./test.sh never touches, lays out ./workdir on the first run, starts
# the Management server in the background on https://127.0.0.1:8443/ (registry,
# data and log in ./workdir-mgmt/), registers the simulated scanner there, and
# runs the host, whose first Init leads to a key rotation. Ctrl-C stops both.
#
#   ./run.sh [vexo-host options]   e.g. ./run.sh --mgmt-poll 10
#   ./run.sh --offline             no Management server: a demonstration keystore
set -euo pipefail
cd "$(dirname "$0")"

offline=0
if [ "${1:-}" = "--offline" ]; then
  offline=1
  shift
fi

./scripts/install-deps.sh
build=build-run
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXO_TESTS=OFF -DVEXO_DEMO_CA=ON >/dev/null
cmake --build "$build" -j"$(nproc)" --target Vexo vexo_sim vexo-host vexoctl vexo-mgmt-server

workdir="$PWD/workdir"
scanner="Aratek_A600"
mgmt_dir="$PWD/workdir-mgmt"
mgmt_port=8443
if [ ! -f "$workdir/config.ini" ]; then
  "$build"/vexoctl init-workdir "$workdir" --scanner "$scanner" --mgmt-url "https://127.0.0.1:$mgmt_port/Zelm" \
    --mgmt-ca data/mgmt/ca.crt
fi
# Keep the simulated vendor libraries in step with the build.
cp -f "$build"/RefDll/*.so "$workdir/RefDll/"

# The integrators' test page (web/) on a second local port, from another origin
# than the service; it is stopped together with the host.
web_port=$(python3 -c 'import socket
for p in range(8000, 8100):
    try: socket.create_server(("127.0.0.1", p)).close(); print(p); break
    except OSError: pass')
python3 -m http.server "$web_port" --bind 127.0.0.1 --directory web >/dev/null 2>&1 &
web_pid=$!
echo "Test page: http://127.0.0.1:$web_port/ (open it in a browser and press Scan)"

if [ "$offline" = 1 ]; then
  # The demonstration keystore is bound to the library just built (its digest
  # is part of the key's password), so it is made again after every build.
  "$build"/vexoctl demo-keystore "$workdir" --scanner "$scanner" || echo "warning: no demonstration keystore; captures will answer 999"
  echo "Starting vexo-host in $workdir without a Management server (Ctrl-C stops it)."
  # The host takes this shell's process id; the page server ends with it.
  ( while kill -0 $$ 2>/dev/null; do sleep 1; done; kill "$web_pid" 2>/dev/null ) &
  exec "$build"/vexo-host --workdir "$workdir" --no-mgmt "$@" "$scanner"
fi

# The simulated scanner's serial number: the control file's, else its default.
serial=""
control="$workdir/RefDll/sim_control.ini"
if [ -f "$control" ]; then
  serial=$(sed -n 's/^[[:space:]]*serial[[:space:]]*=[[:space:]]*\([^[:space:];#]*\).*/\1/p' "$control" | tail -n 1)
fi
serial=${serial:-SIM0000001}

mkdir -p "$mgmt_dir"
[ -d "$mgmt_dir/data" ] || cp -R data/mgmt "$mgmt_dir/data"
"$build"/vexo-mgmt-server add-device "$serial" --registry "$mgmt_dir/registry.db" >/dev/null

server_pid=""
host_pid=""
stop_both() {
  trap - EXIT INT TERM
  for pid in $host_pid $server_pid $web_pid; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
}
trap stop_both EXIT
trap 'exit 130' INT TERM

"$build"/vexo-mgmt-server serve --port "$mgmt_port" --tls --data "$mgmt_dir/data" \
  --registry "$mgmt_dir/registry.db" >"$mgmt_dir/server.log" 2>&1 &
server_pid=$!
for _ in $(seq 100); do
  grep -q '^listening on ' "$mgmt_dir/server.log" && break
  if ! kill -0 "$server_pid" 2>/dev/null; then
    echo "run.sh: the Management server did not start (is port $mgmt_port taken?):" >&2
    cat "$mgmt_dir/server.log" >&2
    exit 1
  fi
  sleep 0.1
done
if ! grep -q '^listening on ' "$mgmt_dir/server.log"; then
  echo "run.sh: the Management server does not answer; see $mgmt_dir/server.log" >&2
  exit 1
fi
echo "Management server on https://127.0.0.1:$mgmt_port/ (log: $mgmt_dir/server.log), scanner $serial registered."

echo "Starting vexo-host in $workdir (Ctrl-C stops it and the Management server)."
"$build"/vexo-host --workdir "$workdir" "$@" "$scanner" &
host_pid=$!
wait "$host_pid"
