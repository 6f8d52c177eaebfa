// The permissions editor: sign-in, the folder browser, and for the chosen
// item its rules, owner, inheritance, recursive apply with progress and
// cancel, the self-lock-out warning, and effective permissions.
import { acl, files, hasToken, login, logout, onSessionLost } from './api.js';
import { createBrowser, folderFromHash } from './browser.js';
import { explainAccess } from './explain.js';
import { describe } from './messages.js';
import { FIXED_PRINCIPALS, INHERIT, PERMISSIONS, PRESETS, defaultInherit, layoutRules, lostControlRights, modeGroupRule, parentPreview, permissionObject, principalLabel, toRuleObject } from './model.js';
import { createPicker } from './picker.js';
import { letterLegend, renderBody, renderHead } from './rules.js';
import { runTask } from './task.js';

const $ = (id) => document.getElementById(id);

const state = {
  item: null,        // the entry whose permissions are shown
  own: [],           // its own rules, in order (editable)
  inheritedNow: [],  // what it inherits while its inherit flag is on
  preview: [],       // what it would inherit from its parent once the switch is on
  wasInherited: false,
  inheritOn: false,
  editable: false,
  readError: '',     // why the rules could not be read
  dirty: false,
  busy: false,
  account: { name: '', is_admin: false, groups: [] },
  shares: {},        // name -> the share's flags, from list_shares
};

function notify(text, isError = false) {
  const p = document.createElement('p');
  p.textContent = text;
  if (isError) p.className = 'error';
  $('notice').append(p);
  setTimeout(() => p.remove(), isError ? 9000 : 4000);
}

function showLogin(message = '') {
  $('app-view').hidden = true;
  $('login-view').hidden = false;
  $('login-error').textContent = message;
  $('login-account').focus();
}

async function showApp(account) {
  $('login-view').hidden = true;
  $('app-view').hidden = false;
  $('who').textContent = account ? `Signed in as ${account}` : '';
  try {
    noteShares(await files('list_shares'));
  } catch (e) {
    notify(describe(e), true);
  }
  const start = folderFromHash();
  await browser.open(start, { history: 'replace' });
  // A folder in the address that is gone, or not this account's, leaves
  // the list of shares in view rather than nothing.
  if (start !== null && browser.path !== start) await browser.open(null, { history: 'replace' });
  for (const p of [rulePicker, ownerPicker, inspectPicker, layoutMain, layoutGuests]) p.prepare();
}

// Asks before unsaved edits are thrown away; true when there are none or
// the person agrees.
async function mayDiscard() {
  if (!state.dirty) return true;
  return confirmDialog(`The permissions of ${state.item.path} have unsaved changes. Discard them?`,
    { yes: 'Discard changes', no: 'Keep editing', title: 'Unsaved changes' });
}

// The account and the share flags, which every item's view depends on.
function noteShares(data) {
  if (data.account) state.account = data.account;
  state.shares = {};
  for (const sh of data.shares) state.shares[sh.name] = sh;
}

// ---- the folder browser ------------------------------------------------
const browser = createBrowser({
  crumbs: $('crumbs'),
  entries: $('entries'),
  more: $('more-entries'),
  filter: $('entry-filter'),
  count: $('entry-count'),
  onSelect: async (item) => {
    if (state.item && item.path !== state.item.path && !(await mayDiscard())) return false;
    loadItem(item);
    return true;
  },
  onShares: (data) => noteShares(data),
  onError: (text) => notify(text, true),
});

window.addEventListener('beforeunload', (ev) => {
  if (!state.dirty) return;
  ev.preventDefault();
  ev.returnValue = '';
});

window.addEventListener('popstate', async () => {
  const target = folderFromHash();
  if (state.dirty) {
    const here = browser.path;
    if (!(await mayDiscard())) {
      window.history.pushState(null, '', browser.hashOf(here));
      return;
    }
    state.dirty = false;
    $('perm-panel').hidden = true;
    state.item = null;
  }
  browser.open(target, { history: 'none' });
});

