#include "ldap-query.h"

#include "accountdb-handle.h"
#include "callback-guard.h"
#include "like-clause.h"
#include "../module-log.h"

namespace internal {

namespace {

struct RowContext {
    LdapQuery const &query;
    std::list<UserGroup> rows;
    CallbackGuard guard;
};

void Fill(PKOVA_ACCOUNTDB_ROW row, const char *column, std::string &target) {
    const char *value = KOVAACCOUNTDBGetResult(row, column);
    if (value) target = value;
}

int RowCallback(PKOVA_ACCOUNTDB_ROW row, void *data) {
    RowContext &ctx = *static_cast<RowContext *>(data);
    return ctx.guard.Run([&]() -> int {
        const char *name = KOVAACCOUNTDBGetResult(row, "name");
        if (!name) return -1;
        UserGroup entry;
        entry.name = std::string(name) + ctx.query.suffix;
        entry.type = ctx.query.type;
        if (ctx.query.kind == KOVA_ACCOUNTDB_KIND_USER) {
            Fill(row, "mail", entry.email);
            Fill(row, "fullname", entry.fullname);
        }
        Fill(row, "desc", entry.description);
        ctx.rows.push_back(std::move(entry));
        return 0;
    });
}

} // namespace

SearchResult RunLdapQuery(LdapQuery const &query, SearchOption const &option) {
    SearchResult result;
    AccountDbHandle db(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_LDAP, query.kind, 16, nullptr, 0));
    if (!db) {
        KOVA_LOG(LOG_ERR, query.logFile, query.lineOpen, "KOVAACCOUNTDBOpen#LDAP failed");
        return result;
    }
    if (KOVAACCOUNTDBActionInit(db.get(), KOVA_ACCOUNTDB_ACTION_ENUM) < 0) {
        KOVA_LOG(LOG_ERR, query.logFile, query.lineInit, "KOVAACCOUNTDBActionInit failed");
        return result;
    }
    for (const char *column : query.columns) {
        if (KOVAACCOUNTDBAddFieldValue(db.get(), column, nullptr) < 0) {
            KOVA_LOG(LOG_ERR, query.logFile, query.lineField, "KOVAACCOUNTDBAddFieldValue(%s) failed", column);
            return result;
        }
    }
    if (!option.keyword.empty()) {
        const std::string escaped = EscapeLikeExpression(option.keyword);
        std::string upper;
        if (!ToUnicodeUpper(escaped, upper)) upper = escaped;
        // With no column selected nothing is added and every row matches.
        for (const char *column : query.clauseColumns) {
            const std::string clause =
                CreateLikeClause(column, IsUpperColumn(column) ? upper : escaped, true, true);
            if (KOVAACCOUNTDBAddClause(db.get(), KOVA_ACCOUNTDB_JOIN_OR, clause.c_str()) < 0) {
                KOVA_LOG(LOG_ERR, query.logFile, query.lineClause, "KOVAACCOUNTDBAddClause(%s) failed",
                         clause.c_str());
                return result;
            }
        }
    }
    // The database takes a 32-bit start: larger offsets wrap.
    if (KOVAACCOUNTDBEnumSetStart(db.get(), static_cast<uint32_t>(option.offset)) < 0 ||
        KOVAACCOUNTDBEnumSetLimit(db.get(), option.limit) < 0) {
        KOVA_LOG(LOG_ERR, query.logFile, query.lineSet, "KOVAACCOUNTDBEnumSet{Start,Limit}(%lu, %lu) failed",
                 static_cast<unsigned long>(option.offset), static_cast<unsigned long>(option.limit));
        return result;
    }
    RowContext ctx{query, {}, CallbackGuard()};
    int rc = KOVAACCOUNTDBCoreEnumExec(db.get(), RowCallback, &ctx);
    ctx.guard.RethrowIfFailed();
    if (rc < 0) {
        KOVA_LOG(LOG_ERR, query.logFile, query.lineExec, "KOVAACCOUNTDBCoreEnumExec failed");
        return result;
    }
    if (KOVAACCOUNTDBGetEnumCallbackRet(db.get()) < 0) {
        KOVA_LOG(LOG_ERR, query.logFile, query.lineCallback, "KOVAACCOUNTDBGetEnumCallbackRet failed");
        return result;
    }
    result.total = KOVAACCOUNTDBGetEnumCount(db.get());
    result.items.swap(ctx.rows);
    return result;
}

} // namespace internal
