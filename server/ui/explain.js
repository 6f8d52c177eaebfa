// Why someone holds or lacks each right on an item, worked out from the
// rules the editor read, the way the server evaluates them: nearer levels
// first, within a level deny rules before allow rules, and for each right
// the first rule that names it decides. The owner always keeps reading
// attributes and reading and changing the rules; administrators hold every
// right below a share's top folder.
import { PERMISSIONS, principalLabel } from './model.js';
import { inheritedFrom } from './rules.js';

const OWNER_IMPLICIT = ['read_attr', 'read_perm', 'change_perm'];

// Does rule r name `who` ({type, name, groups} as the server lists an
// account; groups only for users)?
function names(r, who, isOwner) {
  const user = who.type === 'user';
  switch (r.owner_type) {
  case 'everyone': return true;
  case 'owner': return isOwner;
  case 'user': return user && r.owner_name === who.name;
  case 'group': return user ? who.groups.includes(r.owner_name) : who.type === 'group' && r.owner_name === who.name;
  case 'authenticated_user': return (user && who.name !== 'guest') || who.type === 'authenticated_user';
  case 'system': return who.type === 'system';
  default: return false;
  }
}

function isOwnerOf(owner, who) {
  if (!owner) return false;
  if (owner.type === 'user') return who.type === 'user' && owner.name === who.name;
  return (who.type === 'group' && owner.name === who.name) || (who.type === 'user' && who.groups.includes(owner.name));
}

// rules: the item's complete rules as read (own at level 0, then inherited).
// Returns {key: {allowed, why}} for the thirteen rights.
export function explainAccess({ who, rules, owner, belowShareTop, itemPath }) {
  const out = {};
  const admin = who.type === 'user' ? who.is_admin : who.type === 'group' && who.name === 'administrators';
  const isOwner = isOwnerOf(owner, who);
  const ordered = rules.map((r, i) => ({ r, n: i + 1 }))
    .filter(({ r }) => !(r.inherit && r.inherit.this_folder === false))   // passes down only
    .sort((a, b) => ((a.r.level || 0) - (b.r.level || 0)) ||
      ((a.r.permission_type === 'deny' ? 0 : 1) - (b.r.permission_type === 'deny' ? 0 : 1)) || (a.n - b.n));
  for (const [key] of PERMISSIONS) {
    if (admin && belowShareTop) {
      out[key] = { allowed: true, why: 'administrators hold every right below a share\'s top folder' };
      continue;
    }
    if (isOwner && OWNER_IMPLICIT.includes(key)) {
      out[key] = { allowed: true, why: 'the owner always holds it' };
      continue;
    }
    const hit = ordered.find(({ r }) => r.permission && r.permission[key] && names(r, who, isOwner));
    if (!hit) {
      out[key] = { allowed: false, why: 'no rule gives it' };
      continue;
    }
    const deny = hit.r.permission_type === 'deny';
    const where = hit.r.level ? `inherited from ${inheritedFrom(itemPath, hit.r.level)}` : `rule ${hit.n} of this item`;
    out[key] = { allowed: !deny, why: `${deny ? 'denied' : 'allowed'} by ${principalLabel(hit.r.owner_type, hit.r.owner_name)}, ${where}` };
  }
  return out;
}
