/*
 * ACL library (libkovaacl.so): Windows-style ACLs on files and folders.
 *
 * Contract:
 * - ACLs and entries are heap objects of this library: KOVAACLAlloc /
 *   KOVAACLFree, KOVAACLAceAlloc / KOVAACLAceDup / KOVAACLAceFree. An ACL
 *   owns its entries: KOVAACLAceAppend hands the entry to the ACL, which
 *   frees it with itself. Calls that return an ACL through PKOVA_ACL* give
 *   the caller a new ACL to free.
 * - Entries form a singly linked list (pHead .. pTail via pNext); aceCount
 *   is kept equal to its length. Callers may relink entries of an ACL they
 *   own as long as they keep pHead, pTail and aceCount consistent.
 * - Every call that touches a path acts with the calling thread's effective
 *   ids and enforces them: reading an ACL needs read_perm (c), writing it
 *   needs change_perm (C), changing the owner needs take_ownership (o).
 *   Root passes; administrators pass below a share root. Refusals set
 *   KOVA_ERR_PERM (reads, owner) or KOVA_ERR_ACL_DENIED (ACL writes).
 * - Integer results: negative is failure with the last error set, unless a
 *   call documents another convention (noted per call).
 * - Paths are never followed through a final symbolic link.
 */
#ifndef KOVA_ACL_H
#define KOVA_ACL_H

#include <stddef.h>

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

/* ID types of an entry */
#define KOVA_ACL_ID_USER        1
#define KOVA_ACL_ID_OWNER       2
#define KOVA_ACL_ID_GROUP       4
#define KOVA_ACL_ID_EVERYONE    8
#define KOVA_ACL_ID_AUTHUSER    9
#define KOVA_ACL_ID_SYSTEM      10

/* Access types */
#define KOVA_ACL_DENY           0
#define KOVA_ACL_ALLOW          1

/* Permission bits; print order r w x p d D a A R W c C o */
#define KOVA_ACL_PERM_READ_DATA       0x0001  /* r */
#define KOVA_ACL_PERM_WRITE_DATA      0x0002  /* w */
#define KOVA_ACL_PERM_EXECUTE         0x0004  /* x */
#define KOVA_ACL_PERM_APPEND_DATA     0x0008  /* p */
#define KOVA_ACL_PERM_DELETE          0x0010  /* d */
#define KOVA_ACL_PERM_READ_ATTR       0x0020  /* a */
#define KOVA_ACL_PERM_DELETE_CHILD    0x0040  /* D */
#define KOVA_ACL_PERM_WRITE_ATTR      0x0080  /* A */
#define KOVA_ACL_PERM_READ_XATTR      0x0100  /* R */
#define KOVA_ACL_PERM_WRITE_XATTR     0x0200  /* W */
#define KOVA_ACL_PERM_TAKE_OWNERSHIP  0x0400  /* o */
#define KOVA_ACL_PERM_READ_ACL        0x0800  /* c */
#define KOVA_ACL_PERM_WRITE_ACL       0x1000  /* C */
#define KOVA_ACL_PERM_ALL             0x1FFF
/* Implicit rights of a path's owner: read_attr, read_perm, change_perm. */
#define KOVA_ACL_PERM_OWNER_IMPLICIT  0x1820

/* Inheritance bits; print order f d i n */
#define KOVA_ACL_INHERIT_ONLY         0x1     /* i */
#define KOVA_ACL_INHERIT_FILE         0x2     /* f */
#define KOVA_ACL_INHERIT_DIR          0x4     /* d */
#define KOVA_ACL_INHERIT_NO_PROPAGATE 0x8     /* n */

/* KOVAACLGet selectors */
#define KOVA_ACL_GET_ALL        1   /* own entries (level 0) then inherited ones */
#define KOVA_ACL_GET_OWN        2   /* own entries only */
#define KOVA_ACL_GET_INHERITED  3   /* inherited entries only */

/* KOVAACLIsSupport modes */
#define KOVA_ACL_SUPPORT_FS     1   /* the file system can hold ACLs */
#define KOVA_ACL_SUPPORT_MODE   2   /* the path is in ACL mode (has a stored ACL) */

typedef struct _tag_KOVA_ACL_ENTRY_ {
    int             idType;      /* KOVA_ACL_ID_*                                  */
    int             id;          /* uid for users, gid for groups, -1 otherwise    */
    unsigned int    permission;  /* KOVA_ACL_PERM_* mask (32 bits)                 */
    unsigned short  inherit;     /* KOVA_ACL_INHERIT_* flags (16 bits)             */
    unsigned short  accessType;  /* KOVA_ACL_DENY or KOVA_ACL_ALLOW                */
    unsigned int    level;       /* 0 own entry, k inherited from k levels up      */
    struct _tag_KOVA_ACL_ENTRY_ *pNext;  /* next entry of the owning ACL, or NULL */
} KOVA_ACL_ENTRY, *PKOVA_ACL_ENTRY;

typedef struct _tag_KOVA_ACL_ {
    int              isInherited;  /* inherit-from-parent flag                    */
    int              aceCount;     /* number of entries in the list               */
    PKOVA_ACL_ENTRY  pHead;
    PKOVA_ACL_ENTRY  pTail;
} KOVA_ACL, *PKOVA_ACL;

