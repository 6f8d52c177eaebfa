// Canonicalising a path without following its final component, and finding
// its share.
#include "target.h"

#include "kova/errcode.h"
#include "kova/share.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "real-path.h"
#include "share-lookup.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace kova_acl {

OwnedFd::~OwnedFd() {
    if (fd_ >= 0) close(fd_);
}

OwnedFd &OwnedFd::operator=(OwnedFd &&other) noexcept {
    if (this != &other) {
        if (fd_ >= 0) close(fd_);
        fd_ = other.fd_;
        other.fd_ = -1;
    }
    return *this;
}

std::string ParentOf(const std::string &canonical) {
    size_t slash = canonical.rfind('/');
    if (slash == std::string::npos || slash == 0) return "/";
    return canonical.substr(0, slash);
}

bool ShareRootOf(const std::string &canonical, bool &inShare, std::string &root) {
    std::string name;
    inShare = false;
    root.clear();
    // The path is real already: only the share table is consulted.
    if (kova_share::ShareOfRealPath(canonical, name, root) < 0) {
        root.clear();
        int err = KLIBCErrGet();
        // Not in any share is an answer, not a failure.
        return err == KOVA_ERR_NOSHARE || err == KOVA_ERR_BADPATH;
    }
    inShare = true;
    return true;
}

bool LocateTarget(const char *szPath, Target &t) {
    if (!szPath || szPath[0] != '/') {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    const size_t len = std::strlen(szPath);
    if (len >= PATH_MAX) {
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return false;
    }
    std::string p(szPath, len);
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.rfind('/');
    std::string name = p.substr(slash + 1);
    const bool wholePath = name.empty() || name == "." || name == "..";
    std::string base;
    int dirFd = -1;
    if (!wholePath) p.resize(slash == 0 ? 1 : slash);
    const int err = kova_share::RealPathOf(p, base, wholePath ? nullptr : &dirFd);
    if (err != 0) {
        KOVA_FAIL(err == ENOENT || err == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_BADPATH);
        return false;
    }
    if (wholePath) {
        t.path.swap(base);
    } else {
        t.path.swap(base);
        if (t.path != "/") t.path += '/';
        t.path += name;
    }
    // The parent is open already: the final name is looked up in it rather
    // than by walking the whole path again.
    t.parent = OwnedFd(dirFd);
    if (dirFd >= 0)
        t.name.swap(name);
    else
        t.name.clear();
    t.hasStat = false;
    return ShareRootOf(t.path, t.inShare, t.shareRoot);
}

bool StatTarget(Target &t) {
    const int statRc = t.parent.get() >= 0 ? fstatat(t.parent.get(), t.name.c_str(), &t.st, AT_SYMLINK_NOFOLLOW)
                                           : lstat(t.path.c_str(), &t.st);
    if (statRc != 0) {
        KOVA_FAIL(errno == ENOENT || errno == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_BADPATH);
        return false;
    }
    t.hasStat = true;
    // A link is judged by the folder that holds it, never by what it names.
    // Only a link at a share root's own path is held by another share than
    // its path's (LocateTarget): a path strictly below a root has its folder
    // in the same share.
    if (S_ISLNK(t.st.st_mode) && t.inShare && t.path == t.shareRoot)
        return ShareRootOf(ParentOf(t.path), t.inShare, t.shareRoot);
    return true;
}

bool ResolveTarget(const char *szPath, Target &t) { return LocateTarget(szPath, t) && StatTarget(t); }

} // namespace kova_acl
