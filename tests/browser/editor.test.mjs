// Drives the permissions editor as a person would: sign in, open a folder,
// add a rule for a user found by searching, save it recursively and follow
// the progress to the end, cancel another recursive run, and see the
// effective permissions change. Screenshots go to artifacts/.
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import { chromium } from 'playwright-core';

const URL = process.env.KOVA_URL;
const ARTIFACTS = process.env.KOVA_ARTIFACTS;
const FLAGS = ['--headless', '--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
  '--disable-background-networking', '--disable-component-update', '--disable-sync'];
const LONG = { timeout: 120000 };

let profile;
let context;
let page;
const pageErrors = [];

// Each test leaves a screenshot of the page when it fails.
function test(name, fn) {
  nodeTest(name, async (t) => {
    try {
      await fn(t);
    } catch (e) {
      const safe = name.replace(/[^a-z0-9]+/gi, '-').slice(0, 60);
      await shot(`failed-${safe}`).catch(() => {});
      throw e;
    }
  });
}

async function shot(name) {
  await page.screenshot({ path: path.join(ARTIFACTS, `${name}.png`), fullPage: true });
}

// Waits until the browser pane shows the folder given by its names.
// (Polled from here: the page's Content-Security-Policy forbids the eval
// that waitForFunction needs, as it should.)
async function inFolder(names) {
  const want = JSON.stringify(['Shares', ...names]);
  let got = '';
  for (let i = 0; i < 400; ++i) {
    got = JSON.stringify((await page.locator('#crumbs li').allTextContents()).map((t) => t.trim()));
    if (got === want) return;
    await new Promise((r) => setTimeout(r, 50));
  }
  throw new Error(`the browser pane shows ${got}, not ${want}`);
}

async function openPath(...names) {
  await page.getByRole('button', { name: 'Shares', exact: true }).click();
  await inFolder([]);
  const folders = names.slice(0, -1);
  for (let i = 0; i < folders.length; ++i) {
    await page.locator('#entries').getByRole('button', { name: folders[i], exact: true }).click();
    await inFolder(folders.slice(0, i + 1));
  }
  await page.getByRole('button', { name: `Permissions of ${names[names.length - 1]}`, exact: true }).click();
  await page.locator('#perm-path').filter({ hasText: `/${names.join('/')}` }).waitFor();
  await page.locator('#rules-body tr').first().waitFor();
}

// Picks a principal in one of the pickers by typing part of its name.
async function pick(container, typed, optionName) {
  const box = page.locator(`${container} input[type="search"]`);
  await box.fill(typed);
  const option = page.locator(`${container} [role="option"]`, { hasText: optionName }).first();
  await option.waitFor();
  await option.click();
  await page.locator(`${container} .chosen`).filter({ hasText: optionName }).waitFor();
}

async function effective(who, perm) {
  await pick('#inspect-picker', who, `${who} (user)`);
  await page.locator('#inspect-result').evaluate((el) => { el.innerHTML = ''; });
  await page.getByRole('button', { name: 'Show', exact: true }).click();
  const item = page.locator(`#inspect-result li[data-perm="${perm}"]`);
  await item.waitFor();
  return (await item.getAttribute('class')) === 'yes';
}

async function taskText() {
  return (await page.locator('#task-text').textContent()).trim();
}

before(async () => {
  assert.ok(URL, 'KOVA_URL is not set (run through run.sh)');
  fs.mkdirSync(ARTIFACTS, { recursive: true });
  profile = fs.mkdtempSync(path.join(os.tmpdir(), 'kova-chromium-'));
  context = await chromium.launchPersistentContext(profile, {
    executablePath: process.env.KOVA_CHROMIUM || '/usr/bin/chromium',
    headless: true,
    args: FLAGS,
    viewport: { width: 1400, height: 900 },
  });
  page = await context.newPage();
  page.setDefaultTimeout(20000);
  page.on('pageerror', (e) => pageErrors.push(e.message));
});

after(async () => {
  if (context) await context.close();
  if (profile) fs.rmSync(profile, { recursive: true, force: true });
});

test('a wrong password is refused with a readable message', async () => {
  await page.goto(URL);
  await page.getByLabel('Account').fill('admin');
  await page.getByLabel('Password').fill('not-the-password');
  await page.getByRole('button', { name: 'Sign in' }).click();
  await page.locator('#login-error').filter({ hasText: 'Wrong account or password' }).waitFor();
  await shot('00-login-refused');
});

test('sign in and open a folder: own and inherited rules', async () => {
  await page.getByLabel('Password').fill('Admin-2024');
  await page.getByRole('button', { name: 'Sign in' }).click();
  await page.getByRole('button', { name: 'projects', exact: true }).waitFor();
  await openPath('projects', 'engineering', 'project-01');
  const inherited = page.locator('#rules-body tr.inherited');
  assert.ok(await inherited.count() >= 2, 'inherited rows are listed');
  assert.equal(await page.locator('#rules-body tr.inherited button').count(), 0, 'inherited rows cannot be edited');
  const levels = await inherited.locator('td:nth-last-child(2)').allTextContents();
  assert.ok(levels.includes('1') && levels.includes('2'), `levels 1 and 2 shown, got ${levels}`);
  await shot('01-folder-rules');
});

