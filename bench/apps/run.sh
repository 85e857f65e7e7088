#!/usr/bin/env bash
# App operations against ideviceinstaller on the same simulated device, in one run:
#   1. installing a generated .ipa (default 200 MB): kavrel install vs ideviceinstaller -i
#   2. listing a device with 500 user apps: kavrel apps vs ideviceinstaller -l (best of 3)
#   bash bench/apps/run.sh [MEGABYTES] [APPS]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$root/build
megabytes=${1:-200}
apps=${2:-500}
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target kavrel-cli kavrel-devsim >/dev/null
kavrel=$build/tools/kavrel/kavrel
devsim=$build/tools/devsim/kavrel-devsim

work=$(mktemp -d)
sim_pid=""
cleanup() {
  [ -n "$sim_pid" ] && kill "$sim_pid" 2>/dev/null && wait "$sim_pid" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

udid=0000000000000000000000000000000000b3c0de
python3 - "$work" "$megabytes" "$apps" "$udid" <<'PY'
import json, os, sys, zipfile
work, megabytes, count, udid = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), sys.argv[4]
info = """<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
<key>CFBundleIdentifier</key><string>com.kavrel.bench</string>
<key>CFBundleName</key><string>Bench</string>
<key>CFBundleExecutable</key><string>Bench</string>
<key>CFBundleVersion</key><string>1.0</string>
</dict></plist>
"""
# Stored (not deflated) incompressible bytes: the upload dominates, as with real apps.
with zipfile.ZipFile(os.path.join(work, "bench.ipa"), "w", zipfile.ZIP_STORED) as z:
    z.writestr("Payload/Bench.app/Info.plist", info)
    with z.open("Payload/Bench.app/Bench", "w", force_zip64=True) as f:
        block = os.urandom(1 << 20)
        for _ in range(megabytes):
            f.write(block)
apps = [{"bundleId": "com.kavrel.bench.app%03d" % i, "name": "Bench App %d" % i,
         "version": "1.%d" % i, "bundleSize": 4096, "documentsSize": 0,
         "signerIdentity": "Apple iPhone OS Application Signing",
         "info": {"CFBundleSupportedPlatforms": ["iPhoneOS"]}} for i in range(count)]
with open(os.path.join(work, "bench.json"), "w") as f:
    json.dump({"udid": udid, "apps": apps}, f)
PY

"$devsim" --socket "$work/mux.sock" --state "$work/state" "$work/bench.json" >"$work/devsim.log" 2>&1 &
sim_pid=$!
export USBMUXD_SOCKET_ADDRESS=UNIX:$work/mux.sock
for _ in $(seq 300); do
  "$devsim" ctl --socket "$work/mux.sock" list >/dev/null 2>&1 && break
  sleep 0.1
done

# Seconds (wall clock) of one command, its output discarded; fails when it fails.
seconds() {
  local start end
  start=$(date +%s.%N)
  "$@" >/dev/null 2>&1
  end=$(date +%s.%N)
  awk "BEGIN { print $end - $start }"
}
best() { # best of 3
  local b="" t
  for _ in 1 2 3; do
    t=$(seconds "$@")
    if [ -z "$b" ] || awk "BEGIN { exit !($t < $b) }"; then b=$t; fi
  done
  echo "$b"
}

echo "Install of a ${megabytes} MB .ipa (each run on a device without the app):"
k_install=$(seconds "$kavrel" install --udid "$udid" --lines "$work/bench.ipa")
"$kavrel" uninstall --udid "$udid" com.kavrel.bench >/dev/null
i_install=$(seconds ideviceinstaller -u "$udid" -i "$work/bench.ipa")
"$kavrel" uninstall --udid "$udid" com.kavrel.bench >/dev/null
printf '  kavrel install          %7.2f s\n' "$k_install"
printf '  ideviceinstaller -i     %7.2f s\n' "$i_install"
printf '  ratio kavrel/peer       %7.2f\n' "$(awk "BEGIN { print $k_install / $i_install }")"

echo "List of $apps user apps (best of 3):"
k_list=$(best "$kavrel" apps --udid "$udid" --user)
i_list=$(best ideviceinstaller -u "$udid" -l)
printf '  kavrel apps --user      %7.3f s\n' "$k_list"
printf '  ideviceinstaller -l     %7.3f s\n' "$i_list"
printf '  ratio kavrel/peer       %7.2f\n' "$(awk "BEGIN { print $k_list / $i_list }")"
