// The account-database query interface: the clause language, joins, literal patterns,
// indexed and scanned searches agreeing, windows, callbacks, paths and cache replacement.
#include "accountdb-fixture.h"
#include "temp-root.h"

#include "kova-accountdb-admin.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using kova_test::TempRoot;
using Names = std::vector<std::string>;

namespace {

using kova_accountdb_test::Build;
using kova_accountdb_test::Handle;
using kova_accountdb_test::U;
using kova_accountdb_test::TempFiles;

struct Rows {
    std::string field;
    Names names;
    int failAt = -1;  // row index whose callback returns -7
};

int Collect(PKOVA_ACCOUNTDB_ROW row, void *ctx) {
    auto *r = static_cast<Rows *>(ctx);
    if (static_cast<int>(r->names.size()) == r->failAt) return -7;
    const char *v = KOVAACCOUNTDBGetResult(row, r->field.c_str());
    r->names.push_back(v ? v : "<null>");
    return 0;
}

// Runs one query; "total" receives the count of all matches.
Names Query(PKOVA_ACCOUNTDB h, const std::vector<std::pair<int, std::string>> &clauses, uint64_t *total = nullptr,
            uint32_t start = 0, uint64_t limit = UINT64_MAX, const char *field = "name") {
    EXPECT_EQ(KOVAACCOUNTDBActionInit(h, KOVA_ACCOUNTDB_ACTION_ENUM), 0);
    EXPECT_EQ(KOVAACCOUNTDBAddFieldValue(h, field, nullptr), 0);
    for (const auto &c : clauses) EXPECT_EQ(KOVAACCOUNTDBAddClause(h, c.first, c.second.c_str()), 0) << c.second;
    EXPECT_EQ(KOVAACCOUNTDBEnumSetStart(h, start), 0);
    EXPECT_EQ(KOVAACCOUNTDBEnumSetLimit(h, limit), 0);
    Rows rows;
    rows.field = field;
    EXPECT_EQ(KOVAACCOUNTDBCoreEnumExec(h, Collect, &rows), 0);
    EXPECT_EQ(KOVAACCOUNTDBGetEnumCallbackRet(h), 0);
    if (total) *total = KOVAACCOUNTDBGetEnumCount(h);
    return rows.names;
}

std::string Like(const std::string &col, const std::string &pattern) {
    return "(" + col + " LIKE \"" + pattern + "\" ESCAPE '\\')";
}

const std::vector<KovaCacheEntry> kPeople = {
    U("alice", "Sales lead", "alice@example.com", "Alice Archer"),
    U("Bob", "Engineer", "bob@example.com", "Robert Smith"),
    U("carol", "100% remote", "carol@example.com", "Carol O'Neil"),
    U("dave_x", "Engineer \"senior\"", "", "Dave X"),
    U("Émile", "Comptabilité", "emile@example.fr", "Émile Zola"),
    U("eve", "", "", ""),
};

Handle OpenLdap(int kind = KOVA_ACCOUNTDB_KIND_USER) {
    return Handle(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_LDAP, kind, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, 0));
}

// The LDAP user cache holding kPeople, open as h_.
class AccountDbClause : public ::testing::Test {
protected:
    void SetUp() override {
        Build(KOVA_ACCOUNTDB_LDAP, "", kPeople);
        h_ = OpenLdap();
        ASSERT_TRUE(h_);
    }
    Names Find(const std::vector<std::pair<int, std::string>> &clauses) { return Query(h_.get(), clauses); }
    TempRoot root_;
    Handle h_;
};

} // namespace

