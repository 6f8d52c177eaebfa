#include "domain-enumerator.h"

#include "accountdb-handle.h"
#include "callback-guard.h"
#include "like-clause.h"
#include "../module-log.h"

#include "kova/accountdb.h"
#include "kova/dirsvc.h"
#include "kova/klibc.h"

#include <memory>

namespace internal {

namespace {

const char kLogFile[] = "usergroup-enumerator/domain-enumerator";

struct DomainRows {
    bool kind;
    std::list<UserGroup> rows;
    unsigned long count = 0;
    CallbackGuard guard;
};

void Fill(PKOVA_ACCOUNTDB_ROW row, const char *column, std::string &target) {
    const char *value = KOVAACCOUNTDBGetResult(row, column);
    if (value) target = value;
}

int RowCallback(PKOVA_ACCOUNTDB_ROW row, void *data) {
    DomainRows &ctx = *static_cast<DomainRows *>(data);
    return ctx.guard.Run([&]() -> int {
        const char *name = KOVAACCOUNTDBGetResult(row, "Name");
        if (!name) return -1;
        UserGroup entry;
        entry.name = name;
        entry.type = ctx.kind ? "group" : "user";
        Fill(row, "Description", entry.description);
        Fill(row, "Email", entry.email);
        Fill(row, "FullName", entry.fullname);
        ctx.rows.push_back(std::move(entry));
        ++ctx.count;
        return 0;
    });
}

struct DomainQuery {
    bool kind;
    int dbType;
    const std::vector<const char *> &fields;
    const std::string &clause;
};

// One domain's page; any failure gives an empty subresult.
SearchResult QueryDomain(DomainQuery const &query, std::string const &domain, SearchOption const &window) {
    SearchResult result;
    AccountDbHandle db(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_DOMAIN, query.kind ? 1 : 0, query.dbType,
                                         domain.c_str(), 0));
    if (!db) {
        KOVA_LOG(LOG_ERR, kLogFile, 115, "KOVAACCOUNTDBOpen#Domain(%s:%s:%s) failed",
                 query.dbType == KOVA_ACCOUNTDB_TYPE_FULL ? "full" : "enum", query.kind ? "group" : "user",
                 domain.c_str());
        return result;
    }
    if (KOVAACCOUNTDBActionInit(db.get(), KOVA_ACCOUNTDB_ACTION_ENUM) < 0) {
        KOVA_LOG(LOG_ERR, kLogFile, 120, "KOVAACCOUNTDBActionInit failed");
        return result;
    }
    for (const char *field : query.fields) {
        if (KOVAACCOUNTDBAddFieldValue(db.get(), field, nullptr) < 0) {
            KOVA_LOG(LOG_ERR, kLogFile, 127, "KOVAACCOUNTDBAddFieldValue(%s) failed", field);
            return result;
        }
    }
    if (!query.clause.empty() &&
        KOVAACCOUNTDBAddClause(db.get(), KOVA_ACCOUNTDB_JOIN_AND, query.clause.c_str()) < 0) {
        KOVA_LOG(LOG_ERR, kLogFile, 134, "KOVAACCOUNTDBAddClause(%s) failed", query.clause.c_str());
        return result;
    }
    if (KOVAACCOUNTDBEnumSetStart(db.get(), static_cast<uint32_t>(window.offset)) < 0 ||
        KOVAACCOUNTDBEnumSetLimit(db.get(), window.limit) < 0) {
        KOVA_LOG(LOG_ERR, kLogFile, 141, "KOVAACCOUNTDBEnumSet{Start,Limit}(%lu, %lu) failed",
                 static_cast<unsigned long>(window.offset), static_cast<unsigned long>(window.limit));
        return result;
    }
    DomainRows ctx{query.kind, {}, 0, CallbackGuard()};
    int rc = KOVAACCOUNTDBCoreEnumExec(db.get(), RowCallback, &ctx);
    ctx.guard.RethrowIfFailed();
    if (rc != 0) {
        KOVA_LOG(LOG_ERR, kLogFile, 149, "KOVAACCOUNTDBCoreEnumExec failed");
        return result;
    }
    if (KOVAACCOUNTDBGetEnumCallbackRet(db.get()) < 0) {
        KOVA_LOG(LOG_ERR, kLogFile, 154, "KOVAACCOUNTDBGetEnumCallbackRet failed");
        return result;
    }
    result.total = KOVAACCOUNTDBGetEnumCount(db.get());
    result.items.swap(ctx.rows);
    return result;
}

bool DatabaseExists(bool kind, int dbType) {
    char path[4096] = {0};
    if (KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_DOMAIN, kind ? 1 : 0, dbType, nullptr, path, 4095) != 0) return false;
    return KLIBCFileExist(path) != 0;
}

