// Conversions per CPU second of the npm package cgbi-to-png on one file, in-process:
// read the file, revert it, write the result (as PngCrush::process does).
//   node cgbi_bench.js MODULE_DIR FILE OUTDIR SECONDS
'use strict';
const fs = require('fs');
const path = require('path');
const [moduleDir, file, outDir, seconds] = process.argv.slice(2);
const revert = require(moduleDir).revert;
const out = path.join(outDir, path.basename(file));

const convert = () => fs.writeFileSync(out, revert(fs.readFileSync(file)));
convert(); // warm-up
// CPU time of the process (user + system, all of node's threads), as the C++ side
// measures: other work on a shared machine does not count against either.
const cpu = () => {
  const u = process.cpuUsage();
  return (u.user + u.system) / 1e6;
};
const limit = Number(seconds);
const start = cpu();
let n = 0;
let elapsed = 0;
do {
  convert();
  ++n;
  elapsed = cpu() - start;
} while (elapsed < limit);
console.log((n / elapsed).toFixed(1));
