#!/usr/bin/env bash
# AFC upload throughput to kavrel-devsim through libimobiledevice (8192-byte and 1 MiB
# writes) beside the raw speed of a UNIX socket, in one run.
#   bash bench/afc/run.sh [MEGABYTES] [ROUNDS]     (defaults: 200 MB, best of 3 rounds)
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=$root/build
cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target bench-afc >/dev/null
"$build/bench/afc/bench-afc" "${1:-200}" "${2:-3}"