void AppendAllDomains(std::vector<std::string> &domains) {
    std::unique_ptr<KLIBC_SZLIST, void (*)(PKLIBC_SZLIST)> list(KLIBCSzListAlloc(1024), KLIBCSzListFree);
    if (!list) return;
    PKLIBC_SZLIST raw = list.release();
    int rc = KOVAWinsEnumAllDomains(&raw);  // may grow (reallocate) the list
    list.reset(raw);
    if (rc < 0) return;
    for (int i = 0; i < list->nItem; ++i) {
        const char *item = KLIBCSzListGet(list.get(), i);
        if (item) domains.push_back(item);
    }
}

} // namespace

template <>
bool Deserialize<DomainEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &config,
                                          DomainEnumerator::Option &option) {
    option = DomainEnumerator::Option();
    ReadDirectoryFields(keywordFields, option);
    if (!config.empty() && config.isObject() && config.isMember("bindon") && config["bindon"].isString()) {
        const std::string bindon = config["bindon"].asString();
        if (!bindon.empty()) {
            if (KOVAWinIsEnableTrustDomain() != 0) {
                option.domains.assign(1, bindon);
                return true;
            }
            option.bindon = bindon;
        }
    }
    if (option.domains.empty()) AppendAllDomains(option.domains);
    return true;
}

SearchResult DomainEnumerator::Enumerate(SearchOption const &option) {
    SearchOption window = option;

    std::string nameClause;
    std::string mainClause;
    std::string escaped;
    if (!window.keyword.empty()) {
        escaped = EscapeLikeExpression(window.keyword);
        std::string upper;
        if (!ToUnicodeUpper(escaped, upper)) upper = escaped;
        std::vector<const char *> searched;
        if (option_.name) {
            nameClause = CreateLikeClause("NameUpper", upper, true, true);
            searched.push_back("NameUpper");
        }
        if (option_.description) searched.push_back("Description");
        if (option_.email) searched.push_back("Email");
        if (option_.fullname) searched.push_back("FullName");
        // No field selected: no condition, every record matches (as for LDAP).
        if (!searched.empty()) {
            std::string joined;
            for (const char *field : searched) {
                if (!joined.empty()) joined += " OR ";
                joined += CreateLikeClause(field, IsUpperColumn(field) ? upper : escaped, true, true);
            }
            mainClause = "(" + joined + ")";
        }
    }
    if (!option_.bindon.empty()) {
        if (!mainClause.empty()) mainClause += " AND ";
        mainClause += CreateLikeClause("distinguishedName", EscapeLikeExpression(option_.bindon), true, false);
    }

    static const std::vector<const char *> kFullFields = {"Name", "Description", "Email", "FullName"};
    static const std::vector<const char *> kEnumFields = {"Name"};
    SearchResult merged;
    int dbType;
    if (DatabaseExists(kind_, KOVA_ACCOUNTDB_TYPE_FULL)) {
        dbType = KOVA_ACCOUNTDB_TYPE_FULL;
    } else if (DatabaseExists(kind_, KOVA_ACCOUNTDB_TYPE_ENUM)) {
        dbType = KOVA_ACCOUNTDB_TYPE_ENUM;
    } else {
        KOVA_LOG(LOG_ERR, kLogFile, 229, "failed to open domain database");
        return merged;
    }
    const bool full = dbType == KOVA_ACCOUNTDB_TYPE_FULL;
    DomainQuery query{kind_, dbType, full ? kFullFields : kEnumFields, full ? mainClause : nameClause};
    for (std::string const &domain : option_.domains) {
        SearchResult sub = QueryDomain(query, domain, window);
        AdjustPagingWindow(sub, window);
        MergeSubresult(merged, sub);
    }
    return merged;
}

} // namespace internal
