/*
 * Transfer log (libkovalog.so.1): one record per file operation, appended
 * to <root>/var/log/xfer.log as a tab-separated line a person can read:
 * time (ISO 8601, UTC), remote address, user, action, size, is-directory,
 * type, path. Appends are atomic (O_APPEND, one write per record).
 */
#ifndef KOVA_XFERLOG_H
#define KOVA_XFERLOG_H

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

/* Types: 1 file station upload, 2 download, 3 property change. 0 on success,
 * -1 on failure (last error set). */
int KOVALogXferLog(const char *szRemoteAddr, const char *szUser, const char *szAction,
                   unsigned long long size, const char *szPath, int isDir, int type);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
