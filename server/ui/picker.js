// A principal picker: type to search users and groups (and, where asked,
// the built-in principals) across every account source the server has, in
// pages; pick one with the mouse or the keyboard.
import { acl } from './api.js';
import { describe } from './messages.js';
import { principalLabel } from './model.js';

const PAGE = 20;
let sourcesPromise = null;

// The sources to offer, from what the server says is there.
function loadSources() {
  if (!sourcesPromise) {
    sourcesPromise = acl('get_ui_info').then((info) => {
      const ds = info.directoryServiceInfo || { type: 'none', items: [] };
      const list = [
        { label: 'All sources', scope: [{ type: 'local' }, { type: 'ldap' }].concat(ds.type === 'none' ? [] : [{ type: 'domain' }]) },
        { label: 'Local accounts', scope: [{ type: 'local' }] },
        { label: 'System accounts', scope: [{ type: 'internal' }] },
        { label: 'LDAP directory', scope: [{ type: 'ldap' }] },
      ];
      for (const item of ds.items || []) {
        const bindon = ds.type === 'domain:ou' && item.detail ? item.detail : item.name;
        list.push({ label: `${ds.type === 'domain:ou' ? 'Unit' : 'Domain'} ${item.name}`, scope: [{ type: 'domain', config: { bindon } }] });
      }
      return list;
    }).catch(() => {
      sourcesPromise = null;  // ask again next time
      return [{ label: 'Local accounts', scope: [{ type: 'local' }] }];
    });
  }
  return sourcesPromise;
}

let counter = 0;

export function createPicker(container, { label, builtin = false, exclude = [], onChange = () => {} }) {
  const id = `picker${++counter}`;
  container.innerHTML = '';
  const lab = document.createElement('label');
  lab.htmlFor = `${id}-input`;
  lab.textContent = label;
  const source = document.createElement('select');
  source.setAttribute('aria-label', `${label}: where to search`);
  const input = document.createElement('input');
  input.id = `${id}-input`;
  input.type = 'search';
  input.autocomplete = 'off';
  input.placeholder = 'Type a name…';
  input.setAttribute('role', 'combobox');
  input.setAttribute('aria-autocomplete', 'list');
  input.setAttribute('aria-expanded', 'false');
  input.setAttribute('aria-controls', `${id}-list`);
  const chosen = document.createElement('span');
  chosen.className = 'chosen';
  chosen.setAttribute('aria-live', 'polite');
  const list = document.createElement('ul');
  list.id = `${id}-list`;
  list.setAttribute('role', 'listbox');
  list.hidden = true;
  container.append(lab, source, input, chosen, list);

  let sources = [];
  let value = null;
  let items = [];
  let total = 0;
  let active = -1;
  let seq = 0;
  let timer = null;

  // Sources are asked for on first use, once signed in.
  async function ready() {
    if (sources.length) return;
    sources = await loadSources();
    source.innerHTML = '';
    sources.forEach((src, i) => source.add(new Option(src.label, String(i))));
  }

  function scope() {
    const src = sources[Number(source.value)] || { scope: [{ type: 'local' }] };
    return (builtin ? [{ type: 'builtin' }] : []).concat(src.scope);
  }

  async function search(offset) {
    const mine = ++seq;
    await ready();
    const params = {
      keyword: input.value.trim(),
      keywordFields: { name: true, description: true, email: true, fullname: true },
      searchScope: scope(),
      offset,
      limit: PAGE,
    };
    try {
      const data = await acl('list_owners', params, 2);
      if (mine !== seq) return;  // a newer search is on its way
      const fresh = data.owners.filter((o) => !exclude.includes(o.type));
      total = data.total - (data.owners.length - fresh.length);
      items = offset === 0 ? fresh : items.concat(fresh);
      // A highlight from the previous results would pick someone else.
      if (offset === 0) {
        active = -1;
        input.removeAttribute('aria-activedescendant');
      }
      render();
    } catch (e) {
      if (mine !== seq) return;
      items = [];
      list.innerHTML = '';
      const li = document.createElement('li');
      li.textContent = describe(e);
      list.append(li);
      open(true);
    }
  }

  function open(yes) {
    list.hidden = !yes;
    input.setAttribute('aria-expanded', String(yes));
  }

  function render() {
    list.innerHTML = '';
    items.forEach((o, i) => {
      const li = document.createElement('li');
      li.id = `${id}-opt${i}`;
      li.setAttribute('role', 'option');
      li.dataset.index = String(i);
      li.setAttribute('aria-selected', String(i === active));
      li.textContent = principalLabel(o.type, o.name) + ' ';
      const extra = [o.fullname, o.description, o.email].filter(Boolean).join(' · ');
      if (extra) {
        const small = document.createElement('small');
        small.textContent = extra;
        li.append(small);
      }
      list.append(li);
    });
    if (items.length < total) {
      const more = document.createElement('li');
      more.className = 'more';
      more.setAttribute('role', 'option');
      more.textContent = `More… (${items.length} of ${total})`;
      more.dataset.more = '1';
      list.append(more);
    } else if (!items.length) {
      const none = document.createElement('li');
      none.textContent = 'Nothing found';
      list.append(none);
    }
    open(true);
  }

  function pick(o) {
    // A search still waiting to start, or on its way, must not open the
    // list again over what was just chosen.
    clearTimeout(timer);
    seq += 1;
    value = { type: o.type, name: o.name };
    chosen.textContent = principalLabel(o.type, o.name);
    input.value = '';
    open(false);
    onChange(value);
  }

  list.addEventListener('mousedown', (ev) => ev.preventDefault());  // keep focus in the input
  list.addEventListener('click', (ev) => {
    const li = ev.target.closest('li');
    if (!li) return;
    if (li.dataset.more) search(items.length);
    else if (li.dataset.index) pick(items[Number(li.dataset.index)]);
  });
  input.addEventListener('input', () => {
    clearTimeout(timer);
    active = -1;
    timer = setTimeout(() => search(0), 200);
  });
  input.addEventListener('focus', () => { if (!items.length) search(0); else render(); });
  input.addEventListener('blur', () => setTimeout(() => open(false), 150));
  source.addEventListener('change', () => search(0));
  input.addEventListener('keydown', (ev) => {
    if (ev.key === 'ArrowDown' || ev.key === 'ArrowUp') {
      ev.preventDefault();
      if (!items.length) return;
      active = (active + (ev.key === 'ArrowDown' ? 1 : items.length - 1)) % items.length;
      render();
      input.setAttribute('aria-activedescendant', `${id}-opt${active}`);
    } else if (ev.key === 'Enter' && active >= 0 && !list.hidden) {
      ev.preventDefault();
      pick(items[active]);
    } else if (ev.key === 'Escape' && !list.hidden) {
      // Closes the list only, not the dialog the picker sits in, and
      // clears the search as a search box does: the next Escape is the
      // dialog's.
      ev.preventDefault();
      ev.stopPropagation();
      clearTimeout(timer);
      seq += 1;
      input.value = '';
      open(false);
    }
  });

  return {
    get value() { return value; },
    set(type, name) {
      value = type ? { type, name } : null;
      chosen.textContent = type ? principalLabel(type, name) : '';
    },
    focus() { input.focus(); },
    // Fills the source list; called once signed in.
    prepare: () => ready(),
  };
}
