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
export const PRESETS = {
  full: PERMISSIONS.map((p) => p[0]),
  modify: MODIFY,
  read: READ,
  none: [],
};

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
