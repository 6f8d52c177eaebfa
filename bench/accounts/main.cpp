// Account benchmarks:
//  1. 100,000 local users enumerated through KLIBUserInfoEnum beside a plain
//     SQLite scan of the same table;
//  2. 1,000,000 cached LDAP users: one page of a 3-letter substring search
//     (with the total count) through the account-database calls beside a
//     plain SQLite LIKE scan doing the same count and page. Goal: ours at
//     least 3x faster (ratio <= 0.33);
//  3. name and id lookups of those cached LDAP users (KOVAUserGet of
//     "name@suffix", KOVAUserGetByUID, KLIBGroupInfoListGet: what a rule,
//     get and a request's identity cost) beside KOVAUserGet of local users.
// Usage: bench-accounts [local-users] [ldap-users]
#include "fill-accounts.h"
#include "sqlite-baseline.h"
#include "timing.h"

#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"
#include "kova/account.h"
#include "kova/accountdb.h"
#include "kova/klibc.h"

#include <sqlite3.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using namespace kova_bench;

int CountUser(const KLIB_USER_INFO *u, void *, void *ctx) {
    *static_cast<long *>(ctx) += u->szName[0] != 0;
    return 0;
}

bool LocalBench(int users) {
    if (!FillLocalUsers(users)) return false;
    Db d;
    std::string path = std::string(KLIBCRootGet()) + "/etc/accounts.db";
    if (sqlite3_open(path.c_str(), &d.db) != SQLITE_OK) return false;

    long ours = 0;
    int total = 0;
    double tOurs = Median(5, [&] {
        ours = 0;
        total = KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, CountUser, &ours);
    });
    long plain = 0;
    double tPlain = Median(5, [&] {
        plain = 0;
        sqlite3_stmt *st = nullptr;
        sqlite3_prepare_v2(d.db, "SELECT name, uid, gid, description, email, internal FROM users WHERE internal = 0 ORDER BY name",
                           -1, &st, nullptr);
        while (sqlite3_step(st) == SQLITE_ROW) plain += sqlite3_column_text(st, 0)[0] != 0;
        sqlite3_finalize(st);
    });
    std::printf("local enumeration of %d users: ours %.1f ms (%ld delivered, total %d), plain SQLite scan %.1f ms (%ld rows), "
                "ratio %.2f\n",
                users, tOurs, ours, total, tPlain, plain, tOurs / tPlain);
    return ours == plain;
}

struct PageCtx {
    long rows = 0;
};

int CountRow(PKOVA_ACCOUNTDB_ROW row, void *ctx) {
    static_cast<PageCtx *>(ctx)->rows += KOVAACCOUNTDBGetResult(row, "name") != nullptr;
    return 0;
}

bool LdapBench(int users) {
    Words words;
    auto t0 = Clock::now();
    auto b = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_LDAP, "");
    if (!b || !AddLdapUsers(*b, users, words)) return false;
    if (b->Commit() != 0) return false;
    std::printf("ldap cache of %d users built in %.1f s\n", users, Ms(t0, Clock::now()) / 1000);

    const char *keyword = "123";  // about 5 in 1000 names
    uint64_t oursTotal = 0;
    PageCtx page;
    double tOurs = Median(5, [&] {
        PKOVA_ACCOUNTDB h = KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_LDAP, 0, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, 0);
        KOVAACCOUNTDBActionInit(h, KOVA_ACCOUNTDB_ACTION_ENUM);
        for (const char *f : {"name", "mail", "fullname", "desc"}) KOVAACCOUNTDBAddFieldValue(h, f, nullptr);
        std::string clause = std::string("(name_upper LIKE \"%") + keyword + "%\" ESCAPE '\\')";
        KOVAACCOUNTDBAddClause(h, KOVA_ACCOUNTDB_JOIN_OR, clause.c_str());
        KOVAACCOUNTDBEnumSetStart(h, 100);
        KOVAACCOUNTDBEnumSetLimit(h, 50);
        page = PageCtx();
        KOVAACCOUNTDBCoreEnumExec(h, CountRow, &page);
        oursTotal = KOVAACCOUNTDBGetEnumCount(h);
        KOVAACCOUNTDBClose(h);
    });

    char path[4096];
    KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_LDAP, 0, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, path, sizeof(path));
    Db d;
    if (sqlite3_open_v2(path, &d.db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) return false;
    const std::string pattern = std::string("%") + keyword + "%";
    Scan base;
    double tBase = Median(3, [&] {
        base = LikeScan(d.db, "SELECT count(*) FROM users WHERE name_upper LIKE ?1 ESCAPE '\\'",
                        "SELECT name, mail, fullname, desc FROM users WHERE name_upper LIKE ?1 ESCAPE '\\' ORDER BY rowid "
                        "LIMIT 50 OFFSET 100",
                        pattern);
    });
    std::printf("ldap substring page (\"%s\", %llu matches of %d, page of %ld): ours %.1f ms, baseline LIKE scan %.1f ms, "
                "ratio %.3f (goal <= 0.333)\n",
                keyword, static_cast<unsigned long long>(oursTotal), users, page.rows, tOurs, tBase, tOurs / tBase);
    return static_cast<long long>(oursTotal) == base.total && page.rows == static_cast<long>(base.page.size());
}

