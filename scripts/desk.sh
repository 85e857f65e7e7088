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

source "$root/scripts/simulator.sh"
start_simulator "$devsim"

"$desk" "$@"
