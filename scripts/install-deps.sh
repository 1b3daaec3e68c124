#!/usr/bin/env bash
# Installs every Debian package the project builds, runs and tests with.
# Idempotent: when everything is present it only runs dpkg-query and exits.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libssl-dev openssl
  libcurl4-openssl-dev
  libxml2-dev libxml2-utils
  libiniparser-dev
  libjson-c-dev
  libprotobuf-c-dev protobuf-c-compiler
  libopenjp2-7-dev libopenjp2-tools
  libgtest-dev googletest
  curl
  clang libclang-rt-14-dev
  libcpp-httplib-dev libsqlite3-dev
  chromium chromium-driver python3-selenium libnss3-tools
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
