/*
 * Platform error codes.
 *
 * Every failing platform call records one of these as the calling thread's
 * last error (see klibc.h: KLIBCErrGet/KLIBCErrorGetFile/KLIBCErrorGetLine).
 * A successful call leaves the last error as it was. Codes are 16-bit values
 * whose low byte is zero for the classes the module maps; the rest are the
 * platform's own and documented in docs/platform.md.
 */
#ifndef KOVA_ERRCODE_H
#define KOVA_ERRCODE_H

#define KOVA_ERR_NONE            0x0000
#define KOVA_ERR_PERM            0x0300  /* permission denied */
#define KOVA_ERR_NOENT           0x0600  /* no such file or account */
#define KOVA_ERR_NOMEM           0x0700  /* out of memory */
#define KOVA_ERR_IO              0x0800  /* input/output or database error */
#define KOVA_ERR_EXIST           0x0900  /* already exists */
#define KOVA_ERR_BADARG          0x0D00  /* bad argument */
#define KOVA_ERR_NOTDIR          0x1000  /* not a directory */
#define KOVA_ERR_RANGE           0x1100  /* buffer too small, value out of range */
#define KOVA_ERR_NOGROUP         0x1800  /* no such group */
#define KOVA_ERR_NOUSER          0x1D00  /* no such user */
#define KOVA_ERR_OWNER_CHANGE    0x2400  /* owner change not allowed */
#define KOVA_ERR_NOSHARE         0x2500  /* no such share */
#define KOVA_ERR_NOTASK          0x2600  /* no such background task */
#define KOVA_ERR_TASK_LIMIT      0x2700  /* too many background tasks running */
#define KOVA_ERR_BADPATH         0xBE00  /* invalid path */
#define KOVA_ERR_CORRUPT         0xC100  /* stored record is corrupt */
#define KOVA_ERR_ACL_NOTSUP      0xD700  /* path does not support ACLs */
#define KOVA_ERR_ACL_DENIED      0xD800  /* caller may not change this ACL */
#define KOVA_ERR_DIRSVC          0xE500  /* directory service unreachable */
#define KOVA_ERR_ACL_NOSPACE     0xEF00  /* ACL cannot be stored (too large, read-only fs) */
#define KOVA_ERR_FAULT           0xFA00  /* default code of an injected fault */

#endif
