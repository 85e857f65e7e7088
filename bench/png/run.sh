#!/usr/bin/env bash
# PNG conversion benchmark, one run: PngCrush, the npm package cgbi-to-png and the
# floor (libdeflate inflate + deflate alone) convert the same 180x180 and 1024x1024
# crushed RGBA icons in-process; then every libdeflate level is measured.
#   bench/png/run.sh [BUILD_DIR] [SECONDS per measurement, default 5]
set -euo pipefail
root=$(cd "$(dirname "$0")/../.." && pwd)
build=${1:-$root/build}
secs=${2:-5}
work=$root/bench/work/png
mkdir -p "$work/in" "$work/out-kavrel" "$work/out-node" "$work/node"

cmake --build "$build" --target bench_png -j2 >/dev/null
bench=$build/bench/png/bench_png
if [ ! -d "$work/node/node_modules/cgbi-to-png" ]; then
  (cd "$work/node" && npm install --no-audit --no-fund --silent --prefix . cgbi-to-png@1.0.7)
fi
module=$work/node/node_modules/cgbi-to-png

"$bench" make "$work/in"
echo "node $(node --version), cgbi-to-png $(node -p "require('$module/package.json').version"), libdeflate $(pkg-config --modversion libdeflate)"
echo
echo "Conversions per CPU second (user + system time of the measuring process)."
echo
echo "| icon | kavrel conv/s | cgbi-to-png conv/s | floor conv/s | kavrel / cgbi-to-png | floor / kavrel |"
echo "|---|---|---|---|---|---|"
for icon in icon180 icon1024; do
  in=$work/in/$icon.png
  k=$("$bench" convert "$in" "$work/out-kavrel" "$secs")
  n=$(node "$root/bench/png/cgbi_bench.js" "$module" "$in" "$work/out-node" "$secs")
  f=$("$bench" floor "$in" "$work/out-kavrel/$icon.png" "$secs")
  awk -v i="$icon" -v k="$k" -v n="$n" -v f="$f" \
    'BEGIN { printf "| %s | %.1f | %.1f | %.1f | %.1fx | %.2fx |\n", i, k, n, f, k / n, f / k }'
done
if command -v pngcheck >/dev/null; then
  echo
  pngcheck "$work/out-kavrel/icon180.png" "$work/out-kavrel/icon1024.png"
fi
echo
echo "Compression levels (libdeflate, zlib-wrapped, converted image data):"
"$bench" levels "$work/out-kavrel/icon180.png" "$work/out-kavrel/icon1024.png"
