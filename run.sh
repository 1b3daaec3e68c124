#!/usr/bin/env bash
# Starts the RD service with the simulated Aratek A600 scanner on 127.0.0.1:11100
# (or the next free port). Installs what is missing, builds, lays out a working
# folder in ./workdir on the first run, and runs the host in the foreground.
set -euo pipefail
cd "$(dirname "$0")"

./scripts/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"

workdir="$PWD/workdir"
scanner="Aratek_A600"
if [ ! -f "$workdir/config.ini" ]; then
  build/vexoctl init-workdir "$workdir" --scanner "$scanner" --mgmt-url "https://127.0.0.1:8443/Zelm" \
    --mgmt-ca data/mgmt/ca.crt
fi
# Keep the simulated vendor libraries in step with the build, and bind the
# demonstration keystore to the library just built (its digest is part of the
# key's password).
cp -f build/RefDll/*.so "$workdir/RefDll/"
build/vexoctl demo-keystore "$workdir" --scanner "$scanner" || echo "warning: no demonstration keystore; captures will answer 999"

# The integrators' test page (web/) on a second local port, from another origin
# than the service; it stops when the host (this shell's process) ends.
web_port=$(python3 -c 'import socket
for p in range(8000, 8100):
    try: socket.create_server(("127.0.0.1", p)).close(); print(p); break
    except OSError: pass')
( python3 -m http.server "$web_port" --bind 127.0.0.1 --directory web >/dev/null 2>&1 & server=$!
  while kill -0 $$ 2>/dev/null; do sleep 1; done; kill "$server" ) &
echo "Test page: http://127.0.0.1:$web_port/ (open it in a browser and press Scan)"
echo "Starting vexo-host in $workdir (Ctrl-C stops it)."
exec build/vexo-host --workdir "$workdir" "$scanner"