/* An ACL identity: (ID type, id) as in an entry; owners are users or groups. */
typedef struct _tag_KOVA_ACL_ID_ {
    int idType;
    int id;
} KOVA_ACL_ID, *PKOVA_ACL_ID;

/* ---- objects --------------------------------------------------------- */
PKOVA_ACL        KOVAACLAlloc(int flags);                   /* NULL on failure */
void             KOVAACLFree(PKOVA_ACL pAcl);               /* NULL accepted   */
PKOVA_ACL        KOVAACLDup(const KOVA_ACL *pAcl);          /* NULL on failure */
PKOVA_ACL_ENTRY  KOVAACLAceAlloc(void);                     /* zeroed, NULL on failure */
PKOVA_ACL_ENTRY  KOVAACLAceDup(const KOVA_ACL_ENTRY *pAce);  /* copy, pNext NULL */
void             KOVAACLAceFree(PKOVA_ACL_ENTRY pAce);
/* Appends pAce (which must not belong to another ACL); the ACL owns it. */
int              KOVAACLAceAppend(PKOVA_ACL pAcl, PKOVA_ACL_ENTRY pAce);
/* Non-zero when the entry is well formed. *pState carries what earlier
 * entries of the same ACL established (start it at 0); levels must not
 * decrease along one ACL. Returns 0 for an invalid entry. */
int              KOVAACLAceIsValid(const KOVA_ACL_ENTRY *pAce, unsigned int *pState);
/* Most entries one stored ACL can hold. */
int              KOVAACLGetMaxACECount(void);

/* ---- text forms ------------------------------------------------------ */
/* Parsers fill one field of the entry; negative on failure (KOVA_ERR_BADARG).
 * ID types: "user", "owner", "group", "everyone", "authenticated_user",
 * "system". Access: "allow", "deny". Permission: letters of
 * "rwxpdDaARWcCo" in any order, '-' ignored (so both the 13-character form
 * and "C" parse). Inherit: letters of "fdin", '-' ignored. */
int KOVAACLAceParseIDType(const char *sz, PKOVA_ACL_ENTRY pAce);
int KOVAACLAceParseAccessType(const char *sz, PKOVA_ACL_ENTRY pAce);
int KOVAACLAceParsePermission(const char *sz, PKOVA_ACL_ENTRY pAce);
int KOVAACLAceParseInherit(const char *sz, PKOVA_ACL_ENTRY pAce);
/* Printers write NUL-terminated text; they return its length, negative
 * when the buffer is too small or the value unknown. Permission prints 13
 * characters, inherit 4, '-' for a clear bit. */
int KOVAACLAcePrintIDType(int idType, char *szBuf, size_t cbBuf);
int KOVAACLAcePrintAccessType(int accessType, char *szBuf, size_t cbBuf);
int KOVAACLAcePrintPermission(unsigned int permission, char *szBuf, size_t cbBuf);
int KOVAACLAcePrintInherit(unsigned int inherit, char *szBuf, size_t cbBuf);
/* Whole-entry text "idtype:id:access:perm:inherit:level" (id numeric). */
int KOVAACLAcePrint(const KOVA_ACL_ENTRY *pAce, char *szBuf, size_t cbBuf);
int KOVAACLAceParse(const char *sz, PKOVA_ACL_ENTRY pAce);

/* ---- paths ----------------------------------------------------------- */
/* fd is reserved (-1). Selector: KOVA_ACL_GET_*. A path not in ACL mode
 * (no stored ACL) gives an empty ACL with isInherited 0: its rights come
 * from its mode bits (KOVAACLDumpFromMode). Inheritance is resolved at read
 * time: entries that ancestors pass down carry their distance as level. */
int KOVAACLGet(const char *szPath, int fd, int selector, PKOVA_ACL *ppAcl);
/* Replaces the path's own entries and inherit flag; entries are stored as
 * level 0 whatever their level field says. 0 on success. */
int KOVAACLSet(const char *szPath, int fd, const KOVA_ACL *pAcl);
/* Removes the stored ACL: the path returns to mode bits. 0 on success. */
int KOVAACLRemove(const char *szPath, int fd);
/* Mode KOVA_ACL_SUPPORT_*: 1 yes, 0 no, negative on failure. */
int KOVAACLIsSupport(const char *szPath, int fd, int mode);
/* The ACL equivalent to the path's mode bits (owner, group, everyone). */
int KOVAACLDumpFromMode(const char *szPath, int fd, PKOVA_ACL *ppAcl);
/* Does the calling identity hold every bit of `permission` on the path?
 * Positive yes; 0 no (last error KOVA_ERR_PERM); negative on failure. */
int KOVAACLPermCheck(const char *szPath, unsigned int permission);
/* The effective rights of the calling identity on the path (a mask). */
int KOVAACLPermGet(const char *szPath, unsigned int *pPermission);
/* Owner as (KOVA_ACL_ID_USER, uid) or (KOVA_ACL_ID_GROUP, gid). 0 on success. */
int KOVAACLOwnerIdGet(const char *szPath, PKOVA_ACL_ID pOwner);
/* 0 on success; KOVA_ERR_PERM without take_ownership, KOVA_ERR_OWNER_CHANGE
 * when a non-administrator names an owner other than itself or one of its
 * groups. */
int KOVAACLOwnerIdSet(const char *szPath, const KOVA_ACL_ID *pOwner);

/* Non-zero for the names of the platform's hidden attribute directories. */
int KOVAEAIsHiddenDir(const char *szName);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
