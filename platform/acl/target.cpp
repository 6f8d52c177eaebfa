// Canonicalising a path without following its final component, and finding
// its share.
#include "target.h"

#include "kova/errcode.h"
#include "kova/share.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/paths.h"
#include "kova-internal/real-path.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

namespace kova_acl {

using kova_internal::Sys;

std::string ParentOf(const std::string &canonical) {
    size_t slash = canonical.rfind('/');
    if (slash == std::string::npos || slash == 0) return "/";
    return canonical.substr(0, slash);
}

bool ShareRootOf(const std::string &canonical, bool &inShare, std::string &root) {
    char name[KOVA_SHARE_NAME_MAX];
    char rootBuf[PATH_MAX];
    root.clear();
    // The path is real already: only the share table is consulted, through
    // the share library's C interface.
    inShare = KOVAShareOfRealPath(canonical.c_str(), name, sizeof name, rootBuf, sizeof rootBuf) == 0;
    if (inShare) {
        root = rootBuf;
        return true;
    }
    // Not in any share is an answer, not a failure.
    const int err = KLIBCErrGet();
    return err == KOVA_ERR_NOSHARE || err == KOVA_ERR_BADPATH;
}

namespace {

// A path split into its folder and final name; wholePath when the name
// cannot be looked up in the folder ("/", ".", "..") and the whole path
// is resolved instead.
struct SplitPath {
    std::string folder;
    std::string name;
    bool wholePath = false;
};

bool Split(const char *szPath, SplitPath &out) {
    if (!szPath || szPath[0] != '/') {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    const size_t len = std::strlen(szPath);
    if (len >= PATH_MAX) {
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return false;
    }
    std::string p = kova_internal::StripTrailingSlashes(std::string(szPath, len));
    const size_t slash = p.rfind('/');
    out.name = p.substr(slash + 1);
    out.wholePath = out.name.empty() || out.name == "." || out.name == "..";
    if (!out.wholePath) p.resize(slash == 0 ? 1 : slash);
    out.folder.swap(p);
    return true;
}

// The real path of the folder (or, for a whole path, of the path itself)
// and the descriptor the kernel resolved it to, so what is judged later is
// the object the real path names.
bool Resolve(const SplitPath &sp, std::string &base, OwnedFd &fd) {
    const int err = kova_internal::RealPathOf(sp.folder, base, fd);
    if (err == 0) return true;
    KOVA_FAIL(err == ENOENT || err == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_BADPATH);
    return false;
}

// Fills t from the resolved folder (or whole path) and its descriptor,
// then finds the share.
bool Compose(SplitPath &sp, const std::string &base, OwnedFd fd, Target &t) {
    t.path = base;
    if (!sp.wholePath) {
        if (t.path != "/") t.path += '/';
        t.path += sp.name;
        t.name.swap(sp.name);
    } else {
        t.name.clear();
    }
    t.parent = std::move(fd);
    t.hasStat = false;
    return ShareRootOf(t.path, t.inShare, t.shareRoot);
}

// The folder the thread's last LocateTargetInKeptFolder resolved: the
// folder as named, its real path, its descriptor and the effective uid
// that resolved it.
struct KeptFolder {
    std::string named;
    std::string real;
    OwnedFd fd;
    uid_t uid = 0;
};

thread_local KeptFolder tKept;
// Counts the folders kept so far: a descriptor number can be reused, a
// generation cannot.
thread_local uint64_t tKeptGeneration = 0;

} // namespace

bool LocateTarget(const char *szPath, Target &t) {
    SplitPath sp;
    std::string base;
    OwnedFd fd;
    if (!Split(szPath, sp) || !Resolve(sp, base, fd)) return false;
    return Compose(sp, base, std::move(fd), t);
}

void ForgetKeptFolder() {
    tKept = KeptFolder();
    ++tKeptGeneration;
}

bool IsKeptFolder(int fd, uint64_t &generation) {
    generation = tKeptGeneration;
    return fd >= 0 && fd == tKept.fd.get();
}

bool LocateTargetInKeptFolder(const char *szPath, uid_t uid, Target &t) {
    SplitPath sp;
    if (!Split(szPath, sp)) return false;
    if (sp.wholePath) return LocateTarget(szPath, t);
    // The folder is resolved with the caller's search rights: another
    // effective uid resolves it afresh, and never writes through a folder
    // it might not have been able to reach.
    if (tKept.fd.get() < 0 || tKept.uid != uid || tKept.named != sp.folder) {
        ForgetKeptFolder();
        std::string base;
        OwnedFd fd;
        if (!Resolve(sp, base, fd)) return false;
        tKept.named = sp.folder;
        tKept.real.swap(base);
        tKept.fd = std::move(fd);
        tKept.uid = uid;
    }
    return Compose(sp, tKept.real, OwnedFd::Borrowed(tKept.fd.get()), t);
}

bool StatTarget(Target &t) {
    if (Sys().fstatat(t.parent.get(), t.name.c_str(), &t.st, t.AtFlags()) != 0) {
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