TEST_F(AccountDbClause, RefusesEverythingOutsideTheLanguage) {
    Handle &h = h_;
    ASSERT_EQ(KOVAACCOUNTDBActionInit(h.get(), KOVA_ACCOUNTDB_ACTION_ENUM), 0);
    const std::vector<std::string> bad = {
        "",
        "name LIKE \"%a%\" ESCAPE '\\'",                          // no parentheses
        "(name LIKE \"%a%\")",                                     // no ESCAPE
        "(name LIKE '%a%' ESCAPE '\\')",                           // single-quoted pattern
        "(nosuch LIKE \"%a%\" ESCAPE '\\')",                       // unknown column
        "(Name LIKE \"%a%\" ESCAPE '\\')",                         // columns are exact
        "(name LIKE \"%a%\" ESCAPE '\\') OR 1=1",                  // trailing SQL
        "(name LIKE \"%a%\" ESCAPE '\\'); DROP TABLE users; --",   // injection attempt
        "(name LIKE \"%a%\" ESCAPE '\\') XOR (name LIKE \"%b%\" ESCAPE '\\')",
        "((name LIKE \"%a%\" ESCAPE '\\')",                        // unbalanced
        "(name = \"x\")",
        "(name LIKE \"a\\\" ESCAPE '\\')",                         // pattern ends in a lone escape
        "(name LIKE \"%a%\" ESCAPE '|')",
    };
    for (const auto &c : bad) {
        EXPECT_LT(KOVAACCOUNTDBAddClause(h.get(), KOVA_ACCOUNTDB_JOIN_OR, c.c_str()), 0) << c;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG) << c;
    }
    EXPECT_LT(KOVAACCOUNTDBAddClause(h.get(), 3, Like("name", "%a%").c_str()), 0);
    EXPECT_LT(KOVAACCOUNTDBAddFieldValue(h.get(), "password", nullptr), 0);
    EXPECT_LT(KOVAACCOUNTDBAddFieldValue(h.get(), "name", "value"), 0);
    EXPECT_LT(KOVAACCOUNTDBActionInit(h.get(), 5), 0);
    // The table is still there and whole.
    uint64_t total = 0;
    Query(h.get(), {}, &total);
    EXPECT_EQ(total, kPeople.size());
}

TEST_F(AccountDbClause, AndOrGroupsAndNestingFollowTheJoinCodes) {
    // Code 2 clauses form one OR group...
    EXPECT_EQ(Find({{2, Like("name_upper", "%ALI%")}, {2, Like("desc", "%Engineer%")}}),
              (Names{"alice", "Bob", "dave_x"}));
    // ...ANDed with the code 1 clauses.
    EXPECT_EQ(Find({{2, Like("name_upper", "%ALI%")}, {2, Like("desc", "%Engineer%")}, {1, Like("mail", "%@%")}}),
              (Names{"alice", "Bob"}));
    EXPECT_EQ(Find({{1, Like("name_upper", "%E%")}, {1, Like("desc", "%Engineer%")}}), (Names{"dave_x"}));
    // One wrapped OR group, then an AND condition, as the domain search builds.
    std::string wrapped = "(" + Like("name_upper", "%VE%") + " OR " + Like("fullname", "%Zola%") + ") AND " + Like("desc", "%");
    EXPECT_EQ(Find({{1, wrapped}}), (Names{"dave_x", "Émile"}));
    // eve has no description (NULL), so LIKE "%" does not take it.
    EXPECT_EQ(Find({{1, Like("name_upper", "%VE%")}}), (Names{"dave_x", "eve"}));
}

TEST_F(AccountDbClause, PatternsMatchLiterallyAndCaseSensitively) {
    EXPECT_EQ(Find({{2, Like("desc", "%100\\%%")}}), (Names{"carol"}));
    EXPECT_EQ(Find({{2, Like("name", "%\\_%")}}), (Names{"dave_x"}));
    EXPECT_EQ(Find({{2, Like("name", "%_%")}}).size(), kPeople.size());  // unescaped: any one character
    EXPECT_EQ(Find({{2, Like("fullname", "%O'Neil%")}}), (Names{"carol"}));
    // A double quote inside the pattern is just text.
    EXPECT_EQ(Find({{2, Like("desc", "%\"senior\"%")}}), (Names{"dave_x"}));
    EXPECT_EQ(Find({{2, Like("desc", "%\" ESCAPE '\\\\') OR (name LIKE \"%")}}), Names{});
    // LIKE is case-sensitive; the upper-cased column is the way to ignore case.
    EXPECT_EQ(Find({{2, Like("name", "%bob%")}}), Names{});
    EXPECT_EQ(Find({{2, Like("name_upper", "%BOB%")}}), (Names{"Bob"}));
    EXPECT_EQ(Find({{2, Like("name_upper", "%ÉMI%")}}), (Names{"Émile"}));
    // An exact pattern without wildcards.
    EXPECT_EQ(Find({{2, Like("name", "eve")}}), (Names{"eve"}));
}

