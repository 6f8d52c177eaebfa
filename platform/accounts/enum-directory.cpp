// The directory sources, read from the account caches: LDAP (names as
// "name@suffix") and every known Windows domain (names as "DOMAIN\name").
// Name filters become LIKE clauses with every wildcard of the keyword
// escaped, so the caches match keywords literally.
#include "enum-common.h"

#include "kova-internal/fault-point.h"
#include "kova/account.h"
#include "kova/accountdb.h"
#include "kova/dirsvc.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

namespace kova_accounts {

namespace {

struct DbCloser {
    void operator()(PKOVA_ACCOUNTDB h) const { KOVAACCOUNTDBClose(h); }
};
using DbHandle = std::unique_ptr<KOVA_ACCOUNTDB, DbCloser>;

struct ListFree {
    void operator()(PKLIBC_SZLIST l) const { KLIBCSzListFree(l); }
};
using SzList = std::unique_ptr<KLIBC_SZLIST, ListFree>;

// A plain existence test: a missing cache is an expected state here, not
// an error worth recording as the caller's last error.
bool Exists(const char *path) {
    struct stat st;
    return stat(path, &st) == 0;
}

std::string EscapeLike(const std::string &text) {
    std::string out;
    for (char c : text) {
        if (c == '\\' || c == '%' || c == '_') out += '\\';
        out += c;
    }
    return out;
}

// Column names of one cache layout.
struct Layout {
    const char *name, *nameUpper, *desc, *mail, *fullname;
};
const Layout kLdap{"name", "name_upper", "desc", "mail", "fullname"};
const Layout kDomainFull{"Name", "NameUpper", "Description", "Email", "FullName"};
const Layout kDomainEnum{"Name", "NameUpper", nullptr, nullptr, nullptr};

struct Collect {
    const Layout *layout;
    std::string prefix, suffix;
    int source;
    std::vector<Entry> *out;
};

std::optional<std::string> Field(PKOVA_ACCOUNTDB_ROW row, const char *col) {
    if (!col) return std::nullopt;
    const char *v = KOVAACCOUNTDBGetResult(row, col);
    if (!v) return std::nullopt;
    return std::string(v);
}

int CollectRow(PKOVA_ACCOUNTDB_ROW row, void *ctx) {
    auto *c = static_cast<Collect *>(ctx);
    const char *name = KOVAACCOUNTDBGetResult(row, c->layout->name);
    if (!name) return -1;
    Entry e;
    e.name = c->prefix + name + c->suffix;
    e.desc = Field(row, c->layout->desc);
    e.email = Field(row, c->layout->mail);
    e.fullname = Field(row, c->layout->fullname);
    e.source = c->source;
    c->out->push_back(std::move(e));
    return 0;
}

// Runs one query against an open cache; false with the last error set.
bool QueryCache(PKOVA_ACCOUNTDB h, const Layout &layout, bool groups, const Query &q, Collect &collect, long long &total) {
    if (KOVAACCOUNTDBActionInit(h, KOVA_ACCOUNTDB_ACTION_ENUM) < 0) return false;
    for (const char *col : {layout.name, layout.desc, groups ? nullptr : layout.mail, groups ? nullptr : layout.fullname})
        if (col && KOVAACCOUNTDBAddFieldValue(h, col, nullptr) < 0) return false;
    if (q.mode != Query::kAll && !q.pattern.empty()) {
        std::string clause = std::string("(") + (q.ignoreCase ? layout.nameUpper : layout.name) + " LIKE \"" +
                             (q.mode == Query::kSubstr ? "%" : "") + EscapeLike(q.pattern) + "%\" ESCAPE '\\')";
        if (KOVAACCOUNTDBAddClause(h, KOVA_ACCOUNTDB_JOIN_AND, clause.c_str()) < 0) return false;
    }
    if (KOVAACCOUNTDBEnumSetStart(h, q.offset) < 0) return false;
    if (KOVAACCOUNTDBEnumSetLimit(h, q.limit == kNoLimit ? UINT64_MAX : q.limit) < 0) return false;
    if (KOVAACCOUNTDBCoreEnumExec(h, CollectRow, &collect) != 0) return false;
    if (KOVAACCOUNTDBGetEnumCallbackRet(h) < 0) {
        KOVA_FAIL(KOVA_ERR_CORRUPT);  // a cached row without a name
        return false;
    }
    total = static_cast<long long>(KOVAACCOUNTDBGetEnumCount(h));
    return true;
}

bool LdapAccounts(bool groups, const Query &q, Page &page) {
    if (!KOVALDAPIsBinded()) {
        KOVA_FAIL(KOVA_ERR_DIRSVC);
        return false;
    }
    char suffix[1024];
    if (KOVALDAPLoginSuffixGet(suffix, sizeof(suffix)) < 0) return false;
    char path[4096];
    if (KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_LDAP, groups ? 1 : 0, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, path, sizeof(path)) != 0)
        return false;
    if (!Exists(path)) return true;  // bound but never synced: nothing cached yet
    DbHandle h(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_LDAP, groups ? 1 : 0, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, 0));
    if (!h) return false;
    Collect c{&kLdap, "", std::string("@") + suffix, KOVA_ACCOUNT_SRC_LDAP, &page.entries};
    return QueryCache(h.get(), kLdap, groups, q, c, page.total);
}

