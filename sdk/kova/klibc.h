/*
 * Core helpers: last error, string lists, Unicode upper-casing, files and
 * configuration keys (libkovacore.so.7).
 *
 * Contract:
 * - The last error is per thread. Every failing platform call sets it with
 *   the code (errcode.h), the source file and the line where the failure was
 *   raised; successful calls do not clear it.
 * - A string list is allocated by KLIBCSzListAlloc and freed by
 *   KLIBCSzListFree (NULL is accepted). Calls that fill a list take a
 *   pointer to the list pointer because they may grow it; the list stays
 *   owned by the caller. Items are copies owned by the list.
 * - Paths that begin with "/" and name platform configuration (such as
 *   "/etc/kovainfo.conf") resolve inside the platform root ($KOVA_ROOT).
 * - Integer results: negative means failure unless a call says otherwise.
 */
#ifndef KOVA_KLIBC_H
#define KOVA_KLIBC_H

#include <stddef.h>

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

/* ---- last error ------------------------------------------------------ */
int         KLIBCErrGet(void);
const char *KLIBCErrorGetFile(void);
int         KLIBCErrorGetLine(void);
void        KLIBCErrSetEx(int code, const char *file, int line);
/* Sets the last error at the call site: file name and line of the caller. */
#define KLIBCErrSet(code) KLIBCErrSetEx((code), __FILE__, __LINE__)

/* ---- string lists ---------------------------------------------------- */
typedef struct _tag_KLIBC_SZLIST {
    int    nItem;      /* number of items in use (slots 0..nItem-1)       */
    int    nCapacity;  /* slots allocated                                 */
    char **ppszItem;   /* item texts; a NULL slot is an empty item        */
} KLIBC_SZLIST, *PKLIBC_SZLIST;

/* A list with room for cbHint bytes of text (a hint; lists grow). NULL on
 * allocation failure (last error KOVA_ERR_NOMEM). */
PKLIBC_SZLIST KLIBCSzListAlloc(int cbHint);
void          KLIBCSzListFree(PKLIBC_SZLIST pList);
/* Item at idx, or NULL for an empty slot or an index out of range. */
const char   *KLIBCSzListGet(PKLIBC_SZLIST pList, int idx);
/* Appends a copy of sz (NULL appends an empty slot); may reallocate
 * *ppList. Returns the new item count, negative on failure. */
int           KLIBCSzListPush(PKLIBC_SZLIST *ppList, const char *sz);

/* ---- text ------------------------------------------------------------ */
/* Writes the Unicode upper-case form of the UTF-8 text szIn into szOut
 * (cbOut bytes, always NUL-terminated when cbOut > 0; a longer result is cut
 * at a character boundary). Returns the length written, negative on
 * failure (invalid UTF-8, bad arguments). */
int KLIBCUnicodeUTF8StrUpper(const char *szIn, char *szOut, size_t cbOut);

/* ---- files and configuration ----------------------------------------- */
/* Non-zero when the path exists (not following a final symbolic link). */
int KLIBCFileExist(const char *szPath);
/* Non-zero when the configuration file (a platform path, resolved inside
 * the platform root) holds key = value, compared exactly after trimming
 * blanks and optional double quotes. flags is reserved (0). */
int KLIBCFileCheckKeyValue(const char *szFile, const char *szKey, const char *szValue, int flags);
/* Reads key's value into szValue (cbValue bytes). 0 on success, negative
 * when the file or key is missing. */
int KLIBCFileGetKeyValue(const char *szFile, const char *szKey, char *szValue, int cbValue);
/* Sets key = value in a configuration file, atomically (write and rename). */
int KLIBCFileSetKeyValue(const char *szFile, const char *szKey, const char *szValue);

/* ---- platform root --------------------------------------------------- */
/* The platform root directory ($KOVA_ROOT, default "/var/lib/kova"). */
const char *KLIBCRootGet(void);
/* Maps a platform path such as "/etc/kovainfo.conf" into the root. Returns
 * the length written, negative when the buffer is too small. */
int KLIBCRootPath(const char *szPlatformPath, char *szOut, size_t cbOut);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
