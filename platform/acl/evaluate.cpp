// The rights evaluation (rules in evaluate.h).
#include "evaluate.h"

#include "kova/account.h"
#include "kova-internal/identity.h"
#include "kova-internal/task-end.h"
#include <unistd.h>

#include <cerrno>

#include <algorithm>

namespace kova_acl {

namespace {

// A background task acts as one user for its run and changes its groups
// only through the identity component: its supplementary groups are asked
// once per effective uid, gid and groups generation (kova-internal/identity.h)
// instead of once per call.
struct KeptCaller {
    bool valid = false;
    uid_t uid = 0;
    gid_t gid = 0;
    uint64_t generation = 0;
    Principal p;
};
thread_local KeptCaller tKeptCaller;

} // namespace

Principal Principal::Caller() {
    const uid_t euid = geteuid();
    const gid_t egid = getegid();
    const bool task = kova_internal::InTaskProcess();
    const uint64_t generation = kova_internal::GroupsGeneration();
    KeptCaller &k = tKeptCaller;
    if (task && k.valid && k.uid == euid && k.gid == egid && k.generation == generation) return k.p;
    Principal p;
    p.kind = KOVA_ACL_ID_USER;
    p.uid = euid;
    p.isRoot = p.uid == 0;
    // One getgroups call for the usual few groups; only a caller with more
    // than fit here pays for asking the count first.
    gid_t few[32];
    std::vector<gid_t> many;
    const gid_t *groups = few;
    int n = getgroups(static_cast<int>(sizeof few / sizeof few[0]), few);
    if (n < 0 && errno == EINVAL) {
        const int count = getgroups(0, nullptr);
        if (count > 0) {
            many.resize(static_cast<size_t>(count));
            n = getgroups(count, many.data());
            groups = many.data();
        }
    }
    if (n < 0) n = 0;
    p.gids.reserve(static_cast<size_t>(n) + 1);
    p.gids.push_back(egid);
    for (int i = 0; i < n; ++i)
        if (groups[i] != egid) p.gids.push_back(groups[i]);
    p.isAdmin = std::find(p.gids.begin(), p.gids.end(), static_cast<uint32_t>(KOVA_ADMIN_GID)) != p.gids.end();
    if (task) {
        k.valid = true;
        k.uid = euid;
        k.gid = egid;
        k.generation = generation;
        k.p = p;
    }
    return p;
}

bool EntryMatches(int idType, int id, const Principal &p, bool isOwner) {
    auto inGroups = [&](int gid) {
        return gid >= 0 && std::find(p.gids.begin(), p.gids.end(), static_cast<uint32_t>(gid)) != p.gids.end();
    };
    switch (idType) {
    case KOVA_ACL_ID_EVERYONE: return true;
    case KOVA_ACL_ID_OWNER: return isOwner;
    case KOVA_ACL_ID_USER: return p.kind == KOVA_ACL_ID_USER && id >= 0 && static_cast<uint32_t>(id) == p.uid;
    case KOVA_ACL_ID_GROUP: return inGroups(id);
    case KOVA_ACL_ID_AUTHUSER:
        // The guest (1025) and system accounts are not authenticated users.
        return p.kind == KOVA_ACL_ID_AUTHUSER ||
               (p.kind == KOVA_ACL_ID_USER && (p.uid == KOVA_UID_FIRST_USER || p.uid > KOVA_UID_GUEST));
    case KOVA_ACL_ID_SYSTEM:
        return p.kind == KOVA_ACL_ID_SYSTEM || (p.kind == KOVA_ACL_ID_USER && p.uid < KOVA_UID_FIRST_USER);
    default: return false;
    }
}

void OrderForEvaluation(std::vector<Ace> &entries) {
    size_t start = 0;
    while (start < entries.size()) {
        size_t end = start;
        while (end < entries.size() && entries[end].level == entries[start].level) ++end;
        std::stable_partition(entries.begin() + static_cast<long>(start), entries.begin() + static_cast<long>(end),
                              [](const Ace &a) { return a.access == KOVA_ACL_DENY; });
        start = end;
    }
}

bool RightsIgnoreEntries(const Principal &p, bool belowShareRoot) {
    return p.isRoot || (p.isAdmin && belowShareRoot);
}

uint32_t EffectiveRights(const Principal &p, const OwnerId &owner, std::vector<Ace> entries, bool belowShareRoot) {
    // An administrator below a share root starts with every right granted
    // and none undecided: no entry could take one away.
    if (RightsIgnoreEntries(p, belowShareRoot)) return KOVA_ACL_PERM_ALL;
    OrderForEvaluation(entries);
    const bool isOwner = EntryMatches(owner.idType, owner.id, p, false);
    uint32_t granted = 0, undecided = 0xFFFFFFFFu;
    if (isOwner) {
        granted = KOVA_ACL_PERM_OWNER_IMPLICIT;
        undecided = ~static_cast<uint32_t>(KOVA_ACL_PERM_OWNER_IMPLICIT);
    }
    for (const Ace &e : entries) {
        if (!EntryMatches(e.idType, e.id, p, isOwner) || (e.inherit & KOVA_ACL_INHERIT_ONLY)) continue;
        uint32_t bits = e.permission & undecided;
        undecided &= ~e.permission;
        if (e.access == KOVA_ACL_DENY)
            granted &= ~bits;
        else
            granted |= bits;
        if (undecided == 0) break;
    }
    return granted;
}

} // namespace kova_acl
