// PanoraFileShare: the file-share helper the file-facing handlers use.
#include "kova/fileshare.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/owned-fd.h"
#include "kova-internal/sys-calls.h"
#include "kova-internal/text.h"

#include "identity-switch.h"
#include "kova-internal/real-path.h"
#include "user-path.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

// Every method answers a failure through err_ and the last error; a
// success clears err_ so WfmLibGetErr always describes the latest call.
#define WFM_FAIL(wfm, code) (KOVA_FAIL(code), err_ = (wfm), -1)

PanoraFileShare::PanoraFileShare() : err_(KOVA_WFM_ERR_NONE) {}
PanoraFileShare::~PanoraFileShare() {}

int PanoraFileShare::WfmFullPathGet(const std::string &userPath, std::string &realPath, std::string &shareName,
                                    std::string &shareRoot, std::string &allowed, const std::string &user) {
    KOVA_FAULT_POINT("PanoraFileShare::WfmFullPathGet", int);
    try {
        kova_fileop::Resolved r;
        int rc = kova_fileop::Resolve(userPath, user, r);
        if (rc != KOVA_WFM_ERR_NONE) {
            err_ = rc;
            return -1;
        }
        realPath = r.realPath;
        shareName = r.shareName;
        shareRoot = r.shareRoot;
        // A read-only share still lets its root's ACL change (that is how
        // an administrator opens it up); nothing below it.
        allowed = r.readOnly ? r.shareRoot : std::string();
        err_ = KOVA_WFM_ERR_NONE;
        return 0;
    } catch (...) {
        return WFM_FAIL(KOVA_WFM_ERR_IO, KOVA_ERR_NOMEM);
    }
}

int PanoraFileShare::WfmCheckPath(const std::string &realPath) {
    KOVA_FAULT_POINT("PanoraFileShare::WfmCheckPath", int);
    using kova_internal::Sys;
    try {
        if (!kova_internal::IsCleanText(realPath) || realPath.empty() || realPath[0] != '/' ||
            realPath.size() >= PATH_MAX)
            return WFM_FAIL(KOVA_WFM_ERR_BADARG, KOVA_ERR_BADARG);
        const size_t slash = realPath.rfind('/');
        const std::string name = realPath.substr(slash + 1);
        const std::string parent = slash == 0 ? "/" : realPath.substr(0, slash);
        // The entry is judged and looked at through its folder's descriptor.
        std::string folder;
        kova_internal::OwnedFd folderFd;
        const int err = kova_internal::RealPathOf(parent, folder, folderFd);
        if (err) {
            if (err == EACCES) return WFM_FAIL(KOVA_WFM_ERR_PERM, KOVA_ERR_PERM);
            return WFM_FAIL(KOVA_WFM_ERR_NOENT, KOVA_ERR_NOENT);
        }
        struct stat st;
        if (Sys().fstatat(folderFd.get(), name.empty() ? "." : name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == EACCES) return WFM_FAIL(KOVA_WFM_ERR_PERM, KOVA_ERR_PERM);
            return WFM_FAIL(KOVA_WFM_ERR_NOENT, KOVA_ERR_NOENT);
        }
        // A symbolic link is an entry of its folder, wherever it points:
        // its folder must lie in a share. Anything else must itself.
        const std::string located =
            S_ISLNK(st.st_mode) || name.empty() ? folder : (folder == "/" ? "/" : folder + "/") + name;
        char share[KOVA_SHARE_NAME_MAX];
        char root[PATH_MAX];
        if (KOVAShareNamePathGet(located.c_str(), share, sizeof(share), root, sizeof(root)) < 0)
            return WFM_FAIL(KOVA_WFM_ERR_BADPATH, KOVA_ERR_BADPATH);
        // The caller must be able to reach the entry through its folder,
        // judged with the effective ids the caller acts with.
        if (Sys().faccessat(folderFd.get(), ".", X_OK, AT_EACCESS) != 0)
            return WFM_FAIL(KOVA_WFM_ERR_PERM, KOVA_ERR_PERM);
        err_ = KOVA_WFM_ERR_NONE;
        return 0;
    } catch (...) {
        return WFM_FAIL(KOVA_WFM_ERR_IO, KOVA_ERR_NOMEM);
    }
}

bool PanoraFileShare::IsDirUserHome(const std::string &shareName, int flags) {
    KOVA_FAULT_POINT_BOOL("PanoraFileShare::IsDirUserHome");
    // Only the caller's own home is reported as "home"; a folder reached
    // through the share "homes" belongs to whoever it is named after.
    return shareName == kova_fileop::kHomeName;
}

int PanoraFileShare::WfmLibGetPrivilege(const std::string &userPath, const std::string &user,
                                        const std::string &sessionId, int *pPrivilege, int *pFlags) {
    KOVA_FAULT_POINT("PanoraFileShare::WfmLibGetPrivilege", int);
    try {
        if (!pPrivilege || !pFlags || user.empty() || !kova_internal::IsCleanText(sessionId))
            return WFM_FAIL(KOVA_WFM_ERR_BADARG, KOVA_ERR_BADARG);
        kova_fileop::Resolved r;
        int rc = kova_fileop::Resolve(userPath, user, r);
        if (rc != KOVA_WFM_ERR_NONE) {
            err_ = rc;
            return -1;
        }
        int flags = r.readOnly ? KOVA_WFM_PRIV_FLAG_READONLY : 0;
        int priv = KOVA_SHARE_PRIV_NONE;
        if (r.isHome) {
            // Users own their home outright, whatever "homes" grants.
            priv = KOVA_SHARE_PRIV_RW;
            flags |= KOVA_WFM_PRIV_FLAG_HOME;
        } else if (KOVASharePrivGet(r.recordShare.c_str(), user.c_str(), &priv) < 0) {
            int code = KLIBCErrGet();
            return WFM_FAIL(KOVA_WFM_ERR_PRIVILEGE, code ? code : KOVA_ERR_IO);
        }
        *pPrivilege = priv;
        *pFlags = flags;
        err_ = KOVA_WFM_ERR_NONE;
        return 0;
    } catch (...) {
        return WFM_FAIL(KOVA_WFM_ERR_IO, KOVA_ERR_NOMEM);
    }
}

int PanoraFileShare::WfmLibUGIDSet(const std::string &sessionId, const std::string &user) {
    KOVA_FAULT_POINT("PanoraFileShare::WfmLibUGIDSet", int);
    try {
        if (!kova_internal::IsCleanText(sessionId) || !kova_internal::IsCleanText(user))
            return WFM_FAIL(KOVA_WFM_ERR_BADARG, KOVA_ERR_BADARG);
        uid_t uid;
        gid_t gid;
        std::vector<gid_t> groups;
        int rc = kova_fileop::LookupIdentity(user, uid, gid, groups);
        if (rc == KOVA_WFM_ERR_NONE) rc = kova_fileop::SwitchTo(uid, gid, groups);
        if (rc != KOVA_WFM_ERR_NONE) {
            err_ = rc;
            return -1;
        }
        // A task that walks a large tree writes one trusted record per
        // entry; without the capability each write would raise and drop
        // the uid. Refused, it only costs that.
        (void)kova_fileop::KeepAttributeCapability();
        err_ = KOVA_WFM_ERR_NONE;
        return 0;
    } catch (...) {
        return WFM_FAIL(KOVA_WFM_ERR_IO, KOVA_ERR_NOMEM);
    }
}

int PanoraFileShare::WfmLibGetErr() const {
    KOVA_FAULT_POINT("PanoraFileShare::WfmLibGetErr", int);
    return err_;
}
