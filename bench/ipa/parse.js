// node parse.js NODE_MODULES DIR ROUNDS
// Parses every .ipa in DIR with app-info-parser, one file after another, ROUNDS times,
// and prints the best round's files per second.
'use strict';
const fs = require('fs');
const path = require('path');
const [modules, dir, roundsText] = process.argv.slice(2);
const AppInfoParser = require(path.join(modules, 'app-info-parser'));

async function main() {
  const files = fs.readdirSync(dir).filter((f) => f.endsWith('.ipa')).sort()
    .map((f) => path.join(dir, f));
  if (files.length === 0) throw new Error('no .ipa files in ' + dir);
  let best = 0;
  let iconless = 0;
  for (let round = 0; round < Math.max(1, Number(roundsText) || 1); ++round) {
    const start = process.hrtime.bigint();
    for (const file of files) {
      const info = await new AppInfoParser(file).parse();
      if (!info.CFBundleIdentifier) throw new Error('failed to parse ' + file);
      if (!info.icon) ++iconless;
    }
    const seconds = Number(process.hrtime.bigint() - start) / 1e9;
    best = Math.max(best, files.length / seconds);
  }
  console.log(`app-info-parser: ${files.length} files, best of ${roundsText} rounds: ` +
              `${best.toFixed(1)} files/s` + (iconless ? ` (${iconless} parses without icon)` : ''));
  console.log(`RESULT app-info-parser ${best.toFixed(3)}`);
}

main().catch((e) => { console.error(e); process.exit(1); });
