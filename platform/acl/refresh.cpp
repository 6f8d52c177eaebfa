// The descendants' refresh (see refresh.h).
#include "refresh.h"

#include "acl-store.h"
#include "kernel-acl.h"

#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <dirent.h>
#include <fcntl.h>

#include <cstring>
#include <string>
#include <vector>

namespace kova_acl {

using kova_internal::Sys;

namespace {

bool Inheritable(const Ace &e) { return (e.inherit & (KOVA_ACL_INHERIT_FILE | KOVA_ACL_INHERIT_DIR)) != 0; }

std::vector<Ace> PassedPart(const StoredAcl &a) {
    std::vector<Ace> out;
    for (const Ace &e : a.entries)
        if (Inheritable(e)) out.push_back(e);
    return out;
}

bool SameAce(const Ace &a, const Ace &b) {
    return a.idType == b.idType && a.id == b.id && a.permission == b.permission && a.inherit == b.inherit &&
           a.access == b.access;
}

bool Skipped(const char *name) {
    if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return true;
    return std::strcmp(name, "@kova_attr") == 0;
}

struct Level {
    DIR *dir = nullptr;
    std::string path;
};

// The folder (dirFd, name) opened for reading, never through a link.
DIR *OpenFolder(int dirFd, const char *name) {
    const int fd = Sys().openat(dirFd, name[0] ? name : ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0);
    if (fd < 0) return nullptr;
    DIR *d = Sys().fdopendir(fd);
    if (!d) Sys().close(fd);
    return d;
}

} // namespace

bool PassesDownTheSame(bool hadOld, const StoredAcl &old, bool hasNew, const StoredAcl &next) {
    // Without a record a folder ends its children's walk up and passes
    // nothing; a record that does not inherit and passes no entry is the same.
    const bool oldPasses = hadOld && (old.inherits || !PassedPart(old).empty());
    const bool newPasses = hasNew && (next.inherits || !PassedPart(next).empty());
    if (!oldPasses || !newPasses) return oldPasses == newPasses;
    if (old.inherits != next.inherits) return false;
    const std::vector<Ace> a = PassedPart(old), b = PassedPart(next);
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (!SameAce(a[i], b[i])) return false;
    return true;
}

bool RefreshDescendants(const Target &t, size_t &visited) {
    bool complete = false;
    return RefreshDescendants(t, kRefreshLimit, visited, complete);
}

bool RefreshDescendants(const Target &t, size_t limit, size_t &visited, bool &complete) {
    visited = 0;
    complete = false;
    std::vector<Level> stack;
    DIR *top = OpenFolder(t.parent.get(), t.name.c_str());
    if (!top) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    stack.push_back({top, t.path});
    const dev_t dev = t.st.st_dev;
    bool cut = false;
    while (!stack.empty()) {
        Level &here = stack.back();
        struct dirent64 *ent = Sys().readdir64(here.dir);
        if (!ent) {
            Sys().closedir(here.dir);
            stack.pop_back();
            continue;
        }
        if (Skipped(ent->d_name)) continue;
        if (visited == limit) {
            cut = true;
            break;
        }
        ++visited;
        const int dirFd = dirfd(here.dir);
        Target child;
        child.path = here.path + "/" + ent->d_name;
        child.inShare = t.inShare;
        child.shareRoot = t.shareRoot;
        child.parent = OwnedFd::Borrowed(dirFd);
        child.name = ent->d_name;
        if (Sys().fstatat(dirFd, ent->d_name, &child.st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        child.hasStat = true;
        // Another file system mounted here is not ours to walk.
        if (child.st.st_dev != dev || !(S_ISDIR(child.st.st_mode) || S_ISREG(child.st.st_mode))) continue;
        StoredAcl own;
        bool present = false;
        if (!ReadStored(child, own, present) || !present || !own.inherits) continue;
        (void)ProjectStored(child, own);
        if (child.IsDir()) {
            DIR *d = stack.size() < kRefreshDepth ? OpenFolder(dirFd, ent->d_name) : nullptr;
            if (d) stack.push_back({d, child.path});
            else cut = true;
        }
    }
    for (Level &l : stack) Sys().closedir(l.dir);
    complete = !cut;
    return true;
}

} // namespace kova_acl