// What the item's share allows, in words; empty when it allows editing.
function shareLimit(item) {
  const share = state.shares[item.path.split('/')[1]];
  if (!share) return '';
  if (!share.support_acl || !share.acl_enabled) {
    return `The shared folder ${share.name} does not support permission rules: its permissions come from mode bits and cannot be edited here.`;
  }
  if (share.read_only && !item.is_share) {
    return `The shared folder ${share.name} is read-only: only the permissions of its top folder can be changed.`;
  }
  return '';
}

// The owner, owning group and mode bits as the server lists them now (not
// as they were listed before).
async function fetchStat(item) {
  if (item.is_share) return files('list_dir', { path: item.path, limit: 0 });
  const parent = item.path.slice(0, item.path.lastIndexOf('/'));
  const data = await files('list_dir', { path: parent, filter: item.name, limit: 5000 });
  return data.entries.find((e) => e.name === item.name) || {};
}

// Shows the owner; resolves to the item's listing ({} when unknown).
async function showOwner(item) {
  const out = $('owner-current');
  try {
    const stat = await fetchStat(item);
    if (state.item !== item) return stat;
    out.textContent = stat.owner ? principalLabel(stat.owner.type, stat.owner.name) : 'unknown';
    state.owner = stat.owner || null;
    return stat;
  } catch (e) {
    if (state.item === item) out.textContent = 'unknown';
    return {};
  }
}

// The folder, as the user sees it, that a set request names: the item
// itself for a folder, its parent for a file.
function dirPathOf(item) {
  if (item.is_dir) return item.path;
  return item.path.slice(0, item.path.lastIndexOf('/')) || '/';
}

// ---- the rules of one item ------------------------------------------------
// The panel's data-state is "loading" while an item is read, "busy" while a
// change runs and "ready" when it shows the item as it is.
async function loadItem(item) {
  $('perm-panel').dataset.state = 'loading';
  state.item = item;
  state.dirty = false;
  state.owner = null;
  // Every item starts clean: nothing chosen for the previous one applies.
  $('acl-recur').checked = false;
  $('owner-recur').checked = false;
  ownerPicker.set(null, null);
  $('acl-recur-label').hidden = !item.is_dir;
  $('owner-recur').parentElement.hidden = !item.is_dir;
  $('perm-panel').hidden = false;
  $('perm-path').textContent = item.path;
  const showReal = item.is_share ? state.account.is_admin : item.show_real_path;
  $('perm-real').textContent = showReal ? item.real_path : '';
  $('owner-current').textContent = '…';
  $('task').hidden = true;
  $('inspect-result').innerHTML = '';
  const limit = shareLimit(item);
  $('share-state').hidden = !limit;
  $('share-state').textContent = limit;
  const stat = showOwner(item);
  state.preview = [];
  state.readError = '';
  state.modeGroup = null;
  try {
    const all = await acl('get', { file_path: item.path, type: 'all' });
    if (state.item !== item) return;  // another item was chosen meanwhile
    // The rules of mode bits name the owning group only when it is an
    // account of this server; its bits still apply, so they are shown.
    const listed = all.is_acl ? {} : await stat;
    if (state.item !== item) return;
    if (listed.group && listed.mode && !all.acl.some((r) => r.owner_type === 'group' && r.owner_name === listed.group.name)) {
      state.modeGroup = modeGroupRule(listed.group, listed.mode);
    }
    state.stored = all.acl;  // as saved, for explaining effective access
    state.isAcl = all.is_acl;
    state.own = all.acl.filter((r) => !r.level);
    state.inheritedNow = all.acl.filter((r) => r.level > 0);
    state.inheritOn = all.is_inherited;
    state.wasInherited = all.is_inherited;
    state.editable = !limit && (all.is_acl ? all.change_permission : all.acl_editable);
    const mode = $('perm-mode');
    mode.hidden = all.is_acl && (state.editable || !!limit);
    const bits = state.modeGroup ? ` (${state.modeGroup.bits})` : '';
    const dropped = state.modeGroup
      ? ` The group ${state.modeGroup.owner_name} is no account of this server, so its entry is not carried into the ACL.` : '';
    if (all.is_acl) mode.textContent = 'You may read these rules but not change them.';
    else if (all.acl_editable && !limit) mode.textContent = `This item has no ACL yet: the rules below come from its mode bits${bits}. Saving gives it an ACL.${dropped}`;
    else mode.textContent = `This item has no ACL: the rules below come from its mode bits${bits}.`;
    render();
    $('perm-panel').dataset.state = 'ready';
  } catch (e) {
    if (state.item !== item) return;
    state.own = [];
    state.stored = [];
    state.isAcl = false;
    state.inheritedNow = [];
    state.editable = false;
    state.readError = e.code === 6205
      ? 'The rules could not be read: you may not read the permissions of this item.'
      : `The rules could not be read: ${describe(e)}`;
    $('perm-mode').hidden = true;
    render();
    $('perm-panel').dataset.state = 'ready';
    notify(describe(e), true);
  }
}

