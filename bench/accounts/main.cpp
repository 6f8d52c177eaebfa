// Account benchmarks:
//  1. 100,000 local users enumerated through KLIBUserInfoEnum beside a plain
//     SQLite scan of the same table;
//  2. 1,000,000 cached LDAP users: one page of a 3-letter substring search
//     (with the total count) through the account-database calls beside a
//     plain SQLite LIKE scan doing the same count and page. Goal: ours at
//     least 3x faster (ratio <= 0.33).
// Usage: bench-accounts [local-users] [ldap-users]
#include "kova-accountdb-admin.h"
#include "kova/account.h"
#include "kova/accountdb.h"
#include "kova/klibc.h"

#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double Ms(Clock::time_point a, Clock::time_point b) { return std::chrono::duration<double, std::milli>(b - a).count(); }

template <typename Fn>
double Median(int runs, Fn fn) {
    std::vector<double> t;
    for (int i = 0; i < runs; ++i) {
        auto a = Clock::now();
        fn();
        t.push_back(Ms(a, Clock::now()));
    }
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

bool Exec(sqlite3 *db, const char *sql) {
    char *err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) == SQLITE_OK) return true;
    std::fprintf(stderr, "sqlite: %s\n", err ? err : "?");
    sqlite3_free(err);
    return false;
}

int CountUser(const KLIB_USER_INFO *u, void *, void *ctx) {
    *static_cast<long *>(ctx) += u->szName[0] != 0;
    return 0;
}

bool LocalBench(int users) {
    // The first call creates the database with its defaults; the bulk rows
    // then go straight into the table (adding them one call at a time would
    // time password-free inserts, not the enumeration).
    if (KOVAUserAdd("bench-seed", -1, nullptr, nullptr, nullptr, 0) != 0) return false;
    std::string path = std::string(KLIBCRootGet()) + "/etc/accounts.db";
    sqlite3 *db = nullptr;
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) return false;
    Exec(db, "BEGIN");
    sqlite3_stmt *ins = nullptr;
    sqlite3_prepare_v2(db, "INSERT INTO users(uid, name, gid, description, email) VALUES (?, ?, 100, ?, ?)", -1, &ins, nullptr);
    for (int i = 0; i < users; ++i) {
        std::string name = "luser" + std::to_string(1000000 + i * 7919 % users);
        std::string desc = "Local user " + std::to_string(i), mail = name + "@example.com";
        sqlite3_bind_int(ins, 1, 2000 + i);
        sqlite3_bind_text(ins, 2, name.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(ins, 3, desc.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(ins, 4, mail.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_step(ins);
        sqlite3_reset(ins);
    }
    sqlite3_finalize(ins);
    Exec(db, "COMMIT");

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
        sqlite3_prepare_v2(db, "SELECT name, uid, gid, description, email, internal FROM users WHERE internal = 0 ORDER BY name",
                           -1, &st, nullptr);
        while (sqlite3_step(st) == SQLITE_ROW) plain += sqlite3_column_text(st, 0)[0] != 0;
        sqlite3_finalize(st);
    });
    sqlite3_close(db);
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
    std::mt19937 rng(42);
    const char *syll[] = {"ka", "lo", "mi", "ne", "su", "ta", "ro", "vi", "de", "ba", "xo", "qu", "zen", "fa", "gi", "ho"};
    auto word = [&](int n) {
        std::string w;
        for (int i = 0; i < n; ++i) w += syll[rng() % 16];
        w[0] = static_cast<char>(w[0] - 32);
        return w;
    };
    auto t0 = Clock::now();
    auto b = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_LDAP, "");
    if (!b) return false;
    for (int i = 0; i < users; ++i) {
        KovaCacheEntry e;
        char n[32];
        std::snprintf(n, sizeof(n), "user%07d", i);
        e.name = n;
        e.fullname = word(2) + " " + word(3);
        e.mail = std::string(n) + "@example.com";
        e.desc = "Department " + word(2);
        if (b->Add(e) != 0) return false;
    }
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
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(path, &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) return false;
    long baseTotal = 0, baseRows = 0;
    std::string pattern = std::string("%") + keyword + "%";
    double tBase = Median(3, [&] {
        sqlite3_stmt *c = nullptr, *p = nullptr;
        sqlite3_prepare_v2(db, "SELECT count(*) FROM users WHERE name_upper LIKE ?1 ESCAPE '\\'", -1, &c, nullptr);
        sqlite3_bind_text(c, 1, pattern.c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(c) == SQLITE_ROW) baseTotal = sqlite3_column_int64(c, 0);
        sqlite3_finalize(c);
        sqlite3_prepare_v2(db,
                           "SELECT name, mail, fullname, desc FROM users WHERE name_upper LIKE ?1 ESCAPE '\\' ORDER BY rowid "
                           "LIMIT 50 OFFSET 100",
                           -1, &p, nullptr);
        sqlite3_bind_text(p, 1, pattern.c_str(), -1, SQLITE_TRANSIENT);
        baseRows = 0;
        while (sqlite3_step(p) == SQLITE_ROW) ++baseRows;
        sqlite3_finalize(p);
    });
    sqlite3_close(db);
    std::printf("ldap substring page (\"%s\", %llu matches of %d, page of %ld): ours %.1f ms, baseline LIKE scan %.1f ms, "
                "ratio %.3f (goal <= 0.333)\n",
                keyword, static_cast<unsigned long long>(oursTotal), users, page.rows, tOurs, tBase, tOurs / tBase);
    return static_cast<long>(oursTotal) == baseTotal && page.rows == baseRows;
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
    std::string rm = std::string("rm -rf ") + tmpl;
    (void)std::system(rm.c_str());
    return ok && ok2 ? 0 : 1;
}
