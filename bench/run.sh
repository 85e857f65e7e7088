#!/usr/bin/env bash
# Every benchmark of the project in one go, then one table of the ratios against
# their peers on this machine. Each benchmark's own output is kept in
# bench/work/logs/<name>.log.
#   bash bench/run.sh            (QUICK=1 for shorter runs: fewer files, cycles, devices)
set -uo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
logs=$root/bench/work/logs
mkdir -p "$logs"
bash "$root/scripts/setup.sh" >/dev/null
bash "$root/scripts/build.sh" "$root/build" >/dev/null || exit 1
quick=${QUICK:-0}

run() { # name command...
  local name=$1
  shift
  echo "== $name: $*" >&2
  if "$@" >"$logs/$name.log" 2>&1; then :; else echo "   failed, see $logs/$name.log" >&2; fi
}

if [ "$quick" = 1 ]; then
  run png bash "$root/bench/png/run.sh" "$root/build" 1
  run ipa bash "$root/bench/ipa/run.sh" 50 1
  run devinfo env RUNS=3 bash "$root/bench/devinfo/run.sh"
  run afc bash "$root/bench/afc/run.sh" 50 1
  run apps bash "$root/bench/apps/run.sh" 50 100
  run appsizes env APPS=50 FILES=50 bash "$root/bench/appsizes/run.sh"
  run scale bash "$root/bench/scale/run.sh" 20 50 8 100
else
  run png bash "$root/bench/png/run.sh"
  run ipa bash "$root/bench/ipa/run.sh"
  run devinfo bash "$root/bench/devinfo/run.sh"
  run afc bash "$root/bench/afc/run.sh"
  run apps bash "$root/bench/apps/run.sh"
  run appsizes bash "$root/bench/appsizes/run.sh"
  run scale bash "$root/bench/scale/run.sh"
fi

# Pulls "<label>: <number>" style values out of a log; empty when the run failed.
pick() { grep -E "$2" "$logs/$1.log" 2>/dev/null | sed -n "${3:-1}p" | grep -oE '[0-9]+(\.[0-9]+)?' | tail -n1; }
row() { printf '| %s | %s | %s | %s |\n' "$1" "$2" "${3:-failed}" "$4"; }

echo
echo "| benchmark | compared with | ratio | goal |"
echo "|---|---|---|---|"
row "PNG conversion, 180x180 (speed-up)" "cgbi-to-png" "$(grep -E '^\| icon180' "$logs/png.log" 2>/dev/null | awk -F'|' '{gsub(/[ x]/,"",$6); print $6}')" ">= 10x"
row "PNG conversion, 1024x1024 (speed-up)" "cgbi-to-png" "$(grep -E '^\| icon1024' "$logs/png.log" 2>/dev/null | awk -F'|' '{gsub(/[ x]/,"",$6); print $6}')" ">= 10x"
row "IPA parsing (speed-up per file)" "app-info-parser" "$(pick ipa '^ratio')" "> 1"
row "device information (time)" "ideviceinfo x3" "$(pick devinfo '^ratio')" "<= 1"
row "install of a large .ipa (time)" "ideviceinstaller -i" "$(pick apps 'ratio' 1)" "<= 1"
row "app list (time)" "ideviceinstaller -l" "$(pick apps 'ratio' 2)" "<= 1"
row "app sizes (time)" "bare house_arrest + AFC loop" "$(pick appsizes '^ratio')" "<= 1.2"
row "information for 32 devices at once (time)" "one device" "$(pick scale '^ratio many/one information')" "report"
row "sizes and icons on 32 devices (time)" "one device" "$(pick scale '^ratio many/one sizes')" "report"
echo
echo "Soak and hot-plug (no peer):"
grep -E '^(RESULT|ratio)' "$logs/scale.log" 2>/dev/null | grep -E 'growth|storm|answered|failures|ratio' || echo "  scale run failed"
echo
echo "AFC upload throughput (kavrel-devsim against a raw socket):"
tail -n 5 "$logs/afc.log" 2>/dev/null
