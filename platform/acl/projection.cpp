// The projection of a stored ACL onto POSIX ACLs (rules in projection.h).
#include "projection.h"

#include "inherit.h"

#include "kova/account.h"

#include <set>

namespace kova_acl {

namespace {

enum class Match { No, Maybe, Yes };

// What is known about every user a POSIX entry can apply to.
struct Who {
    bool uidKnown = false;
    uint32_t uid = 0;
    const std::set<uint32_t> *notUids = nullptr;  // uids it is surely not (uid unknown)
    bool hasGid = false;      // members of this group, for a group entry
    uint32_t gid = 0;
    bool namedUsersOut = false;   // the entry never applies to a named user
    bool namedGroupsOut = false;  // ... nor to a member of a named group
    Match owner = Match::No;
};

Match MatchOf(const Ace &e, const Who &w) {
    switch (e.idType) {
    case KOVA_ACL_ID_EVERYONE: return Match::Yes;
    case KOVA_ACL_ID_OWNER: return w.owner;
    case KOVA_ACL_ID_USER:
        if (w.uidKnown) return static_cast<uint32_t>(e.id) == w.uid ? Match::Yes : Match::No;
        if (w.notUids && w.notUids->count(static_cast<uint32_t>(e.id))) return Match::No;
        return w.namedUsersOut ? Match::No : Match::Maybe;
    case KOVA_ACL_ID_GROUP:
        if (w.hasGid && static_cast<uint32_t>(e.id) == w.gid) return Match::Yes;
        return w.namedGroupsOut ? Match::No : Match::Maybe;
    case KOVA_ACL_ID_AUTHUSER:
        if (!w.uidKnown) return Match::Maybe;
        return w.uid == KOVA_UID_FIRST_USER || w.uid > KOVA_UID_GUEST ? Match::Yes : Match::No;
    case KOVA_ACL_ID_SYSTEM:
        if (!w.uidKnown) return Match::Maybe;
        return w.uid < KOVA_UID_FIRST_USER ? Match::Yes : Match::No;
    default: return Match::No;
    }
}

// The rights every user described by w holds for sure. The evaluation
// order is EffectiveRights' (ordered holds the entries after
// OrderForEvaluation); per bit, the first entry that surely applies
// decides, and an entry that may apply denies the bit when it denies it
// (some member gets that deny) and is passed over when it allows it (some
// member does not get that grant).
uint32_t SureRights(const std::vector<Ace> &ordered, const Who &w) {
    uint32_t granted = 0, decided = 0;
    for (const Ace &e : ordered) {
        if (e.inherit & KOVA_ACL_INHERIT_ONLY) continue;
        const Match m = MatchOf(e, w);
        if (m == Match::No) continue;
        const uint32_t bits = e.permission & ~decided;
        if (m == Match::Yes) {
            if (e.access == KOVA_ACL_ALLOW) granted |= bits;
            decided |= bits;
        } else if (e.access == KOVA_ACL_DENY) {
            decided |= bits;
        }
    }
    return granted;
}

// Who the access ACL's or the default ACL's entries stand for.
struct Subject {
    bool forDefault = false;  // the owner is whoever creates the child
    std::set<uint32_t> nonCreators;  // forDefault: uids the folder lets create nothing
    bool adminsHoldAll = false;  // strictly below a share root
    uid_t fileUid = 0;
    gid_t fileGid = 0;
    OwnerId owner;
};

Match OwnerMatch(const Subject &s, uint16_t tag, uint32_t id) {
    if (s.forDefault) return tag == kUserObj ? Match::Yes : Match::No;
    if (s.owner.idType == KOVA_ACL_ID_USER) {
        // The platform's user owner is the file's uid: only the owner entry
        // is ever his (the kernel ignores a named entry of the file's uid).
        return tag == kUserObj && static_cast<uint32_t>(s.owner.id) == s.fileUid ? Match::Yes : Match::No;
    }
    const uint32_t ogid = static_cast<uint32_t>(s.owner.id);
    if (tag == kOther) return Match::No;  // the owning group is a named group entry
    if ((tag == kGroup || tag == kGroupObj) && id == ogid) return Match::Yes;
    return Match::Maybe;
}

uint16_t BitsFor(const std::vector<Ace> &ordered, const Who &w, bool isDir) {
    return static_cast<uint16_t>(PosixBitsOf(SureRights(ordered, w), isDir));
}

// The mask: everything the group class (named users, groups) holds.
void SetMask(PosixAcl &acl) {
    uint16_t mask = 0;
    for (const PosixEntry &e : acl.entries)
        if (e.tag == kUser || e.tag == kGroupObj || e.tag == kGroup) mask = static_cast<uint16_t>(mask | e.perm);
    for (PosixEntry &e : acl.entries) {
        if (e.tag == kMask) e.perm = mask;
        if (e.tag == kOther && mask == 0 && !acl.MinimalForm()) e.perm = 0;  // as in Build
    }
}

// One POSIX ACL for the entries (already ordered) as seen by s. uids and
// gids are the named entries to emit; allNamed: they are all that the
// entries name (else a user or group entry may apply to any class).
PosixAcl Build(const std::vector<Ace> &ordered, const Subject &s, bool isDir, const std::set<uint32_t> &uids,
               const std::set<uint32_t> &gids, bool allNamed = true) {
    PosixAcl acl;
    Who w;
    if (!s.forDefault) {
        w.uidKnown = true;
        w.uid = s.fileUid;
    } else {
        w.notUids = &s.nonCreators;
    }
    w.owner = OwnerMatch(s, kUserObj, kNoId);
    acl.entries.push_back({kUserObj, BitsFor(ordered, w, isDir), kNoId});
    uint16_t mask = 0;
    bool named = false;
    for (uint32_t u : uids) {
        if (!s.forDefault && u == s.fileUid) continue;  // the owner entry is his
        Who n;
        n.uidKnown = true;
        n.uid = u;
        n.owner = OwnerMatch(s, kUser, u);
        const uint16_t b = BitsFor(ordered, n, isDir);
        acl.entries.push_back({kUser, b, u});
        mask |= b;
        named = true;
    }
    auto groupEntry = [&](uint16_t tag, bool gidKnown, uint32_t gid) {
        Who g;
        g.hasGid = gidKnown;
        g.gid = gid;
        g.namedUsersOut = allNamed;
        g.owner = OwnerMatch(s, tag, gidKnown ? gid : kNoId);
        if (!gidKnown && g.owner == Match::Yes) g.owner = Match::Maybe;
        uint16_t b = BitsFor(ordered, g, isDir);
        // Every member of the administrators' group is an administrator.
        if (s.adminsHoldAll && gidKnown && gid == KOVA_ADMIN_GID) b = 7;
        acl.entries.push_back({tag, b, tag == kGroup ? gid : kNoId});
        mask |= b;
    };
    // A child's group is its creator's or the folder's: not known here.
    groupEntry(kGroupObj, !s.forDefault, s.fileGid);
    for (uint32_t g : gids) {
        groupEntry(kGroup, true, g);
        named = true;
    }
    if (named) acl.entries.push_back({kMask, mask, kNoId});
    Who o;
    o.namedUsersOut = allNamed;
    o.namedGroupsOut = allNamed;
    o.owner = OwnerMatch(s, kOther, kNoId);
    if (!allNamed && o.owner == Match::No && s.owner.idType == KOVA_ACL_ID_GROUP) o.owner = Match::Maybe;
    uint16_t other = BitsFor(ordered, o, isDir);
    // The kernel skips an ACL whose mask is empty and judges everyone but
    // the owner by the other entry: that entry must then be empty too.
    if (named && mask == 0) other = 0;
    acl.entries.push_back({kOther, other, kNoId});
    return acl;
}

// Named entries: every user and group an applying entry names, and a group
// owner (so that "other" surely excludes members of all of them).
void Names(const std::vector<Ace> &entries, std::set<uint32_t> &uids, std::set<uint32_t> &gids) {
    for (const Ace &e : entries) {
        if (e.inherit & KOVA_ACL_INHERIT_ONLY) continue;
        if (e.idType == KOVA_ACL_ID_USER) uids.insert(static_cast<uint32_t>(e.id));
        if (e.idType == KOVA_ACL_ID_GROUP) gids.insert(static_cast<uint32_t>(e.id));
    }
}

} // namespace

unsigned PosixBitsOf(uint32_t rights, bool isDir) {
    auto all = [&](uint32_t m) { return (rights & m) == m; };
    unsigned bits = 0;
    if (all(KOVA_ACL_PERM_READ_DATA)) bits |= 4;
    if (all(isDir ? (KOVA_ACL_PERM_WRITE_DATA | KOVA_ACL_PERM_APPEND_DATA | KOVA_ACL_PERM_DELETE_CHILD)
                  : (KOVA_ACL_PERM_WRITE_DATA | KOVA_ACL_PERM_APPEND_DATA)))
        bits |= 2;
    if (all(KOVA_ACL_PERM_EXECUTE)) bits |= 1;
    return bits;
}

Projection Project(const std::vector<Ace> &complete, const OwnerId &owner, uid_t fileUid, gid_t fileGid, bool isDir,
                   bool belowShareRoot, bool inShare) {
    Projection p;
    std::vector<Ace> ordered = complete;
    OrderForEvaluation(ordered);
    Subject s;
    s.fileUid = fileUid;
    s.fileGid = fileGid;
    s.owner = owner;
    s.adminsHoldAll = belowShareRoot;
    std::set<uint32_t> uids, gids;
    Names(ordered, uids, gids);
    if (belowShareRoot) gids.insert(KOVA_ADMIN_GID);
    if (owner.idType == KOVA_ACL_ID_GROUP) gids.insert(static_cast<uint32_t>(owner.id));
    p.access = Build(ordered, s, isDir, uids, gids);
    // Without named entries every group and user entry may apply to the
    // owning group's members and to others.
    p.coarse = Build(ordered, s, isDir, {}, {}, false);
    if (!isDir) return p;
    // What a child created by any program inherits: the entries passed to
    // a file and to a folder, one level down; one default ACL serves both,
    // so it grants what both would.
    std::vector<Ace> toFile, toDir;
    for (const Ace &e : complete) {
        Ace c;
        if (PassDown(e, false, c)) toFile.push_back(c);
        if (PassDown(e, true, c)) toDir.push_back(c);
    }
    if (toFile.empty() && toDir.empty()) return p;
    for (Ace &e : toFile) e.level += 1;
    for (Ace &e : toDir) e.level += 1;
    OrderForEvaluation(toFile);
    OrderForEvaluation(toDir);
    std::set<uint32_t> du, dg;
    Names(toFile, du, dg);
    Names(toDir, du, dg);
    Subject child;
    child.forDefault = true;
    // Creating a child takes the kernel's w and x on the folder: a named
    // user whose own entry lacks them never owns a child made here, so his
    // entries do not cut what the creator's user:: gets. (The folder's uid
    // is left in: he may change its mode behind the platform's back.)
    for (const PosixEntry &e : p.access.entries)
        if (e.tag == kUser && (e.perm & 3) != 3) child.nonCreators.insert(e.id);
    child.adminsHoldAll = inShare;  // a folder's children lie below its share's root
    if (inShare) dg.insert(KOVA_ADMIN_GID);
    PosixAcl f = Build(toFile, child, false, du, dg);
    PosixAcl d = Build(toDir, child, true, du, dg);
    for (size_t i = 0; i < f.entries.size() && i < d.entries.size(); ++i) f.entries[i].perm &= d.entries[i].perm;
    SetMask(f);
    p.hasDefault = true;
    p.deflt = f;
    return p;
}

} // namespace kova_acl
