/*
 * Shares and file systems (libkovashare.so.7).
 *
 * Contract:
 * - A share record is obtained with KOVAShareGet and released with
 *   KOVAShareFree (NULL accepted). Records are snapshots; KOVAShareSet
 *   stores one.
 * - Paths are canonicalised (symbolic links and ".." resolved) before a
 *   share is chosen: no path reaches outside its share by a link or "..".
 * - Integer results: negative is failure with the last error set.
 */
#ifndef KOVA_SHARE_H
#define KOVA_SHARE_H

#include "kova/klibc.h"

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

typedef enum _tag_FSTYPE {
    FSTYPE_UNKNOWN   = 0,   /* refused outright */
    FSTYPE_EXT3      = 1,
    FSTYPE_EXT4      = 2,
    FSTYPE_BTRFS     = 3,
    FSTYPE_XFS       = 4,
    FSTYPE_PSEUDO    = 5,   /* proc, sysfs, devpts, cgroup ...: refused */
    FSTYPE_VFAT      = 6,   /* no ACLs */
    FSTYPE_TMPFS     = 7,
    FSTYPE_EXFAT     = 8,   /* no ACLs */
    FSTYPE_NTFS      = 9,   /* no ACLs */
    FSTYPE_NFS       = 10,  /* remote */
    FSTYPE_CIFS      = 11,  /* remote */
    FSTYPE_ISO9660   = 12,  /* image */
    FSTYPE_UDF       = 13,  /* image */
    FSTYPE_HFSPLUS   = 14,  /* no ACLs */
    FSTYPE_SQUASHFS  = 15,  /* image */
    FSTYPE_ZFS       = 16,
    FSTYPE_OVERLAY   = 17,
    FSTYPE_FUSE      = 18,  /* refused outright */
    FSTYPE_F2FS      = 19,
    FSTYPE_EXT2      = 20
} FSTYPE;

/* Type of the file system holding the path (statfs of the path itself, a
 * final symbolic link not followed); flags reserved (0). Negative on failure. */
int KOVAGetFSType(const char *szPath, int flags);
int KOVAFSIsRemoteFS(int fsType);   /* 1 yes, 0 no */
int KOVAFSIsImageFS(int fsType);    /* 1 yes, 0 no */

/* Share privilege values */
#define KOVA_SHARE_PRIV_NONE  0
#define KOVA_SHARE_PRIV_RO    1
#define KOVA_SHARE_PRIV_RW    2

#define KOVA_SHARE_NAME_MAX   492

typedef struct _tag_KOVA_SHARE {
    char  szName[KOVA_SHARE_NAME_MAX];
    char  szPath[4096];          /* real path of the share's root           */
    char  szComment[256];
    int   supportAcl;            /* the share's file system and setting allow ACLs */
    int   isEncrypted;
    int   isReadOnly;
    int   aclStatus;             /* 1 ACL mode enabled, 0 disabled          */
    int   defaultPriv;           /* KOVA_SHARE_PRIV_* for users not listed  */
} KOVA_SHARE, *PKOVA_SHARE;

/* The share holding a path: its name and real root path. The path need
 * not exist beyond its parent. Negative when no share holds it. */
int  KOVAShareNamePathGet(const char *szPath, char *szName, int cbName, char *szSharePath, int cbSharePath);
/* The same lookup for a path the caller has already made real (links and
 * ".." resolved): only the share table is consulted, the path is not
 * resolved again. Negative when no share holds it (KOVA_ERR_NOSHARE). */
int  KOVAShareOfRealPath(const char *szRealPath, char *szName, int cbName, char *szSharePath, int cbSharePath);
int  KOVAShareGet(const char *szName, PKOVA_SHARE *ppShare);
void KOVAShareFree(PKOVA_SHARE pShare);
/* Stores a share record (creates or replaces by name). */
int  KOVAShareSet(const KOVA_SHARE *pShare);
int  KOVAShareDelete(const char *szName);
/* Names of every share, in name order, appended to *ppList. */
int  KOVAShareEnum(PKLIBC_SZLIST *ppList);

int  KOVAShareIsSupportAcl(const KOVA_SHARE *pShare);               /* 1 yes, 0 no */
int  KLIBShareIsEncryptedGet(const KOVA_SHARE *pShare, int *pOut);  /* 0 ok */
int  KLIBShareIsReadOnlyGet(const KOVA_SHARE *pShare, int *pOut);   /* 0 ok */
int  KLIBShareACLStatusGet(const KOVA_SHARE *pShare, int *pOut);    /* 0 ok */

/* Per-principal privileges: principal type 1 user (by name), 4 group. */
int  KOVASharePrivSet(const char *szShare, int principalType, const char *szPrincipal, int priv);
/* The privilege a user holds on a share: the user's own entry, else the
 * highest of its groups' entries, else the share default; a "none" entry
 * of the user or any of its groups denies. */
int  KOVASharePrivGet(const char *szShare, const char *szUser, int *pPriv);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
