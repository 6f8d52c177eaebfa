// Drives the permissions editor in chromium as a person would. Screenshots
// go to artifacts/; those of the main views go to docs/img/ for
// docs/editor.md only when KOVA_DOC_SCREENSHOTS=1, so a run leaves the
// source tree as it was.
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
const DOC_IMG = process.env.KOVA_DOC_SCREENSHOTS === '1'
  ? path.resolve(path.dirname(new globalThis.URL(import.meta.url).pathname), '../../docs/img')
  : null;

// Each test leaves a screenshot of the page when it fails.
function test(name, fn) {
  nodeTest(name, async (t) => {
    try {
      await fn(t);
    } catch (e) {
      const safe = name.replace(/[^a-z0-9]+/gi, '-').slice(0, 60);
      await shot(`failed-${safe}`).catch(() => {});
      // A dialog left open would fail every later test too.
      await page.evaluate(() => document.querySelectorAll('dialog[open]').forEach((d) => d.close())).catch(() => {});
      throw e;
    }
  });
}

async function shot(name) {
  await page.screenshot({ path: path.join(ARTIFACTS, `${name}.png`), fullPage: true });
}

// A view documented in docs/editor.md.
async function docShot(name) {
  const dir = DOC_IMG ?? ARTIFACTS;
  fs.mkdirSync(dir, { recursive: true });
  await page.screenshot({ path: path.join(dir, `${name}.png`) });
}

// Waits until fn() is true (the page's Content-Security-Policy forbids the
// eval that waitForFunction needs, as it should).
async function until(fn, what) {
  for (let i = 0; i < 400; ++i) {
    if (await fn()) return;
    await new Promise((r) => setTimeout(r, 50));
  }
  throw new Error(`timed out waiting for ${what}`);
}

// `refused`: only submits the form (the caller checks the refusal).
async function signIn(account, passwd, tab = page, refused = false) {
  await tab.getByLabel('Account').fill(account);
  await tab.getByLabel('Password').fill(passwd);
  await tab.getByRole('button', { name: 'Sign in' }).click();
  if (!refused) await tab.getByRole('button', { name: 'Sign out' }).waitFor();
}

async function signOut(tab = page) {
  await tab.getByRole('button', { name: 'Sign out' }).click();
  await tab.getByLabel('Account').waitFor();
}

function watchErrors(tab) {
  tab.on('pageerror', (e) => pageErrors.push(e.message));
  tab.on('console', (m) => { if (m.type() === 'error') pageErrors.push(m.text()); });
}

// Presses Save and answers each confirmation by its title from `answers`
// (any other fails the test); 'started' once the task runs, or 'stopped'.
const STOPS = ['Go back', 'Cancel', 'Keep editing'];
async function save(answers = {}) {
  const box = page.locator('#task');
  await box.evaluate((el) => { el.dataset.state = 'before'; });
  await page.getByRole('button', { name: /^Save/ }).click();
  const open = page.locator('dialog[open]');
  for (;;) {
    await until(async () => (await open.count()) > 0 || (await box.getAttribute('data-state')) !== 'before',
      'a confirmation or the task');
    if (!(await open.count())) return 'started';
    const title = (await open.locator('h2').textContent()).trim();
    assert.ok(title in answers, `unexpected confirmation "${title}": ${await open.locator('p').textContent()}`);
    const answer = answers[title];
    delete answers[title];
    await open.getByRole('button', { name: answer, exact: true }).click();
    await until(async () => (await page.locator(`dialog[open] h2`).filter({ hasText: title }).count()) === 0, 'the dialog to close');
    if (STOPS.includes(answer)) return 'stopped';
  }
}

// The task has ended in `state` and the panel shows the item as it is now.
async function finished(state = 'finished') {
  await page.locator(`#task[data-state="${state}"]`).waitFor(LONG);
  await page.locator('#perm-panel[data-state="ready"]').waitFor();
}

async function rowCount(selector) {
  return page.locator(`#rules-body ${selector}`).count();
}

// Waits until the browser pane shows the folder given by its names.
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

// Opens the folders from the list of shares down, one click each.
async function browse(...folders) {
  await page.getByRole('button', { name: 'Shares', exact: true }).click();
  await inFolder([]);
  for (let i = 0; i < folders.length; ++i) {
    await page.locator('#entries').getByRole('button', { name: folders[i], exact: true }).click();
    await inFolder(folders.slice(0, i + 1));
  }
}

async function panelShows(path) {
  await page.locator('#perm-path').filter({ hasText: path }).waitFor();
  await page.locator('#perm-panel[data-state="ready"]').waitFor();
}

