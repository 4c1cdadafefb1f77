// The device's web site in a real browser: a headless Chromium drives the library page and the
// editor of a running virtual device (TAPWRIGHT_BIN), and the effects are read back from disk and
// from the device's event trace.
import { describe, it, before, after } from 'node:test';
import assert from 'node:assert/strict';
import { spawn, execFileSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { chromium } from 'playwright-core';

const BIN = process.env.TAPWRIGHT_BIN;
const TAP = 'touchDown(1, 100, 200)\nusleep(10000)\ntouchUp(1, 100, 200)\n';

let root, library, device, browser, page, base;
const requests = [];
const pageErrors = [];

const tapwright = (...args) =>
  execFileSync(BIN, [...args, '--root', root], { encoding: 'utf8', stdio: ['ignore', 'pipe', 'pipe'], timeout: 30000 });
const onDisk = (libraryPath) => path.join(library, libraryPath);
const row = (libraryPath) => page.locator(`#files tr[data-path="${libraryPath}"]`);
const message = (text) => page.locator('#message', { hasText: text }).waitFor();

// Starts `tapwright device` on the root and resolves once it says it is ready.
function startDevice() {
  const child = spawn(BIN, ['device', '--root', root, '--web-port', '0', '--dav-port', '0',
    '--trace', path.join(root, 'trace.jsonl')], { stdio: ['ignore', 'ignore', 'pipe'] });
  let stderr = '';
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`device not ready after 60 s:\n${stderr}`)), 60000);
    child.stderr.on('data', (chunk) => {
      stderr += chunk;
      if (/ready/.test(stderr)) { clearTimeout(timer); resolve(child); }
    });
    child.on('exit', (code, signal) => {
      clearTimeout(timer);
      reject(new Error(`device ended (${code ?? signal}) before it was ready:\n${stderr}`));
    });
  });
}

before(async () => {
  assert.ok(BIN, 'TAPWRIGHT_BIN names the tapwright executable');
  root = fs.mkdtempSync(path.join(os.tmpdir(), 'tw-site-'));
  library = path.join(root, 'var/mobile/Library/Tapwright/Scripts');
  fs.mkdirSync(path.join(library, 'folder'), { recursive: true });
  fs.writeFileSync(path.join(library, 'tap.lua'), TAP);
  fs.writeFileSync(path.join(library, 'folder/inner.lua'), 'print(1)\n');

  device = await startDevice();
  tapwright('bind', 'LAEventNameLockPress', 'script', '/tap.lua');
  tapwright('timer', 'add', '/tap.lua', '--at', '+3600');
  tapwright('web', 'start');
  base = tapwright('web', 'status').match(/http:\/\/\S+/)?.[0].replace(/\/$/, '');
  assert.ok(base, 'web status names the server URL');

  browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--headless', '--no-sandbox', '--disable-gpu', '--disable-background-networking',
      '--disable-component-update', '--disable-sync'],
  });
  const context = await browser.newContext();
  context.on('request', (request) => requests.push(request.url()));
  page = await context.newPage();
  page.setDefaultTimeout(10000);
  page.on('pageerror', (err) => pageErrors.push(err.message));
}, { timeout: 90000 });

after(async () => {
  await browser?.close();
  if (device && device.exitCode === null) {
    const ended = new Promise((resolve) => device.on('exit', resolve));
    device.kill('SIGINT');
    if (await Promise.race([ended.then(() => true), sleep(15000).then(() => false)]) === false) device.kill('SIGKILL');
  }
  if (root) fs.rmSync(root, { recursive: true, force: true });
});