// Per-call microseconds of fn(i) over n distinct accounts.
template <typename Fn>
double PerCallUs(int n, Fn fn) {
    return Median(3, [&] {
               for (int i = 0; i < n; ++i) fn(i);
           }) * 1000.0 / n;
}

bool LookupBench(int localUsers, int ldapUsers) {
    KovaLdapConfig cfg;
    cfg.uri = "ldap://127.0.0.1:1/";
    cfg.base = "dc=example,dc=com";
    cfg.suffix = "example.com";
    if (KovaDirsvc::LdapBind(cfg) != 0) return false;
    const int n = 2000;
    bool ok = true;
    auto step = [](int i, int of) { return static_cast<int>(static_cast<long long>(i) * 7919 % of); };
    double tLocal = PerCallUs(n, [&](int i) {
        PKOVA_USER u = nullptr;
        std::string name = "luser" + std::to_string(1000000 + step(i, localUsers));
        ok = ok && KOVAUserGet(name.c_str(), &u) == 0;
        KOVAUserFree(u);
    });
    double tName = PerCallUs(n, [&](int i) {
        char name[64];
        std::snprintf(name, sizeof(name), "user%07d@example.com", step(i, ldapUsers));
        PKOVA_USER u = nullptr;
        ok = ok && KOVAUserGet(name, &u) == 0 && u->uid == static_cast<unsigned>(kLdapFirstUid + step(i, ldapUsers));
        KOVAUserFree(u);
    });
    double tId = PerCallUs(n, [&](int i) {
        PKOVA_USER u = nullptr;
        ok = ok && KOVAUserGetByUID(static_cast<unsigned>(kLdapFirstUid + step(i, ldapUsers)), &u) == 0;
        KOVAUserFree(u);
    });
    double tGroups = PerCallUs(n, [&](int i) {
        char name[64];
        std::snprintf(name, sizeof(name), "user%07d@example.com", step(i, ldapUsers));
        PKLIBC_SZLIST l = KLIBGroupInfoListGet(name, 0);
        ok = ok && l && l->nItem == 1;
        KLIBCSzListFree(l);
    });
    std::printf("lookups among %d cached ldap users (per call): by name %.1f us, by uid %.1f us, group list %.1f us; "
                "local user by name among %d: %.1f us; ratio name/local %.1f\n",
                ldapUsers, tName, tId, tGroups, localUsers, tLocal, tName / tLocal);
    return ok;
}

} // namespace

int main(int argc, char **argv) {
    int localUsers = argc > 1 ? std::atoi(argv[1]) : 100000;
    int ldapUsers = argc > 2 ? std::atoi(argv[2]) : 1000000;
    char tmpl[] = "/tmp/kova-bench-accounts-XXXXXX";
    if (!mkdtemp(tmpl)) return 1;
    setenv("KOVA_ROOT", tmpl, 1);
    bool ok = LocalBench(localUsers);
    if (!ok) std::fprintf(stderr, "local enumeration disagrees with the plain scan\n");
    bool ok2 = LdapBench(ldapUsers);
    if (!ok2) std::fprintf(stderr, "ldap search disagrees with the plain scan\n");
    bool ok3 = LookupBench(localUsers, ldapUsers);
    if (!ok3) std::fprintf(stderr, "a directory lookup failed\n");
    ok2 = ok2 && ok3;
    std::string rm = std::string("rm -rf ") + tmpl;
    (void)std::system(rm.c_str());
    return ok && ok2 ? 0 : 1;
}