async function openPath(...names) {
  await browse(...names.slice(0, -1));
  await page.getByRole('button', { name: `Permissions of ${names[names.length - 1]}`, exact: true }).click();
  await page.locator('#rules-body tr').first().waitFor();
  await panelShows(`/${names.join('/')}`);
}

const REPLACE = 'Replace the permissions of all sub-folders and files with inherited ones';
const ownRow = (who) => page.locator('#rules-body tr:not(.inherited)', { hasText: who });

// Adds a rule for `who` found by typing `typed`; `deny` makes it a deny
// rule, `perms` replaces its rights by those, `basic` presses that button.
async function addRule(typed, who, { deny = false, perms = null, basic = null } = {}) {
  await page.getByRole('button', { name: 'Add rule' }).click();
  await pick('#rule-picker', typed, who);
  if (deny) await page.getByRole('radio', { name: 'Deny' }).check();
  if (perms) await page.getByRole('button', { name: 'Clear', exact: true }).click();
  for (const perm of perms ?? []) await page.locator(`#rule-perms input[value="${perm}"]`).check();
  if (basic) await page.getByRole('button', { name: basic, exact: true }).click();
  await page.locator('#rule-ok').click();
  await ownRow(who).last().waitFor();
}

// Reloads the item, dropping the edits made to it.
async function discard() {
  await page.locator('#reload').click();
  await until(async () => (await rowCount('tr:not(.inherited)')) === 0, 'the edits to be discarded');
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

// The item's own rules as [who, Allow/Deny, rights in letters ('-' for a
// right not given)], from the table.
async function ownRules() {
  return page.locator('#rules-body tr:not(.inherited):not(.mode-group)').evaluateAll((rows) => rows.map((tr) => [
    tr.cells[0].textContent, tr.cells[1].textContent,
    [...tr.querySelectorAll('td.right')].map((td) => (td.classList.contains('on') ? td.dataset.letter : '-')).join(''),
  ]));
}

// The reason given for a right in the effective permissions.
async function why(perm) {
  return (await page.locator(`#inspect-result li[data-perm="${perm}"] .why`).textContent()).trim();
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
  watchErrors(page);
});

after(async () => {
  if (context) await context.close();
  if (profile) fs.rmSync(profile, { recursive: true, force: true });
});



test('a wrong password is refused with a readable message', async () => {
  await page.goto(URL);
  await signIn('admin', 'not-the-password', page, true);
  await page.locator('#login-error').filter({ hasText: 'Wrong account or password' }).waitFor();
  await shot('00-login-refused');
});

test('sign in and open a folder: own and inherited rules, the owner, the folder in the address', async () => {
  await signIn('admin', 'Admin-2024');
  await openPath('projects', 'engineering', 'project-01');
  const inherited = page.locator('#rules-body tr.inherited');
  assert.equal(await page.locator('#rules-body tr.inherited button').count(), 0, 'inherited rows cannot be edited');
  const from = await inherited.locator('td.from').allTextContents();
  assert.ok(from.includes('/projects/engineering') && from.includes('/projects'), `the folders that set them are named, got ${from}`);
  // Basic rights first; the thirteen are one click away, their letters
  // spelt out above the columns.
  const heads = async () => (await page.locator('#rules thead th:visible').allTextContents()).map((t) => t.trim());
  assert.deepEqual((await heads()).slice(2, 8), ['Full control', 'Modify', 'Read & execute', 'Read', 'Write', 'Special']);
  const basic = (who) => inherited.filter({ hasText: who }).first().locator('td.basic')
    .evaluateAll((tds) => tds.map((td) => td.classList.contains('on')));
  assert.deepEqual(await basic('administrators (group)'), [true, true, true, true, true, false]);
  assert.deepEqual(await basic('staff (group)'), [false, true, true, true, true, false]);
  assert.deepEqual(await basic('dave (user)'), [false, false, true, true, false, false]);
  assert.equal(await page.locator('#letters-legend').isVisible(), false);
  await page.getByRole('button', { name: 'Advanced rights' }).click();
  assert.equal((await heads()).slice(2, 15).join(''), 'rwxpdDaARWcCo');
  assert.match(await page.locator('#letters-legend').textContent(), /C = Change permissions/);
  const legend = await page.locator('#letters-legend').boundingBox();
  const columns = await page.locator('#rules thead').boundingBox();
  assert.ok(legend.y + legend.height <= columns.y + 1, 'the letters are explained above the columns');
  await shot('01-advanced-rights');
  await docShot('editor-advanced');
  await page.getByRole('button', { name: 'Advanced rights' }).click();
  await until(async () => !/^(…|unknown|–)$/.test((await page.locator('#owner-current').textContent()).trim()), 'the owner');
  assert.match(await page.locator('#owner-current').textContent(), /\((user|group)\)/);
  assert.ok((await page.locator('#perm-real').textContent()).startsWith('/'), 'an administrator sees the absolute path');
  await shot('01-folder-rules');
  await docShot('editor-folder');

  // The open folder is in the address: reload, Back and Forward keep it.
  assert.equal(new globalThis.URL(page.url()).hash, '#/projects/engineering');
  await page.reload();
  await inFolder(['projects', 'engineering']);
  await page.goBack();
  await inFolder(['projects']);
  await page.goForward();
  await inFolder(['projects', 'engineering']);
});

