// The ACL calls on paths. Each one takes the caller's effective identity
// first, then acts as root to read or write trusted attributes, and enforces
// the caller's rights with the one evaluation (evaluate.h) in between.
#include "ace.h"
#include "acl-store.h"
#include "evaluate.h"
#include "fs-type.h"
#include "kernel-acl.h"
#include "propagation.h"
#include "propagation-defer.h"
#include "walk-coverage.h"
#include "refresh.h"
#include "mode-acl.h"
#include "path-state.h"

#include "kova/errcode.h"
#include "kova/share.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/task-end.h"

#include <linux/capability.h>

#include <cstring>

using namespace kova_acl;

namespace {

bool ValidSelector(int s) { return s == KOVA_ACL_GET_ALL || s == KOVA_ACL_GET_OWN || s == KOVA_ACL_GET_INHERITED; }

// Copies the public list into values, checking that it is consistent and
// every entry is well formed (levels are ignored: stored entries are own).
bool EntriesFromPublic(const KOVA_ACL &acl, std::vector<Ace> &out) {
    int n = 0;
    for (const KOVA_ACL_ENTRY *e = acl.pHead; e; e = e->pNext) {
        if (++n > acl.aceCount) break;
        if (!AceFieldsValid(e->idType, e->id, e->permission, e->inherit, e->accessType)) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return false;
        }
        Ace a = FromPublic(*e);
        a.level = 0;
        out.push_back(a);
    }
    if (n != acl.aceCount) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    if (n > kMaxEntries) {
        KOVA_FAIL(KOVA_ERR_ACL_NOSPACE);
        return false;
    }
    return true;
}

// Reads everything the rights of a path depend on (own record, ancestors,
// owner) as root, for a caller judged afterwards with its own ids.
bool LoadForCaller(const char *szPath, const Principal &caller, PathState &s) {
    Elevation root(caller.uid);
    return root.ok() && LoadPathState(szPath, s);
}

// After a folder's record changed: its descendants' kernel ACLs follow what
// it now passes down, in the background (propagation.h), or at the end of
// the task that made the change (propagation-defer.h). A propagation that
// cannot start leaves them for `kova-admin acl verify --repair`; the set
// itself has succeeded.
void FollowInheritance(const Target &t, const PreviousRecord &prev, bool hasNew, const StoredAcl &next) {
    CoverageNote(t);
    if (!t.hasStat || !t.IsDir()) return;
    if (!prev.damaged && PassesDownTheSame(prev.had, prev.acl, hasNew, next)) return;
    // A task follows its changes at its end (propagation-defer.h).
    if (DeferPropagation(t, hasNew && next.inherits)) return;
    (void)StartPropagation(t);
}

// Write, project, refresh: the whole of a set once the caller may write.
bool WriteAndProject(Target &t, StoredAcl &next, bool replaceCorrupt) {
    PreviousRecord prev;
    if (!WriteStoredKeepingGroupOwner(t, next, replaceCorrupt, &prev) || !ProjectStored(t, next)) return false;
    FollowInheritance(t, prev, true, next);
    return true;
}

