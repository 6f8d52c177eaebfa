// The rules table: the path's own rules (editable, in order) and the rules
// it inherits (marked, read-only), with the thirteen permissions as columns.
import { BASIC, PERMISSIONS, basicOf, inheritSummary, principalLabel } from './model.js';

const BASIC_NAMES = BASIC.map(([name]) => name).concat(['Special']);

// The basic columns (class "basic") and the thirteen one-letter ones
// (class "adv") are both drawn; the table's view class shows one set.
export function renderHead(tr) {
  tr.innerHTML = '';
  const cols = [['Owner', 'The user, group or built-in principal the rule is for'], ['Allow / deny']];
  for (const name of BASIC_NAMES) cols.push([name, undefined, 'basic']);
  for (const [, letter, title] of PERMISSIONS) cols.push([letter, title, 'adv']);
  cols.push(['Applies to'], ['Inherited from', 'The folder that sets an inherited rule'], ['Actions']);
  for (const [text, title, cls] of cols) {
    const th = document.createElement('th');
    th.scope = 'col';
    if (cls) th.className = cls;
    if (title) {
      const abbr = document.createElement('abbr');
      abbr.title = title;
      abbr.textContent = text;
      th.append(abbr);
    } else {
      th.textContent = text;
    }
    tr.append(th);
  }
}

function cell(tr, text, cls) {
  const td = document.createElement('td');
  if (text !== undefined) td.textContent = text;
  if (cls) td.className = cls;
  tr.append(td);
  return td;
}

function actionButton(td, label, title, fn, disabled = false) {
  const b = document.createElement('button');
  b.type = 'button';
  b.className = 'act';
  b.textContent = label;
  b.setAttribute('aria-label', title);
  b.title = title;
  b.disabled = disabled;
  b.addEventListener('click', fn);
  td.append(b);
}

// own: editable rules; inherited: rules from above (shown greyed when the
// inherit switch is off). actions: {edit(i), remove(i), move(i, delta)}.
// readError: why the rules could not be read (then nothing else is shown).
// The folder that sets a rule `level` steps above `itemPath`.
export function inheritedFrom(itemPath, level) {
  if (!level) return '';
  const parts = itemPath.split('/').filter(Boolean);
  if (level >= parts.length) return 'above the shared folder';
  return '/' + parts.slice(0, parts.length - level).join('/');
}

// The letters of the permission columns, in words, for the legend.
export function letterLegend() {
  return PERMISSIONS.map(([, letter, title]) => `${letter} = ${title}`).join(' · ');
}

// fixed: rows shown but neither edited nor saved (the owning group of mode bits).
export function renderBody(tbody, own, inherited, inheritOn, editable, readError, actions, itemPath = '', fixed = []) {
  tbody.innerHTML = '';
  const rows = own.map((r, i) => ({ r, i, inherited: false }))
    .concat(fixed.map((r) => ({ r, fixed: true })), inherited.map((r) => ({ r, inherited: true })));
  if (readError || !rows.length) {
    const tr = document.createElement('tr');
    const td = cell(tr, readError || 'No rules: nobody but the owner and administrators has access.');
    if (readError) td.className = 'error';
    td.colSpan = BASIC_NAMES.length + PERMISSIONS.length + 5;
    tbody.append(tr);
    return;
  }
  for (const { r, i, inherited: inh, fixed: fix } of rows) {
    const tr = document.createElement('tr');
    if (inh) tr.className = inheritOn ? 'inherited' : 'inherited disabled';
    if (fix) tr.className = 'mode-group';
    const who = principalLabel(r.owner_type, r.owner_name);
    const th = document.createElement('td');
    th.textContent = who;
    tr.append(th);
    cell(tr, r.permission_type === 'deny' ? 'Deny' : 'Allow', r.permission_type === 'deny' ? 'deny' : 'allow');
    basicOf(r.permission).forEach((on, k) => {
      const td = cell(tr, undefined, `basic ${on ? 'on' : 'off'}`);
      td.setAttribute('aria-label', `${BASIC_NAMES[k]}: ${on ? 'yes' : 'no'}`);
    });
    for (const [key, letter, title] of PERMISSIONS) {
      const on = !!(r.permission && r.permission[key]);
      const td = cell(tr, undefined, `adv right ${on ? 'on' : 'off'}`);
      td.dataset.letter = letter;
      td.setAttribute('aria-label', `${title}: ${on ? 'yes' : 'no'}`);
    }
    cell(tr, inheritSummary(r.inherit || {}), 'applies');
    const from = cell(tr, fix ? 'mode bits' : inheritedFrom(itemPath, r.level || 0));
    from.className = 'from';
    const act = cell(tr);
    if (!inh && !fix && editable) {
      actionButton(act, '✎', `Edit rule for ${who}`, () => actions.edit(i));
      actionButton(act, '↑', `Move rule for ${who} up`, () => actions.move(i, -1), i === 0);
      actionButton(act, '↓', `Move rule for ${who} down`, () => actions.move(i, 1), i === own.length - 1);
      actionButton(act, '✕', `Delete rule for ${who}`, () => actions.remove(i));
    }
    tbody.append(tr);
  }
}