test('the principal search finds local and directory accounts', async () => {
  const box = page.locator('#inspect-picker input[type="search"]');
  await box.fill('ldapuser0');
  await page.locator('#inspect-picker [role="option"]', { hasText: 'ldapuser01' }).first().waitFor();
  await box.fill('');
  await page.keyboard.press('Escape');
});

test('add a rule for a user found by search, apply it recursively, see the effect', async () => {
  assert.equal(await effective('dave', 'write_data'), false, 'dave starts read-only');

  await page.getByRole('button', { name: 'Add rule' }).click();
  await pick('#rule-picker', 'dav', 'dave (user)');
  await page.getByRole('button', { name: 'Modify', exact: true }).click();
  await page.locator('#rule-ok').click();
  const row = page.locator('#rules-body tr:not(.inherited)', { hasText: 'dave (user)' });
  await row.waitFor();
  assert.equal(await row.getByRole('button', { name: 'Edit rule for dave (user)' }).count(), 1);

  await page.getByLabel('Apply to sub-folders and files').check();
  await page.getByRole('button', { name: /^Save/ }).click();
  await page.locator('#task').waitFor();
  await page.locator('#task-text').filter({ hasText: 'Done.' }).waitFor(LONG);
  await shot('02-applied-recursively');
  // The saved rule is read back as the folder's own rule.
  await page.locator('#rules-body tr:not(.inherited)', { hasText: 'dave (user)' }).waitFor();

  assert.equal(await effective('dave', 'write_data'), true, 'dave may write in the folder now');
  // Recursively applied: a file two levels down inherits the rule.
  await openPath('projects', 'engineering', 'project-01', 'docs');
  assert.equal(await effective('dave', 'write_data'), true, 'and in its sub-folder');
  await shot('03-effective-permissions');
});

test('a recursive run can be cancelled while it runs', async () => {
  await openPath('projects', 'bulk');
  await page.getByLabel('Apply to sub-folders and files').check();
  await page.getByRole('button', { name: /^Save/ }).click();
  await page.locator('#task').waitFor();
  await page.getByRole('button', { name: 'Cancel', exact: true }).click();
  await page.locator('#task-text').filter({ hasText: /Cancel/ }).waitFor(LONG);
  await page.locator('#task-text').filter({ hasText: 'Cancelled.' }).waitFor(LONG);
  await shot('04-cancelled');
  // The walk really stopped part-way: some files got an ACL, not all of them.
  const bulk = (await page.locator('#perm-real').textContent()).trim();
  // (getfattr fails for every file without the attribute; its output is what counts.)
  const dump = spawnSync('getfattr', ['-R', '--absolute-names', '-n', 'trusted.kova.acl', '-e', 'hex', bulk],
    { encoding: 'utf8', maxBuffer: 256 << 20 }).stdout;
  const stored = dump.split('\n').filter((l) => l.startsWith('trusted.kova.acl=')).length;
  const total = 60 + 60 * 1000 + 1;  // run.sh: 60 folders of 1000 files, and the folder itself
  assert.ok(stored > 0 && stored < total, `${stored} of ${total} entries have an ACL after the stop`);
});

test('rules that lock the user out ask for confirmation first', async () => {
  await openPath('projects', 'engineering', 'project-02');
  await page.getByLabel('Inherit rules from the parent folder').uncheck();
  await page.getByRole('button', { name: /^Save/ }).click();
  const dialog = page.locator('#confirm-dialog');
  await dialog.filter({ hasText: 'no access at all' }).waitFor();
  await shot('05-self-denied-warning');
  await page.getByRole('button', { name: 'Go back' }).click();
  assert.equal(await page.locator('#task').isVisible(), false, 'nothing was started');
});

test('an item without ACL support tells why it cannot be changed', async () => {
  await openPath('usbcopy', 'photos');
  await page.locator('#perm-mode').waitFor();
  await page.getByRole('button', { name: /^Save/ }).click();
  await page.locator('#task-text').filter({ hasText: 'does not support permission rules' }).waitFor(LONG);
  await shot('06-no-acl-share');
  assert.deepEqual(pageErrors, [], 'no script errors on the page');
});

test('sign out ends the session', async () => {
  await page.getByRole('button', { name: 'Sign out' }).click();
  await page.getByLabel('Account').waitFor();
  const res = await page.evaluate(async () => {
    const r = await fetch('/webapi', { method: 'POST', headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ api: 'KOVA.Server.Files', version: 1, method: 'list_shares' }) });
    return r.json();
  });
  assert.equal(res.error.code, 119);
});

test('an ordinary user sees only their shares and cannot edit without the right', async () => {
  await page.getByLabel('Account').fill('dave');
  await page.getByLabel('Password').fill('Dave-2024');
  await page.getByRole('button', { name: 'Sign in' }).click();
  await page.getByRole('button', { name: 'projects', exact: true }).waitFor();
  assert.equal(await page.getByRole('button', { name: 'archive', exact: true }).count(), 0, 'no privilege on archive');
  await openPath('projects', 'engineering', 'project-03');
  await page.locator('#perm-mode').filter({ hasText: 'may read these rules but not change them' }).waitFor();
  assert.equal(await page.getByRole('button', { name: 'Add rule' }).isDisabled(), true);
  await shot('07-read-only-user');
  assert.deepEqual(pageErrors, [], 'no script errors on the page');
});
