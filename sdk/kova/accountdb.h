/*
 * Account databases (libkovaaccountdb.so.7): SQLite caches of the LDAP
 * directory and of each Windows domain, queried by the module.
 *
 * Contract:
 * - KOVAACCOUNTDBOpen returns a handle the caller must pass to
 *   KOVAACCOUNTDBClose exactly once (NULL on failure, last error set).
 * - A query is: ActionInit, AddFieldValue per column wanted, AddClause per
 *   condition, EnumSetStart/EnumSetLimit, CoreEnumExec. Clauses added with
 *   join code 1 are combined with AND, with code 2 with OR (the OR-group
 *   is then ANDed with the AND-clauses).
 * - A clause is restricted SQL: one or more conditions
 *   (<column> LIKE "<pattern>" ESCAPE '\') joined by OR / AND and
 *   parenthesised. The library parses it, checks every column name and binds
 *   every pattern as a parameter; anything else is refused with
 *   KOVA_ERR_BADARG, so no request text reaches SQL.
 * - The row callback gets a row handle valid during the call only; its
 *   return values are combined: the first negative one is kept (see
 *   GetEnumCallbackRet) and stops the enumeration.
 * - Integer results: negative on failure, last error set.
 */
#ifndef KOVA_ACCOUNTDB_H
#define KOVA_ACCOUNTDB_H

#include <stdint.h>

#include "kova/export.h"

#ifdef __cplusplus
extern "C" {
#endif
KOVA_API_BEGIN

/* Database selectors (first argument of Open and GetPath) */
#define KOVA_ACCOUNTDB_DOMAIN   2
#define KOVA_ACCOUNTDB_LDAP     8
/* Kinds */
#define KOVA_ACCOUNTDB_KIND_USER   0
#define KOVA_ACCOUNTDB_KIND_GROUP  1
/* Database types */
#define KOVA_ACCOUNTDB_TYPE_ENUM   0x10   /* enumeration variant: names only */
#define KOVA_ACCOUNTDB_TYPE_FULL   0x20   /* full records */
/* Actions */
#define KOVA_ACCOUNTDB_ACTION_ENUM 6
/* Clause join codes */
#define KOVA_ACCOUNTDB_JOIN_AND    1
#define KOVA_ACCOUNTDB_JOIN_OR     2

typedef struct _tag_KOVA_ACCOUNTDB     KOVA_ACCOUNTDB, *PKOVA_ACCOUNTDB;
typedef struct _tag_KOVA_ACCOUNTDB_ROW KOVA_ACCOUNTDB_ROW, *PKOVA_ACCOUNTDB_ROW;

typedef int (*KOVA_ACCOUNTDB_ENUM_CB)(PKOVA_ACCOUNTDB_ROW pRow, void *pCtx);

/* LDAP: (8, kind, 16, NULL, 0). Domain: (2, kind, 0x10 or 0x20, domain, 0). */
PKOVA_ACCOUNTDB KOVAACCOUNTDBOpen(int selector, int kind, int dbType, const char *szDomain, int flags);
void     KOVAACCOUNTDBClose(PKOVA_ACCOUNTDB h);
int      KOVAACCOUNTDBActionInit(PKOVA_ACCOUNTDB h, int action);
/* Column to return; szValue is reserved for update actions (NULL). */
int      KOVAACCOUNTDBAddFieldValue(PKOVA_ACCOUNTDB h, const char *szField, const char *szValue);
int      KOVAACCOUNTDBAddClause(PKOVA_ACCOUNTDB h, int joinCode, const char *szClause);
int      KOVAACCOUNTDBEnumSetStart(PKOVA_ACCOUNTDB h, uint32_t start);
int      KOVAACCOUNTDBEnumSetLimit(PKOVA_ACCOUNTDB h, uint64_t limit);
/* 0 on success, non-zero (negative) on failure. */
int      KOVAACCOUNTDBCoreEnumExec(PKOVA_ACCOUNTDB h, KOVA_ACCOUNTDB_ENUM_CB cb, void *pCtx);
int      KOVAACCOUNTDBGetEnumCallbackRet(PKOVA_ACCOUNTDB h);
uint64_t KOVAACCOUNTDBGetEnumCount(PKOVA_ACCOUNTDB h);
const char *KOVAACCOUNTDBGetResult(PKOVA_ACCOUNTDB_ROW pRow, const char *szField);
/* Path of the database file; with szDomain NULL the variant's catalogue
 * (which exists once any domain of that variant has been cached). 0 on
 * success. */
int      KOVAACCOUNTDBGetPath(int selector, int kind, int dbType, const char *szDomain, char *szBuf, int cbBuf);

KOVA_API_END
#ifdef __cplusplus
}
#endif

#endif