test('signing in in a second tab of the same browser leaves the first tab signed in', async () => {
  const tab2 = await context.newPage();
  watchErrors(tab2);
  try {
    await tab2.goto(URL);
    await signIn('dave', 'Dave-2024', tab2);
    await tab2.getByRole('button', { name: 'projects', exact: true }).waitFor();
    assert.equal(await tab2.getByRole('button', { name: 'archive', exact: true }).count(), 0, 'the second tab is dave\'s');
    for (const step of ['after the second sign-in', 'after the second tab signed out']) {
      await openPath('projects', 'engineering', 'project-02');
      assert.equal(await page.locator('#login-view').isVisible(), false, step);
      assert.equal((await page.locator('#who').textContent()).trim(), 'Signed in as admin', step);
      if (step.startsWith('after the second sign-in')) await signOut(tab2);
    }
  } finally {
    await tab2.close();
  }
});

test('folders list in natural order, with a count and a filter', async () => {
  await browse('usbcopy', 'photos');
  const names = await page.locator('#entries .name').allTextContents();
  assert.deepEqual(names.slice(0, 3), ['img-1.jpg', 'img-2.jpg', 'img-3.jpg']);
  assert.equal(names[names.length - 1], 'img-20.jpg');
  assert.equal((await page.locator('#entry-count').textContent()).trim(), '20 items');
  await page.locator('#entry-filter').fill('IMG-1');
  await page.locator('#entry-count').filter({ hasText: '11 of 20 match' }).waitFor();
  assert.deepEqual((await page.locator('#entries .name').allTextContents()).slice(0, 3), ['img-1.jpg', 'img-10.jpg', 'img-11.jpg']);
  await page.locator('#entry-filter').fill('');
  await page.locator('#entry-count').filter({ hasText: '20 items' }).waitFor();
});

test('the principal search finds local and directory accounts; the effective-permissions picker offers no "Owner"', async () => {
  await openPath('projects', 'engineering', 'project-01');
  const box = page.locator('#inspect-picker input[type="search"]');
  await box.fill('ldapuser0');
  await page.locator('#inspect-picker [role="option"]', { hasText: 'ldapuser01' }).first().waitFor();
  await box.fill('er');
  await page.locator('#inspect-picker [role="option"]', { hasText: 'Everyone' }).first().waitFor();
  assert.equal(await page.locator('#inspect-picker [role="option"]', { hasText: /^Owner/ }).count(), 0);
  await box.fill('');
  await page.keyboard.press('Escape');
});

test('add a rule for a user found by search, replace below after a confirmation, see the effect', async () => {
  await openPath('projects', 'engineering', 'project-01');
  assert.equal(await effective('dave', 'write_data'), false, 'dave starts read-only');

  await addRule('dav', 'dave (user)', { basic: 'Modify' });
  const row = ownRow('dave (user)');
  assert.equal(await row.getByRole('button', { name: 'Edit rule for dave (user)' }).count(), 1);

  const replace = page.getByLabel(REPLACE);
  await replace.check();
  // The confirmation names what is replaced; its cancel changes nothing.
  assert.equal(await save({ 'Replace permissions below?': 'Cancel' }), 'stopped');
  assert.equal(await page.locator('#task').isVisible(), false, 'nothing was started');
  assert.equal(await row.count(), 1, 'the edit is still there');
  assert.equal(await replace.isChecked(), true);
  await page.getByRole('button', { name: /^Save/ }).click();
  await page.locator('#confirm-text').filter({ hasText: /its \d+ direct entr/ }).waitFor();
  await docShot('editor-replace-below');
  await page.getByRole('button', { name: 'Replace permissions below', exact: true }).click();
  await finished();
  assert.equal(await page.locator('#task-progress').evaluate((p) => p.value === p.max), true, 'a finished run fills the bar');
  assert.match(await taskText(), /^Finished/);
  assert.equal(await page.locator('#task-text').evaluate((el) => getComputedStyle(el).color), 'rgb(28, 124, 58)', 'finished is green');
  await shot('02-applied-recursively');
  assert.equal(await replace.isChecked(), false, 'a replacement below is never carried over');
  await row.waitFor();

  assert.equal(await effective('dave', 'write_data'), true, 'dave may write in the folder now');
  await openPath('projects', 'engineering', 'project-01', 'docs');
  assert.equal(await effective('dave', 'write_data'), true, 'and in its sub-folder');
  await shot('03-effective-permissions');
});

