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
demo service check || true
