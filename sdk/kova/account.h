/*
 * Local accounts (libkovasdk.so.7): users, groups, memberships and the
 * administrators group, kept in SQLite under the platform root; plus
 * enumeration over the local, LDAP and Windows-domain sources.
 *
 * Contract:
 * - Records are allocated by the platform and released with KOVAUserFree /
 *   KOVAGroupFree (NULL accepted). The *GetByUID / *GetByGID calls write into
 *   the holder *pp: when it already holds a record that record is reused
 *   (its old texts freed), otherwise a new one is allocated; either way the
 *   caller frees it once.
 * - Result conventions are per call and stated beside each one; every
 *   failure sets the last error (KOVA_ERR_NOUSER, KOVA_ERR_NOGROUP, ...).
 * - Uids below 1024 are system accounts; 1024 is the first user, 1025 the
 *   guest. The group "administrators" marks administrators.
 * - Directory accounts answer every lookup here as well: LDAP names as
 *   "name@suffix" (or bare, when no local account has the name), domain
 *   names as "DOMAIN\name"; their ids are the directory's uidNumber /
 *   gidNumber, or a domain's range base + RID, and lookups by id give the
 *   qualified name back. A local account wins any clash, by name and by id.
 *   Directory accounts are never internal and never administrators.
 * - Enumerations call the callback once per delivered entry; a callback
 *   returning non-zero stops the enumeration. They return the number of all
 *   matching entries (not only the delivered page), negative on failure.
 *   Sources: 1 local, 2 Windows domain (from the domain caches), 8 LDAP
 *   (from the LDAP cache). Offset and limit are unsigned; 0xFFFFFFFF is
 *   "no limit".
 */
#ifndef KOVA_ACCOUNT_H
#define KOVA_ACCOUNT_H

#include "kova/klibc.h"

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

#define KOVA_UID_FIRST_USER   1024
#define KOVA_UID_GUEST        1025
#define KOVA_ADMIN_GROUP      "administrators"
/* The administrators group has this gid on every platform root, so that a
 * process's supplementary groups tell whether it acts as an administrator. */
#define KOVA_ADMIN_GID        101

#define KOVA_ACCOUNT_SRC_LOCAL   1
#define KOVA_ACCOUNT_SRC_DOMAIN  2
#define KOVA_ACCOUNT_SRC_LDAP    8

typedef struct _tag_KOVA_USER {
    char         *szName;
    unsigned int  uid;
    unsigned int  gid;          /* primary group */
    char         *szDesc;       /* may be NULL */
    char         *szEmail;      /* may be NULL */
    char         *szHome;       /* may be NULL */
    int           isInternal;   /* system/service account */
    int           isDisabled;
} KOVA_USER, *PKOVA_USER;

typedef struct _tag_KOVA_GROUP {
    char         *szName;
    unsigned int  gid;
    char         *szDesc;       /* may be NULL */
} KOVA_GROUP, *PKOVA_GROUP;

/* What enumerations hand their callbacks; valid during the call only. */
typedef struct _tag_KLIB_USER_INFO {
    const char   *szName;
    const char   *szDesc;       /* may be NULL */
    const char   *szEmail;      /* may be NULL */
    const char   *szFullName;   /* may be NULL */
    unsigned int  uid;
    unsigned int  gid;
    int           isInternal;
    int           source;       /* KOVA_ACCOUNT_SRC_* */
} KLIB_USER_INFO, *PKLIB_USER_INFO;

typedef struct _tag_KLIB_GROUP_INFO {
    const char   *szName;
    const char   *szDesc;       /* may be NULL */
    unsigned int  gid;
    int           source;
} KLIB_GROUP_INFO, *PKLIB_GROUP_INFO;

typedef int (*KLIB_USER_ENUM_CB)(const KLIB_USER_INFO *pInfo, void *pReserved, void *pCtx);
typedef int (*KLIB_GROUP_ENUM_CB)(const KLIB_GROUP_INFO *pInfo, void *pReserved, void *pCtx);

