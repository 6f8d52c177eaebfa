// Path owners. A user owner is the file's uid. A group owner is recorded in
// the path's stored ACL (a path without one is first given the entries of its
// mode bits), since a file has no group-owner slot of its own; naming a user
// again clears it.
#include "ace.h"
#include "acl-store.h"
#include "evaluate.h"
#include "kernel-acl.h"
#include "mode-acl.h"
#include "path-state.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

using namespace kova_acl;

namespace {

int ChownEntry(const Target &t, uid_t uid) {
    return kova_internal::Sys().fchownat(t.parent.get(), t.name.c_str(), uid, static_cast<gid_t>(-1), t.AtFlags());
}

} // namespace

extern "C" int KOVAACLOwnerIdGet(const char *szPath, PKOVA_ACL_ID pOwner) {
    KOVA_FAULT_POINT("KOVAACLOwnerIdGet", int);
    if (!szPath || !pOwner) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    // Reading the owner needs no right beyond naming an existing path: the
    // owner is what lstat shows (or the recorded group).
    Target t;
    StoredAcl own;
    bool present = false;
    {
        Elevation root;
        if (!root.ok() || !ResolveTarget(szPath, t) || !ReadStored(t, own, present)) return -1;
    }
    if (present && own.hasGroupOwner) {
        pOwner->idType = KOVA_ACL_ID_GROUP;
        pOwner->id = static_cast<int>(own.ownerGid);
    } else {
        pOwner->idType = KOVA_ACL_ID_USER;
        pOwner->id = static_cast<int>(t.st.st_uid);
    }
    return 0;
}

extern "C" int KOVAACLOwnerIdSet(const char *szPath, const KOVA_ACL_ID *pOwner) {
    KOVA_FAULT_POINT("KOVAACLOwnerIdSet", int);
    if (!szPath || !pOwner || (pOwner->idType != KOVA_ACL_ID_USER && pOwner->idType != KOVA_ACL_ID_GROUP) ||
        pOwner->id < 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Principal caller = Principal::Caller();
    Elevation root(caller.uid);
    PathState s;
    // The entries are kept when the owner changes, so a damaged record is
    // refused even for root.
    if (!root.ok() || !LoadPathState(szPath, s, caller.isRoot ? kSkipInherited : kLoadAll, &caller)) return -1;
    if ((s.RightsOf(caller) & KOVA_ACL_PERM_TAKE_OWNERSHIP) == 0) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    if (!caller.isRoot && !caller.isAdmin) {
        const uint32_t id = static_cast<uint32_t>(pOwner->id);
        bool self = pOwner->idType == KOVA_ACL_ID_USER
                        ? id == caller.uid
                        : std::find(caller.gids.begin(), caller.gids.end(), id) != caller.gids.end();
        if (!self) {
            KOVA_FAIL(KOVA_ERR_OWNER_CHANGE);
            return -1;
        }
    }
    Target &t = s.target;
    if (pOwner->idType == KOVA_ACL_ID_GROUP) {
        StoredAcl next = s.stored ? s.own : StoredAcl();
        if (!s.stored) next.entries = s.unstored;
        next.hasGroupOwner = true;
        next.ownerGid = static_cast<uint32_t>(pOwner->id);
        return WriteStored(t, next) && ProjectStored(t, next) ? 0 : -1;
    }
    // The owner is written through the folder that was judged: a link put
    // on the way meanwhile is never followed to another file.
    const uid_t oldUid = t.st.st_uid;
    if (ChownEntry(t, static_cast<uid_t>(pOwner->id)) != 0) {
        KOVA_FAIL(errno == EROFS ? KOVA_ERR_ACL_NOSPACE : errno == ENOENT ? KOVA_ERR_NOENT : KOVA_ERR_IO);
        return -1;
    }
    if (s.stored && s.own.hasGroupOwner) {
        StoredAcl next = s.own;
        next.hasGroupOwner = false;
        next.ownerGid = 0;
        if (!WriteStored(t, next)) {
            // Keep the old owner whole: the recorded group still names it.
            (void)ChownEntry(t, oldUid);
            return -1;
        }
        s.own = next;
    }
    // The owner's entry of the kernel ACL is now another user's.
    t.st.st_uid = static_cast<uid_t>(pOwner->id);
    return !s.stored || ProjectStored(t, s.own) ? 0 : -1;
}
