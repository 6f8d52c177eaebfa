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

bool ResolveTarget(const char *szPath, Target &t) {
    if (!szPath || szPath[0] != '/') {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    std::string p = szPath;
    if (p.size() >= PATH_MAX) {
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return false;
    }
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    size_t slash = p.rfind('/');
    std::string name = p.substr(slash + 1);
    std::string toResolve = (name.empty() || name == "." || name == "..") ? p : (slash == 0 ? "/" : p.substr(0, slash));
    std::string base;
    int dirFd = -1;
    const bool wholePath = toResolve == p;
    const int err = kova_share::RealPathOf(toResolve, base, wholePath ? nullptr : &dirFd);
    if (err != 0) {
        KOVA_FAIL(err == ENOENT || err == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_BADPATH);
        return false;
    }
    if (wholePath)
        t.path = base;
    else
        t.path = base == "/" ? "/" + name : base + "/" + name;
    // The parent is open already: the final name is looked up in it rather
    // than by walking the whole path again.
    t.parent = OwnedFd(dirFd);
    t.name = dirFd >= 0 ? name : std::string();
    const int statRc = dirFd >= 0 ? fstatat(dirFd, name.c_str(), &t.st, AT_SYMLINK_NOFOLLOW)
                                  : lstat(t.path.c_str(), &t.st);
    if (statRc != 0) {
        KOVA_FAIL(errno == ENOENT || errno == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_BADPATH);
        return false;
    }
    // A link is judged by the folder that holds it, never by what it names.
    return ShareRootOf(S_ISLNK(t.st.st_mode) ? ParentOf(t.path) : t.path, t.inShare, t.shareRoot);
}

} // namespace kova_acl
