// The share and folder browser: shares at the top, then folders one level
// at a time, with a breadcrumb, a name filter and a count. The open folder
// is kept in the address (#/share/dir) so Back, Forward and reload keep it.
// Selecting an entry asks onSelect first, which may refuse (unsaved edits).
import { files } from './api.js';
import { describe } from './messages.js';

const PAGE = 500;
const FILTER_DELAY_MS = 250;

export function folderFromHash(hash = location.hash) {
  if (!hash || hash.length < 3 || hash[1] !== '/') return null;
  try {
    return decodeURIComponent(hash.slice(1));
  } catch (e) {
    return null;
  }
}

function hashOf(target) {
  return target === null ? '#' : '#' + target.split('/').map(encodeURIComponent).join('/');
}

export function createBrowser({ crumbs, entries, more, filter, count, onSelect, onShares, onError }) {
  let path = null;   // null: the list of shares
  let loaded = [];
  let total = 0;
  let unfiltered = 0;
  let selected = null;
  let seq = 0;       // only the latest open() may draw: quick clicks overtake slow replies
  let timer = null;

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
    if (selected && selected.path === item.path) li.className = 'selected';
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
    // Redrawing replaces the buttons: keep the keyboard where it was.
    const focused = entries.contains(document.activeElement) ? document.activeElement.getAttribute('aria-label') || document.activeElement.textContent : null;
    entries.innerHTML = '';
    if (!loaded.length) {
      const li = document.createElement('li');
      li.textContent = path === null ? 'No shared folder is open to you.'
        : filter.value ? 'No name matches the filter.' : 'This folder is empty.';
      entries.append(li);
    }
    for (const item of loaded) entries.append(row(item));
    more.hidden = loaded.length >= total;
    more.textContent = `More… (${loaded.length} of ${total})`;
    if (path === null) count.textContent = `${total} shared folder${total === 1 ? '' : 's'}`;
    else if (filter.value) count.textContent = `${total} of ${unfiltered} match`;
    else count.textContent = `${total} item${total === 1 ? '' : 's'}`;
    if (focused) {
      const again = [...entries.querySelectorAll('button')].find((b) => (b.getAttribute('aria-label') || b.textContent) === focused);
      if (again) again.focus();
    }
  }

  async function select(item) {
    if ((await onSelect(item)) === false) return;
    selected = item;
    render();
  }

  // history: 'push' (a new place), 'replace' (the same place, or the first
  // load) or 'none' (the address already says it: Back and Forward).
  async function open(target, { append = false, history = 'push' } = {}) {
    const mine = ++seq;
    const keepFilter = append || target === path;
    if (!keepFilter) filter.value = '';
    try {
      if (target === null) {
        const data = await files('list_shares');
        if (mine !== seq) return;
        onShares(data);
        const word = filter.value.toLowerCase();
        const all = data.shares.map((s) => ({ ...s, is_dir: true, is_share: true, share_path: '/' }));
        loaded = all.filter((s) => s.name.toLowerCase().includes(word));
        total = loaded.length;
        unfiltered = all.length;
      } else {
        const data = await files('list_dir', { path: target, offset: append ? loaded.length : 0, limit: PAGE, filter: filter.value });
        if (mine !== seq) return;
        const fresh = data.entries.map((e) => ({ ...e, share_read_only: data.read_only, show_real_path: data.show_real_path }));
        loaded = append ? loaded.concat(fresh) : fresh;
        total = data.total;
        unfiltered = data.unfiltered_total;
      }
      path = target;
      if (history !== 'none' && location.hash !== hashOf(target)) {
        if (history === 'push') window.history.pushState(null, '', hashOf(target));
        else window.history.replaceState(null, '', hashOf(target));
      }
      renderCrumbs();
      render();
    } catch (e) {
      if (mine === seq) onError(describe(e), e);
    }
  }

  filter.addEventListener('input', () => {
    clearTimeout(timer);
    timer = setTimeout(() => open(path, { history: 'none' }), FILTER_DELAY_MS);
  });
  more.addEventListener('click', () => open(path, { append: true, history: 'none' }));
  return { open, refresh: () => open(path, { history: 'none' }), get path() { return path; }, hashOf };
}
