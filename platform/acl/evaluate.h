// The one rule that decides what a principal may do on a path. Every
// enforcement point of this library (reads, writes, owner changes,
// KOVAACLPermCheck, KOVAACLPermGet) calls EffectiveRights, and it computes
// what the module's inspect method computes for the same principal:
//
//  - root holds every right;
//  - an administrator holds every right strictly below a share root; at a
//    share root, and outside shares, only the entries decide;
//  - otherwise the entries are walked in order after moving, within each run
//    of equal level, deny entries before allow entries; entries marked
//    inherit-only (0x1) are skipped; the owner starts with 0x1820 granted,
//    and each applying entry decides the bits still undecided.
#ifndef KOVA_ACL_EVALUATE_H
#define KOVA_ACL_EVALUATE_H

#include "ace.h"

#include <sys/types.h>

#include <cstdint>
#include <vector>

namespace kova_acl {

struct Principal {
    int kind = KOVA_ACL_ID_USER;  // 1 user, 4 group, 8, 9 or 10
    uint32_t uid = 0;             // for a user
    std::vector<uint32_t> gids;   // groups the principal belongs to
    bool isRoot = false;
    bool isAdmin = false;

    // The calling process's effective identity.
    static Principal Caller();
};

// An owner identity: (KOVA_ACL_ID_USER, uid) or (KOVA_ACL_ID_GROUP, gid).
struct OwnerId {
    int idType = KOVA_ACL_ID_USER;
    int id = 0;
};

// Does an entry (or an owner identity in entry form) apply to p?
bool EntryMatches(int idType, int id, const Principal &p, bool isOwner);

// Deny-before-allow within each run of equal level; runs keep their order.
void OrderForEvaluation(std::vector<Ace> &entries);

// True when no entry can change p's rights on the path (root anywhere; an
// administrator strictly below a share root): EffectiveRights then answers
// every right without looking at the entries, so callers need not read the
// ancestors' records to ask it.
bool RightsIgnoreEntries(const Principal &p, bool belowShareRoot);

// The rights mask of p given the path's complete ACL (or its mode-derived
// entries) and owner. belowShareRoot: the path lies in a share and is not
// its root.
uint32_t EffectiveRights(const Principal &p, const OwnerId &owner, std::vector<Ace> entries, bool belowShareRoot);

} // namespace kova_acl

#endif
