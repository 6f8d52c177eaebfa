// User-visible paths to descriptors and real paths (see user-path.h).
#include "user-path.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/fileshare.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/paths.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/path-parts.h"
#include "kova-internal/text.h"
#include "kova-internal/real-path.h"
#include "kova-internal/traverse-scope.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>

#include <vector>

namespace kova_fileop {

namespace {

using kova_internal::OwnedFd;

// Sets the last error where the failure is found and yields its class.
#define FAIL_WITH(wfm, code) (KOVA_FAIL(code), (wfm))

// A failed lookup's errno as a failure class.
int FromErrno(int err) {
    switch (err) {
    case ENOENT:
    case ENOTDIR: return FAIL_WITH(KOVA_WFM_ERR_NOENT, KOVA_ERR_NOENT);
    case EACCES:
    case EPERM: return FAIL_WITH(KOVA_WFM_ERR_PERM, KOVA_ERR_PERM);
    case ENOMEM: return FAIL_WITH(KOVA_WFM_ERR_IO, KOVA_ERR_NOMEM);
    // A link or ".." that leaves the folder, a link where none may be.
    case EXDEV:
    case ELOOP:
    case EINVAL:
    case ENAMETOOLONG: return FAIL_WITH(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH);
    default: return FAIL_WITH(KOVA_WFM_ERR_IO, KOVA_ERR_IO);
    }
}

// `rel` below baseFd: its descriptor and the kernel's name for it.
int OpenBelow(int baseFd, const std::string &rel, int flags, OwnedFd &fd, std::string &name) {
    int raw = -1;
    int err = kova_internal::OpenBeneath(baseFd, rel, flags, &raw);
    if (err) return FromErrno(err);
    OwnedFd opened(raw);
    err = kova_internal::NameOfFd(opened.get(), name);
    if (err) return FromErrno(err);
    fd = std::move(opened);
    return KOVA_WFM_ERR_NONE;
}

} // namespace

int Resolve(const std::string &userPath, const std::string &user, Resolved &out) {
    // A NUL would end the text that C calls see before the text we judged.
    if (!kova_internal::IsCleanText(userPath) || !kova_internal::IsCleanText(user) || userPath.empty() ||
        userPath[0] != '/' || userPath.size() >= PATH_MAX)
        return FAIL_WITH(KOVA_WFM_ERR_BADARG, KOVA_ERR_BADARG);
    std::vector<std::string> parts = kova_internal::PathComponents(userPath);
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

    // The folders are looked up raised (TraverseScope): the caller's right
    // to search the folders on the way is the platform's evaluation to
    // judge, not the kernel's; every lookup stays beneath the share root.
    kova_internal::TraverseScope raised;
    // The table names the real root: nothing at its path may be a link.
    int raw = -1;
    int err = kova_internal::OpenWithoutLinks(storedRoot, O_DIRECTORY, &raw);
    if (err) return err == ELOOP || err == EINVAL ? FAIL_WITH(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH) : FromErrno(err);
    OwnedFd shareFd(raw);

    int rc;
    if (r.isHome) {
        // A home that is a link out of "homes" is not a home.
        rc = OpenBelow(shareFd.get(), user, O_DIRECTORY, r.rootFd, r.shareRoot);
        if (rc != KOVA_WFM_ERR_NONE) return rc;
    } else {
        err = kova_internal::NameOfFd(shareFd.get(), r.shareRoot);
        if (err) return FromErrno(err);
        r.rootFd = std::move(shareFd);
    }

    std::string rest;
    for (size_t i = 1; i < parts.size(); ++i) rest += (i > 1 ? "/" : "") + parts[i];
    rc = OpenBelow(r.rootFd.get(), rest, 0, r.fd, r.realPath);
    if (rc != KOVA_WFM_ERR_NONE) return rc;
    // The kernel kept the lookup below the root; its names must agree (a
    // root renamed meanwhile is not named by the table any more).
    if (!kova_internal::UnderRoot(r.realPath, r.shareRoot)) return FAIL_WITH(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH);
    out = std::move(r);
    return KOVA_WFM_ERR_NONE;
}

} // namespace kova_fileop
