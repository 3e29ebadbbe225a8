// The service's web page as people use it, in Chromium. Every test also fails if the page opens a dialog, asks another
// host for anything, violates its own policy, or has an error on the console.

import assert from 'node:assert/strict';
import { readFileSync, mkdtempSync, mkdirSync } from 'node:fs';
import { createServer } from 'node:http';
import { createRequire } from 'node:module';
import { join } from 'node:path';
import { after, before, beforeEach, afterEach, test } from 'node:test';
import { pdf, png, startService, token, wav } from './Service.mjs';

const require = createRequire(import.meta.url);
const { chromium } = require('playwright-core');
const axe = readFileSync(require.resolve('axe-core/axe.min.js'), 'utf8');

/** Where screenshots go, if any are wanted. */
const pictures = process.env.KESTRUNE_SCREENSHOTS;

let service;
let context;
let page;
let problems;

const hostileNames = ['"><img src=x onerror=alert(1)>', "' autofocus onfocus='alert(1)", '<script>alert(1)<|script>.txt',
  'invoice\u202efdp.exe', '\u2066\u2067mixed\u2069', '&lt;b&gt;', 'a%2Fb?contents#x', 'javascript:alert(1)', '${1}{{2}}',
  'n'.repeat(255), '... ', 'שלום.txt', '資料 🎉.txt'];

function fill() {
  const documents = 'Documents/';
  service.write(documents + 'Reports/2026/Q3.txt', 'third quarter\n');
  service.write(documents + 'picture.png', png(640, 360));
  service.write(documents + 'tone.wav', wav(3));
  service.copy(new URL('fixtures/clip.webm', import.meta.url).pathname, documents + 'clip.webm');
  service.write(documents + 'Annual report.pdf', pdf('Hello from PDF'));
  service.write(documents + 'notes.md', '# Notes\n\nWith <b>markup</b> & "quotes", as it was written.\n'.repeat(20));
  service.write(documents + 'large.log', '2026-11-22 12:00:00 one line of a long log\n'.repeat(9000));
  service.write(documents + 'archive.zip', Buffer.from('PK\x03\x04\0\0\0', 'latin1'));
  service.write(documents + 'empty', '');
  const script = '<script>alert(document.domain)</script>';
  service.write(documents + 'page.html', `<!doctype html>${script}`);
  service.write(documents + 'drawing.svg', `<svg xmlns="http://www.w3.org/2000/svg">${script}</svg>`);
  for (const i of [1, 2, 10]) service.write(`${documents}Chapter ${i}.txt`, 'x'.repeat(1000 * i));
  for (const name of hostileNames) service.write(`Hostile/${name}`, script);
}

async function openBrowser(options = {}) {
  const browser = await chromium.launchPersistentContext(mkdtempSync(join(service.folder, 'browser-')), {
    executablePath: '/usr/bin/chromium',
    viewport: { width: 1100, height: 720 },
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
      '--disable-background-networking', '--disable-component-update', '--disable-sync'],
    ...options,
  });
  return browser;
}

function watch(watched) {
  watched.on('dialog', (dialog) => {
    problems.push(`dialog: ${dialog.message()}`);
    dialog.dismiss();
  });
  watched.on('pageerror', (error) => problems.push(`error: ${error}`));
  watched.on('console', (message) => {
    // Chromium writes a line for each answer that is an error; the tests look at those themselves.
    const isStatus = message.text().startsWith('Failed to load resource: the server responded with a status of 40');
    if (message.type() === 'error' && !isStatus) problems.push(`console: ${message.text()}`);
  });
  watched.on('request', (request) => {
    const { protocol, origin } = new URL(request.url());
    if (protocol.startsWith('http') && origin !== service.origin && !allowedOrigins.has(origin))
      problems.push(`request to ${request.url()}`);
  });
}
const allowedOrigins = new Set();

async function signIn(target = '/open/') {
  await page.goto(service.origin + target);
  await page.getByLabel('Token').fill(token);
  await page.keyboard.press('Enter');
  await page.getByRole('button', { name: 'Sign out' }).waitFor();
}

const names = () => page.locator('tbody th a').evaluateAll((links) => links.map((link) => link.querySelector('bdi').textContent));
const shoot = async (name) => {
  if (!pictures) return;
  mkdirSync(pictures, { recursive: true });
  await page.screenshot({ path: join(pictures, `web-${name}.png`) });
};

