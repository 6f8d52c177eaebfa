/*
 * The file-share helper (libkovafileop.so.7): resolves user-visible folder
 * paths ("/share/dir") to real paths, checks paths, home folders and share
 * privileges, and switches a process to a user's identity.
 *
 * Contract:
 * - Methods returning int: 0 on success, non-zero on failure. On failure
 *   WfmLibGetErr() tells the class of error (KOVA_WFM_ERR_*) and the
 *   platform's last error is set as well.
 * - The object holds no resources beyond its own memory; it is cheap to
 *   create per request or per task.
 */
#ifndef KOVA_FILESHARE_H
#define KOVA_FILESHARE_H

#include <string>

#include "kova/export.h"

KOVA_API_BEGIN

/* WfmLibGetErr() values */
#define KOVA_WFM_ERR_NONE        0
#define KOVA_WFM_ERR_BADARG      1
#define KOVA_WFM_ERR_NOENT       2
#define KOVA_WFM_ERR_PERM        3
#define KOVA_WFM_ERR_NOSHARE     4
#define KOVA_WFM_ERR_IO          5
#define KOVA_WFM_ERR_BADPATH     6
#define KOVA_WFM_ERR_NOUSER      7
#define KOVA_WFM_ERR_PRIVILEGE   9   /* privilege lookup failed */

/* WfmLibGetPrivilege flag bits */
#define KOVA_WFM_PRIV_FLAG_HOME      0x1  /* path is in the user's own home */
#define KOVA_WFM_PRIV_FLAG_READONLY  0x4  /* share is read-only: write refused whatever the privilege */

class PanoraFileShare {
public:
    PanoraFileShare();
    ~PanoraFileShare();
    PanoraFileShare(const PanoraFileShare &) = delete;
    PanoraFileShare &operator=(const PanoraFileShare &) = delete;

    /* Resolves a user-visible folder ("/share/dir/sub", or "/home/..." for
     * the user's home) for `user`:
     *   realPath   - the folder's canonical real path
     *   shareName  - the share's name (for a home folder: the owner's name
     *                as share, see IsDirUserHome)
     *   shareRoot  - the real path of the share's root
     *   allowed    - on a read-only share the one path whose ACL may still be
     *                changed: the share root; empty otherwise */
    int WfmFullPathGet(const std::string &userPath, std::string &realPath, std::string &shareName,
                       std::string &shareRoot, std::string &allowed, const std::string &user);
    /* 0 when the real path exists, is readable by the calling identity and
     * lies inside a share. */
    int WfmCheckPath(const std::string &realPath);
    /* true when shareName denotes a user home folder (the share "homes" or a
     * user's own home). flags reserved (0). */
    bool IsDirUserHome(const std::string &shareName, int flags);
    /* Privilege of `user` on the folder: KOVA_SHARE_PRIV_* in *pPrivilege and
     * KOVA_WFM_PRIV_FLAG_* in *pFlags. */
    int WfmLibGetPrivilege(const std::string &userPath, const std::string &user, const std::string &sessionId,
                           int *pPrivilege, int *pFlags);
    /* Makes the process act as `user`: supplementary groups, effective gid
     * and uid of the user, real and saved ids left 0. sessionId names the
     * session the work belongs to (recorded, not checked here). For a user
     * other than root the calling thread keeps two effective capabilities,
     * CAP_SYS_ADMIN and CAP_FOWNER, with which the platform writes the ACL
     * records and their kernel projection it has judged the user may write;
     * every other permission check is the user's. Meant for background
     * tasks that act as one user to the end. */
    int WfmLibUGIDSet(const std::string &sessionId, const std::string &user);
    int WfmLibGetErr() const;

private:
    int err_;
};

KOVA_API_END

#endif
