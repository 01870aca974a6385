// node drive_page.mjs [--browser PATH]
//
// Drives a page in a headless browser, as told by lines of JSON on standard input, and answers each
// with a line: {"value": ..} or {"error": ".."}. A line is [action, ...arguments]:
//   open PATH OPTIONS   opens a file or an address of this machine in a fresh page; OPTIONS: width,
//                       height, dark, hash
//   click SELECTOR, press KEY, type TEXT, fill SELECTOR TEXT, select SELECTOR VALUE
//   drag SELECTOR FROM TO    drags the pointer over an element, by shares of its width
//   point SELECTOR X Y WHAT  "click", "double" click, "hover", or "wheel" by as much as a fifth
//                            argument says, at pixels from the element's corner
//   wait EXPRESSION     until it is true in the page
//   ask EXPRESSION      what the expression is in the page
//   screenshot PATH [SELECTOR]
//   seen                errors, console messages and requests that were sent beyond the page since it was opened

import { createInterface } from 'node:readline';
import { parseArgs } from 'node:util';
import { pathToFileURL } from 'node:url';

import { chromium } from 'playwright-core';

const flags = [
  '--headless',
  '--no-sandbox',
  '--disable-gpu',
  '--no-proxy-server',
  '--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1',
];

let browser;
let page;
let seen;

const actions = {
  async open(path, { width = 1280, height = 900, dark = false, hash = '' } = {}) {
    await page?.context().close();
    const context = await browser.newContext({
      viewport: { width, height },
      colorScheme: dark ? 'dark' : 'light',
    });
    page = await context.newPage();
    const address = path.startsWith('http://127.0.0.1:') ? path : pathToFileURL(path).href;
    listen(address);
    await page.goto(address + hash);
    await page.waitForSelector('html[data-ready]', { timeout: 20_000 });
  },
  click: (selector) => page.click(selector, { timeout: 5000 }),
  press: (key) => page.keyboard.press(key),
  type: (text) => page.keyboard.type(text),
  fill: (selector, text) => page.fill(selector, text),
  select: (selector, value) => page.selectOption(selector, value),
  async drag(selector, from, to) {
    await page.locator(selector).scrollIntoViewIfNeeded();
    const box = await page.locator(selector).boundingBox();
    const y = box.y + box.height / 2;
    await page.mouse.move(box.x + from * box.width, y);
    await page.mouse.down();
    await page.mouse.move(box.x + to * box.width, y, { steps: 4 });
    await page.mouse.up();
  },
  async point(selector, x, y, what, by) {
    const box = await page.locator(selector).boundingBox();
    await page.mouse.move(box.x + x, box.y + y);
    if (what === 'click') await page.mouse.click(box.x + x, box.y + y);
    else if (what === 'double') await page.mouse.dblclick(box.x + x, box.y + y);
    else if (what === 'wheel') await page.mouse.wheel(0, by);
  },
  // Not by page.waitForFunction: a page's policy may forbid what that does.
  async wait(expression) {
    const end = Date.now() + 60_000;
    while (!(await page.evaluate(expression))) {
      if (Date.now() > end) throw new Error(`never came true: ${expression}`);
      await page.evaluate(() => new Promise(requestAnimationFrame));
    }
  },
  ask: (expression) => page.evaluate(expression),
  screenshot: (path, selector) =>
    selector ? page.locator(selector).screenshot({ path }) : page.screenshot({ path, fullPage: true }),
  seen: () => seen,
};

function listen(own) {
  seen = { errors: [], messages: [], requests: [] };
  page.on('pageerror', (error) => seen.errors.push(String(error)));
  page.on('dialog', (dialog) => {
    seen.errors.push(`dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  page.on('console', (message) => seen.messages.push(message.text()));
  page.on('requestfinished', (request) => {
    if (!request.url().startsWith(own)) seen.requests.push(request.url());
  });
  // What the page's policy refused was not sent.
  page.on('requestfailed', (request) => {
    if (request.failure().errorText !== 'csp') seen.requests.push(request.url());
  });
}

async function answer(line) {
  const [action, ...given] = JSON.parse(line);
  try {
    const value = await actions[action](...given);
    // What it changed is drawn with the next frame.
    await page.evaluate(() => new Promise(requestAnimationFrame));
    return { value: action === 'ask' || action === 'seen' ? (value ?? null) : null };
  } catch (error) {
    return { error: error.message };
  }
}

const { values } = parseArgs({ options: { browser: { type: 'string', default: '/usr/bin/chromium' } } });
browser = await chromium.launch({ executablePath: values.browser, args: flags });
try {
  for await (const line of createInterface({ input: process.stdin })) {
    process.stdout.write(`${JSON.stringify(await answer(line))}\n`);
  }
} finally {
  await browser.close();
}
