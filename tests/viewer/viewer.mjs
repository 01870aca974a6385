// The viewer in a headless browser: serves speedscope's own release files on loopback, hands it a
// file through the page's file input, as a person would, and reads back what it made of that file
// through its "Export". Nothing here parses a trace: the figures are the viewer's.

import { existsSync } from 'node:fs';
import { readFile } from 'node:fs/promises';
import { createServer } from 'node:http';
import { dirname, extname, join, normalize, sep } from 'node:path';
import { fileURLToPath } from 'node:url';

import { chromium } from 'playwright-core';

const here = dirname(fileURLToPath(import.meta.url));
const releaseFolder = join(here, 'node_modules', 'speedscope', 'dist', 'release');

const mimeTypes = {
  '.html': 'text/html',
  '.js': 'text/javascript',
  '.css': 'text/css',
  '.json': 'application/json',
  '.wasm': 'application/wasm',
};

const browserFlags = [
  '--headless',
  '--no-sandbox',
  '--disable-gpu',
  '--disable-quic',
  '--no-first-run',
  '--no-proxy-server',
  '--disable-background-networking',
  '--disable-component-update',
  '--disable-sync',
  // The flame graph is drawn with WebGL, which without a graphics card needs the software renderer.
  '--enable-unsafe-swiftshader',
  // Whatever the page or the browser asks for beyond loopback finds no address.
  '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1',
];

// A browser page that shows the viewer. Close it with close().
export class Viewer {
  #server;
  #browser;
  #origin;

  static async open(browserPath) {
    if (!existsSync(browserPath)) {
      throw new Error(`no browser at ${browserPath}: install Debian's package chromium`);
    }
    const viewer = new Viewer();
    try {
      viewer.#server = await serve(releaseFolder);
      viewer.#origin = `http://127.0.0.1:${viewer.#server.address().port}`;
      viewer.#browser = await chromium.launch({ executablePath: browserPath, args: browserFlags });
    } catch (error) {
      await viewer.close();
      throw error;
    }
    return viewer;
  }

  async close() {
    await this.#browser?.close();
    this.#server?.close();
  }

  // Loads one file into a fresh page. The result:
  //   recognized  whether the viewer knew the format
  //   format      what it took the file for, in its words
  //   said        what it alerted
  //   warnings    its console warnings, such as ends that fit no open frame
  //   shown       the text of the page's tool bar
  //   profiles    one a thread: name, unit, total, frames (name, count, total, self)
  async load(file, { screenshot, view, width = 1280, height = 800 } = {}) {
    const page = await this.#browser.newPage({ viewport: { width, height }, acceptDownloads: true });
    try {
      const seen = listen(page);
      await page.goto(`${this.#origin}/index.html`);
      await page.setInputFiles('#file', file);
      const exportButton = page.getByText(/Export$/);
      await Promise.race([exportButton.waitFor(), seen.alerted, seen.failed]);
      const loaded = await exportButton.isVisible();
      if (screenshot) await picture(page, screenshot, view);
      const held = loaded ? await exported(page, exportButton) : { profiles: [] };
      return {
        recognized: loaded || !seen.said.some((text) => text.startsWith('Unrecognized')),
        format: seen.format,
        said: seen.said,
        warnings: seen.warnings,
        shown: loaded ? await toolBar(exportButton) : '',
        profiles: held.profiles.map((profile) => summary(profile, held.shared.frames)),
      };
    } finally {
      await page.close();
    }
  }
}

async function serve(folder) {
  if (!existsSync(join(folder, 'index.html'))) {
    throw new Error(`no viewer in ${folder}: run "npm ci" in ${here}`);
  }
  const server = createServer(async (request, response) => {
    const path = normalize(join(folder, new URL(request.url, 'http://loopback').pathname));
    try {
      if (!path.startsWith(folder + sep)) throw new Error('outside the folder');
      const body = await readFile(path);
      const type = mimeTypes[extname(path)] ?? 'application/octet-stream';
      response.writeHead(200, { 'Content-Type': type }).end(body);
    } catch {
      response.writeHead(404).end();
    }
  });
  await new Promise((resolve, reject) => {
    server.once('error', reject).listen(0, '127.0.0.1', resolve);
  });
  return server;
}

// Collects what the page says. `alerted` resolves at the first alert, `failed` rejects when the
// viewer's own code throws.
function listen(page) {
  const seen = { said: [], warnings: [], format: null };
  seen.alerted = new Promise((resolve) => {
    page.on('dialog', async (dialog) => {
      seen.said.push(dialog.message());
      await dialog.dismiss();
      resolve();
    });
  });
  seen.failed = new Promise((_, reject) => {
    page.on('pageerror', reject);
    page.on('console', (message) => {
      const text = message.text();
      const format = /^Importing as (.*)$/.exec(text);
      if (format) seen.format = format[1];
      if (text.startsWith('Failed to load format')) reject(new Error(text));
      if (message.type() === 'warning' && !isAboutDrawing(text)) seen.warnings.push(text);
    });
  });
  seen.failed.catch(() => {});
  return seen;
}

// The software renderer's remarks tell nothing about the file.
function isAboutDrawing(text) {
  return /webgl|GL Driver|swiftshader/i.test(text);
}

// What the viewer saves when a person presses "Export": its whole model.
async function exported(page, exportButton) {
  const [download] = await Promise.all([page.waitForEvent('download'), exportButton.click()]);
  return JSON.parse(await readFile(await download.path(), 'utf8'));
}

async function toolBar(exportButton) {
  return exportButton.evaluate((button) => button.parentElement.parentElement.innerText);
}

async function picture(page, path, view) {
  const labels = { time: 'Time Order', left: 'Left Heavy', sandwich: 'Sandwich' };
  if (view) {
    if (!(view in labels)) throw new Error(`no view "${view}": time, left or sandwich`);
    await page.getByText(labels[view]).click();
  }
  // The graph is drawn in animation frames; the second one after the click holds it.
  await page.evaluate(
    () => new Promise((drawn) => requestAnimationFrame(() => requestAnimationFrame(drawn))),
  );
  await page.screenshot({ path });
}

// Sums up one profile of the viewer's model. A frame's total counts its outermost calls only.
function summary(profile, frameTable) {
  const frames = new Map();
  const stack = [];
  for (const event of profile.events) {
    const name = frameTable[event.frame].name;
    if (event.type === 'O') {
      if (!frames.has(name)) frames.set(name, { name, count: 0, total: 0, self: 0, open: 0 });
      const frame = frames.get(name);
      frame.count += 1;
      frame.open += 1;
      stack.push({ frame, at: event.at, inner: 0 });
      continue;
    }
    const { frame, at, inner } = stack.pop();
    const span = event.at - at;
    frame.open -= 1;
    frame.self += span - inner;
    if (frame.open === 0) frame.total += span;
    if (stack.length > 0) stack.at(-1).inner += span;
  }
  return {
    name: profile.name,
    unit: profile.unit,
    total: profile.endValue - profile.startValue,
    frames: [...frames.values()].map(({ name, count, total, self }) => ({ name, count, total, self })),
  };
}
