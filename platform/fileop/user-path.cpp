// User-visible paths to real paths.
#include "user-path.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/fileshare.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/fault-point.h"

#include <errno.h>
#include <limits.h>

#include <cstdlib>
#include <vector>

namespace kova_fileop {

namespace {

std::vector<std::string> Components(const std::string &path) {
    std::vector<std::string> parts;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t next = path.find('/', pos);
        if (next == std::string::npos) next = path.size();
        if (next > pos) parts.push_back(path.substr(pos, next - pos));
        pos = next + 1;
    }
    return parts;
}

// Sets the last error where the failure is found and yields its class.
#define FAIL_WITH(wfm, code) (KOVA_FAIL(code), (wfm))

// realpath with its errno turned into a failure class.
int Canonical(const std::string &path, std::string &out) {
    char *r = realpath(path.c_str(), nullptr);
    if (!r) {
        if (errno == ENOENT || errno == ENOTDIR) return FAIL_WITH(KOVA_WFM_ERR_NOENT, KOVA_ERR_NOENT);
        if (errno == EACCES) return FAIL_WITH(KOVA_WFM_ERR_PERM, KOVA_ERR_PERM);
        if (errno == ENOMEM) return FAIL_WITH(KOVA_WFM_ERR_IO, KOVA_ERR_NOMEM);
        return FAIL_WITH(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH);
    }
    out = r;
    std::free(r);
    return KOVA_WFM_ERR_NONE;
}

} // namespace

bool UnderRoot(const std::string &path, const std::string &root) {
    if (root == "/") return true;
    return path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/');
}

int Resolve(const std::string &userPath, const std::string &user, Resolved &out) {
    if (userPath.empty() || userPath[0] != '/' || userPath.size() >= PATH_MAX)
        return FAIL_WITH(KOVA_WFM_ERR_BADARG, KOVA_ERR_BADARG);
    std::vector<std::string> parts = Components(userPath);
    if (parts.empty() || parts[0] == "." || parts[0] == "..")
        return FAIL_WITH(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH);

    Resolved r;
    r.isHome = parts[0] == kHomeName;
    r.recordShare = r.isHome ? kHomesShare : parts[0];
    r.shareName = r.isHome ? kHomeName : parts[0];
    if (r.isHome) {
        // The user's name becomes a path component: it must be a real
        // account and a single component.
        if (user.empty() || user == "." || user == ".." || user.find('/') != std::string::npos)
            return FAIL_WITH(KOVA_WFM_ERR_NOUSER, KOVA_ERR_NOUSER);
        PKOVA_USER account = nullptr;
        if (KOVAUserGet(user.c_str(), &account) != 0) {
            KOVAUserFree(account);
            return FAIL_WITH(KOVA_WFM_ERR_NOUSER, KOVA_ERR_NOUSER);
        }
        KOVAUserFree(account);
    }

    PKOVA_SHARE share = nullptr;
    if (KOVAShareGet(r.recordShare.c_str(), &share) < 0 || !share) {
        KOVAShareFree(share);
        return FAIL_WITH(KOVA_WFM_ERR_NOSHARE, KOVA_ERR_NOSHARE);
    }
    std::string storedRoot = share->szPath;
    r.readOnly = share->isReadOnly != 0;
    KOVAShareFree(share);

    std::string shareRoot;
    int rc = Canonical(storedRoot, shareRoot);
    if (rc != KOVA_WFM_ERR_NONE) return rc;
    if (r.isHome) {
        rc = Canonical(shareRoot + "/" + user, r.shareRoot);
        if (rc != KOVA_WFM_ERR_NONE) return rc;
        // A home that is a link out of "homes" is not a home.
        if (!UnderRoot(r.shareRoot, shareRoot)) return FAIL_WITH(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH);
    } else {
        r.shareRoot = shareRoot;
    }

    std::string candidate = r.shareRoot;
    for (size_t i = 1; i < parts.size(); ++i) candidate += "/" + parts[i];
    rc = Canonical(candidate, r.realPath);
    if (rc != KOVA_WFM_ERR_NONE) return rc;
    // ".." and links are resolved by now; what lands outside the share (or
    // the home) was an attempt to leave it.
    if (!UnderRoot(r.realPath, r.shareRoot)) return FAIL_WITH(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH);
    out = r;
    return KOVA_WFM_ERR_NONE;
}

} // namespace kova_fileop