// A caller that holds CAP_SYS_ADMIN (a background task keeps it, see
// kova/fileshare.h) may write trusted attributes under its own ids. When
// the entries do not decide its rights (RightsIgnoreEntries), the write is
// all the set needs, so it is tried without raising the uid: the folder is
// then resolved with the caller's own search rights. False on any failure,
// with nothing written; the caller then makes the raised attempt, whose
// result is the call's.
bool SetWithoutRaising(const char *szPath, const Principal &caller, StoredAcl &next) {
    // Root never raises anyway, and only an administrator's rights can
    // ignore the entries once the path is known.
    if (caller.isRoot || !caller.isAdmin) return false;
    // A task process keeps CAP_SYS_ADMIN and CAP_FOWNER for its run
    // (kova/fileshare.h): it tries the writes without asking the kernel
    // first. Should it have dropped one, the kernel refuses the write
    // (EPERM), as it would anyway, and the raised attempt follows.
    const bool task = kova_internal::InTaskProcess();
    kova_internal::ThreadCapabilities caps;
    if (!task && (!caps.Read() || !caps.Effective(CAP_SYS_ADMIN))) return false;
    Target t;
    if (!LocateTargetInKeptFolder(szPath, caller.uid, t) || !RightsIgnoreEntries(caller, t.BelowShareRoot()))
        return false;
    PreviousRecord prev;
    if (!WriteStoredKeepingGroupOwner(t, next, false, &prev)) {
        ForgetKeptFolder();
        return false;
    }
    // Kernel ACLs need the owner or CAP_FOWNER, which a task keeps with
    // CAP_SYS_ADMIN (kova/fileshare.h); without it the uid is raised. The
    // ancestors' records are read through ".." of folders strictly below
    // the share root, which an administrator may search (the projection's
    // administrators' entry says so); where the kernel refuses, the raised
    // attempt follows.
    if ((task || caps.Effective(CAP_FOWNER)) && ProjectStored(t, next, true)) {
        FollowInheritance(t, prev, true, next);
        return true;
    }
    Elevation root(caller.uid);
    if (root.ok() && ProjectStored(t, next, true)) {
        FollowInheritance(t, prev, true, next);
        return true;
    }
    ForgetKeptFolder();
    return false;
}

// The caller's rights on a loaded path; for the checks below.
bool Holds(const PathState &s, const Principal &caller, uint32_t bits) { return (s.RightsOf(caller) & bits) == bits; }

} // namespace

