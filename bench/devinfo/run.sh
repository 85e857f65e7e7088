#!/usr/bin/env bash
# Wall time of one full device-information report against the simulated iPhone:
#   kavrel info      (global domain, com.apple.disk_usage, com.apple.mobile.battery,
#                     the afc2 probe and iTunesPrefs.plist over AFC, in one session)
#   ideviceinfo x3   (its default output, i.e. the global domain, then
#                     -q com.apple.disk_usage and -q com.apple.mobile.battery)
# Both run against the same kavrel-devsim device in the same run, alternating, and the
# medians are compared as a ratio.
#   bash bench/devinfo/run.sh [BUILD_DIR]     (RUNS=N to change the repetitions, default 9)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build}
runs=${RUNS:-9}
kavrel="$build/tools/kavrel/kavrel"
devsim="$build/tools/devsim/kavrel-devsim"
for tool in "$kavrel" "$devsim"; do
  [ -x "$tool" ] || { echo "missing $tool: build first (scripts/build.sh $build)" >&2; exit 1; }
done
command -v ideviceinfo >/dev/null || { echo "ideviceinfo is not installed" >&2; exit 1; }

work=$(mktemp -d)
sim_pid=""
cleanup() {
  [ -n "$sim_pid" ] && { kill "$sim_pid" 2>/dev/null || true; wait "$sim_pid" 2>/dev/null || true; }
  rm -rf "$work"
}
trap cleanup EXIT
sock="$work/usbmuxd.sock"
"$devsim" --socket "$sock" --state "$work/state" iphone >"$work/devsim.log" 2>&1 &
sim_pid=$!
export USBMUXD_SOCKET_ADDRESS="UNIX:$sock"
export XDG_RUNTIME_DIR="$work/runtime"
mkdir -m 700 "$XDG_RUNTIME_DIR"
for _ in $(seq 100); do
  "$devsim" ctl --socket "$sock" list >/dev/null 2>&1 && break
  sleep 0.1
done
udid=$("$kavrel" devices | head -n1)
[ -n "$udid" ] || { echo "the simulator did not come up" >&2; exit 1; }

now() { date +%s%N; }
run_kavrel() { "$kavrel" info --udid "$udid" >"$work/kavrel.out"; }
run_ideviceinfo() {
  ideviceinfo -u "$udid" >"$work/ideviceinfo.out"
  ideviceinfo -u "$udid" -q com.apple.disk_usage >>"$work/ideviceinfo.out"
  ideviceinfo -u "$udid" -q com.apple.mobile.battery >>"$work/ideviceinfo.out"
}

# One untimed round each, so both start from warm caches.
run_kavrel
run_ideviceinfo
: >"$work/k.ms"
: >"$work/i.ms"
for _ in $(seq "$runs"); do
  t0=$(now); run_kavrel; t1=$(now)
  echo $(((t1 - t0) / 1000)) >>"$work/k.ms"
  t0=$(now); run_ideviceinfo; t1=$(now)
  echo $(((t1 - t0) / 1000)) >>"$work/i.ms"
done

median() { sort -n "$1" | awk '{a[NR]=$1} END {print (NR % 2) ? a[(NR+1)/2] : (a[NR/2] + a[NR/2+1]) / 2}'; }
k=$(median "$work/k.ms")
i=$(median "$work/i.ms")
echo "device: simulated iPhone $udid, $runs runs each, medians"
awk -v k="$k" -v i="$i" 'BEGIN {
  printf "kavrel info                : %8.1f ms\n", k / 1000
  printf "ideviceinfo (3 invocations): %8.1f ms\n", i / 1000
  printf "ratio kavrel/ideviceinfo   : %8.2f\n", k / i
}'
echo "report sizes: kavrel $(wc -c <"$work/kavrel.out") bytes, ideviceinfo $(wc -c <"$work/ideviceinfo.out") bytes"
