// Account enumerations: windows and totals, stopping callbacks, literal keyword matching, Unicode case
// folding, and the LDAP and domain sources read from their caches.
#include "../accountdb/accountdb-fixture.h"
#include "temp-root.h"

#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"
#include "kova/account.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using kova_accountdb_test::U;
using kova_test::TempRoot;

namespace {

struct Seen {
    std::vector<std::string> names;
    std::vector<int> sources;
    size_t stopAfter = 0;  // 0: never stop
};

int OnUser(const KLIB_USER_INFO *u, void *, void *ctx) {
    auto *s = static_cast<Seen *>(ctx);
    s->names.push_back(u->szName);
    s->sources.push_back(u->source);
    return s->stopAfter && s->names.size() >= s->stopAfter ? 1 : 0;
}

int OnGroup(const KLIB_GROUP_INFO *g, void *, void *ctx) {
    static_cast<Seen *>(ctx)->names.push_back(g->szName);
    return 0;
}

using Names = std::vector<std::string>;

Names Substr(int source, const char *kw, int ignoreCase, unsigned offset = 0, unsigned limit = 0xFFFFFFFFu, int *total = nullptr) {
    Seen s;
    int n = KLIBUserInfoEnumBySubstr(source, 0, offset, limit, kw, ignoreCase, OnUser, &s);
    if (total) *total = n;
    return s.names;
}

// The names of a whole enumeration's window; its result (the count of all) in *total.
Names All(int source, unsigned offset, unsigned limit, int *total) {
    Seen s;
    *total = KLIBUserInfoEnum(source, 0, offset, limit, OnUser, &s);
    return s.names;
}

} // namespace

TEST(Enumeration, LocalUsersAreOrderedPagedAndCountedInFull) {
    TempRoot root;
    for (const char *n : {"zoe", "bob", "mia", "al"}) ASSERT_EQ(KOVAUserAdd(n, -1, nullptr, nullptr, nullptr, 0), 0);
    // Internal accounts are not listed; everything by name; the count is of all.
    const struct {
        unsigned offset, limit;
        Names names;
    } windows[] = {{0, 0xFFFFFFFFu, {"admin", "al", "bob", "guest", "mia", "zoe"}},
                   {2, 3, {"bob", "guest", "mia"}}, {1, 0, {}}, {100, 5, {}}};
    for (const auto &w : windows) {
        int total = -1;
        EXPECT_EQ(All(KOVA_ACCOUNT_SRC_LOCAL, w.offset, w.limit, &total), w.names) << w.offset << "+" << w.limit;
        EXPECT_EQ(total, 6) << w.offset << "+" << w.limit;
    }
    // A callback asking to stop ends the delivery, not the count.
    Seen stop;
    stop.stopAfter = 2;
    EXPECT_EQ(KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, OnUser, &stop), 6);
    EXPECT_EQ(stop.names.size(), 2u);
    EXPECT_LT(KLIBUserInfoEnum(77, 0, 0, 10, OnUser, &stop), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
}

TEST(Enumeration, KeywordsMatchLiterallyAndIgnoreCaseByUnicodeUpperCase) {
    TempRoot root;
    const Names names = {"100%", "1000", "a_b", "axb", "backslash", "o'neil", "oneil", "*)(uid=*", "star"};
    for (const auto &n : names) ASSERT_EQ(KOVAUserAdd(n.c_str(), -1, nullptr, nullptr, nullptr, 0), 0) << n;
    EXPECT_EQ(Substr(1, "%", 0), (Names{"100%"}));
    EXPECT_EQ(Substr(1, "_", 1), (Names{"a_b"}));
    EXPECT_TRUE(Substr(1, "\\", 0).empty());
    EXPECT_EQ(Substr(1, "'", 0), (Names{"o'neil"}));
    EXPECT_EQ(Substr(1, "*)(uid=*", 1), (Names{"*)(uid=*"}));
    EXPECT_EQ(Substr(1, "*", 0), (Names{"*)(uid=*"}));
    EXPECT_TRUE(Substr(1, "' OR 1=1 --", 0).empty());
    int total = -1;
    EXPECT_TRUE(Substr(1, "%%", 0, 0, 0xFFFFFFFFu, &total).empty());
    EXPECT_EQ(total, 0);
    // Ignoring case goes by the Unicode upper case.
    for (const char *n : {"Émile", "straße", "STRASSE-2", "plain"}) ASSERT_EQ(KOVAUserAdd(n, -1, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(Substr(1, "émi", 1), (Names{"Émile"}));
    EXPECT_TRUE(Substr(1, "émi", 0).empty());
    // ß upper-cases to SS, so both spellings meet.
    EXPECT_EQ(Substr(1, "strass", 1), (Names{"STRASSE-2", "straße"}));
    EXPECT_EQ(Substr(1, "ADM", 1), (Names{"admin"}));
    EXPECT_TRUE(Substr(1, "ADM", 0).empty());
}

TEST(Enumeration, InternalAccountsAndGroupFilters) {
    TempRoot root;
    Seen s, p;
    EXPECT_EQ(KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "", 0, 0, OnUser, &s), 2);
    EXPECT_EQ(s.names, (Names{"httpd", "kova-sys"}));
    EXPECT_EQ(KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "KOVA", 0, 1, OnUser, &p), 1);
    EXPECT_EQ(KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "KOVA", 0, 0, OnUser, &p), 0);
    EXPECT_EQ(KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "sys", 0, 0, OnUser, &p), 0);  // not a prefix
    EXPECT_EQ(KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "sys", 1, 0, OnUser, &p), 1);  // a substring

    ASSERT_EQ(KOVAGroupAdd("Admins-Extra", -1, nullptr), 0);
    Seen g, g3;
    EXPECT_EQ(KLIBGroupInfoEnumByPrefix(1, 0, 0, 0xFFFFFFFFu, "adm", 1, OnGroup, &g), 2);
    EXPECT_EQ(g.names, (Names{"Admins-Extra", "administrators"}));
    EXPECT_EQ(KLIBGroupInfoEnumByPrefix(1, 0, 0, 0xFFFFFFFFu, "adm", 0, nullptr, nullptr), 1);
    EXPECT_EQ(KLIBGroupInfoEnumBySubstr(1, 0, 1, 1, "s", 0, OnGroup, &g3), 4);
    EXPECT_EQ(g3.names, (Names{"administrators"}));  // window over Admins-Extra, administrators, services, users
}