TEST_F(AccountDbClause, IndexedAndScannedSearchesAgree) {
    std::vector<KovaCacheEntry> many;
    for (int i = 0; i < 3000; ++i) {
        char n[32], d[64];
        std::snprintf(n, sizeof(n), "user%04d", i);
        std::snprintf(d, sizeof(d), "Team %c%c desk %d", 'A' + i % 7, 'a' + i % 5, i % 13);
        many.push_back(U(n, d, std::string(n) + "@corp.example", "Person " + std::to_string(i)));
    }
    Build(KOVA_ACCOUNTDB_LDAP, "", many);  // replaces kPeople
    h_ = OpenLdap();
    ASSERT_TRUE(h_);
    Handle &h = h_;
    auto brute = [&](const std::function<bool(const KovaCacheEntry &)> &pred) {
        Names out;
        for (const auto &e : many)
            if (pred(e)) out.push_back(e.name);
        return out;
    };
    uint64_t total = 0;
    // 3+ literal characters: the trigram index narrows, LIKE confirms.
    EXPECT_EQ(Query(h.get(), {{2, Like("name_upper", "%ER012%")}}, &total),
              brute([](const KovaCacheEntry &e) { return e.name.find("er012") != std::string::npos; }));
    EXPECT_EQ(total, 10u);
    // Trigram matching folds case; LIKE must still refuse the wrong case.
    EXPECT_EQ(Find({{2, Like("desc", "%team ca%")}}), Names{});
    Names ca = brute([](const KovaCacheEntry &e) { return e.desc.find("Team Ca") != std::string::npos; });
    EXPECT_EQ(Query(h.get(), {{2, Like("desc", "%Team Ca%")}}, &total), ca);
    EXPECT_EQ(total, ca.size());
    // A wildcard inside: the longest literal run narrows.
    EXPECT_EQ(Find({{2, Like("mail", "%user1_99@corp%")}}),
              (Names{"user1099", "user1199", "user1299", "user1399", "user1499", "user1599", "user1699", "user1799", "user1899",
                     "user1999"}));
    // Short patterns scan; OR with one short alternative scans as a whole.
    Names short1 = brute([](const KovaCacheEntry &e) { return e.desc.find("Ab") != std::string::npos; });
    EXPECT_EQ(Query(h.get(), {{2, Like("desc", "%Ab%")}}, &total), short1);
    Names mixed = brute([](const KovaCacheEntry &e) {
        return e.desc.find("Ab") != std::string::npos || e.name.find("2999") != std::string::npos;
    });
    EXPECT_EQ(Find({{2, Like("desc", "%Ab%")}, {2, Like("name_upper", "%2999%")}}), mixed);
    // Window and total with the index in use.
    Names page = Query(h.get(), {{2, Like("name_upper", "%USER0%")}}, &total, 995, 10);
    EXPECT_EQ(total, 1000u);
    EXPECT_EQ(page, (Names{"user0995", "user0996", "user0997", "user0998", "user0999"}));
    EXPECT_TRUE(Query(h.get(), {{2, Like("name_upper", "%USER0%")}}, &total, 0, 0).empty());
    EXPECT_EQ(total, 1000u);
}

