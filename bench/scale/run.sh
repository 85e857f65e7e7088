#!/usr/bin/env bash
# Soak and many devices through one DeviceManager against kavrel-devsim.
#   bash bench/scale/run.sh [CYCLES] [REPORTS] [DEVICES] [EVENTS]
#   (defaults: 200 install/uninstall cycles, 500 information reports, 32 devices,
#    500 hot-plug events)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$root/build
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target bench-scale >/dev/null
bench=$build/bench/scale/bench-scale
export HOME=$(mktemp -d) # a catalog of its own
trap 'rm -rf "$HOME"' EXIT

"$bench" soak "${1:-200}" "${2:-500}"
out=$("$bench" many "${3:-32}" "${4:-500}")
echo "$out"
ms() { echo "$out" | awk -v l="$1" -v w="$2" '$2 == l && $3 == w { for (i = 4; i <= NF; i++) if ($i ~ /^ms=/) { sub("ms=", "", $i); print $i } }'; }
awk -v a="$(ms many info)" -v b="$(ms one info)" 'BEGIN { if (b > 0) printf "ratio many/one information: %.2f\n", a / b }'
awk -v a="$(ms many sizes+icons)" -v b="$(ms one sizes+icons)" 'BEGIN { if (b > 0) printf "ratio many/one sizes+icons: %.2f\n", a / b }'