/* ---- users ----------------------------------------------------------- */
int  KOVAUserGet(const char *szName, PKOVA_USER *ppUser);            /* 0 found */
int  KOVAUserGetByUID(unsigned int uid, PKOVA_USER *ppUser);         /* 0 found */
void KOVAUserFree(PKOVA_USER pUser);
int  KOVAUserIsInternal(const char *szName, unsigned int uid);       /* non-zero internal */
int  KOVAUserGetUGID(const char *szName, int *pUid, int *pGid);      /* 0 found, negative failure; either out may be NULL */
/* 0 when the password matches a user that may sign in (not disabled, has
 * a password). Every refusal fails alike with KOVA_ERR_PERM after the same
 * work (one password hash), so neither the result nor the time taken tells
 * whether the account exists. Both texts are C strings and end at their
 * first NUL byte: a caller holding counted text (a JSON string, a form
 * field) must refuse text that contains a NUL before calling, or the check
 * is made for a shorter name or password than the one it was given.
 * A name no local account has is then checked by the directory: an LDAP
 * user by a bind to the bound server (KOVA_ERR_DIRSVC when it cannot be
 * reached); a domain user is refused with KOVA_ERR_DIRSVC (the platform
 * has no domain controller, only the domain's cache). */
int  KOVAUserPasswordCheck(const char *szName, const char *szPassword);

/* ---- groups ---------------------------------------------------------- */
int  KOVAGroupGet(const char *szName, PKOVA_GROUP *ppGroup);         /* non-negative found */
int  KOVAGroupGetByGID(unsigned int gid, PKOVA_GROUP *ppGroup);      /* non-negative found */
void KOVAGroupFree(PKOVA_GROUP pGroup);
int  KOVAGroupGetGID(const char *szName, int *pGid);                 /* non-negative found */
/* *pszDesc is a new string the caller frees with free(); pszReserved may be
 * NULL and, when not, receives NULL. Negative on failure. */
int  KOVAGroupDescGet(const char *szName, char **pszDesc, char **pszReserved);
int  KOVAGroupIsAdminGroup(const char *szName);                      /* 1 yes, 0 no, negative error */
int  KOVAGroupIsAdminGroupByGid(unsigned int gid);                   /* 1 yes, 0 no, negative error */

/* ---- membership ------------------------------------------------------ */
int  KLIBGroupIsAdminGroupMem(const char *szUser, int flags);        /* 1 member, 0 not, negative error */
int  KLIBGroupIsAdminGroupMemByUid(unsigned int uid, int flags);     /* 1 member, 0 not, negative error */
/* Decimal gids of every group of the user, primary group first. NULL on
 * failure. Free with KLIBCSzListFree. */
PKLIBC_SZLIST KLIBGroupInfoListGet(const char *szUser, int flags);

/* ---- enumeration ----------------------------------------------------- */
/* Every user of the source (internal accounts excluded), by name. */
int KLIBUserInfoEnum(int source, int flags, unsigned int offset, unsigned int limit,
                     KLIB_USER_ENUM_CB cb, void *pCtx);
/* Internal accounts whose name matches szPattern (NULL or "" matches all):
 * substring when bySubstr is non-zero, prefix otherwise; ignoreCase as named. */
int KLIBUserInfoEnumInternalUsers(unsigned int offset, unsigned int limit, const char *szPattern,
                                  int bySubstr, int ignoreCase, KLIB_USER_ENUM_CB cb, void *pCtx);
int KLIBUserInfoEnumBySubstr(int source, int flags, unsigned int offset, unsigned int limit,
                             const char *szSubstr, int ignoreCase, KLIB_USER_ENUM_CB cb, void *pCtx);
int KLIBGroupInfoEnumBySubstr(int source, int flags, unsigned int offset, unsigned int limit,
                              const char *szSubstr, int ignoreCase, KLIB_GROUP_ENUM_CB cb, void *pCtx);
int KLIBGroupInfoEnumByPrefix(int source, int flags, unsigned int offset, unsigned int limit,
                              const char *szPrefix, int ignoreCase, KLIB_GROUP_ENUM_CB cb, void *pCtx);

/* ---- administration (used by kova-admin and the server) --------------- */
int KOVAUserAdd(const char *szName, int uid /* -1: next free */, const char *szPassword,
                const char *szDesc, const char *szEmail, int isInternal);
int KOVAUserSet(const KOVA_USER *pUser);              /* by uid: name, gid, desc, email, internal, disabled */
int KOVAUserPasswordSet(const char *szName, const char *szPassword);
int KOVAUserDelete(const char *szName);
int KOVAGroupAdd(const char *szName, int gid /* -1: next free */, const char *szDesc);
int KOVAGroupDelete(const char *szName);
int KOVAGroupMemberAdd(const char *szGroup, const char *szUser);
int KOVAGroupMemberRemove(const char *szGroup, const char *szUser);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