function inheritedRows() {
  if (!state.inheritOn) return [];
  return state.wasInherited ? state.inheritedNow : state.preview;
}

function render() {
  const ro = !state.editable || state.busy;
  $('inherit-switch').checked = state.inheritOn;
  $('inherit-switch').disabled = ro;
  const locked = !!shareLimit(state.item || { path: '' });
  $('acl-remove').hidden = !state.isAcl;
  for (const id of ['rule-add', 'layout-open', 'copy-open', 'acl-remove', 'save', 'acl-recur', 'owner-apply', 'owner-change', 'reload']) {
    const always = id === 'reload' || id === 'owner-apply' || id === 'owner-change';
    $(id).disabled = state.busy || (always ? locked && id !== 'reload' : ro);
  }
  $('save').textContent = state.dirty ? 'Save changes' : 'Save';
  const firstAllow = state.own.findIndex((r) => r.permission_type !== 'deny');
  $('order-warning').hidden = firstAllow < 0 || !state.own.some((r, i) => i > firstAllow && r.permission_type === 'deny');
  // Redrawing the table replaces its buttons: put the keyboard back.
  const active = document.activeElement;
  const focusLabel = $('rules-body').contains(active) ? active.getAttribute('aria-label') : null;
  renderBody($('rules-body'), state.own, inheritedRows(), state.inheritOn, !ro, state.readError, {
    edit: (i) => openRuleDialog(i),
    remove: (i) => { state.own.splice(i, 1); changed(); },
    move: (i, d) => {
      const j = i + d;
      if (j < 0 || j >= state.own.length) return;
      [state.own[i], state.own[j]] = [state.own[j], state.own[i]];
      changed();
    },
  }, state.item ? state.item.path : '', state.modeGroup ? [state.modeGroup] : []);
  if (focusLabel) {
    const again = [...$('rules-body').querySelectorAll('button')].find((b) => b.getAttribute('aria-label') === focusLabel && !b.disabled);
    (again || $('rule-add')).focus();
  }
}

function changed() {
  state.dirty = true;
  render();
}

// The rules the item would inherit from its parent folder, for the preview
// shown when inheritance is switched back on.
async function loadPreview(item) {
  const cut = item.path.lastIndexOf('/');
  if (item.is_share || cut <= 0) return [];
  const parent = await acl('get', { file_path: item.path.slice(0, cut), type: 'all' });
  return parentPreview(parent.acl, item.is_dir);
}

function inheritChoice() {
  const d = $('inherit-dialog');
  d.returnValue = '';
  d.showModal();
  $('inherit-cancel').focus();
  return new Promise((resolve) => d.addEventListener('close', () => resolve(d.returnValue || 'cancel'), { once: true }));
}

$('inherit-switch').addEventListener('change', async (ev) => {
  const item = state.item;
  if (!ev.target.checked) {
    const inherited = inheritedRows();
    const choice = inherited.length ? await inheritChoice() : 'remove';
    if (choice === 'cancel') {
      ev.target.checked = true;
      return;
    }
    if (choice === 'convert') state.own = state.own.concat(inherited.map((r) => ({ ...toRuleObject(r), level: 0 })));
    state.inheritOn = false;
    changed();
    return;
  }
  state.inheritOn = true;
  changed();
  if (state.wasInherited) return;
  try {
    const preview = await loadPreview(item);
    if (state.item !== item) return;
    state.preview = preview;
    render();
  } catch (e) {
    notify(`The rules of the parent folder could not be read: ${describe(e)}`, true);
  }
});
$('reload').addEventListener('click', () => state.item && loadItem(state.item));
// Basic rights by default; the thirteen one click away.
$('view-toggle').addEventListener('click', () => {
  const advanced = $('rules').classList.toggle('view-advanced');
  $('rules').classList.toggle('view-basic', !advanced);
  $('view-toggle').setAttribute('aria-pressed', String(advanced));
});
$('owner-change').addEventListener('click', () => ownerPicker.focus());

