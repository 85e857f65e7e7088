#!/usr/bin/env bash
# Installs every Debian package that building, testing and benchmarking kavrel needs.
# Safe to run again: packages already present are left alone and apt is only
# consulted when something is missing.
#   scripts/setup.sh          what the plain and AddressSanitizer builds need
#   scripts/setup.sh --tsan   that plus clang and its sanitizer runtimes (ThreadSanitizer
#                             and libFuzzer builds)
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config clang-format
  qtbase5-dev libqt5sql5-sqlite
  # kavrel-desk: Qt Widgets come with qtbase5-dev; a font so text renders offscreen.
  libqt5widgets5 fonts-dejavu-core
  libimobiledevice-dev libplist-dev libusbmuxd-dev
  libimobiledevice-utils ideviceinstaller libplist-utils usbmuxd
  libzip-dev zipcmp libdeflate-dev zlib1g-dev libssl-dev
  nodejs pngcheck sqlite3 hyperfine python3
)
# The machine's Node.js may come with its own npm; Debian's npm conflicts with it.
command -v npm >/dev/null 2>&1 || PACKAGES+=(npm)
[ "${1:-}" = "--tsan" ] && PACKAGES+=(clang libclang-rt-14-dev)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done

if [ ${#missing[@]} -gt 0 ]; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