bool DomainAccounts(bool groups, const Query &q, Page &page) {
    if (!KOVAWinsIsJoined()) {
        KOVA_FAIL(KOVA_ERR_DIRSVC);
        return false;
    }
    SzList domains(KLIBCSzListAlloc(1024));
    if (!domains) return false;
    PKLIBC_SZLIST raw = domains.release();
    int n = KOVAWinsEnumAllDomains(&raw);
    domains.reset(raw);
    if (n < 0) return false;
    Query window = q;
    for (int i = 0; i < domains->nItem; ++i) {
        const char *domain = KLIBCSzListGet(domains.get(), i);
        if (!domain) continue;
        // The full cache when this domain has one, else its name-only cache.
        int type = KOVA_ACCOUNTDB_TYPE_FULL;
        char path[4096];
        if (KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_DOMAIN, groups ? 1 : 0, type, domain, path, sizeof(path)) != 0 ||
            !Exists(path)) {
            type = KOVA_ACCOUNTDB_TYPE_ENUM;
            if (KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_DOMAIN, groups ? 1 : 0, type, domain, path, sizeof(path)) != 0 ||
                !Exists(path))
                continue;  // joined but not cached yet
        }
        DbHandle h(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_DOMAIN, groups ? 1 : 0, type, domain, 0));
        if (!h) return false;
        const Layout &layout = type == KOVA_ACCOUNTDB_TYPE_FULL ? kDomainFull : kDomainEnum;
        size_t before = page.entries.size();
        Collect c{&layout, std::string(domain) + "\\", "", KOVA_ACCOUNT_SRC_DOMAIN, &page.entries};
        long long sub = 0;
        if (!QueryCache(h.get(), layout, groups, window, c, sub)) return false;
        // The window runs across the domains as one list.
        size_t got = page.entries.size() - before;
        page.total += sub;
        window.offset = sub >= window.offset ? 0 : window.offset - static_cast<unsigned>(sub);
        if (window.limit != kNoLimit) window.limit -= static_cast<unsigned>(got);
    }
    return true;
}

} // namespace

bool DirectoryAccounts(int source, bool groups, const Query &q, Page &page) {
    if (source == KOVA_ACCOUNT_SRC_LDAP) return LdapAccounts(groups, q, page);
    if (source == KOVA_ACCOUNT_SRC_DOMAIN) return DomainAccounts(groups, q, page);
    KOVA_FAIL(KOVA_ERR_BADARG);
    return false;
}

} // namespace kova_accounts