TEST(Enumeration, LdapSourceReadsItsCacheWithTheLoginSuffix) {
    TempRoot root;
    // Not bound: the service is not there.
    EXPECT_LT(KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LDAP, 0, 0, 10, OnUser, nullptr), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
    KovaLdapConfig cfg;
    cfg.uri = "ldap://127.0.0.1:1/";
    cfg.base = "dc=example,dc=com";
    cfg.suffix = "example.com";
    ASSERT_EQ(KovaDirsvc::LdapBind(cfg), 0);
    // Bound but never synced: empty, not an error.
    EXPECT_EQ(KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LDAP, 0, 0, 10, OnUser, nullptr), 0);
    kova_accountdb_test::Build(KOVA_ACCOUNTDB_LDAP, "",
          {U("jdoe"), U("JSmith"), U("100%"), U("1000"), U("a\\b"), U("ab"), U("staff", "", "", "", "", true)});
    Seen s;
    EXPECT_EQ(KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LDAP, 0, 1, 2, OnUser, &s), 6);
    EXPECT_EQ(s.names, (Names{"1000@example.com", "ab@example.com"}));  // by upper-cased name: "AB" < "A\\B"
    EXPECT_EQ(s.sources, (std::vector<int>{KOVA_ACCOUNT_SRC_LDAP, KOVA_ACCOUNT_SRC_LDAP}));
    EXPECT_EQ(Substr(KOVA_ACCOUNT_SRC_LDAP, "j", 0), (Names{"jdoe@example.com"}));
    EXPECT_EQ(Substr(KOVA_ACCOUNT_SRC_LDAP, "j", 1), (Names{"jdoe@example.com", "JSmith@example.com"}));
    EXPECT_EQ(Substr(KOVA_ACCOUNT_SRC_LDAP, "%", 1), (Names{"100%@example.com"}));
    EXPECT_EQ(Substr(KOVA_ACCOUNT_SRC_LDAP, "\\", 0), (Names{"a\\b@example.com"}));
    EXPECT_EQ(Substr(KOVA_ACCOUNT_SRC_LDAP, "_", 0), Names{});
    Seen g;
    EXPECT_EQ(KLIBGroupInfoEnumBySubstr(KOVA_ACCOUNT_SRC_LDAP, 0, 0, 10, "STA", 1, OnGroup, &g), 1);
    EXPECT_EQ(g.names, (Names{"staff@example.com"}));
}

TEST(Enumeration, DomainSourceRunsOneWindowAcrossDomains) {
    TempRoot root;
    EXPECT_LT(KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_DOMAIN, 0, 0, 10, OnUser, nullptr), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
    kova_accountdb_test::Build(KOVA_ACCOUNTDB_DOMAIN, "CORP", {U("ann"), U("ben"), U("cat")});
    kova_accountdb_test::Build(KOVA_ACCOUNTDB_DOMAIN, "LAB", {U("dan"), U("eve")});
    ASSERT_EQ(KovaDirsvc::DomainAdd("CORP"), 0);
    ASSERT_EQ(KovaDirsvc::DomainAdd("LAB"), 0);
    // Every joined domain counts, also with trusted domains off.
    int total = -1;
    EXPECT_EQ(All(KOVA_ACCOUNT_SRC_DOMAIN, 0, 0xFFFFFFFFu, &total),
              (Names{"CORP\\ann", "CORP\\ben", "CORP\\cat", "LAB\\dan", "LAB\\eve"}));
    EXPECT_EQ(total, 5);
    ASSERT_EQ(KovaDirsvc::DomainSetFlag("trusted", true), 0);
    EXPECT_EQ(All(KOVA_ACCOUNT_SRC_DOMAIN, 2, 2, &total), (Names{"CORP\\cat", "LAB\\dan"}));
    EXPECT_EQ(total, 5);
    EXPECT_EQ(Substr(KOVA_ACCOUNT_SRC_DOMAIN, "E", 1), (Names{"CORP\\ben", "LAB\\eve"}));
    ASSERT_EQ(KovaDirsvc::DomainSetFlag("reachable", false), 0);
    EXPECT_LT(KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_DOMAIN, 0, 0, 10, OnUser, nullptr), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
}
