// The kernel's ACLs of a judged entry (see kernel-acl.h).
#include "kernel-acl.h"

#include "entry-attr.h"
#include "inherit.h"
#include "mode-acl.h"
#include "passdown-cache.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <cerrno>
#include <cstring>
#include <string>

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

bool SetEncoded(const Target &t, const char *attr, const std::string &v) {
    if (SetEntryAttr(t.parent.get(), t.name.c_str(), attr, v.data(), v.size(), 0) == 0) return true;
    KOVA_FAIL(KernelError(errno));
    return false;
}

bool Drop(const Target &t, const char *attr) {
    if (RemoveEntryAttr(t.parent.get(), t.name.c_str(), attr) == 0 || errno == ENODATA) return true;
    KOVA_FAIL(KernelError(errno));
    return false;
}

bool Set(const Target &t, const char *attr, const PosixAcl &acl) { return SetEncoded(t, attr, EncodePosixAcl(acl)); }

// A projection in the kernel's binary form, ready to be written.
struct Encoded {
    std::string access, coarse, deflt;
    bool hasDefault = false;
};

Encoded Encode(const Projection &p) {
    Encoded e;
    e.access = EncodePosixAcl(p.access);
    e.coarse = EncodePosixAcl(p.coarse);
    e.hasDefault = p.hasDefault;
    if (p.hasDefault) e.deflt = EncodePosixAcl(p.deflt);
    return e;
}

bool WriteEncoded(const Target &t, const Encoded &p) {
    if (!Projectable(t)) return true;
    // Both ACLs share the attribute space with the stored record (one 4 KiB
    // block on ext4): when they do not fit, the coarse form (mode bits, no
    // attribute) and no default ACL say less, never more.
    if (!SetEncoded(t, kPosixAccess, p.access) &&
        (KLIBCErrGet() != KOVA_ERR_ACL_NOSPACE || !SetEncoded(t, kPosixAccess, p.coarse)))
        return false;
    if (!t.IsDir()) return true;
    if (p.hasDefault && SetEncoded(t, kPosixDefault, p.deflt)) return true;
    if (p.hasDefault && KLIBCErrGet() != KOVA_ERR_ACL_NOSPACE) return false;
    return Drop(t, kPosixDefault);
}

// Whether the entry's kernel ACL attr is already `want` (acl: its decoded
// form, for an access ACL that the kernel keeps as mode bits only). Reading
// is far cheaper than writing: a walk over entries that are already right
// (the runner after a task that set them itself) then writes nothing.
bool AlreadyHolds(const Target &t, const char *attr, const std::string &want, const PosixAcl *acl) {
    char buf[8 * 1024];
    const ssize_t n = GetEntryAttr(t.parent.get(), t.name.c_str(), attr, buf, sizeof buf);
    if (n >= 0) return static_cast<size_t>(n) == want.size() && std::memcmp(buf, want.data(), want.size()) == 0;
    if (errno != ENODATA) return false;
    if (!acl) return want.empty();
    return acl->MinimalForm() && (t.st.st_mode & 0777) == acl->ModeBits();
}

bool SameAces(const std::vector<Ace> &a, const std::vector<Ace> &b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        const Ace &x = a[i], &y = b[i];
        if (x.idType != y.idType || x.id != y.id || x.permission != y.permission || x.inherit != y.inherit ||
            x.access != y.access || x.level != y.level)
            return false;
    }
    return true;
}

// The last projection computed for a file and for a folder, with all it
// was computed from: a walk gives run after run of entries the same inputs
// (the same entries, inherited from the same folder, and the same owner),
// and then computes and encodes nothing.
struct LastProjection {
    bool valid = false;
    std::vector<Ace> complete;
    OwnerId owner;
    uid_t uid = 0;
    gid_t gid = 0;
    bool below = false, inShare = false;
    Encoded encoded;
};

thread_local LastProjection tLast[2];

const Encoded &ProjectionFor(const Target &t, std::vector<Ace> &complete, const OwnerId &owner) {
    LastProjection &l = tLast[t.IsDir() ? 1 : 0];
    const bool below = t.BelowShareRoot();
    if (l.valid && l.owner.idType == owner.idType && l.owner.id == owner.id && l.uid == t.st.st_uid &&
        l.gid == t.st.st_gid && l.below == below && l.inShare == t.inShare && SameAces(l.complete, complete))
        return l.encoded;
    l.valid = false;
    l.encoded = Encode(Project(complete, owner, t.st.st_uid, t.st.st_gid, t.IsDir(), below, t.inShare));
    l.complete.swap(complete);
    l.owner = owner;
    l.uid = t.st.st_uid;
    l.gid = t.st.st_gid;
    l.below = below;
    l.inShare = t.inShare;
    l.valid = true;
    return l.encoded;
}

} // namespace

bool WriteProjection(const Target &t, const Projection &p, bool checkFirst) {
    if (!Projectable(t)) return true;
    const Encoded e = Encode(p);
    if (!checkFirst) return WriteEncoded(t, e);
    // t.st must be fresh for the mode comparison: the walks that call this
    // have just taken it. A default ACL not wanted is an absent one.
    if (AlreadyHolds(t, kPosixAccess, e.access, &p.access) &&
        (!t.IsDir() || AlreadyHolds(t, kPosixDefault, e.hasDefault ? e.deflt : std::string(), nullptr)))
        return true;
    return WriteEncoded(t, e);
}

bool CompleteEntries(Target &t, const StoredAcl &own, bool keptFolder, std::vector<Ace> &out) {
    out = own.entries;
    // A damaged ancestor leaves the own entries: inherited ones come after
    // them, so what own entries surely grant stays granted whatever the
    // ancestors say, and nothing else is.
    if (own.inherits && !(keptFolder ? CollectInheritedKept(t, out) : CollectInherited(t, out))) {
        if (KLIBCErrGet() != KOVA_ERR_CORRUPT) return false;
        out = own.entries;
    }
    return true;
}

OwnerId ProjectionOwner(const StoredAcl &own, const struct stat &st) {
    OwnerId owner;
    if (own.hasGroupOwner) {
        owner.idType = KOVA_ACL_ID_GROUP;
        owner.id = static_cast<int>(own.ownerGid);
    } else {
        owner.id = static_cast<int>(st.st_uid);
    }
    return owner;
}

bool ProjectStored(Target &t, const StoredAcl &own, bool keptFolder) {
    if (!t.hasStat && !StatTarget(t)) return false;
    if (!Projectable(t)) return true;
    std::vector<Ace> complete;
    if (!CompleteEntries(t, own, keptFolder, complete)) return false;
    return WriteEncoded(t, ProjectionFor(t, complete, ProjectionOwner(own, t.st)));
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
