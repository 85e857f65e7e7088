#!/usr/bin/env bash
# IPA parsing benchmark: kavrel's IpaParser::parseIpa against the npm package
# app-info-parser, on the same generated .ipa files, in one run.
#   bash bench/ipa/run.sh [COUNT] [ROUNDS]     (defaults: 200 files, best of 3 rounds)
# Builds bench-ipa into build/, installs app-info-parser with npm into bench/work/ipa/node,
# generates the files into bench/work/ipa/files (kept between runs) and prints the ratio.
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
count=${1:-200}
rounds=${2:-3}
work=$root/bench/work/ipa
build=$root/build

cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target bench-ipa >/dev/null

mkdir -p "$work/node"
if [ ! -d "$work/node/node_modules/app-info-parser" ]; then
  (cd "$work/node" && { [ -f package.json ] || npm init -y >/dev/null; } &&
   npm install --no-audit --no-fund --silent app-info-parser@1.1.6)
fi

files=$work/files
have=0
# A first run has no files folder yet; find would fail on it (and pipefail with it).
[ -d "$files" ] && have=$(find "$files" -maxdepth 1 -name '*.ipa' | wc -l)
if [ "$have" != "$count" ]; then
  rm -rf "$files"
  "$build/bench/ipa/bench-ipa" generate "$files" "$count"
fi

kavrel_out=$("$build/bench/ipa/bench-ipa" parse "$files" "$rounds")
peer_out=$(node "$root/bench/ipa/parse.js" "$work/node/node_modules" "$files" "$rounds")
echo "$kavrel_out" | grep -v '^RESULT'
echo "$peer_out" | grep -v '^RESULT'
ours=$(echo "$kavrel_out" | awk '/^RESULT/ {print $3}')
theirs=$(echo "$peer_out" | awk '/^RESULT/ {print $3}')
awk -v a="$ours" -v b="$theirs" 'BEGIN { printf "ratio: kavrel is %.1fx faster per file\n", a / b }'
