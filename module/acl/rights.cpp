// The rights evaluation (contract in rights.h).
#include "rights.h"

#include "kova/account.h"

#include <algorithm>

namespace {

bool IsUser(const KOVA_ACL_ID &principal) { return principal.idType == KOVA_ACL_ID_USER; }

} // namespace

bool EntryMatchesPrincipal(const KOVA_ACL_ID &entry, const KOVA_ACL_ID &principal,
                           const std::vector<unsigned int> &gids, bool isOwner) {
    const unsigned int uid = static_cast<unsigned int>(principal.id);
    switch (entry.idType) {
    case KOVA_ACL_ID_EVERYONE:
        return true;
    case KOVA_ACL_ID_OWNER:
        return isOwner;
    case KOVA_ACL_ID_USER:
        return IsUser(principal) && principal.id == entry.id;
    case KOVA_ACL_ID_GROUP:
        return std::find(gids.begin(), gids.end(), static_cast<unsigned int>(entry.id)) != gids.end();
    case KOVA_ACL_ID_AUTHUSER:
        // The guest is not an authenticated user, and neither are the
        // system accounts below the first user.
        if (principal.idType == KOVA_ACL_ID_AUTHUSER) return true;
        return IsUser(principal) && (uid == KOVA_UID_FIRST_USER || uid > KOVA_UID_GUEST);
    case KOVA_ACL_ID_SYSTEM:
        if (principal.idType == KOVA_ACL_ID_SYSTEM) return true;
        return IsUser(principal) && uid < KOVA_UID_FIRST_USER;
    default:
        return false;
    }
}

unsigned int FixedRights(const RightsPrincipal &p, bool belowShareRoot) {
    if (p.isAdmin && belowShareRoot) return KOVA_ACL_PERM_ALL;
    if (p.isOwner) return KOVA_ACL_PERM_OWNER_IMPLICIT;
    return 0;
}

/*
 * How the entries decide.
 *
 * Rights are decided bit by bit. The bits in `fixed` are granted before any
 * entry is read and stay granted; every other bit starts undecided.
 *
 * The entries are read level by level in the order the platform lists them:
 * the path's own entries (level 0) first, then those each ancestor passes
 * down, nearer ancestors first. Within one run of entries of the same level,
 * every deny entry is read before every allow entry, whatever their order in
 * the ACL; the deny entries keep their order among themselves, and so do the
 * allow entries. Runs are never merged or reordered, so the nearer level
 * always speaks first.
 *
 * An entry that does not apply to the principal is passed over, and so is
 * an inherit-only entry: it is on this path only to be passed further down.
 * An applying entry decides each of its bits that is still undecided: a deny
 * entry refuses them, an allow entry grants them; bits an earlier entry
 * already decided are not touched again. Hence a deny wins over an allow of
 * its own level, while an allow of a nearer level wins over a deny further
 * up. The reading stops once no bit is undecided; a bit that no applying
 * entry names is refused.
 *
 * check_self_denied passes no fixed bits and needs levels that never go
 * down: for such a list this first-decides reading grants a bit exactly
 * when some level allows it and no level up to and including that one
 * denies it.
 */
unsigned int EffectiveRights(const RightsPrincipal &p, unsigned int fixed, const KOVA_ACL &acl) {
    std::vector<const KOVA_ACL_ENTRY *> order;
    for (const KOVA_ACL_ENTRY *ace = acl.pHead; ace; ace = ace->pNext) order.push_back(ace);
    for (auto run = order.begin(); run != order.end();) {
        const unsigned int level = (*run)->level;
        const auto end = std::find_if(run, order.end(), [&](const KOVA_ACL_ENTRY *e) { return e->level != level; });
        std::stable_partition(run, end, [](const KOVA_ACL_ENTRY *e) { return e->accessType == KOVA_ACL_DENY; });
        run = end;
    }

    unsigned int granted = fixed;
    unsigned int undecided = ~fixed;
    for (const KOVA_ACL_ENTRY *ace : order) {
        const KOVA_ACL_ID id = {ace->idType, ace->id};
        if ((ace->inherit & KOVA_ACL_INHERIT_ONLY) || !EntryMatchesPrincipal(id, p.id, p.gids, p.isOwner)) continue;
        const unsigned int bits = ace->permission & undecided;
        undecided &= ~ace->permission;
        if (ace->accessType == KOVA_ACL_DENY)
            granted &= ~bits;
        else
            granted |= bits;
        if (undecided == 0) break;
    }
    return granted;
}
