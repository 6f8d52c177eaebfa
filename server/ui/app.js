// The permissions editor: sign-in, the folder browser, and for the chosen
// item its rules, owner, inheritance, recursive apply with progress and
// cancel, the self-lock-out warning, and effective permissions.
import { acl, hasToken, login, logout, onSessionLost } from './api.js';
import { createBrowser } from './browser.js';
import { describe } from './messages.js';
import { FIXED_PRINCIPALS, INHERIT, PERMISSIONS, PRESETS, defaultInherit, permissionObject, principalLabel, toRuleObject } from './model.js';
import { createPicker } from './picker.js';
import { renderBody, renderHead } from './rules.js';
import { runTask } from './task.js';

const $ = (id) => document.getElementById(id);

const state = {
  item: null,        // the entry whose permissions are shown
  own: [],           // its own rules, in order (editable)
  inheritedNow: [],  // what it inherits while its inherit flag is on
  inheritable: [],   // what it would inherit (type "inherite")
  inheritOn: false,
  editable: false,
  dirty: false,
  busy: false,
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
  await browser.open(null);
  for (const p of [rulePicker, ownerPicker, inspectPicker]) p.prepare();
}

// ---- the folder browser ------------------------------------------------
const browser = createBrowser({
  crumbs: $('crumbs'),
  entries: $('entries'),
  more: $('more-entries'),
  onSelect: (item) => loadItem(item),
  onError: (text) => notify(text, true),
});

// The folder, as the user sees it, that a set request names: the item
// itself for a folder, its parent for a file.
function dirPathOf(item) {
  if (item.is_dir) return item.path;
  return item.path.slice(0, item.path.lastIndexOf('/')) || '/';
}

// ---- the rules of one item ------------------------------------------------
async function loadItem(item) {
  state.item = item;
  state.dirty = false;
  $('perm-panel').hidden = false;
  $('perm-path').textContent = item.path;
  $('perm-real').textContent = item.real_path;
  $('task').hidden = true;
  $('inspect-result').innerHTML = '';
  try {
    const [all, inh] = await Promise.all([
      acl('get', { file_path: item.real_path, type: 'all' }),
      acl('get', { file_path: item.real_path, type: 'inherite' }).catch(() => ({ acl: [] })),
    ]);
    if (state.item !== item) return;  // another item was chosen meanwhile
    state.own = all.acl.filter((r) => !r.level);
    state.inheritedNow = all.acl.filter((r) => r.level > 0);
    state.inheritable = inh.acl;
    state.inheritOn = all.is_inherited;
    state.editable = all.is_acl ? all.change_permission : all.acl_editable;
    const mode = $('perm-mode');
    mode.hidden = all.is_acl && state.editable;
    if (all.is_acl) mode.textContent = 'You may read these rules but not change them.';
    else if (all.acl_editable) mode.textContent = 'This item has no ACL yet: the rules below come from its mode bits. Saving gives it an ACL.';
    else mode.textContent = 'This item has no ACL and its file system cannot hold one.';
    render();
  } catch (e) {
    state.own = [];
    state.inheritedNow = [];
    state.inheritable = [];
    state.editable = false;
    render();
    notify(describe(e), true);
  }
}

function inheritedRows() {
  return state.inheritedNow.length ? state.inheritedNow : state.inheritable;
}

function render() {
  const ro = !state.editable || state.busy;
  $('inherit-switch').checked = state.inheritOn;
  $('inherit-switch').disabled = ro;
  for (const id of ['rule-add', 'save', 'acl-recur', 'owner-apply', 'reload']) $(id).disabled = state.busy || (id !== 'reload' && id !== 'owner-apply' && ro);
  $('save').textContent = state.dirty ? 'Save changes' : 'Save';
  renderBody($('rules-body'), state.own, inheritedRows(), state.inheritOn, !ro, {
    edit: (i) => openRuleDialog(i),
    remove: (i) => { state.own.splice(i, 1); changed(); },
    move: (i, d) => {
      const j = i + d;
      if (j < 0 || j >= state.own.length) return;
      [state.own[i], state.own[j]] = [state.own[j], state.own[i]];
      changed();
    },
  });
}

function changed() {
  state.dirty = true;
  render();
}

$('inherit-switch').addEventListener('change', (ev) => {
  state.inheritOn = ev.target.checked;
  changed();
});
$('reload').addEventListener('click', () => state.item && loadItem(state.item));

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
  if (editing >= 0) state.own[editing] = rule;
  else state.own.push(rule);
  changed();
});

// ---- confirmation -------------------------------------------------------------
function confirmDialog(text) {
  const d = $('confirm-dialog');
  $('confirm-text').textContent = text;
  d.returnValue = '';
  d.showModal();
  $('confirm-no').focus();
  return new Promise((resolve) => d.addEventListener('close', () => resolve(d.returnValue === 'yes'), { once: true }));
}

// ---- saving, as a background task ------------------------------------------
async function startAndFollow(params) {
  state.busy = true;
  render();
  try {
    const started = await acl('set', params);
    const result = await runTask(started.task_id, {
      box: $('task'), progress: $('task-progress'), text: $('task-text'), stopButton: $('task-stop'),
    });
    return result;
  } catch (e) {
    notify(describe(e), true);
    return { ok: false };
  } finally {
    state.busy = false;
    render();
  }
}

$('save').addEventListener('click', async () => {
  const item = state.item;
  if (!item) return;
  const rules = state.own.map(toRuleObject);
  try {
    const check = await acl('check_self_denied', {
      file_path: item.real_path, change_acl: true, rules, inherited: state.inheritOn,
    });
    if (check.is_denied && !(await confirmDialog(
      `With these rules you would have no access at all to ${item.path}. Save anyway?`))) return;
  } catch (e) {
    notify(describe(e), true);
    return;
  }
  const result = await startAndFollow({
    file_path: item.real_path,
    dirPaths: dirPathOf(item),
    change_acl: true,
    inherited: state.inheritOn,
    rules,
    acl_recur: $('acl-recur').checked,
  });
  if (result.ok) {
    notify(`Permissions of ${item.path} saved.`);
    await loadItem(item);
    $('task').hidden = false;  // keep the final progress line in view
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
    file_path: item.real_path,
    dirPaths: dirPathOf(item),
    change_acl: false,
    change_acl_owner: true,
    acl_owner_type: who.type,
    acl_owner: who.name,
    acl_owner_recur: $('owner-recur').checked,
  });
  if (result.ok) notify(`${principalLabel(who.type, who.name)} now owns ${item.path}.`);
});

// ---- effective permissions -------------------------------------------------
const inspectPicker = createPicker($('inspect-picker'), { label: 'For', builtin: true });
$('inspect-run').addEventListener('click', async () => {
  const item = state.item;
  const who = inspectPicker.value;
  const out = $('inspect-result');
  if (!item || !who) {
    notify('Choose whose permissions to show.', true);
    return;
  }
  try {
    const data = await acl('inspect', { file_path: item.real_path, owner_type: who.type, owner_name: who.name });
    out.innerHTML = '';
    for (const [key, , title] of PERMISSIONS) {
      const li = document.createElement('li');
      const yes = !!data.permission[key];
      li.className = yes ? 'yes' : 'no';
      li.dataset.perm = key;
      li.textContent = title;
      li.setAttribute('aria-label', `${title}: ${yes ? 'allowed' : 'not allowed'}`);
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
  try { await logout(); } catch (e) { /* the session is gone either way */ }
  showLogin();
});

renderHead($('rules-head'));
if (hasToken()) showApp(sessionStorage.getItem('kova-account'));
else showLogin();
