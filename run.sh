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

echo "Starting vexo-host in $workdir (Ctrl-C stops it)."
exec build/vexo-host --workdir "$workdir" "$scanner"
