// node load_trace.mjs [--browser PATH] [--screenshot OUT.png] [--view time|left|sandwich]
//                     [--size WIDTHxHEIGHT] FILE...
//
// Loads each FILE (trace-event JSON or collapsed stacks) in the viewer and prints one line of JSON
// a file: what the viewer holds, as described at Viewer.load. The exit status is 1 if the viewer
// did not know the format of some file, 2 if it could not be asked. --screenshot also saves a
// picture of the last file, as for the manual.

import { parseArgs } from 'node:util';

import { Viewer } from './viewer.mjs';

const usage =
  'usage: load_trace.mjs [--browser PATH] [--screenshot OUT.png] [--view time|left|sandwich] ' +
  '[--size WIDTHxHEIGHT] FILE...';

function readArguments() {
  const { values, positionals } = parseArgs({
    allowPositionals: true,
    options: {
      browser: { type: 'string', default: '/usr/bin/chromium' },
      screenshot: { type: 'string' },
      view: { type: 'string' },
      size: { type: 'string', default: '1280x800' },
    },
  });
  const size = /^(\d+)x(\d+)$/.exec(values.size);
  if (positionals.length === 0 || !size) throw new Error(usage);
  return { ...values, files: positionals, width: Number(size[1]), height: Number(size[2]) };
}

async function main() {
  const { browser, files, screenshot, ...look } = readArguments();
  const viewer = await Viewer.open(browser);
  try {
    let allRecognized = true;
    for (const [i, file] of files.entries()) {
      const isLast = i === files.length - 1;
      const held = await viewer.load(file, { ...look, screenshot: isLast ? screenshot : undefined });
      allRecognized &&= held.recognized;
      console.log(JSON.stringify({ file, ...held }));
    }
    return allRecognized ? 0 : 1;
  } finally {
    await viewer.close();
  }
}

try {
  process.exitCode = await main();
} catch (error) {
  console.error(error.message);
  process.exitCode = 2;
}