// ---- the rule dialog --------------------------------------------------------
const ruleDialog = $('rule-dialog');
let editing = -1;
const rulePicker = createPicker($('rule-picker'), { label: 'User or group', builtin: true });

function checkboxGrid(container, rows, name) {
  container.innerHTML = '';
  for (const row of rows) {
    const key = row[0];
    const text = row[row.length - 1];
    const label = document.createElement('label');
    const box = document.createElement('input');
    box.type = 'checkbox';
    box.name = name;
    box.value = key;
    label.append(box, ` ${text}`);
    container.append(label);
  }
}
checkboxGrid($('rule-perms'), PERMISSIONS, 'perm');
checkboxGrid($('rule-inherit'), INHERIT, 'inherit');

function setChecks(name, obj) {
  for (const box of document.querySelectorAll(`input[name="${name}"]`)) box.checked = !!obj[box.value];
}
function getChecks(name) {
  const o = {};
  for (const box of document.querySelectorAll(`input[name="${name}"]`)) o[box.value] = box.checked;
  return o;
}

document.querySelectorAll('[data-preset]').forEach((b) =>
  b.addEventListener('click', () => setChecks('perm', permissionObject(PRESETS[b.dataset.preset]))));

function openRuleDialog(index) {
  editing = index;
  const r = index >= 0 ? state.own[index] : null;
  $('rule-dialog-title').textContent = r ? 'Edit rule' : 'Add rule';
  $('rule-error').textContent = '';
  rulePicker.set(r ? r.owner_type : null, r ? r.owner_name : null);
  document.querySelector(`input[name="permission_type"][value="${r && r.permission_type === 'deny' ? 'deny' : 'allow'}"]`).checked = true;
  setChecks('perm', r ? r.permission : permissionObject(PRESETS.read));
  const fileDefault = { this_folder: true, child_folders: false, child_files: false, all_descendants: true };
  setChecks('inherit', r ? r.inherit : state.item && state.item.is_dir ? defaultInherit() : fileDefault);
  // A file has no children: the rule applies to the file alone.
  $('rule-inherit').closest('fieldset').hidden = !(state.item && state.item.is_dir);
  ruleDialog.returnValue = '';
  ruleDialog.showModal();
  rulePicker.focus();
}

$('rule-add').addEventListener('click', () => openRuleDialog(-1));
$('rule-form').addEventListener('submit', (ev) => {
  if (ev.submitter && ev.submitter.value !== 'ok') return;
  const who = rulePicker.value;
  if (!who) {
    ev.preventDefault();
    $('rule-error').textContent = 'Choose a user, a group or a built-in principal.';
    return;
  }
  const rule = {
    owner_type: who.type,
    owner_name: FIXED_PRINCIPALS[who.type] || who.name,
    permission_type: document.querySelector('input[name="permission_type"]:checked').value,
    permission: getChecks('perm'),
    inherit: getChecks('inherit'),
    level: 0,
  };
  if (!Object.values(rule.permission).some(Boolean)) {
    ev.preventDefault();
    $('rule-error').textContent = 'Tick at least one permission.';
    return;
  }
  const i = rule.inherit;
  if (state.item.is_dir && !i.this_folder && !i.child_folders && !i.child_files) {
    ev.preventDefault();
    $('rule-error').textContent = 'Tick where the rule applies: this folder, child folders or child files.';
    return;
  }
  if (editing >= 0) state.own[editing] = rule;
  else state.own.push(rule);
  changed();
});

// ---- layouts ------------------------------------------------------------------
const layoutDialog = $('layout-dialog');
const layoutMain = createPicker($('layout-main'), { label: 'User' });
const layoutGuests = createPicker($('layout-guests'), { label: 'Guests (read only)', builtin: true, exclude: ['owner'] });