extern "C" int KOVAACLGet(const char *szPath, int fd, int selector, PKOVA_ACL *ppAcl) {
    KOVA_FAULT_POINT("KOVAACLGet", int);
    if (!szPath || !ppAcl || !ValidSelector(selector)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Principal caller = Principal::Caller();
    PathState s;
    if (!LoadForCaller(szPath, caller, s)) return -1;
    if (!Holds(s, caller, KOVA_ACL_PERM_READ_ACL)) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    std::vector<Ace> entries;
    if (s.stored) {
        if (selector != KOVA_ACL_GET_INHERITED) entries = s.own.entries;
        if (selector != KOVA_ACL_GET_OWN) entries.insert(entries.end(), s.inherited.begin(), s.inherited.end());
    }
    PKOVA_ACL acl = BuildPublicAcl(s.stored && s.own.inherits, entries);
    if (!acl) return -1;
    *ppAcl = acl;
    return 0;
}

extern "C" int KOVAACLSet(const char *szPath, int fd, const KOVA_ACL *pAcl) {
    KOVA_FAULT_POINT("KOVAACLSet", int);
    if (!szPath || !pAcl) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    std::vector<Ace> entries;
    if (!EntriesFromPublic(*pAcl, entries)) return -1;
    Principal caller = Principal::Caller();
    StoredAcl next;
    next.inherits = pAcl->isInherited != 0;
    next.entries = std::move(entries);
    if (SetWithoutRaising(szPath, caller, next)) return 0;
    Elevation root(caller.uid);
    PathState s;
    if (!root.ok() || !LocateTarget(szPath, s.target)) return -1;
    // Root, and an administrator below a share root, may write whatever the
    // path holds now: the record is read only for the group owner it keeps
    // (and to refuse a damaged one unless the caller is root). They need no
    // lstat either: root's rights depend on nothing, and strictly below a
    // share root a link's share is its path's; a missing path fails the
    // write itself.
    if (RightsIgnoreEntries(caller, s.target.BelowShareRoot()))
        return WriteAndProject(s.target, next, caller.isRoot) ? 0 : -1;
    // A link standing at a share root's path belongs to its folder's share.
    if (!StatTarget(s.target)) return -1;
    if (RightsIgnoreEntries(caller, s.target.BelowShareRoot()))
        return WriteAndProject(s.target, next, caller.isRoot) ? 0 : -1;
    if (!LoadResolvedState(s, kLoadAll, &caller)) return -1;
    if (!Holds(s, caller, KOVA_ACL_PERM_WRITE_ACL)) {
        KOVA_FAIL(KOVA_ERR_ACL_DENIED);
        return -1;
    }
    next.hasGroupOwner = s.stored && s.own.hasGroupOwner;
    next.ownerGid = next.hasGroupOwner ? s.own.ownerGid : 0;
    if (!WriteStored(s.target, next) || !ProjectStored(s.target, next)) return -1;
    PreviousRecord prev;
    prev.had = s.stored;
    prev.acl = s.own;
    FollowInheritance(s.target, prev, true, next);
    return 0;
}

extern "C" int KOVAACLRemove(const char *szPath, int fd) {
    KOVA_FAULT_POINT("KOVAACLRemove", int);
    if (!szPath) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Principal caller = Principal::Caller();
    Elevation root(caller.uid);
    PathState s;
    if (!root.ok() ||
        !LoadPathState(szPath, s, caller.isRoot ? (kSkipInherited | kIgnoreCorruptOwn) : kLoadAll, &caller))
        return -1;
    if (!Holds(s, caller, KOVA_ACL_PERM_WRITE_ACL)) {
        KOVA_FAIL(KOVA_ERR_ACL_DENIED);
        return -1;
    }
    // A path without a record keeps whatever kernel ACL it has (one a
    // program set, or a default one it was created with).
    if (!s.stored) return RemoveStored(s.target) ? 0 : -1;
    if (!RemoveStored(s.target) || !Unproject(s.target)) return -1;
    PreviousRecord prev;
    prev.had = true;
    prev.acl = s.own;
    FollowInheritance(s.target, prev, false, StoredAcl());
    return 0;
}

extern "C" int KOVAACLIsSupport(const char *szPath, int fd, int mode) {
    KOVA_FAULT_POINT("KOVAACLIsSupport", int);
    if (!szPath || (mode != KOVA_ACL_SUPPORT_FS && mode != KOVA_ACL_SUPPORT_MODE)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Elevation root;
    Target t;
    if (!root.ok() || !ResolveTarget(szPath, t)) return -1;
    if (mode == KOVA_ACL_SUPPORT_FS) {
        return AclCapableFileSystem(t);
    }
    StoredAcl own;
    bool present = false;
    if (ReadStored(t, own, present)) return present ? 1 : 0;
    // A damaged record still puts the path in ACL mode: its reads must fail
    // rather than fall back to the mode bits.
    return KLIBCErrGet() == KOVA_ERR_CORRUPT ? 1 : -1;
}

extern "C" int KOVAACLDumpFromMode(const char *szPath, int fd, PKOVA_ACL *ppAcl) {
    KOVA_FAULT_POINT("KOVAACLDumpFromMode", int);
    if (!szPath || !ppAcl) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Target t;
    std::vector<Ace> entries;
    {
        Elevation root;
        if (!root.ok() || !ResolveTarget(szPath, t)) return -1;
        entries = EntriesWithoutRecord(t);
    }
    PKOVA_ACL acl = BuildPublicAcl(false, entries);
    if (!acl) return -1;
    *ppAcl = acl;
    return 0;
}

extern "C" int KOVAACLPermGet(const char *szPath, unsigned int *pPermission) {
    KOVA_FAULT_POINT("KOVAACLPermGet", int);
    if (!szPath || !pPermission) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Principal caller = Principal::Caller();
    PathState s;
    if (!LoadForCaller(szPath, caller, s)) return -1;
    *pPermission = s.RightsOf(caller) & KOVA_ACL_PERM_ALL;
    return 0;
}

extern "C" int KOVAACLPermCheck(const char *szPath, unsigned int permission) {
    KOVA_FAULT_POINT("KOVAACLPermCheck", int);
    if (!szPath || permission == 0 || (permission & ~static_cast<unsigned int>(KOVA_ACL_PERM_ALL))) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Principal caller = Principal::Caller();
    PathState s;
    if (!LoadForCaller(szPath, caller, s)) return -1;
    if (!Holds(s, caller, permission)) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return 0;
    }
    return 1;
}

// The platform keeps per-file metadata of its own in folders of this name;
// they are never listed or walked as user content.
extern "C" int KOVAEAIsHiddenDir(const char *szName) {
    KOVA_FAULT_POINT("KOVAEAIsHiddenDir", int);
    return szName && std::strcmp(szName, "@kova_attr") == 0 ? 1 : 0;
}
