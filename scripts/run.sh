#!/usr/bin/env bash
# Installs what is needed, builds kavrel and runs the kavrel host.
#   scripts/run.sh              a short demonstration of the host's commands
#   scripts/run.sh ARGS...      kavrel ARGS...
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build" >/dev/null
kavrel="$root/build/tools/kavrel/kavrel"
export PATH="$root/scripts:$PATH"

if [ $# -gt 0 ]; then
  exec "$kavrel" "$@"
fi

demo() { echo; echo "\$ kavrel $*"; "$kavrel" "$@"; }

"$kavrel" --help

# Devices: a real one when attached, otherwise the simulated iPhone on a private socket.
devsim="$root/build/tools/devsim/kavrel-devsim"
source "$root/scripts/simulator.sh"
start_simulator "$devsim"

# The service check looks at the same usbmuxd socket the device commands use.
demo service check || true
demo devices || true
demo info --pretty || true

# Installed apps: sizes (measured on the device once, then kept in the catalog) and
# icons, written as PNG files any image viewer opens.
if [ -n "$sim_pid" ]; then
  apps="com.kavrel.sample.notes com.kavrel.sample.weather com.kavrel.sample.chess com.kavrel.sample.maps"
  demo sizes $apps || true
  demo icons --out "$root/build/icons" $apps || true
fi

# App operations on the simulated iPhone: a sample .ipa made here is installed, listed
# with its size, archived to a folder and uninstalled.
if [ -n "$sim_pid" ]; then
  ipa="$sim_dir/KavrelDemo.ipa"
  python3 - "$ipa" <<'PY'
import sys, zipfile
info = """<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>com.kavrel.demo</string>
<key>CFBundleName</key><string>KavrelDemo</string>
<key>CFBundleDisplayName</key><string>Kavrel Demo</string>
<key>CFBundleExecutable</key><string>KavrelDemo</string>
<key>CFBundleVersion</key><string>1.0</string>
<key>MinimumOSVersion</key><string>12.0</string>
</dict></plist>
"""
with zipfile.ZipFile(sys.argv[1], "w", zipfile.ZIP_DEFLATED) as z:
    z.writestr("Payload/KavrelDemo.app/Info.plist", info)
    z.writestr("Payload/KavrelDemo.app/KavrelDemo", b"\x7f" * 65536)
PY
  demo install "$ipa" || true
  demo apps --user --sizes || true
  mkdir -p "$sim_dir/archives"
  demo archive --keep-app com.kavrel.demo "$sim_dir/archives" || true
  ls -l "$sim_dir/archives"
  demo uninstall --lines com.kavrel.demo || true
fi

if [ -n "$sim_pid" ]; then
  # Hot-plug: a second simulated device comes and goes while kavrel watch listens.
  echo
  echo "\$ kavrel watch    (while a simulated iPad is attached and detached)"
  "$kavrel" watch &
  watch_pid=$!
  sleep 1
  udid=$("$devsim" ctl --socket "$sock" attach ipad-jailbroken | sed -n 's/^OK //p')
  sleep 1
  [ -n "$udid" ] && "$devsim" ctl --socket "$sock" detach "$udid" >/dev/null
  sleep 1
  kill -INT "$watch_pid" 2>/dev/null || true
  wait "$watch_pid" 2>/dev/null || true
fi