test('a recursive run can be cancelled while it runs; the bar and the panel say so', async () => {
  await openPath('projects', 'bulk');
  await page.getByLabel(REPLACE).check();
  await save({ 'Replace permissions below?': 'Replace permissions below' });
  // The box names the folder in hand as the person sees it, and counts.
  await page.locator('#task-text').filter({ hasText: /^Working in \/projects\/bulk\/part-\d+ \(at least [\d,]+ entries done\)$/ }).waitFor(LONG);
  await page.getByRole('button', { name: 'Cancel', exact: true }).click();
  await finished('cancelled');
  assert.match(await taskText(), /^Cancelled\. What was already applied stays applied \(at least [\d,]+ entries, up to \/projects\/bulk\//);
  assert.equal(await page.locator('#task-text').evaluate((el) => getComputedStyle(el).color), 'rgb(168, 107, 0)', 'cancelled is amber');
  assert.equal(await page.locator('#task-progress').evaluate((p) => p.value === 0), true, 'a cancelled run does not fill the bar');
  await shot('04-cancelled');
  const bulk = (await page.locator('#perm-real').textContent()).trim();
  const dump = spawnSync('getfattr', ['-R', '--absolute-names', '-n', 'trusted.kova.acl', '-e', 'hex', bulk],
    { encoding: 'utf8', maxBuffer: 256 << 20 }).stdout;
  const stored = dump.split('\n').filter((l) => l.startsWith('trusted.kova.acl=')).length;
  const total = 200 + 200 * 1000 + 1;  // run.sh: 200 folders of 1000 files, and the folder itself
  assert.ok(stored > 0 && stored < total, `${stored} of ${total} entries have an ACL after the stop`);
});

test('every item starts clean, and unsaved edits are not lost without asking', async () => {
  await openPath('projects', 'engineering', 'project-04');
  await page.getByLabel(REPLACE).check();
  await page.getByLabel('Also for sub-folders and files').check();
  await pick('#owner-picker', 'car', 'carol (user)');
  await page.getByRole('button', { name: 'Permissions of project-05', exact: true }).click();
  await panelShows('/projects/engineering/project-05');
  assert.equal(await page.getByLabel(REPLACE).isChecked(), false);
  assert.equal(await page.getByLabel('Also for sub-folders and files').isChecked(), false);
  assert.equal((await page.locator('#owner-picker .chosen').textContent()).trim(), '');

  await addRule('car', 'carol (user)');
  const leaving = await page.evaluate(() => {
    const ev = new Event('beforeunload', { cancelable: true });
    window.dispatchEvent(ev);
    return ev.defaultPrevented;
  });
  assert.equal(leaving, true, 'reloading or leaving asks first');
  await page.getByRole('button', { name: 'Permissions of project-06', exact: true }).click();
  await page.locator('#confirm-dialog[open]').filter({ hasText: 'unsaved changes' }).waitFor();
  await page.getByRole('button', { name: 'Keep editing', exact: true }).click();
  assert.equal((await page.locator('#perm-path').textContent()).trim(), '/projects/engineering/project-05');
  assert.equal(await ownRow('carol (user)').count(), 1);
  await page.goBack();
  await page.locator('#confirm-dialog[open]').filter({ hasText: 'unsaved changes' }).waitFor();
  await page.getByRole('button', { name: 'Keep editing', exact: true }).click();
  await inFolder(['projects', 'engineering']);
  assert.equal(await ownRow('carol (user)').count(), 1);
  await page.getByRole('button', { name: 'Permissions of project-06', exact: true }).click();
  await page.locator('#confirm-dialog[open]').waitFor();
  await page.locator('#confirm-dialog').getByRole('button', { name: 'Discard changes', exact: true }).click();
  await panelShows('/projects/engineering/project-06');
  assert.equal(await ownRow('carol (user)').count(), 0);
});

test('stopping inheritance offers convert or remove; switching it back previews the parent, no false warning', async () => {
  await openPath('projects', 'engineering', 'project-02');
  const inheritedBefore = await rowCount('tr.inherited');
  assert.ok(inheritedBefore >= 2);
  const sw = page.getByLabel('Inherit rules from the parent folder');
  await sw.uncheck();
  await page.locator('#inherit-dialog[open]').waitFor();
  await docShot('editor-stop-inheriting');
  await page.locator('#inherit-cancel').click();
  await until(() => sw.isChecked(), 'cancel to keep inheriting');
  assert.equal(await rowCount('tr.inherited'), inheritedBefore);
  await sw.uncheck();
  await page.getByRole('button', { name: 'Convert inherited rules into explicit rules' }).click();
  // The inherited rules became own rules.
  await until(async () => (await rowCount('tr:not(.inherited)')) === inheritedBefore && (await rowCount('tr.inherited')) === 0,
    'the inherited rules to become own rules');
  await page.locator('#reload').click();
  await page.locator('#rules-body tr.inherited').first().waitFor();
  await sw.uncheck();
  await page.getByRole('button', { name: 'Remove inherited rules' }).click();
  await page.locator('#rules-body').filter({ hasText: 'No rules' }).waitFor();
  // An administrator keeps every right below a share's top folder: no warning.
  assert.equal(await save({}), 'started');
  await finished();
  await page.locator('#rules-body').filter({ hasText: 'No rules' }).waitFor();

  await sw.check();
  await page.locator('#rules-body tr.inherited').first().waitFor();
  assert.equal(await rowCount('tr.inherited'), inheritedBefore, 'the parent\'s inheritable rules are previewed');
  assert.equal(await page.locator('#rules-body').filter({ hasText: 'No rules' }).count(), 0);
  assert.equal(await save({}), 'started');
  await finished();
  await page.locator('#rules-body tr.inherited').first().waitFor();
  assert.equal(await rowCount('tr.inherited'), inheritedBefore, 'and inherited again once saved');
});

test('the rule dialog: "applies to" required, Escape closes only the list, files get file wording', async () => {
  await openPath('projects', 'engineering', 'project-05');
  await page.getByRole('button', { name: 'Add rule' }).click();
  await pick('#rule-picker', 'car', 'carol (user)');
  for (const box of await page.locator('#rule-inherit input').all()) await box.uncheck();
  await page.locator('#rule-ok').click();
  await page.locator('#rule-error').filter({ hasText: 'Tick where the rule applies' }).waitFor();
  assert.equal(await page.locator('#rule-dialog').isVisible(), true);
  await page.locator('#rule-picker input[type="search"]').fill('ali');
  await page.locator('#rule-picker [role="option"]', { hasText: 'alice' }).first().waitFor();
  await page.keyboard.press('Escape');
  await until(async () => !(await page.locator('#rule-picker [role="listbox"]').isVisible()), 'the list to close');
  assert.equal(await page.locator('#rule-dialog').isVisible(), true, 'the dialog stays open');
  await page.keyboard.press('Escape');
  await until(async () => !(await page.locator('#rule-dialog').isVisible()), 'the dialog to close');
  assert.equal(await rowCount('tr:not(.inherited)'), 0, 'nothing was added');

  // A deny listed below an allow is pointed out until it is moved up.
  await addRule('car', 'carol (user)');
  await addRule('dav', 'dave (user)', { deny: true });
  await page.locator('#order-warning').waitFor();
  await page.getByRole('button', { name: 'Move rule for dave (user) up' }).click();
  await until(async () => !(await page.locator('#order-warning').isVisible()), 'the order warning to go');
  assert.deepEqual(await page.locator('#rules-body tr:not(.inherited) td:first-child').allTextContents(), ['dave (user)', 'carol (user)']);
  await discard();

  await openPath('projects', 'engineering', 'project-05', 'report-001.txt');
  assert.equal(await page.getByLabel(REPLACE).isVisible(), false);
  await page.getByRole('button', { name: 'Add rule' }).click();
  assert.equal(await page.locator('#rule-inherit').isVisible(), false, 'a file has no children to pass rules to');
  await page.locator('#rule-dialog').getByRole('button', { name: 'Cancel', exact: true }).click();
});

test('a rule for a group is added and saved with the keyboard alone', async () => {
  await openPath('projects', 'engineering', 'project-07');
  await page.locator('#rule-add').focus();
  await page.keyboard.press('Enter');
  await page.locator('#rule-dialog[open]').waitFor();
  await page.keyboard.type('financ');
  const options = page.locator('#rule-picker [role="option"]');
  await until(async () => {
    const texts = await options.allTextContents();
    return texts.some((t) => t.startsWith('finance (group)')) && texts.every((t) => /financ/i.test(t));
  }, 'the search for "financ" to be listed');
  // (alice is found too: "finance" is in her description.)
  const active = page.locator('#rule-picker [role="option"][aria-selected="true"]');
  for (let i = 0; i < 10 && !/^finance \(group\)/.test((await active.count()) ? await active.textContent() : ''); ++i) {
    await page.keyboard.press('ArrowDown');
  }
  await page.keyboard.press('Enter');
  await page.locator('#rule-picker .chosen').filter({ hasText: 'finance (group)' }).waitFor();
  await page.keyboard.press('Enter');  // the dialog's OK
  await ownRow('finance (group)').waitFor();
  for (let i = 0; i < 60 && (await page.evaluate(() => document.activeElement.id)) !== 'save'; ++i) await page.keyboard.press('Tab');
  assert.equal(await page.evaluate(() => document.activeElement.id), 'save', 'Save is reached with Tab');
  await page.locator('#task').evaluate((el) => { el.dataset.state = 'before'; });
  await page.keyboard.press('Enter');
  await finished();
  await ownRow('finance (group)').waitFor();
});

test('layouts set exactly their rules; a deny rule is saved as deny and shown as deny', async () => {
  await openPath('projects', 'engineering', 'project-09');
  const sw = page.getByLabel('Inherit rules from the parent folder');
  const FULL = 'rwxpdDaARWcCo';
  const useLayout = async (layout, main, guests) => {
    await page.getByRole('button', { name: 'Start from a layout…' }).click();
    await page.locator(`#layout-dialog input[name="layout"][value="${layout}"]`).check();
    await pick('#layout-main', main[0].slice(0, 4), main[1]);
    if (guests) await pick('#layout-guests', guests[0].slice(0, 3), guests[1]);
    await page.locator('#layout-ok').click();
    await until(async () => !(await page.locator('#layout-dialog').isVisible()), 'the layout dialog to close');
  };
  await useLayout('private', ['carol', 'carol (user)']);
  assert.deepEqual(await ownRules(), [['administrators (group)', 'Allow', FULL], ['carol (user)', 'Allow', FULL]]);
  assert.equal(await sw.isChecked(), false, 'a private folder inherits nothing');
  assert.equal(await rowCount('tr.inherited:not(.disabled)'), 0);
  await useLayout('team', ['engineering', 'engineering (group)'], ['Everyone', 'Everyone']);
  assert.deepEqual((await ownRules())[2], ['Everyone', 'Allow', 'r-x---a-R-c--'], 'a built-in principal as the guests');
  assert.equal(await save({}), 'started');
  await finished();  // the server takes the rule for the built-in principal
  await useLayout('team', ['engineering', 'engineering (group)'], ['dave', 'dave (user)']);
  assert.deepEqual(await ownRules(), [['administrators (group)', 'Allow', FULL],
    ['engineering (group)', 'Allow', 'rwxpdDaARWc--'], ['dave (user)', 'Allow', 'r-x---a-R-c--']]);
  await docShot('editor-layout');

  await addRule('dav', 'dave (user)', { deny: true, perms: ['read_ext_attr'] });
  // The new deny rule (the last row) moves up twice, past engineering's.
  await page.getByRole('button', { name: 'Move rule for dave (user) up' }).last().click();
  await page.getByRole('button', { name: 'Move rule for dave (user) up' }).first().click();
  assert.equal(await save({}), 'started');
  await finished();
  await page.reload();
  await page.getByRole('button', { name: 'Permissions of project-09', exact: true }).click();
  await panelShows('/projects/engineering/project-09');
  await until(async () => (await ownRules()).length === 4, 'the saved rules');
  assert.deepEqual(await ownRules(), [['administrators (group)', 'Allow', FULL], ['dave (user)', 'Deny', '--------R----'],
    ['engineering (group)', 'Allow', 'rwxpdDaARWc--'], ['dave (user)', 'Allow', 'r-x---a-R-c--']]);
  assert.equal(await page.locator('#rules-body tr:not(.inherited) td.deny').count(), 1, 'the deny rule is marked as one');
  assert.equal(await sw.isChecked(), false);
  // Effective access names what decides each right.
  assert.equal(await effective('dave', 'read_ext_attr'), false, 'and it denies');
  assert.equal(await why('read_ext_attr'), 'denied by dave (user), rule 2 of this item');
  assert.equal(await why('read_data'), 'allowed by dave (user), rule 4 of this item');
  assert.equal(await why('take_ownership'), 'no rule gives it');
  assert.equal(await effective('carol', 'write_data'), true);
  assert.equal(await why('write_data'), 'allowed by engineering (group), rule 3 of this item', 'carol is in engineering');
  await docShot('editor-effective');
  assert.equal(await effective('admin', 'take_ownership'), true);
  assert.equal(await why('take_ownership'), 'administrators hold every right below a share\'s top folder');
});

test('the rules of another folder are copied; the ACL is removed from the page, after a confirmation', async () => {
  await openPath('projects', 'engineering', 'project-10');
  await page.getByRole('button', { name: 'Copy from another folder…' }).click();
  await page.locator('#copy-path').fill('/projects/engineering/project-09/');
  await page.locator('#copy-ok').click();
  await until(async () => (await ownRules()).length === 4, 'the copied rules');
  assert.deepEqual(await ownRules(), [['administrators (group)', 'Allow', 'rwxpdDaARWcCo'], ['dave (user)', 'Deny', '--------R----'],
    ['engineering (group)', 'Allow', 'rwxpdDaARWc--'], ['dave (user)', 'Allow', 'r-x---a-R-c--']]);
  assert.equal(await page.getByLabel('Inherit rules from the parent folder').isChecked(), false, 'as project-09, it does not inherit');
  await discard();

  const real = (await page.locator('#perm-real').textContent()).trim();
  const stored = () => spawnSync('getfattr', ['--absolute-names', '-n', 'trusted.kova.acl', real], { encoding: 'utf8' })
    .stdout.includes('trusted.kova.acl=');
  assert.equal(stored(), true);
  const remove = page.getByRole('button', { name: 'Remove the ACL…' });
  await remove.click();
  await page.locator('#confirm-dialog').getByRole('button', { name: 'Cancel', exact: true }).click();
  assert.equal(stored(), true, 'cancel keeps the ACL');
  await remove.click();
  await page.getByRole('button', { name: 'Remove the ACL', exact: true }).click();
  await page.locator('#perm-mode').filter({ hasText: 'no ACL yet' }).waitFor();
  assert.equal(stored(), false, 'the item is back to its mode bits');
  assert.equal(await page.locator('#rules-body tr.mode-group').count(), 1);
  assert.equal(await remove.isVisible(), false, 'nothing left to remove');
});

test('a refused save names the rule it is about', async () => {
  const admin = (...args) => {
    const r = spawnSync(process.env.KOVA_ADMIN, ['--root', process.env.KOVA_ROOT_DIR, ...args], { encoding: 'utf8' });
    assert.equal(r.status, 0, r.stderr);
  };
  admin('user', 'add', 'ghost', '--password', 'Ghost-2024');
  await openPath('projects', 'engineering', 'project-08');
  await addRule('ghos', 'ghost (user)');
  admin('user', 'del', 'ghost');  // gone before the save
  await page.getByRole('button', { name: /^Save/ }).click();
  await page.getByText(/Rule 1 \(ghost \(user\)\): The owner, or a user or group named in a rule, cannot be found/).first().waitFor(LONG);
  await discard();
});

test('the owner is shown and changed from the top of the panel', async () => {
  await openPath('projects', 'engineering', 'project-05', 'report-002.txt');
  await page.getByRole('button', { name: 'Change…' }).click();
  assert.equal(await page.locator('#owner-picker input[type="search"]').evaluate((el) => el === document.activeElement), true);
  await pick('#owner-picker', 'car', 'carol (user)');
  await page.getByRole('button', { name: 'Change owner' }).click();
  await finished();
  await page.locator('#owner-current').filter({ hasText: 'carol (user)' }).waitFor();
  assert.equal(await effective('carol', 'change_perm'), true);
  assert.equal(await why('change_perm'), 'the owner always holds it');
});

test('share flags are shown before editing and what cannot work is disabled', async () => {
  await openPath('usbcopy', 'photos');
  await page.locator('#share-state').filter({ hasText: 'does not support permission rules' }).waitFor();
  assert.equal(await page.getByRole('button', { name: /^Save/ }).isDisabled(), true);
  assert.equal(await page.getByRole('button', { name: 'Add rule' }).isDisabled(), true);
  await shot('06-no-acl-share');
  // Mode bits have three entries: the owning group's is shown too, with
  // the rights its bits give.
  await openPath('usbcopy', 'photos', 'img-1.jpg');
  const st = fs.statSync((await page.locator('#perm-real').textContent()).trim());
  const group = page.locator('#rules-body tr.mode-group');
  assert.equal((await group.locator('td').first().textContent()).trim(), st.gid === 0 ? 'root (group)' : `${st.gid} (group)`);
  for (const [bit, title] of [[0o40, 'List folder / read data'], [0o20, 'Create files / write data'], [0o10, 'Traverse folder / execute file']]) {
    const yes = (st.mode & bit) ? 'yes' : 'no';
    assert.equal(await group.locator(`td[aria-label="${title}: ${yes}"]`).count(), 1, `${title} of the group`);
  }
  assert.match(await page.locator('#perm-mode').textContent(), /mode bits \([rwx-]{9}\)/);
  assert.equal(await rowCount('tr'), 3, 'owner, group and everyone');
  await openPath('archive', '2019');
  await page.locator('#share-state').filter({ hasText: 'is read-only' }).waitFor();
  assert.equal(await page.getByRole('button', { name: /^Save/ }).isDisabled(), true);
  await docShot('editor-read-only-share');
});

test('at 1024 pixels the page does not scroll sideways', async () => {
  await page.setViewportSize({ width: 1024, height: 768 });
  try {
    await openPath('projects', 'engineering', 'project-01');
    const [scroll, client] = await page.evaluate(() => [document.documentElement.scrollWidth, document.documentElement.clientWidth]);
    assert.ok(scroll <= client, `page is ${scroll} px wide in a ${client} px window`);
  } finally {
    await page.setViewportSize({ width: 1400, height: 900 });
  }
});

test('sign out ends the session', async () => {
  await signOut();
  const before = pageErrors.length;
  const res = await page.evaluate(async () => {
    const r = await fetch('/webapi', { method: 'POST', headers: { 'Content-Type': 'application/json' },
      body: JSON.stringify({ api: 'KOVA.Server.Files', version: 1, method: 'list_shares' }) });
    return r.json();
  });
  assert.equal(res.error.code, 119);
  // The browser logs the refusal this probe asked for; it is no page error.
  await until(async () => pageErrors.length > before, 'the refusal in the console');
  assert.match(pageErrors.pop(), /status of 401/);
});

test('a user about to lose the right to read or change the rules is warned', async () => {
  await signIn('alice', 'Alice-2024');
  await openPath('projects', 'finance', 'project-01');
  await addRule('ali', 'alice (user)', { deny: true, perms: ['read_perm', 'change_perm'] });
  await page.getByRole('button', { name: /^Save/ }).click();
  await page.locator('#confirm-dialog[open]').filter({ hasText: 'could no longer read the permissions or change the permissions' }).waitFor();
  await shot('05-self-denied-warning');
  await docShot('editor-self-lockout');
  await page.getByRole('button', { name: 'Go back' }).click();
  assert.equal(await page.locator('#task').isVisible(), false, 'nothing was started');
  await page.locator('#reload').click();
  await signOut();
});

test('a folder whose rules refuse listing is refused, and unreadable rules say so', async () => {
  await signIn('bob', 'Bob-2024');
  await browse('projects');
  await page.locator('#entries').getByRole('button', { name: 'finance', exact: true }).click();
  await page.locator('#notice p.error').filter({ hasText: 'do not let you list' }).waitFor();
  await page.getByRole('button', { name: 'Permissions of finance', exact: true }).click();
  await page.locator('#rules-body').filter({ hasText: 'could not be read' }).waitFor();
  assert.equal(await page.locator('#rules-body').filter({ hasText: 'No rules' }).count(), 0);
  await signOut();
});

test('an ordinary user sees only their shares, share-relative paths, and cannot edit without the right', async () => {
  await signIn('dave', 'Dave-2024');
  await page.getByRole('button', { name: 'projects', exact: true }).waitFor();
  assert.equal(await page.getByRole('button', { name: 'archive', exact: true }).count(), 0, 'no privilege on archive');
  await openPath('projects', 'engineering', 'project-03');
  await page.locator('#perm-mode').filter({ hasText: 'may read these rules but not change them' }).waitFor();
  assert.equal(await page.getByRole('button', { name: 'Add rule' }).isDisabled(), true);
  assert.equal((await page.locator('#perm-real').textContent()).trim(), '', 'no absolute path for a plain user');
  assert.equal(await page.locator('body').filter({ hasText: process.env.KOVA_ROOT_DIR }).count(), 0);
  // Nor do the replies the page gets: it names items by share path.
  const replies = await page.evaluate(async () => {
    const call = async (method, params) => (await fetch('/webapi', {
      method: 'POST',
      headers: { 'Content-Type': 'application/json', 'X-Kova-Token': sessionStorage.getItem('kova-token') },
      body: JSON.stringify({ api: 'KOVA.Server.Files', version: 1, method, params }),
    })).text();
    return [await call('list_shares', {}), await call('list_dir', { path: '/projects/engineering' })];
  });
  for (const text of replies) {
    assert.match(text, /"success":true/);
    assert.equal(text.includes(process.env.KOVA_ROOT_DIR), false, `an absolute path in ${text.slice(0, 300)}`);
  }
  await shot('07-read-only-user');
});

test('no script or console errors on the page in any test', () => {
  assert.deepEqual(pageErrors, []);
});