TEST_F(AccountDbClause, CallbackResultsRowsAndDomains) {
    Handle &h = h_;
    ASSERT_EQ(KOVAACCOUNTDBActionInit(h.get(), KOVA_ACCOUNTDB_ACTION_ENUM), 0);
    ASSERT_EQ(KOVAACCOUNTDBAddFieldValue(h.get(), "name", nullptr), 0);
    ASSERT_EQ(KOVAACCOUNTDBAddFieldValue(h.get(), "mail", nullptr), 0);
    Rows rows;
    rows.field = "mail";
    rows.failAt = 2;
    EXPECT_EQ(KOVAACCOUNTDBCoreEnumExec(h.get(), Collect, &rows), 0);
    EXPECT_EQ(KOVAACCOUNTDBGetEnumCallbackRet(h.get()), -7);  // the first negative result stops and is kept
    EXPECT_EQ(rows.names, (Names{"alice@example.com", "bob@example.com"}));
    EXPECT_EQ(KOVAACCOUNTDBGetEnumCount(h.get()), kPeople.size());
    // Missing values are NULL; unrequested columns are refused.
    EXPECT_EQ(Query(h.get(), {{2, Like("name", "eve")}}, nullptr, 0, UINT64_MAX, "mail"), (Names{"<null>"}));
    // Groups live in their own table with their own columns.
    Handle g = OpenLdap(KOVA_ACCOUNTDB_KIND_GROUP);
    ASSERT_TRUE(g);
    ASSERT_EQ(KOVAACCOUNTDBActionInit(g.get(), KOVA_ACCOUNTDB_ACTION_ENUM), 0);
    EXPECT_LT(KOVAACCOUNTDBAddFieldValue(g.get(), "mail", nullptr), 0);

    // Domains: a catalogue per variant appears with the first cached domain.
    char path[4096];
    ASSERT_EQ(KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_FULL, nullptr, path, sizeof(path)), 0);
    std::string catalogue = path;
    EXPECT_FALSE(KLIBCFileExist(path));
    EXPECT_EQ(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_FULL, "corp", 0), nullptr);
    Build(KOVA_ACCOUNTDB_DOMAIN, "corp", {U("ann", "Desk", "ann@corp", "Ann A", "CN=ann,OU=Sales,DC=corp")});
    EXPECT_TRUE(KLIBCFileExist(catalogue.c_str()));
    ASSERT_EQ(KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_ENUM, "corp", path, sizeof(path)), 0);
    EXPECT_TRUE(KLIBCFileExist(path));
    EXPECT_LT(KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_FULL, "../etc", path, sizeof(path)), 0);
    EXPECT_LT(KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_FULL, "corp", path, 8), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_RANGE);
    Handle full(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_FULL, "CORP", 0));
    ASSERT_TRUE(full);
    EXPECT_EQ(Query(full.get(), {{1, Like("distinguishedName", "%OU=Sales,DC=corp")}}, nullptr, 0, UINT64_MAX, "Name"),
              (Names{"ann"}));
    Handle names(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_ENUM, "corp", 0));
    ASSERT_TRUE(names);
    ASSERT_EQ(KOVAACCOUNTDBActionInit(names.get(), KOVA_ACCOUNTDB_ACTION_ENUM), 0);
    EXPECT_LT(KOVAACCOUNTDBAddFieldValue(names.get(), "Email", nullptr), 0);  // names only
    ASSERT_EQ(KovaAccountCache::RemoveDomain("corp"), 0);
    EXPECT_EQ(KOVAACCOUNTDBOpen(KOVA_ACCOUNTDB_DOMAIN, 0, KOVA_ACCOUNTDB_TYPE_ENUM, "corp", 0), nullptr);
}

TEST(AccountDbRebuild, FailuresLeaveThePreviousCache) {
    TempRoot root;
    Build(KOVA_ACCOUNTDB_LDAP, "", kPeople);
    std::string dir = root.At("var/cache/accountdb");
    {
        // Abandoned half-way: nothing changes, nothing is left behind.
        auto b = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_LDAP, "");
        ASSERT_TRUE(b);
        ASSERT_EQ(b->Add(U("intruder")), 0);
        EXPECT_EQ(TempFiles(dir), 1);
    }
    EXPECT_EQ(TempFiles(dir), 0);
    // An injected failure of the third row, then of the commit.
    KLIBCFaultClearAll();
    ASSERT_EQ(KLIBCFaultSet("KovaAccountCacheBuilder::Add", 3, -1, KOVA_ERR_IO), 0);
    {
        auto b = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_LDAP, "");
        ASSERT_TRUE(b);
        EXPECT_EQ(b->Add(U("n1")), 0);
        EXPECT_EQ(b->Add(U("n2")), 0);
        EXPECT_LT(b->Add(U("n3")), 0);
    }
    ASSERT_EQ(KLIBCFaultSet("KovaAccountCacheBuilder::Commit", 1, -1, KOVA_ERR_IO), 0);
    {
        auto b = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_LDAP, "");
        ASSERT_TRUE(b);
        EXPECT_EQ(b->Add(U("n1")), 0);
        EXPECT_LT(b->Commit(), 0);
    }
    KLIBCFaultClearAll();
    EXPECT_EQ(TempFiles(dir), 0);
    Handle h = OpenLdap();
    ASSERT_TRUE(h);
    uint64_t total = 0;
    Query(h.get(), {}, &total);
    EXPECT_EQ(total, kPeople.size());
    // A reader that opened the old cache keeps reading it across a replacement.
    Build(KOVA_ACCOUNTDB_LDAP, "", {U("new1"), U("new2")});
    Query(h.get(), {}, &total);
    EXPECT_EQ(total, kPeople.size());
    Handle fresh = OpenLdap();
    ASSERT_TRUE(fresh);
    EXPECT_EQ(Query(fresh.get(), {}), (Names{"new1", "new2"}));
}