async function checkAccessibility() {
  await page.evaluate(axe);
  const found = await page.evaluate(() => axe.run({ iframes: false }));
  assert.deepEqual(found.violations.map((one) => [one.id, one.nodes.map((node) => node.html)]), []);
}

before(async () => {
  service = await startService();
  fill();
});
after(() => service.close());
beforeEach(async () => {
  problems = [];
  allowedOrigins.clear();
  context = await openBrowser();
  page = await context.newPage();
  watch(page);
});
afterEach(async () => {
  await context.close();
  assert.deepEqual(problems, []);
});

test('signs in with the keyboard, and is where it wanted to be', async () => {
  await page.goto(`${service.origin}/open/Documents?sort=size`);
  assert.equal(await page.evaluate(() => document.activeElement.id), 'token');
  await shoot('sign-in');
  await checkAccessibility();
  await page.keyboard.type('wrong');
  await page.keyboard.press('Enter');
  await page.getByRole('alert').waitFor();
  await page.getByLabel('Token').fill(token);
  await page.keyboard.press('Enter');
  await page.getByRole('heading', { name: 'Documents' }).waitFor();
  assert.equal(page.url(), `${service.origin}/open/Documents?sort=size`);
  const [cookie] = await context.cookies(service.origin + '/open/');
  assert.equal(cookie.httpOnly, true);
  assert.equal(cookie.sameSite, 'Strict');
  assert.equal(cookie.path, '/open');
  assert.ok(!cookie.value.includes(token));
  assert.equal(await page.evaluate(() => document.cookie), '');
  assert.deepEqual(await context.cookies(service.origin + '/files'), []);
  await page.getByRole('button', { name: 'Sign out' }).press('Enter');
  await page.getByLabel('Token').waitFor();
  await page.goto(`${service.origin}/open/Documents`);
  await page.getByLabel('Token').waitFor();
});

test('browses folders and comes back by the names above', async () => {
  await signIn();
  await page.getByRole('link', { name: 'Folder Documents' }).click();
  await page.getByRole('link', { name: 'Folder Reports' }).click();
  await page.getByRole('link', { name: 'Folder 2026' }).click();
  await page.getByRole('link', { name: 'Q3.txt' }).click();
  assert.match(await page.locator('pre').textContent(), /third quarter/);
  await page.getByRole('navigation', { name: 'Folders' }).getByRole('link', { name: 'Reports' }).click();
  await page.getByRole('heading', { name: 'Reports' }).waitFor();
  await page.getByRole('link', { name: 'All files' }).click();
  await page.getByRole('heading', { name: 'All files' }).waitFor();
  const missing = await page.goto(`${service.origin}/open/missing`);
  assert.equal(missing.status(), 404);
  await page.getByRole('heading', { name: 'Not found' }).waitFor();
});

test('sorts by keyboard, says so to screen readers, and keeps it in the address', async () => {
  await signIn('/open/Documents');
  assert.deepEqual((await names()).slice(0, 6),
    ['Reports', 'Annual report.pdf', 'archive.zip', 'Chapter 1.txt', 'Chapter 2.txt', 'Chapter 10.txt']);
  await page.keyboard.press('Tab');
  assert.equal(await page.evaluate(() => document.activeElement.textContent), 'Skip to the contents');
  for (let i = 0; i < 20; ++i) {
    await page.keyboard.press('Tab');
    if ((await page.evaluate(() => document.activeElement.textContent)).startsWith('Size')) break;
  }
  await Promise.all([page.waitForNavigation(), page.keyboard.press('Enter')]);
  assert.equal(new URL(page.url()).search, '?sort=size&order=desc');
  assert.equal(await page.getByRole('columnheader', { name: 'Size' }).getAttribute('aria-sort'), 'descending');
  assert.deepEqual((await names()).slice(0, 2), ['Reports', 'large.log']);
  await page.reload();
  assert.deepEqual((await names()).slice(0, 2), ['Reports', 'large.log']);
  await Promise.all([page.waitForNavigation(), page.getByRole('link', { name: 'Size' }).press('Enter')]);
  assert.deepEqual((await names()).slice(0, 2), ['Reports', 'empty']);
  // Going down and up again keeps the order.
  await page.getByRole('link', { name: 'Folder Reports' }).click();
  await page.getByRole('link', { name: 'Documents' }).click();
  assert.equal(new URL(page.url()).search, '?sort=size');
});

