// The share and folder browser: shares at the top, then folders one level
// at a time, with a breadcrumb. Selecting an entry hands it to onSelect.
import { files } from './api.js';
import { describe } from './messages.js';

const PAGE = 500;

export function createBrowser({ crumbs, entries, more, onSelect, onError }) {
  let path = null;   // null: the list of shares
  let loaded = [];
  let total = 0;
  let selected = null;
  let seq = 0;       // only the latest open() may draw: quick clicks overtake slow replies

  function crumb(label, target) {
    const li = document.createElement('li');
    const b = document.createElement('button');
    b.type = 'button';
    b.textContent = label;
    b.addEventListener('click', () => open(target));
    li.append(b);
    crumbs.append(li);
  }

  function renderCrumbs() {
    crumbs.innerHTML = '';
    crumb('Shares', null);
    if (path === null) return;
    const parts = path.split('/').filter(Boolean);
    parts.forEach((p, i) => crumb(p, '/' + parts.slice(0, i + 1).join('/')));
  }

  function row(item) {
    const li = document.createElement('li');
    if (selected && selected.real_path === item.real_path) li.className = 'selected';
    const icon = document.createElement('span');
    icon.className = item.is_dir ? 'icon dir' : 'icon file';
    icon.setAttribute('aria-hidden', 'true');
    const name = document.createElement('button');
    name.type = 'button';
    name.className = 'name';
    name.textContent = item.name;
    name.title = item.is_dir ? `Open ${item.name}` : `Permissions of ${item.name}`;
    name.addEventListener('click', () => (item.is_dir ? open(item.path) : select(item)));
    const perms = document.createElement('button');
    perms.type = 'button';
    perms.textContent = 'Permissions';
    perms.setAttribute('aria-label', `Permissions of ${item.name}`);
    perms.addEventListener('click', () => select(item));
    li.append(icon, name, perms);
    return li;
  }

  function render() {
    entries.innerHTML = '';
    if (!loaded.length) {
      const li = document.createElement('li');
      li.textContent = path === null ? 'No shared folder is open to you.' : 'This folder is empty.';
      entries.append(li);
    }
    for (const item of loaded) entries.append(row(item));
    more.hidden = loaded.length >= total;
  }

  function select(item) {
    selected = item;
    render();
    onSelect(item);
  }

  async function open(target, append = false) {
    const mine = ++seq;
    try {
      if (target === null) {
        const data = await files('list_shares');
        if (mine !== seq) return;
        loaded = data.shares.map((s) => ({ ...s, is_dir: true, is_share: true }));
        total = loaded.length;
      } else {
        const data = await files('list_dir', { path: target, offset: append ? loaded.length : 0, limit: PAGE });
        if (mine !== seq) return;
        const fresh = data.entries.map((e) => ({ ...e, share_read_only: data.read_only }));
        loaded = append ? loaded.concat(fresh) : fresh;
        total = data.total;
      }
      path = target;
      renderCrumbs();
      render();
    } catch (e) {
      if (mine === seq) onError(describe(e));
    }
  }

  more.addEventListener('click', () => open(path, true));
  return { open, refresh: () => open(path) };
}
