// The query interface of the caches (accountdb.h): a handle collects the
// columns, clauses and window of one enumeration, then runs a count and a
// page query built only from validated column names and "?" parameters.
#include "cache-layout.h"
#include "cache-paths.h"
#include "clause.h"
#include "fts-narrow.h"

#include "kova-internal/call-guard.h"
#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova-internal/sqlite-db.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"

#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

using namespace kova_accountdb;
using kova_internal::Guarded;

struct _tag_KOVA_ACCOUNTDB {
    kova_internal::Database db;
    const Layout *layout = nullptr;
    bool actionReady = false;
    std::vector<int> fields;  // layout column indexes, in request order
    std::vector<std::unique_ptr<ClauseNode>> andClauses, orClauses;
    uint32_t start = 0;
    uint64_t limit = UINT64_MAX;
    int callbackRet = 0;
    uint64_t count = 0;
};

struct _tag_KOVA_ACCOUNTDB_ROW {
    PKOVA_ACCOUNTDB h;
    sqlite3_stmt *st;
};

namespace {

int Fail(int code) {
    KOVA_FAIL(code);
    return -1;
}

bool Ready(PKOVA_ACCOUNTDB h) {
    if (h && h->actionReady) return true;
    KOVA_FAIL(KOVA_ERR_BADARG);
    return false;
}

void BindAll(sqlite3_stmt *st, const std::vector<std::string> &params, int first) {
    for (size_t i = 0; i < params.size(); ++i)
        sqlite3_bind_text(st, first + static_cast<int>(i), params[i].data(), static_cast<int>(params[i].size()),
                          SQLITE_TRANSIENT);
}

} // namespace

extern "C" PKOVA_ACCOUNTDB KOVAACCOUNTDBOpen(int selector, int kind, int dbType, const char *szDomain, int flags) {
    KOVA_FAULT_POINT_NULL("KOVAACCOUNTDBOpen");
    return Guarded<PKOVA_ACCOUNTDB>(nullptr, [&]() -> PKOVA_ACCOUNTDB {
        const Layout *layout = LayoutFor(selector, dbType, kind);
        bool domain = selector == KOVA_ACCOUNTDB_DOMAIN;
        if (!layout || (domain && (!szDomain || !*szDomain))) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return nullptr;
        }
        std::string path;
        if (!CachePath(selector, dbType, domain ? szDomain : "", path)) return nullptr;
        auto h = std::make_unique<_tag_KOVA_ACCOUNTDB>();
        if (!h->db.Open(path, false, true)) return nullptr;
        // LIKE compares case-sensitively: case-insensitive search goes
        // through the upper-cased columns, as the callers intend.
        if (!h->db.Exec("PRAGMA case_sensitive_like = ON")) return nullptr;
        sqlite3_stmt *probe = nullptr;
        std::string sql = std::string("SELECT 1 FROM \"") + layout->table + "\" LIMIT 0";
        bool ok = sqlite3_prepare_v2(h->db.get(), sql.c_str(), -1, &probe, nullptr) == SQLITE_OK;
        sqlite3_finalize(probe);
        if (!ok) {
            KOVA_FAIL(KOVA_ERR_CORRUPT);  // a file that is not a cache of this kind
            return nullptr;
        }
        h->layout = layout;
        return h.release();
    });
}

extern "C" void KOVAACCOUNTDBClose(PKOVA_ACCOUNTDB h) {
    // No fault point: closing cannot fail and a skipped close would leak.
    delete h;
}

extern "C" int KOVAACCOUNTDBActionInit(PKOVA_ACCOUNTDB h, int action) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBActionInit", int);
    if (!h || action != KOVA_ACCOUNTDB_ACTION_ENUM) return Fail(KOVA_ERR_BADARG);
    h->actionReady = true;
    h->fields.clear();
    h->andClauses.clear();
    h->orClauses.clear();
    h->start = 0;
    h->limit = UINT64_MAX;
    h->callbackRet = 0;
    h->count = 0;
    return 0;
}

extern "C" int KOVAACCOUNTDBAddFieldValue(PKOVA_ACCOUNTDB h, const char *szField, const char *szValue) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBAddFieldValue", int);
    return Guarded(-1, [&]() -> int {
        if (!Ready(h) || !szField || szValue) return Fail(KOVA_ERR_BADARG);
        int col = h->layout->Find(szField);
        if (col < 0) return Fail(KOVA_ERR_BADARG);
        h->fields.push_back(col);
        return 0;
    });
}

extern "C" int KOVAACCOUNTDBAddClause(PKOVA_ACCOUNTDB h, int joinCode, const char *szClause) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBAddClause", int);
    return Guarded(-1, [&]() -> int {
        if (!Ready(h) || !szClause || (joinCode != KOVA_ACCOUNTDB_JOIN_AND && joinCode != KOVA_ACCOUNTDB_JOIN_OR))
            return Fail(KOVA_ERR_BADARG);
        auto node = ParseClause(szClause, *h->layout);
        if (!node) return -1;
        (joinCode == KOVA_ACCOUNTDB_JOIN_AND ? h->andClauses : h->orClauses).push_back(std::move(node));
        return 0;
    });
}

extern "C" int KOVAACCOUNTDBEnumSetStart(PKOVA_ACCOUNTDB h, uint32_t start) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBEnumSetStart", int);
    if (!Ready(h)) return -1;
    h->start = start;
    return 0;
}

extern "C" int KOVAACCOUNTDBEnumSetLimit(PKOVA_ACCOUNTDB h, uint64_t limit) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBEnumSetLimit", int);
    if (!Ready(h)) return -1;
    h->limit = limit;
    return 0;
}