test('shows pictures, sound, moving pictures and texts', async () => {
  await signIn('/open/Documents/picture.png');
  const picture = page.getByRole('img', { name: 'picture.png' });
  assert.equal(await picture.evaluate((image) => image.decode().then(() => image.naturalWidth)), 640);
  await checkAccessibility();
  for (const name of ['tone.wav', 'clip.webm']) {
    await page.goto(`${service.origin}/open/Documents/${name}`);
    const media = page.locator('audio, video');
    await media.evaluate((element) => element.readyState >= 1 ||
      new Promise((resolve, reject) => {
        element.onloadedmetadata = resolve;
        element.onerror = () => reject(new Error(element.error.message));
      }));
    await checkAccessibility();
  }
  await page.goto(`${service.origin}/open/Documents/notes.md`);
  assert.match(await page.getByRole('region', { name: 'Text of notes.md' }).textContent(), /With <b>markup<\/b> & "quotes"/);
  await shoot('text');
  await checkAccessibility();
  await page.goto(`${service.origin}/open/Documents/large.log`);
  await page.getByText('Only the beginning is shown: 131 kB of 387 kB').waitFor();
  for (const [name, text] of [['archive.zip', 'are not shown here'], ['empty', 'This file is empty']]) {
    await page.goto(`${service.origin}/open/Documents/${name}`);
    await page.getByText(text).waitFor();
  }
});

test('shows a PDF file in the browser\'s own viewer', async () => {
  await signIn('/open/Documents');
  const bytes = page.waitForResponse((response) => response.url().endsWith('pdf?contents'));
  await page.getByRole('link', { name: 'Annual report.pdf' }).click();
  assert.equal((await bytes).headers()['content-type'], 'application/pdf');
  await assert.doesNotReject(async () => {
    const end = Date.now() + 15_000;
    while (!page.frames().some((frame) => frame.url().startsWith('chrome-extension://'))) {
      if (Date.now() > end) throw new Error('the viewer did not come');
      await page.waitForTimeout(50);
    }
  });
  assert.equal(await page.getByText('does not show PDF files').isVisible(), false);
});

test('seeks in a long sound by byte range', async () => {
  service.write('long.wav', wav(2000));
  await signIn('/open/');
  const ranges = [];
  page.on('response', (response) => {
    if (response.url().endsWith('long.wav?contents')) ranges.push([response.status(), response.headers()['content-range']]);
  });
  await page.getByRole('link', { name: 'long.wav' }).click();
  const seeked = await page.locator('audio').evaluate(async (audio) => {
    if (audio.readyState < 1) await new Promise((resolve) => { audio.onloadedmetadata = resolve; });
    audio.currentTime = 1500;
    await new Promise((resolve) => { audio.onseeked = resolve; });
    return audio.currentTime;
  });
  assert.equal(seeked, 1500);
  assert.ok(ranges.every(([status]) => status === 206), JSON.stringify(ranges));
  assert.ok(ranges.some(([, range]) => Number(/bytes (\d+)/.exec(range)[1]) > 1_000_000), JSON.stringify(ranges));
});

test('downloads a file under its name, bytes and all', async () => {
  await signIn('/open/Documents/Annual%20report.pdf');
  const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('link', { name: 'Download' }).click()]);
  assert.equal(download.suggestedFilename(), 'Annual report.pdf');
  assert.equal(readFileSync(await download.path(), 'utf8'), pdf('Hello from PDF'));
});

