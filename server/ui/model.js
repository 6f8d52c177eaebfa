// The rule vocabulary: the thirteen permissions and four inheritance flags
// of a rule object, their labels, and the presets the rule dialog offers.
export const PERMISSIONS = [
  ['read_data', 'r', 'List folder / read data'],
  ['write_data', 'w', 'Create files / write data'],
  ['exe_file', 'x', 'Traverse folder / execute file'],
  ['append_data', 'p', 'Create folders / append data'],
  ['delete', 'd', 'Delete'],
  ['delete_sub', 'D', 'Delete sub-folders and files'],
  ['read_attr', 'a', 'Read attributes'],
  ['write_attr', 'A', 'Write attributes'],
  ['read_ext_attr', 'R', 'Read extended attributes'],
  ['write_ext_attr', 'W', 'Write extended attributes'],
  ['read_perm', 'c', 'Read permissions'],
  ['change_perm', 'C', 'Change permissions'],
  ['take_ownership', 'o', 'Take ownership'],
];

export const INHERIT = [
  ['this_folder', 'This folder'],
  ['child_folders', 'Child folders'],
  ['child_files', 'Child files'],
  ['all_descendants', 'All descendants (not only direct children)'],
];

const READ = ['read_data', 'exe_file', 'read_attr', 'read_ext_attr', 'read_perm'];
const MODIFY = READ.concat(['write_data', 'append_data', 'delete', 'write_attr', 'write_ext_attr', 'delete_sub']);
const READ_ONLY = ['read_data', 'read_attr', 'read_ext_attr', 'read_perm'];
const WRITE = ['write_data', 'append_data', 'write_attr', 'write_ext_attr'];
export const PRESETS = {
  full: PERMISSIONS.map((p) => p[0]),
  modify: MODIFY,
  read: READ,
  read_only: READ_ONLY,
  write: WRITE,
  none: [],
};

// The basic view's columns: named sets of the thirteen rights. A rule
// shows a set when it holds all of it, and "Special" when it holds a
// right that no set it holds covers.
export const BASIC = [
  ['Full control', PRESETS.full],
  ['Modify', MODIFY],
  ['Read & execute', READ],
  ['Read', READ_ONLY],
  ['Write', WRITE],
];

export function basicOf(permission) {
  const has = (k) => !!(permission && permission[k]);
  const held = BASIC.map(([, keys]) => keys.every(has));
  const covered = new Set(BASIC.filter((b, i) => held[i]).flatMap(([, keys]) => keys));
  const special = PERMISSIONS.some(([k]) => has(k) && !covered.has(k));
  return held.concat([special]);
}

// What each mode bit grants, as the platform reads mode bits as rules.
const MODE_BITS = [
  [4, 'r', ['read_data', 'read_attr', 'read_ext_attr', 'read_perm']],
  [2, 'w', ['write_data', 'append_data', 'delete', 'delete_sub', 'write_attr', 'write_ext_attr']],
  [1, 'x', ['exe_file']],
];

// The owning group's entry of an item without an ACL, from its listing
// (group {name}, mode "644"): shown beside the rules, never saved.
export function modeGroupRule(group, mode) {
  const digit = parseInt(mode[mode.length - 2], 8);
  const keys = MODE_BITS.filter(([bit]) => digit & bit).flatMap(([, , k]) => k);
  const rwx = (d) => MODE_BITS.map(([bit, letter]) => (d & bit ? letter : '-')).join('');
  return {
    owner_type: 'group',
    owner_name: group.name,
    permission_type: 'allow',
    permission: permissionObject(keys),
    inherit: { this_folder: true },
    level: 0,
    bits: [...mode.slice(-3)].map((c) => rwx(parseInt(c, 8))).join(''),
  };
}

const ADMINS = { owner_type: 'group', owner_name: 'administrators' };