function layoutChoice() {
  return document.querySelector('input[name="layout"]:checked').value;
}
function showLayoutFields() {
  const team = layoutChoice() === 'team';
  $('layout-main').querySelector('label').textContent = team ? 'Team (may modify)' : 'User (full control)';
  $('layout-guests').hidden = !team;
}
document.querySelectorAll('input[name="layout"]').forEach((r) => r.addEventListener('change', showLayoutFields));

$('layout-open').addEventListener('click', () => {
  layoutMain.set(null, null);
  layoutGuests.set(null, null);
  $('layout-error').textContent = '';
  showLayoutFields();
  layoutDialog.returnValue = '';
  layoutDialog.showModal();
  layoutMain.focus();
});

$('layout-form').addEventListener('submit', (ev) => {
  if (ev.submitter && ev.submitter.value !== 'ok') return;
  const layout = layoutChoice();
  const main = layoutMain.value;
  if (!main || (layout === 'private' ? main.type !== 'user' : main.type !== 'group')) {
    ev.preventDefault();
    $('layout-error').textContent = layout === 'private' ? 'Choose the user the folder belongs to.' : 'Choose the team\'s group.';
    return;
  }
  state.own = layoutRules(layout, main, layout === 'team' ? layoutGuests.value : null);
  state.inheritOn = false;
  changed();
});

// ---- copying another folder's rules, removing the ACL ----------------------------
const copyDialog = $('copy-dialog');
$('copy-open').addEventListener('click', () => {
  $('copy-error').textContent = '';
  $('copy-path').value = '';
  copyDialog.returnValue = '';
  copyDialog.showModal();
  $('copy-path').focus();
});

// The rules of the folder at a share path, as read: {own, inherits}.
async function rulesOf(path) {
  const all = await acl('get', { file_path: path, type: 'all' });
  return { own: all.acl.filter((r) => !r.level), inherits: all.is_acl ? all.is_inherited : false };
}

$('copy-form').addEventListener('submit', async (ev) => {
  if (ev.submitter && ev.submitter.value !== 'ok') return;
  ev.preventDefault();  // closed once the rules are read
  const item = state.item;
  const path = $('copy-path').value.trim().replace(/\/+$/, '');
  if (!path.startsWith('/') || path === item.path) {
    $('copy-error').textContent = 'Give another folder as /share/folder.';
    return;
  }
  try {
    const src = await rulesOf(path);
    if (state.item !== item) return;
    state.own = src.own.map((r) => ({ ...toRuleObject(r), level: 0 }));
    state.inheritOn = src.inherits;
    copyDialog.close();
    changed();
    if (state.inheritOn && !state.wasInherited) {
      state.preview = await loadPreview(item);
      render();
    }
  } catch (e) {
    $('copy-error').textContent = `The rules of ${path} could not be read: ${describe(e)}`;
  }
});

$('acl-remove').addEventListener('click', async () => {
  const item = state.item;
  if (!item || !(await mayDiscard())) return;
  const ok = await confirmDialog(`All rules of ${item.path} are deleted, inherited ones included, and its mode bits decide who has access again.`,
    { yes: 'Remove the ACL', no: 'Cancel', title: 'Remove the ACL?' });
  if (!ok) return;
  try {
    await files('remove_acl', { path: item.path });
    notify(`${item.path} has no ACL now: its mode bits decide.`);
  } catch (e) {
    notify(describe(e), true);
  }
  if (state.item === item) await loadItem(item);
});

// ---- confirmation -------------------------------------------------------------
function confirmDialog(text, { yes = 'Save anyway', no = 'Go back', title = 'Please confirm' } = {}) {
  const d = $('confirm-dialog');
  $('confirm-text').textContent = text;
  $('confirm-yes').textContent = yes;
  $('confirm-no').textContent = no;
  $('confirm-title').textContent = title;
  d.returnValue = '';
  d.showModal();
  $('confirm-no').focus();
  return new Promise((resolve) => d.addEventListener('close', () => resolve(d.returnValue === 'yes'), { once: true }));
}

