#!/usr/bin/env bash
# Installs what is needed, builds kavrel and opens kavrel-desk, the assistant window.
# With no phone attached it starts kavrel-devsim with the simulated iPhone first.
#   scripts/desk.sh                          open the window
#   scripts/desk.sh --screenshot FILE [--after SECONDS]
#                                            save the window as a PNG and quit
# Without a display (no DISPLAY or WAYLAND_DISPLAY) the window renders offscreen.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build" >/dev/null
desk="$root/build/tools/desk/kavrel-desk"
devsim="$root/build/tools/devsim/kavrel-devsim"
# The service indicator runs sc, which kavrel's scripts folder provides on Linux.
export PATH="$root/scripts:$PATH"
if [ -z "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -z "${QT_QPA_PLATFORM:-}" ]; then
  export QT_QPA_PLATFORM=offscreen
fi

sim_pid=""
sim_dir=""
stop_sim() {
  if [ -n "$sim_pid" ]; then
    kill "$sim_pid" 2>/dev/null || true
    wait "$sim_pid" 2>/dev/null || true
  fi
  [ -n "$sim_dir" ] && rm -rf "$sim_dir"
  return 0
}
trap stop_sim EXIT
if [ -z "$(idevice_id -l 2>/dev/null || true)" ] && [ -x "$devsim" ]; then
  sim_dir=$(mktemp -d)
  sock="$sim_dir/usbmuxd.sock"
  "$devsim" --socket "$sock" --state "$sim_dir/state" iphone >"$sim_dir/devsim.log" 2>&1 &
  sim_pid=$!
  export USBMUXD_SOCKET_ADDRESS="UNIX:$sock"
  for _ in $(seq 100); do
    "$devsim" ctl --socket "$sock" list >/dev/null 2>&1 && break
    sleep 0.1
  done
  echo "(no device attached: using kavrel-devsim's simulated iPhone at $sock)"
fi

"$desk" "$@"