// Whole sets of rules for common folders. main: the private folder's user,
// or the team (a group); guests: who may only read a team folder.
export function layoutRules(layout, main, guests) {
  const rule = (who, keys) => ({
    owner_type: who.type || who.owner_type,
    owner_name: who.name || who.owner_name,
    permission_type: 'allow',
    permission: permissionObject(keys),
    inherit: defaultInherit(),
    level: 0,
  });
  const rules = [rule(ADMINS, PRESETS.full)];
  if (layout === 'private') rules.push(rule(main, PRESETS.full));
  else {
    rules.push(rule(main, PRESETS.modify));
    if (guests) rules.push(rule(guests, PRESETS.read));
  }
  return rules;
}

export const FIXED_PRINCIPALS = {
  owner: 'Owner',
  everyone: 'Everyone',
  authenticated_user: 'Authenticated Users',
  system: 'SYSTEM',
};

export function permissionObject(keys) {
  const o = {};
  for (const [k] of PERMISSIONS) o[k] = keys.includes(k);
  return o;
}

export function defaultInherit() {
  return { this_folder: true, child_folders: true, child_files: true, all_descendants: true };
}

// The five keys a rule object consists of; reading-side keys are dropped.
export function toRuleObject(r) {
  return {
    owner_type: r.owner_type,
    owner_name: r.owner_name,
    permission_type: r.permission_type,
    permission: { ...r.permission },
    inherit: { ...r.inherit },
  };
}

export function principalLabel(type, name) {
  if (FIXED_PRINCIPALS[type]) return FIXED_PRINCIPALS[type];
  return `${name} (${type})`;
}

export function inheritSummary(inh) {
  const parts = [];
  if (inh.this_folder) parts.push('this folder');
  if (inh.child_folders) parts.push('sub-folders');
  if (inh.child_files) parts.push('files');
  let s = parts.join(', ') || 'nothing';
  if ((inh.child_folders || inh.child_files) && !inh.all_descendants) s += ' (one level)';
  return s;
}

// The rules a child would inherit from its parent, given the parent's rules
// as read ("all"): its own rules that pass to this kind of child, and what
// it inherits itself when those pass further down; one level further away.
export function parentPreview(parentRules, childIsDir) {
  return parentRules
    .filter((r) => (childIsDir ? r.inherit.child_folders : r.inherit.child_files) && (!r.level || r.inherit.all_descendants))
    .map((r) => ({ ...r, level: (r.level || 0) + 1 }));
}

// Does a rule name the account (directly, by one of its groups, or as a
// principal everyone signed in belongs to)?
function namesAccount(r, account, isOwner) {
  switch (r.owner_type) {
  case 'user': return r.owner_name === account.name;
  case 'group': return account.groups.includes(r.owner_name);
  case 'everyone':
  case 'authenticated_user': return true;
  case 'owner': return isOwner;
  default: return false;
  }
}

const CONTROL = [['read_perm', 'read the permissions'], ['change_perm', 'change the permissions']];

// Which of reading and changing the rules the account would lose with these
// rules: the nearest level decides, and within a level a deny wins. The
// owner always keeps both.
export function lostControlRights(own, inherited, account, owner) {
  const isOwner = !!owner && ((owner.type === 'user' && owner.name === account.name) ||
    (owner.type === 'group' && account.groups.includes(owner.name)));
  if (isOwner) return [];
  const rules = own.filter((r) => !r.inherit || r.inherit.this_folder).map((r) => ({ ...r, level: 0 }))
    .concat(inherited)
    .filter((r) => namesAccount(r, account, isOwner))
    .sort((a, b) => (a.level - b.level) || ((a.permission_type === 'deny' ? 0 : 1) - (b.permission_type === 'deny' ? 0 : 1)));
  const lost = [];
  for (const [key, words] of CONTROL) {
    const decider = rules.find((r) => r.permission && r.permission[key]);
    if (!decider || decider.permission_type === 'deny') lost.push(words);
  }
  return lost;
}
