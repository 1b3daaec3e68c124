#!/usr/bin/env bash
# Installs every Debian package the project builds, runs and tests with,
# including the Windows cross-compilers and Wine. Idempotent: when everything
# is present it only runs dpkg-query and exits.
#
# The 32-bit Wine (wine32) needs the i386 architecture. Some machines cannot
# fetch its package lists; there the script goes on without it and says so,
# the i686 build still happens and only its run under Wine is skipped. Such a
# machine is not asked again for a week (the marker below), unless
# VEXO_RETRY_WINE32=1.
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
  # Windows: mingw-w64 with the posix thread model (the win32 model has no
  # std::thread or std::mutex), the tools its third-party builds run, and Wine.
  gcc-mingw-w64-i686-posix g++-mingw-w64-i686-posix
  gcc-mingw-w64-x86-64-posix g++-mingw-w64-x86-64-posix
  binutils-mingw-w64-i686 binutils-mingw-w64-x86-64
  make perl xz-utils procps
  wine wine64
)

cache_dir="${XDG_CACHE_HOME:-$HOME/.cache}/vexo"
wine32_marker="$cache_dir/wine32-unavailable"

installed() {
  dpkg-query -W -f='${Status}' "$1" 2>/dev/null | grep -q "install ok installed"
}

missing=()
for p in "${packages[@]}"; do
  installed "$p" || missing+=("$p")
done

want_wine32=1
if installed wine32:i386; then
  want_wine32=0
elif [ "${VEXO_RETRY_WINE32:-0}" != 1 ] && [ -f "$wine32_marker" ] &&
     [ -n "$(find "$wine32_marker" -mtime -7 2>/dev/null)" ]; then
  want_wine32=0
  echo "install-deps: wine32 is not installable here (checked $(date -r "$wine32_marker" +%F));" \
       "i686 programs will not run under Wine. VEXO_RETRY_WINE32=1 asks again." >&2
fi

if [ "${#missing[@]}" -eq 0 ] && [ "$want_wine32" -eq 0 ]; then
  exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# wine32: add i386, refresh the lists, install. It only counts when every
# list came through: with the i386 security list missing, wine32's libraries
# cannot match the amd64 ones already installed. Any failure takes an
# architecture this script added back out, so that later updates of the
# machine do not fail on lists it cannot fetch.
install_wine32() {
  local added=0 candidate
  if ! dpkg --print-foreign-architectures | grep -qx i386; then
    $SUDO dpkg --add-architecture i386 || return 1
    added=1
  fi
  if $SUDO apt-get update -qq; then
    candidate=$(apt-cache policy wine32:i386 2>/dev/null | awk '/Candidate:/ {print $2}')
    if [ -n "$candidate" ] && [ "$candidate" != "(none)" ] &&
       $SUDO apt-get install -y -qq --no-install-recommends wine32:i386; then
      return 0
    fi
    echo "install-deps: wine32:i386 cannot be installed from this machine's lists" >&2
  else
    echo "install-deps: the i386 package lists cannot be fetched on this machine" >&2
  fi
  if [ "$added" -eq 1 ]; then
    $SUDO dpkg --remove-architecture i386 || true
    $SUDO apt-get update -qq || true
  fi
  return 1
}

if [ "$want_wine32" -eq 1 ]; then
  if install_wine32; then
    rm -f "$wine32_marker"
    echo "install-deps: wine32 installed; i686 programs run under Wine"
  else
    mkdir -p "$cache_dir"
    : > "$wine32_marker"
    echo "install-deps: going on without wine32: i686 builds still happen, their tests" \
         "under Wine are skipped" >&2
  fi
fi
