// Canonicalising a path without following its final component, and finding
// its share.
#include "target.h"

#include "kova/errcode.h"
#include "kova/share.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <vector>

namespace kova_acl {

std::string ParentOf(const std::string &canonical) {
    size_t slash = canonical.rfind('/');
    if (slash == std::string::npos || slash == 0) return "/";
    return canonical.substr(0, slash);
}

bool ShareRootOf(const std::string &canonical, bool &inShare, std::string &root) {
    std::vector<char> name(KOVA_SHARE_NAME_MAX), path(PATH_MAX);
    inShare = false;
    root.clear();
    if (KOVAShareNamePathGet(canonical.c_str(), name.data(), static_cast<int>(name.size()), path.data(),
                             static_cast<int>(path.size())) < 0) {
        int err = KLIBCErrGet();
        // Not in any share is an answer, not a failure.
        return err == KOVA_ERR_NOSHARE || err == KOVA_ERR_BADPATH;
    }
    inShare = true;
    root = path.data();
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
    char *real = realpath(toResolve.c_str(), nullptr);
    if (!real) {
        KOVA_FAIL(errno == ENOENT || errno == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_BADPATH);
        return false;
    }
    std::string base = real;
    std::free(real);
    if (toResolve == p)
        t.path = base;
    else
        t.path = base == "/" ? "/" + name : base + "/" + name;
    if (lstat(t.path.c_str(), &t.st) != 0) {
        KOVA_FAIL(errno == ENOENT || errno == ENOTDIR ? KOVA_ERR_NOENT : KOVA_ERR_BADPATH);
        return false;
    }
    // A link is judged by the folder that holds it, never by what it names.
    return ShareRootOf(S_ISLNK(t.st.st_mode) ? ParentOf(t.path) : t.path, t.inShare, t.shareRoot);
}

} // namespace kova_acl