describe('the library page and the editor', { timeout: 120000 }, () => {
  it('lists folders first with sizes, icons and marks, opens a folder and comes back', async () => {
    await page.goto(base + '/');
    await row('/tap.lua').waitFor();
    const rows = await page.locator('#files tbody tr').evaluateAll((trs) => trs.map((tr) => tr.dataset.path));
    assert.deepEqual(rows, ['/folder', '/tap.lua']);
    assert.equal(await row('/tap.lua').locator('.size').textContent(), `${TAP.length.toFixed(1)}B`);
    assert.equal(await row('/tap.lua').locator('.mark').allTextContents().then((m) => m.join(' ')), 'trigger timer');
    assert.equal(await row('/folder').locator('.mark').count(), 0);
    // The icons come from the site's own folder and load.
    const icon = row('/folder').locator('img');
    assert.match(await icon.getAttribute('src'), /^\/icons\/folder@2x\.png$/);
    await page.waitForFunction((img) => img.complete && img.naturalWidth > 0, await icon.elementHandle());

    await row('/folder').locator('a.name').click();
    await row('/folder/inner.lua').waitFor();
    assert.equal(await page.locator('#crumbs').textContent(), 'Scripts/folder');
    await page.locator('#crumbs a', { hasText: 'Scripts' }).click();
    await row('/tap.lua').waitFor();
  });

  it('makes a script, edits it with highlighting and saves it with Ctrl+S after a leave warning', async () => {
    await page.locator('#new-file').click();
    await page.locator('#ask-name').fill('made.lua');
    await page.locator('#ask-ok').click();
    await message('Created /made.lua.');
    assert.equal(fs.readFileSync(onDisk('made.lua'), 'utf8'), '');
    // A second one of the same name: the device's refusal is shown.
    await page.locator('#new-file').click();
    await page.locator('#ask-name').fill('made.lua');
    await page.locator('#ask-name').press('Enter');
    await message('File already exists.');

    await row('/made.lua').getByRole('button', { name: 'Edit' }).click();
    await page.waitForURL(/\/file\/edit\?path=%2Fmade\.lua$/);
    const source = page.locator('#source');
    assert.equal(await source.inputValue(), '');
    // Leading empty line, a tab, and characters that form encoding and the template must keep.
    await source.focus();
    await page.keyboard.type('\nlocal s = [[a & b\n<c> = 50%+1]] -- é\nif s then');
    await page.keyboard.press('Enter');
    await page.keyboard.press('Tab');
    await page.keyboard.type('print(0x1F) --[==[ x ]==]\nend');
    const text = '\nlocal s = [[a & b\n<c> = 50%+1]] -- é\nif s then\n    print(0x1F) --[==[ x ]==]\nend';
    assert.equal(await source.inputValue(), text);

    const tokens = async (kind) => page.locator(`#highlight .tok-${kind}`).allTextContents();
    assert.deepEqual(await tokens('kw'), ['local', 'if', 'then', 'end']);
    assert.deepEqual(await tokens('str'), ['[[a & b\n<c> = 50%+1]]']);
    assert.deepEqual(await tokens('com'), ['-- é', '--[==[ x ]==]']);
    assert.deepEqual(await tokens('num'), ['0x1F']);
    assert.equal((await page.locator('#gutter').textContent()).split('\n').at(-1), '6');

    // Leaving with unsaved changes asks first; dismissing stays on the page.
    const warned = new Promise((resolve) => page.once('dialog', async (dialog) => {
      resolve(dialog.type());
      await dialog.dismiss();
    }));
    await page.locator('#back').click({ noWaitAfter: true });
    assert.equal(await Promise.race([warned, sleep(5000).then(() => 'no dialog')]), 'beforeunload');
    assert.match(page.url(), /\/file\/edit\?/);

    // The file went away meanwhile: the save is refused, said so, and makes no file.
    fs.rmSync(onDisk('made.lua'));
    await page.keyboard.press('Control+s');
    await page.locator('#save-state', { hasText: 'Not saved: Invalid file path.' }).waitFor();
    assert.ok(!fs.existsSync(onDisk('made.lua')));

    fs.writeFileSync(onDisk('made.lua'), '');
    await page.keyboard.press('Control+s');
    await page.locator('#save-state', { hasText: 'Saved' }).waitFor();
    assert.equal(fs.readFileSync(onDisk('made.lua'), 'utf8'), text);
    await page.reload();
    assert.equal(await page.locator('#source').inputValue(), text);
    assert.ok(await page.locator('#info').isHidden());

    await page.locator('#back').click();
    await row('/made.lua').waitFor();
  });

  it('uploads a file, and shows why a second upload of the same name is refused', async () => {
    const body = Buffer.from('-- uploaded\n' + 'x = 1\n'.repeat(20000));
    await page.setInputFiles('#upload-input', { name: 'up.lua', mimeType: 'text/plain', buffer: body });
    await message('Uploaded up.lua.');
    await row('/up.lua').waitFor();
    assert.ok(fs.readFileSync(onDisk('up.lua')).equals(body));

    await page.setInputFiles('#upload-input', { name: 'up.lua', mimeType: 'text/plain', buffer: Buffer.from('other') });
    await message('File already exists.');
    assert.equal(await page.locator('#message').getAttribute('class'), 'error');
    assert.ok(fs.readFileSync(onDisk('up.lua')).equals(body));
  });

  it('renames, and deletes only once the deletion is confirmed', async () => {
    await row('/up.lua').getByRole('button', { name: 'Rename' }).click();
    await page.locator('#ask-name').fill('moved.lua');
    await page.locator('#ask-ok').click();
    await row('/moved.lua').waitFor();
    assert.equal(await row('/up.lua').count(), 0);
    assert.ok(fs.existsSync(onDisk('moved.lua')) && !fs.existsSync(onDisk('up.lua')));

    await row('/moved.lua').getByRole('button', { name: 'Delete' }).click();
    assert.match(await page.locator('#ask-text').textContent(), /Delete \/moved\.lua\?/);
    await page.locator('#ask-cancel').click();
    assert.ok(fs.existsSync(onDisk('moved.lua')));
    await row('/moved.lua').getByRole('button', { name: 'Delete' }).click();
    await page.locator('#ask-ok').click();
    await row('/moved.lua').waitFor({ state: 'detached' });
    assert.ok(!fs.existsSync(onDisk('moved.lua')));
  });

  it("plays a script, whose taps reach the device's event trace", async () => {
    await row('/tap.lua').getByRole('button', { name: 'Play' }).click();
    await message('Playing /tap.lua.');
    // Finger 1 in the scripted hand events of the trace (whole lines only), until it has lifted.
    const trace = path.join(root, 'trace.jsonl');
    let finger = [];
    for (const end = Date.now() + 20000; !finger.some((c) => c.touch === 0); await sleep(100)) {
      assert.ok(Date.now() < end, 'finger 1 goes down and up in the trace');
      finger = (fs.existsSync(trace) ? fs.readFileSync(trace, 'utf8').split('\n').slice(0, -1) : [])
        .map((line) => JSON.parse(line)).filter((e) => e.kind === 'digitizer' && !e.hardware)
        .flatMap((e) => e.children ?? []).filter((c) => c.index === 1);
    }
    assert.equal(finger[0].touch, 1);
    assert.equal(finger.at(-1).touch, 0);
    // At (100, 200) of the default profile's 750 x 1334 pixel screen.
    assert.deepEqual([Math.round(finger[0].x * 750), Math.round(finger[0].y * 1334)], [100, 200]);
  });

  it('asked nothing of any host but the device, and threw no script error', () => {
    assert.ok(requests.length > 10);
    assert.deepEqual(requests.filter((url) => new URL(url).origin !== new URL(base).origin), []);
    assert.deepEqual(pageErrors, []);
  });
});