// ---- saving, as a background task ------------------------------------------
async function startAndFollow(params) {
  $('perm-panel').dataset.state = 'busy';
  state.busy = true;
  render();
  try {
    const started = await acl('set', params);
    const result = await runTask(started.task_id, {
      box: $('task'), progress: $('task-progress'), text: $('task-text'), stopButton: $('task-stop'),
    });
    return result;
  } catch (e) {
    return { ok: false, code: e.code, refused: e };
  } finally {
    state.busy = false;
    render();
  }
}

// Names the rule a refusal is about: each rule alone goes through the
// server's check of rules, and the first one refused the same way is it.
async function explainRuleError(item, rules, err) {
  if (err.code !== 6211 && err.code !== 403) return describe(err);
  for (let i = 0; i < rules.length; ++i) {
    try {
      await acl('check_self_denied', { file_path: item.path, change_acl: true, rules: [rules[i]], inherited: false });
    } catch (e) {
      if (e.code === err.code) return `Rule ${i + 1} (${principalLabel(rules[i].owner_type, rules[i].owner_name)}): ${describe(e)}`;
    }
  }
  return describe(err);
}

// Would the proposed rules take from the signed-in user all access, or the
// right to read or change them? Administrators keep every right below a
// share's top folder whatever the rules say, so they are not warned there.
async function selfCheck(item, rules) {
  if (state.account.is_admin && !item.is_share) return '';
  const reenabling = state.inheritOn && !state.wasInherited;
  // The server reads what is inherited from the item's stored state; while
  // inheritance is only being switched back on, the preview stands for it.
  const check = await acl('check_self_denied', {
    file_path: item.path,
    change_acl: true,
    rules: reenabling ? rules.concat(state.preview.map(toRuleObject)) : rules,
    inherited: state.inheritOn && !reenabling,
  });
  if (check.is_denied) return `With these rules you (${state.account.name}) would have no access at all to ${item.path}.`;
  const lost = lostControlRights(state.own, inheritedRows(), state.account, state.owner);
  if (!lost.length) return '';
  return `With these rules you (${state.account.name}) could no longer ${lost.join(' or ')} of ${item.path}, and nobody but its owner or an administrator could give them back to you.`;
}

async function confirmReplaceBelow(item) {
  let what = 'every sub-folder and file below it';
  try {
    const data = await files('list_dir', { path: item.path, limit: 0 });
    what = `its ${data.unfiltered_total} direct entr${data.unfiltered_total === 1 ? 'y' : 'ies'} and everything below them`;
  } catch (e) { /* the count is a courtesy */ }
  return confirmDialog(`Saving will also replace the permissions of ${what} with inherited ones: every rule set on them is deleted.`,
    { yes: 'Replace permissions below', no: 'Cancel', title: 'Replace permissions below?' });
}

$('save').addEventListener('click', async () => {
  const item = state.item;
  if (!item) return;
  const rules = state.own.map(toRuleObject);
  const recur = $('acl-recur').checked && item.is_dir;
  try {
    const warning = await selfCheck(item, rules);
    if (warning && !(await confirmDialog(`${warning} Save anyway?`))) return;
  } catch (e) {
    notify(await explainRuleError(item, rules, e), true);
    return;
  }
  if (recur && !(await confirmReplaceBelow(item))) return;
  // A replacement below is asked for once, never carried to the next save.
  $('acl-recur').checked = false;
  const result = await startAndFollow({
    file_path: item.path,
    dirPaths: dirPathOf(item),
    change_acl: true,
    inherited: state.inheritOn,
    rules,
    acl_recur: recur,
  });
  if (result.ok) notify(`Permissions of ${item.path} saved.`);
  if (!result.ok && !result.cancelled) {
    const why = await explainRuleError(item, rules, result.refused || result);
    if (result.refused) notify(why, true);
    else $('task-text').textContent = `Failed: ${why}`;
  }
  if (result.ok || result.cancelled) {
    await loadItem(item);
    $('task').hidden = false;  // keep the final progress line in view
  } else {
    $('perm-panel').dataset.state = 'ready';
  }
});