extern "C" int KOVAACCOUNTDBCoreEnumExec(PKOVA_ACCOUNTDB h, KOVA_ACCOUNTDB_ENUM_CB cb, void *pCtx) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBCoreEnumExec", int);
    return Guarded(-1, [&]() -> int {
        if (!Ready(h)) return -1;
        const Layout &l = *h->layout;
        std::vector<std::string> params;
        std::string where;
        for (const auto &c : h->andClauses) where += (where.empty() ? "" : " AND ") + ClauseSql(*c, l, params);
        if (!h->orClauses.empty()) {
            std::string alts;
            for (const auto &c : h->orClauses) alts += (alts.empty() ? "" : " OR ") + ClauseSql(*c, l, params);
            where += (where.empty() ? "(" : " AND (") + alts + ")";
        }
        std::vector<const ClauseNode *> ands, ors;
        for (const auto &c : h->andClauses) ands.push_back(c.get());
        for (const auto &c : h->orClauses) ors.push_back(c.get());
        std::string narrow = l.HasIndex() ? NarrowingFor(ands, ors, l) : "";
        std::string filter;
        if (!narrow.empty()) {
            filter = "rowid IN (SELECT rowid FROM " + l.FtsTable() + " WHERE " + l.FtsTable() + " MATCH ?)";
            params.insert(params.begin(), narrow);
        }
        if (!where.empty()) filter += (filter.empty() ? "" : " AND ") + where;
        std::string from = std::string(" FROM \"") + l.table + "\"" + (filter.empty() ? "" : " WHERE " + filter);

        std::string cols;
        std::vector<int> fields = h->fields;
        if (fields.empty())
            for (size_t i = 0; i < l.columns.size(); ++i) fields.push_back(static_cast<int>(i));
        for (int f : fields) cols += std::string(cols.empty() ? "" : ", ") + "\"" + l.columns[static_cast<size_t>(f)].name + "\"";

        // Count and page read one snapshot.
        if (!h->db.Exec("BEGIN")) return -1;
        struct EndRead {
            kova_internal::Database &db;
            ~EndRead() { db.Exec("COMMIT"); }
        } endRead{h->db};

        kova_internal::Statement count(h->db, ("SELECT count(*)" + from).c_str());
        if (!count.ok()) return -1;
        BindAll(count.get(), params, 1);
        if (count.Step() != SQLITE_ROW) return -1;
        h->count = static_cast<uint64_t>(count.Int(0));
        h->callbackRet = 0;

        kova_internal::Statement page(h->db, ("SELECT " + cols + from + " ORDER BY rowid LIMIT ? OFFSET ?").c_str());
        if (!page.ok()) return -1;
        BindAll(page.get(), params, 1);
        long long lim = h->limit > static_cast<uint64_t>(INT64_MAX) ? -1 : static_cast<long long>(h->limit);
        sqlite3_bind_int64(page.get(), static_cast<int>(params.size()) + 1, lim);
        sqlite3_bind_int64(page.get(), static_cast<int>(params.size()) + 2, h->start);
        h->fields = fields;
        _tag_KOVA_ACCOUNTDB_ROW row{h, page.get()};
        int rc;
        while ((rc = page.Step()) == SQLITE_ROW) {
            int r = cb ? cb(&row, pCtx) : 0;
            if (r < 0) {
                h->callbackRet = r;
                break;
            }
        }
        if (rc != SQLITE_ROW && rc != SQLITE_DONE) return -1;
        return 0;
    });
}

extern "C" int KOVAACCOUNTDBGetEnumCallbackRet(PKOVA_ACCOUNTDB h) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBGetEnumCallbackRet", int);
    if (!h) return Fail(KOVA_ERR_BADARG);
    return h->callbackRet;
}

extern "C" uint64_t KOVAACCOUNTDBGetEnumCount(PKOVA_ACCOUNTDB h) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBGetEnumCount", uint64_t);
    if (!h) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return 0;
    }
    return h->count;
}

extern "C" const char *KOVAACCOUNTDBGetResult(PKOVA_ACCOUNTDB_ROW pRow, const char *szField) {
    KOVA_FAULT_POINT_NULL("KOVAACCOUNTDBGetResult");
    if (!pRow || !szField) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return nullptr;
    }
    const auto &fields = pRow->h->fields;
    const Layout &l = *pRow->h->layout;
    for (size_t i = 0; i < fields.size(); ++i)
        if (std::strcmp(l.columns[static_cast<size_t>(fields[i])].name, szField) == 0)
            return reinterpret_cast<const char *>(sqlite3_column_text(pRow->st, static_cast<int>(i)));
    KOVA_FAIL(KOVA_ERR_BADARG);  // not a requested column
    return nullptr;
}

extern "C" int KOVAACCOUNTDBGetPath(int selector, int kind, int dbType, const char *szDomain, char *szBuf, int cbBuf) {
    KOVA_FAULT_POINT("KOVAACCOUNTDBGetPath", int);
    return Guarded(-1, [&]() -> int {
        if (!szBuf || cbBuf <= 0 || !LayoutFor(selector, selector == KOVA_ACCOUNTDB_LDAP ? KOVA_ACCOUNTDB_TYPE_ENUM : dbType, kind))
            return Fail(KOVA_ERR_BADARG);
        std::string path;
        if (!CachePath(selector, dbType, selector == KOVA_ACCOUNTDB_DOMAIN && szDomain ? szDomain : "", path)) return -1;
        if (path.size() >= static_cast<size_t>(cbBuf)) return Fail(KOVA_ERR_RANGE);
        std::memcpy(szBuf, path.c_str(), path.size() + 1);
        return 0;
    });
}
