#!/usr/bin/env bash
# Sizes of every user app of a simulated device with 200 apps of 300 files each:
#   kavrel sizes        (the library's size job, fresh catalog, so every app is measured)
#   bench-appsizes-bare (the same house-arrest and AFC requests straight through
#                        libimobiledevice)
# Both against the same kavrel-devsim device in the same run, one timed run each after
# an untimed warm-up pass; the wall times are compared as a ratio.
#   bash bench/appsizes/run.sh [BUILD_DIR]     (APPS=N, FILES=N to change the workload)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build}
apps=${APPS:-200}
files=${FILES:-300}
cmake --build "$build" -j2 --target kavrel-cli kavrel-devsim bench-appsizes-bare >/dev/null
kavrel="$build/tools/kavrel/kavrel"
devsim="$build/tools/devsim/kavrel-devsim"
bare="$build/bench/appsizes/bench-appsizes-bare"

work=$(mktemp -d)
sim_pid=""
cleanup() {
  [ -n "$sim_pid" ] && { kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; }
  rm -rf "$work"
}
trap cleanup EXIT
udid=0123456789abcdef0123456789abcdef01234567
cat >"$work/bench.json" <<JSON
{ "udid": "$udid",
  "generate": { "count": $apps, "prefix": "com.bench.app", "files": $files,
                "fileSize": 2048, "documentsFiles": 20 } }
JSON
sock="$work/usbmuxd.sock"
"$devsim" --socket "$sock" --state "$work/state" "$work/bench.json" >"$work/devsim.log" 2>&1 &
sim_pid=$!
export USBMUXD_SOCKET_ADDRESS="UNIX:$sock"
for _ in $(seq 600); do
  grep -q '^ready' "$work/devsim.log" && break
  sleep 0.1
done
ids=$(seq -f "com.bench.app%.0f" 1 "$apps")

# One untimed pass first, so both timed runs find the device's files in the page cache.
"$bare" "$udid" $ids >/dev/null

now() { date +%s%N; }
t0=$(now)
HOME="$work/home" "$kavrel" sizes --udid "$udid" $ids >"$work/kavrel.out"
t1=$(now)
"$bare" "$udid" $ids >"$work/bare.out"
t2=$(now)

k=$(((t1 - t0) / 1000000))
b=$(((t2 - t1) / 1000000))
echo "device: $apps generated apps of $files files (+20 in Documents), one run each"
echo "kavrel sizes        : $k ms ($(wc -l <"$work/kavrel.out") apps)"
echo "bare libimobiledevice: $b ms ($(grep -vc failed "$work/bare.out") apps)"
awk -v k="$k" -v b="$b" 'BEGIN { printf "ratio kavrel/bare    : %.2f\n", k / b }'