// ---- owner ---------------------------------------------------------------------
const ownerPicker = createPicker($('owner-picker'), { label: 'New owner' });
$('owner-apply').addEventListener('click', async () => {
  const item = state.item;
  const who = ownerPicker.value;
  if (!item) return;
  if (!who || (who.type !== 'user' && who.type !== 'group')) {
    notify('Choose a user or a group as the new owner.', true);
    return;
  }
  const result = await startAndFollow({
    file_path: item.path,
    dirPaths: dirPathOf(item),
    change_acl: false,
    change_acl_owner: true,
    acl_owner_type: who.type,
    acl_owner: who.name,
    acl_owner_recur: $('owner-recur').checked,
  });
  if (result.ok) notify(`${principalLabel(who.type, who.name)} now owns ${item.path}.`);
  if (result.refused) notify(describe(result.refused), true);
  $('owner-recur').checked = false;
  ownerPicker.set(null, null);
  if (state.item === item) await showOwner(item);
  $('perm-panel').dataset.state = 'ready';
});

// ---- effective permissions -------------------------------------------------
// Why each right is held or not, from the saved rules; null when the
// account's groups cannot be read.
async function explainFor(item, who) {
  let principal = { type: who.type, name: who.name, groups: [] };
  if (who.type === 'user') {
    try {
      principal = { type: 'user', ...(await files('account', { user: who.name })) };
    } catch (e) {
      return null;
    }
  }
  return explainAccess({ who: principal, rules: state.stored || [], owner: state.owner, belowShareTop: !item.is_share, itemPath: item.path });
}

// "Owner" names whoever owns an item, not someone whose access can be shown.
const inspectPicker = createPicker($('inspect-picker'), { label: 'For', builtin: true, exclude: ['owner'] });
$('inspect-run').addEventListener('click', async () => {
  const item = state.item;
  const who = inspectPicker.value;
  const out = $('inspect-result');
  if (!item || !who) {
    notify('Choose whose permissions to show.', true);
    return;
  }
  try {
    const data = await acl('inspect', { file_path: item.path, owner_type: who.type, owner_name: who.name });
    const why = await explainFor(item, who);
    out.innerHTML = '';
    for (const [key, , title] of PERMISSIONS) {
      const li = document.createElement('li');
      const yes = !!data.permission[key];
      li.className = yes ? 'yes' : 'no';
      li.dataset.perm = key;
      li.textContent = title;
      // The server's answer is the truth; a reason that does not agree
      // with it (rules changed meanwhile) is not offered.
      const reason = why && why[key].allowed === yes ? why[key].why : 'as the server evaluates the saved rules';
      const small = document.createElement('small');
      small.className = 'why';
      small.textContent = reason;
      li.append(small);
      li.setAttribute('aria-label', `${title}: ${yes ? 'allowed' : 'not allowed'}, ${reason}`);
      out.append(li);
    }
  } catch (e) {
    out.innerHTML = '';
    notify(describe(e), true);
  }
});

// ---- session ---------------------------------------------------------------
onSessionLost(() => {
  sessionStorage.removeItem('kova-token');
  showLogin('Your session has ended. Please sign in again.');
});

$('login-form').addEventListener('submit', async (ev) => {
  ev.preventDefault();
  $('login-error').textContent = '';
  $('login-submit').disabled = true;
  try {
    const data = await login($('login-account').value, $('login-passwd').value);
    sessionStorage.setItem('kova-account', data.account);
    $('login-passwd').value = '';
    await showApp(data.account);
  } catch (e) {
    $('login-error').textContent = describe(e);
  } finally {
    $('login-submit').disabled = false;
  }
});

$('logout').addEventListener('click', async () => {
  if (!(await mayDiscard())) return;
  try { await logout(); } catch (e) { /* the session is gone either way */ }
  state.dirty = false;
  state.item = null;
  $('perm-panel').hidden = true;
  // The next account starts at its shares, not where this one was.
  window.history.replaceState(null, '', location.pathname);
  showLogin();
});

renderHead($('rules-head'));
$('letters-legend').textContent = `Columns: ${letterLegend()}`;
if (hasToken()) showApp(sessionStorage.getItem('kova-account'));
else showLogin();
