// Drift check and repair (see verify.h).
#include "verify.h"

#include "acl-store.h"
#include "inherit.h"
#include "kernel-acl.h"
#include "path-state.h"
#include "projection.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <dirent.h>
#include <fcntl.h>

#include <cstring>
#include <vector>

namespace kova_acl {

using kova_internal::Sys;

namespace {

std::string Text(const PosixAcl &a) {
    static const char *kRwx[] = {"---", "--x", "-w-", "-wx", "r--", "r-x", "rw-", "rwx"};
    std::string s;
    for (const PosixEntry &e : a.entries) {
        if (!s.empty()) s += ",";
        switch (e.tag) {
        case kUserObj: s += "u::"; break;
        case kUser: s += "u:" + std::to_string(e.id) + ":"; break;
        case kGroupObj: s += "g::"; break;
        case kGroup: s += "g:" + std::to_string(e.id) + ":"; break;
        case kMask: s += "m::"; break;
        case kOther: s += "o::"; break;
        default: s += "?:"; break;
        }
        s += kRwx[e.perm & 7];
    }
    return s;
}

// The kernel's access ACL as it acts: the attribute, or the mode bits.
bool CurrentAccess(const Target &t, PosixAcl &out) {
    bool present = false;
    if (!ReadKernelAcl(t, kPosixAccess, out, present)) return false;
    if (!present) out = PosixAcl::FromMode(t.st.st_mode & 0777);
    return true;
}

// The projection an entry's record calls for, as a minimal ACL stands in
// the kernel (mode bits).
PosixAcl Canonical(const PosixAcl &a) { return a.MinimalForm() ? PosixAcl::FromMode(a.ModeBits()) : a; }

// Checks one entry; false when it could not be read or repaired.
bool CheckEntry(Target &t, bool repair, const std::function<void(const Drift &)> &report, VerifyCounts &counts) {
    if (!(S_ISREG(t.st.st_mode) || S_ISDIR(t.st.st_mode))) return true;
    StoredAcl own;
    bool present = false;
    if (!ReadStored(t, own, present)) return false;
    if (!present) return true;
    ++counts.checked;
    std::vector<Ace> complete = own.entries;
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
    const Projection p = Project(complete, owner, t.st.st_uid, t.st.st_gid, t.IsDir(), t.BelowShareRoot(), t.inShare);
    PosixAcl access, deflt;
    bool hasDefault = false;
    if (!CurrentAccess(t, access)) return false;
    if (t.IsDir() && !ReadKernelAcl(t, kPosixDefault, deflt, hasDefault)) return false;
    // The coarse form is what is written when the full one has no room.
    const bool accessOk = access == Canonical(p.access) || access == Canonical(p.coarse);
    const bool defaultOk = !t.IsDir() || (hasDefault == p.hasDefault && (!hasDefault || deflt == p.deflt));
    if (accessOk && defaultOk) return true;
    ++counts.differing;
    Drift d;
    d.path = t.path;
    d.kernel = Text(access) + (hasDefault ? " default " + Text(deflt) : "");
    d.projection = Text(Canonical(p.access)) + (p.hasDefault ? " default " + Text(p.deflt) : "");
    if (repair) {
        if (!WriteProjection(t, p)) {
            report(d);
            return false;
        }
        d.repaired = true;
        ++counts.repaired;
    }
    report(d);
    return true;
}

bool Skipped(const char *name) {
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return true;
    return std::strcmp(name, "@kova_attr") == 0;
}

struct Level {
    DIR *dir;
    std::string path;
};

DIR *OpenFolder(int dirFd, const char *name) {
    const int fd = Sys().openat(dirFd, name[0] ? name : ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    DIR *d = Sys().fdopendir(fd);
    if (!d) Sys().close(fd);
    return d;
}

} // namespace

bool VerifyTree(const char *szPath, bool repair, const std::function<void(const Drift &)> &report,
                VerifyCounts &counts) {
    counts = VerifyCounts();
    Elevation root;
    Target top;
    if (!root.ok() || !ResolveTarget(szPath, top)) return false;
    if (!CheckEntry(top, repair, report, counts)) ++counts.failed;
    if (!top.IsDir()) return true;
    std::vector<Level> stack;
    DIR *first = OpenFolder(top.parent.get(), top.name.c_str());
    if (!first) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    stack.push_back({first, top.path == "/" ? std::string() : top.path});
    // Memory grows with the depth of the tree only (one open folder a level).
    while (!stack.empty()) {
        Level &here = stack.back();
        struct dirent64 *ent = Sys().readdir64(here.dir);
        if (!ent) {
            Sys().closedir(here.dir);
            stack.pop_back();
            continue;
        }
        if (Skipped(ent->d_name)) continue;
        const int dirFd = dirfd(here.dir);
        Target child;
        child.path = here.path + "/" + ent->d_name;
        child.inShare = top.inShare;
        child.shareRoot = top.shareRoot;
        child.parent = OwnedFd::Borrowed(dirFd);
        child.name = ent->d_name;
        if (Sys().fstatat(dirFd, ent->d_name, &child.st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        child.hasStat = true;
        if (child.st.st_dev != top.st.st_dev) continue;
        if (!CheckEntry(child, repair, report, counts)) ++counts.failed;
        if (child.IsDir()) {
            if (DIR *d = OpenFolder(dirFd, ent->d_name))
                stack.push_back({d, child.path});
            else
                ++counts.failed;
        }
    }
    return true;
}

} // namespace kova_acl
