// The kernel's ACLs of a judged entry (see kernel-acl.h).
#include "kernel-acl.h"

#include "entry-attr.h"
#include "inherit.h"
#include "mode-acl.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <cerrno>

namespace kova_acl {

namespace {

bool Projectable(const Target &t) { return S_ISREG(t.st.st_mode) || S_ISDIR(t.st.st_mode); }

int KernelError(int err) {
    switch (err) {
    case ENOTSUP: return KOVA_ERR_ACL_NOTSUP;
    case EROFS:
    case ENOSPC:
    case E2BIG:
    case EDQUOT:
    case ERANGE: return KOVA_ERR_ACL_NOSPACE;
    case ENOENT:
    case ENOTDIR: return KOVA_ERR_NOENT;
    default: return KOVA_ERR_IO;
    }
}

bool Set(const Target &t, const char *attr, const PosixAcl &acl) {
    const std::string v = EncodePosixAcl(acl);
    if (SetEntryAttr(t.parent.get(), t.name.c_str(), attr, v.data(), v.size(), 0) == 0) return true;
    KOVA_FAIL(KernelError(errno));
    return false;
}

bool Drop(const Target &t, const char *attr) {
    if (RemoveEntryAttr(t.parent.get(), t.name.c_str(), attr) == 0 || errno == ENODATA) return true;
    KOVA_FAIL(KernelError(errno));
    return false;
}

} // namespace

bool WriteProjection(const Target &t, const Projection &p) {
    if (!Projectable(t)) return true;
    // Both ACLs share the attribute space with the stored record (one 4 KiB
    // block on ext4): when they do not fit, the coarse form (mode bits, no
    // attribute) and no default ACL say less, never more.
    if (!Set(t, kPosixAccess, p.access) &&
        (KLIBCErrGet() != KOVA_ERR_ACL_NOSPACE || !Set(t, kPosixAccess, p.coarse)))
        return false;
    if (!t.IsDir()) return true;
    if (p.hasDefault && Set(t, kPosixDefault, p.deflt)) return true;
    if (p.hasDefault && KLIBCErrGet() != KOVA_ERR_ACL_NOSPACE) return false;
    return Drop(t, kPosixDefault);
}

bool ProjectStored(Target &t, const StoredAcl &own) {
    if (!t.hasStat && !StatTarget(t)) return false;
    if (!Projectable(t)) return true;
    std::vector<Ace> complete = own.entries;
    // A damaged ancestor leaves the own entries: inherited ones come after
    // them, so what own entries surely grant stays granted whatever the
    // ancestors say, and nothing else is.
    if (own.inherits && !CollectInherited(t, complete)) {
        if (KLIBCErrGet() != KOVA_ERR_CORRUPT) return false;
        complete = own.entries;
    }
    OwnerId owner;
    if (own.hasGroupOwner) {
        owner.idType = KOVA_ACL_ID_GROUP;
        owner.id = static_cast<int>(own.ownerGid);
    } else {
        owner.id = static_cast<int>(t.st.st_uid);
    }
    return WriteProjection(t, Project(complete, owner, t.st.st_uid, t.st.st_gid, t.IsDir(), t.BelowShareRoot(), t.inShare));
}

bool Unproject(const Target &t) {
    if (!Projectable(t)) return true;
    PosixAcl cur;
    bool present = false;
    if (!ReadKernelAcl(t, kPosixAccess, cur, present)) return false;
    if (present) {
        // A minimal ACL is stored by the kernel as mode bits only: this
        // one write sets the mode and drops the attribute.
        const int u = cur.PermOf(kUserObj), g = cur.PermOf(kGroupObj), o = cur.PermOf(kOther);
        const unsigned mode = static_cast<unsigned>(((u < 0 ? 0 : u) << 6) | ((g < 0 ? 0 : g) << 3) | (o < 0 ? 0 : o));
        if (!Set(t, kPosixAccess, PosixAcl::FromMode(mode))) return false;
    }
    return !t.IsDir() || Drop(t, kPosixDefault);
}

bool ReadKernelAcl(const Target &t, const char *attr, PosixAcl &out, bool &present) {
    present = false;
    char buf[8 * 1024];
    const ssize_t n = GetEntryAttr(t.parent.get(), t.name.c_str(), attr, buf, sizeof buf);
    if (n < 0) {
        if (errno == ENODATA || errno == ENOTSUP) return true;
        KOVA_FAIL(KernelError(errno));
        return false;
    }
    if (!DecodePosixAcl(buf, static_cast<size_t>(n), out)) {
        KOVA_FAIL(KOVA_ERR_CORRUPT);
        return false;
    }
    present = true;
    return true;
}

std::vector<Ace> EntriesWithoutRecord(const Target &t) {
    PosixAcl acl;
    bool present = false;
    // A kernel ACL that cannot be read leaves the mode bits, which is what
    // the kernel shows as owner, mask and other.
    if (!Projectable(t) || !ReadKernelAcl(t, kPosixAccess, acl, present) || !present || acl.MinimalForm())
        return EntriesFromMode(t.st);
    const int maskPerm = acl.PermOf(kMask);
    const unsigned mask = maskPerm < 0 ? 7u : static_cast<unsigned>(maskPerm);
    std::vector<Ace> out;
    for (const PosixEntry &e : acl.entries) {
        Ace a;
        a.access = KOVA_ACL_ALLOW;
        switch (e.tag) {
        case kUserObj: a.idType = KOVA_ACL_ID_OWNER; a.permission = RightsFromModeBits(e.perm); break;
        case kUser: a.idType = KOVA_ACL_ID_USER; a.id = static_cast<int>(e.id); a.permission = RightsFromModeBits(e.perm & mask); break;
        case kGroupObj: a.idType = KOVA_ACL_ID_GROUP; a.id = static_cast<int>(t.st.st_gid); a.permission = RightsFromModeBits(e.perm & mask); break;
        case kGroup: a.idType = KOVA_ACL_ID_GROUP; a.id = static_cast<int>(e.id); a.permission = RightsFromModeBits(e.perm & mask); break;
        case kOther: a.idType = KOVA_ACL_ID_EVERYONE; a.permission = RightsFromModeBits(e.perm); break;
        default: continue;
        }
        // An id above what an entry can name is no user or group of ours.
        if (a.idType != KOVA_ACL_ID_OWNER && a.idType != KOVA_ACL_ID_EVERYONE && a.id < 0) continue;
        out.push_back(a);
    }
    return out;
}

} // namespace kova_acl