test('hostile names and contents run nothing', async () => {
  await signIn('/open/Hostile');
  const count = await page.locator('tbody tr').count();
  assert.equal(count, hostileNames.length);
  assert.equal(await page.locator('tbody img, tbody script, [onfocus], [onerror]').count(), 0);
  assert.ok((await names()).includes('invoice\ufffdfdp.exe'));
  const links = await page.locator('tbody th a').evaluateAll((all) => all.map((link) => link.href));
  for (const link of links) {
    const answer = await page.goto(link);
    assert.equal(answer.status(), 200, link);
    assert.match(await page.locator('pre').textContent(), /<script>/);
  }
  for (const name of ['page.html', 'drawing.svg']) {
    await page.goto(`${service.origin}/open/Documents/${name}`);
    assert.match(await page.locator('pre').textContent(), /alert/);
    for (const view of ['contents', 'download']) {
      const [download] = await Promise.all([page.waitForEvent('download'),
        page.goto(`${service.origin}/open/Documents/${name}?${view}`).catch((error) => assert.match(String(error), /Download/))]);
      assert.equal(download.suggestedFilename(), name);
    }
  }
  // Even as a part of the page they are not taken for a script.
  await page.goto(`${service.origin}/open/`);
  const loaded = await page.evaluate(() => new Promise((resolve) => {
    const element = document.createElement('script');
    element.src = '/open/Documents/notes.md?contents';
    element.onload = () => resolve(true);
    element.onerror = () => resolve(false);
    document.head.append(element);
  }));
  assert.equal(loaded, false);
  problems = problems.filter((problem) => !/Refused to execute script|MIME type/.test(problem));
});

test('is readable in the dark and on a phone', async () => {
  await signIn('/open/Documents');
  await shoot('folder');
  await checkAccessibility();
  const paper = () => page.evaluate(() => getComputedStyle(document.body).backgroundColor);
  assert.equal(await paper(), 'rgb(255, 255, 255)');
  await page.emulateMedia({ colorScheme: 'dark' });
  assert.notEqual(await paper(), 'rgb(255, 255, 255)');
  await shoot('folder-dark');
  await checkAccessibility();
  await page.setViewportSize({ width: 360, height: 740 });
  for (const target of ['/open/', '/open/Documents', '/open/Hostile', '/open/Documents/picture.png', '/open/Documents/notes.md',
    '/open/Documents/clip.webm', '/open/Documents/tone.wav', `/open/Hostile/${'n'.repeat(255)}`, '/open/missing']) {
    await page.goto(service.origin + target);
    assert.ok(await page.evaluate(() => document.documentElement.scrollWidth) <= 360, target);
  }
  await page.goto(`${service.origin}/open/Documents`);
  assert.equal(await page.getByRole('cell').count() > 10, true);
  await page.emulateMedia({ colorScheme: 'light' });
  await shoot('phone');
});

test('works without script', async () => {
  const plain = await openBrowser({ javaScriptEnabled: false });
  try {
    page = await plain.newPage();
    watch(page);
    await signIn('/open/Documents');
    await page.getByRole('link', { name: 'Changed (UTC)' }).click();
    assert.equal(new URL(page.url()).search, '?sort=time&order=desc');
    await page.getByRole('link', { name: 'notes.md' }).click();
    await page.getByText('UTC').waitFor();
    await page.getByRole('button', { name: 'Sign out' }).click();
    await page.getByLabel('Token').waitFor();
  } finally {
    await plain.close();
  }
});

test('who follows a link from another site is not asked again', async () => {
  const other = createServer((request, response) => {
    response.setHeader('Content-Type', 'text/html');
    response.end(`<link rel="icon" href="data:,"><a href="${service.origin}/open/Documents?sort=size">look</a>`);
  });
  await new Promise((resolve) => { other.listen(0, '127.0.0.1', resolve); });
  // To a browser "localhost" and "127.0.0.1" are different sites.
  const site = `http://localhost:${other.address().port}`;
  allowedOrigins.add(site);
  try {
    const answers = [];
    page.on('response', (response) => {
      if (response.url().startsWith(`${service.origin}/open/`)) answers.push(response.status());
    });
    await page.goto(site);
    await page.getByRole('link').click();
    await page.getByLabel('Token').waitFor();
    assert.deepEqual(answers, [200, 403]);
    await page.getByLabel('Token').fill(token);
    await page.keyboard.press('Enter');
    await page.getByRole('heading', { name: 'Documents' }).waitFor();
    answers.length = 0;
    await page.goto(site);
    await page.getByRole('link').click();
    await page.getByRole('heading', { name: 'Documents' }).waitFor();
    assert.deepEqual(answers, [200, 302, 200]);
    assert.equal(page.url(), `${service.origin}/open/Documents?sort=size`);
    await page.goBack();
    assert.equal(new URL(page.url()).origin, site);
  } finally {
    other.close();
  }
});
