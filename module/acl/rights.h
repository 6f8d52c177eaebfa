// Who an ACL entry speaks to, and the one evaluation of a principal's rights
// from a path's entries: inspect answers with it, check_self_denied judges
// proposed rules with it. It reads an ACL the way the platform enforces it.
// Pure functions: no platform calls, no state; the caller supplies the
// principal's groups, ownership and administrator status.
#ifndef KOVA_MODULE_ACL_RIGHTS_H
#define KOVA_MODULE_ACL_RIGHTS_H

#include "kova/acl.h"

#include <vector>

// A principal as the evaluation sees it.
struct RightsPrincipal {
    KOVA_ACL_ID id = {0, 0};         // a user (uid), a group (gid) or a built-in principal (-1)
    std::vector<unsigned int> gids;  // the groups that group entries may name
    bool isOwner = false;            // "Owner" entries apply (the path's owner is, or includes, it)
    bool isAdmin = false;            // a member of the administrators group, or that group
};

// Does an entry identity (or an owner identity in the same form) apply to
// the principal? isOwner decides "Owner" entries. Authenticated users are
// uid 1024 and uids above the guest (1025); SYSTEM is every uid below 1024.
bool EntryMatchesPrincipal(const KOVA_ACL_ID &entry, const KOVA_ACL_ID &principal,
                           const std::vector<unsigned int> &gids, bool isOwner);

// The rights no entry can change: every right (KOVA_ACL_PERM_ALL) for an
// administrator strictly below a share root, the owner's implicit rights
// for the owner, none otherwise.
unsigned int FixedRights(const RightsPrincipal &p, bool belowShareRoot);

// The rights mask of p given the bits `fixed` holds and the path's complete
// entries in the platform's order (own entries, then each ancestor's by
// level). The ACL is not changed.
unsigned int EffectiveRights(const RightsPrincipal &p, unsigned int fixed, const KOVA_ACL &acl);

#endif
