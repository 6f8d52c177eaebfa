// list_owners version 2 through the test host: local accounts, an LDAP cache
// filled from a real slapd and the caches of two Windows domains.
#include "owners-fixture.h"

#include "kova/errcode.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <vector>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;
using kova_host::PlatformRoot;

using kova_module_test::As;
using kova_owners_test::Names;
using kova_owners_test::Parse;
using kova_owners_test::Total;
using kova_owners_test::World;

class OwnersV2 : public kova_owners_test::OwnersSuite {
protected:
    static CallResult List(const std::string &params, const CallOptions &options = CallOptions()) {
        return kova_owners_test::List(2, params, options);
    }

    // A search of the sources `types` (type names, comma-separated) for
    // `keyword` in `fields`; `extra` adds members (", \"offset\": 1").
    static CallResult Search(const std::string &types, const std::string &keyword, const std::string &fields = "{}",
                             const std::string &extra = "", const CallOptions &options = CallOptions()) {
        std::string scope;
        for (size_t start = 0, end; start <= types.size(); start = end + 1) {
            end = std::min(types.find(',', start), types.size());
            scope += std::string(scope.empty() ? "" : ", ") + "{\"type\": \"" + types.substr(start, end - start) +
                     "\"}";
        }
        return List("{\"keyword\": \"" + keyword + "\", \"keywordFields\": " + fields + ", \"searchScope\": [" + scope +
                        "]" + extra + "}",
                    options);
    }

    static std::string Scope(const std::string &types, const std::string &extra = "") {
        return "{\"keywordFields\": {}, \"searchScope\": [" + types + "]" + extra + "}";
    }
};

TEST_F(OwnersV2, EmptyScopeAndUnknownType) {
    CallResult empty = List(Scope(""));
    ASSERT_TRUE(empty.success()) << empty.Dump();
    EXPECT_TRUE(empty.data()["owners"].isArray());
    EXPECT_EQ(0u, empty.data()["owners"].size());
    EXPECT_EQ(0u, Total(empty));

    // The local source would fail loudly (a log line) if it ran.
    CallResult unknown = List(Scope("{\"type\": \"local\"}, {\"type\": \"nis\", \"config\": {}}"),
                              As("admin", {Fault{"KLIBUserInfoEnum", 0, -1, KOVA_ERR_IO}}));
    ASSERT_EQ(403, unknown.errorCode()) << unknown.Dump();
    EXPECT_EQ(Parse("{\"name\": \"searchScope[1].type\", \"value\": \"nis\"}"),
              unknown.response["error"]["data"]);
    EXPECT_EQ("", unknown.LogDump());

    CallResult first = List(Scope("{\"type\": \"Local\"}"));
    EXPECT_EQ(403, first.errorCode());
    EXPECT_EQ("searchScope[0].type", first.response["error"]["data"]["name"].asString());
    CallResult missing = List(Scope("{\"config\": {}}"));
    EXPECT_EQ(403, missing.errorCode());
    EXPECT_EQ("", missing.response["error"]["data"]["value"].asString());

    // The schema still guards the required parameters.
    EXPECT_EQ(403, List("{\"searchScope\": []}").errorCode());
    EXPECT_EQ(403, List("{\"keywordFields\": {}}").errorCode());
}

TEST_F(OwnersV2, LocalKeywordInEachField) {
    auto local = [](const std::string &keyword, const std::string &fields) { return Search("local", keyword, fields); };
    CallResult byName = local("KXAL", "{}");
    ASSERT_TRUE(byName.success()) << byName.Dump();
    EXPECT_EQ(std::vector<std::string>{"user:kxalice"}, Names(byName));
    const Json::Value &alice = byName.data()["owners"][0];
    EXPECT_EQ("Head of Payroll", alice["description"].asString());
    EXPECT_EQ("alice@corp.example", alice["email"].asString());
    EXPECT_EQ("", alice["fullname"].asString());
    EXPECT_FALSE(alice.isMember("internal"));

    // Description: users and groups alike; off by default.
    EXPECT_EQ((std::vector<std::string>{"user:kxalice", "group:kxstaff"}),
              Names(local("payroll", "{\"name\": false, \"description\": true}")));
    EXPECT_TRUE(Names(local("payroll", "{}")).empty());
    // E-mail: users only.
    EXPECT_EQ(std::vector<std::string>{"user:kxcarol"}, Names(local("MAIL.EXAMPLE", "{\"email\": true}")));
    EXPECT_TRUE(Names(local("mail.example", "{\"email\": false}")).empty());
    // No field at all: the local sources match nothing.
    CallResult none = local("kx", "{\"name\": false, \"description\": false, \"email\": false}");
    EXPECT_EQ(0u, Total(none));
    // Internal accounts are not local users.
    CallResult all = local("kx", "{}");
    EXPECT_EQ((std::vector<std::string>{"user:kxalice", "user:kxbob", "user:kxcarol", "user:kxdave", "group:kxsales",
                                        "group:kxstaff"}),
              Names(all));
    EXPECT_EQ(6u, Total(all));

    for (const auto &c : kova_owners_test::kNamesBeginningOneAnother) {
        CallResult r = local(c.text, "{}");
        EXPECT_EQ(c.names, Names(r)) << c.text;
        EXPECT_EQ(c.names.size(), Total(r)) << c.text;
    }
}

TEST_F(OwnersV2, InternalScopeMarksEveryEntry) {
    CallResult r = Search("local,internal", "kx");
    ASSERT_TRUE(r.success()) << r.Dump();
    std::vector<std::string> names = Names(r);
    ASSERT_EQ(8u, names.size()) << r.Dump();
    // Local users and groups first, then the internal accounts.
    EXPECT_EQ("user:kxsvc-backup", names[6]);
    EXPECT_EQ("user:kxsvc-index", names[7]);
    for (Json::ArrayIndex i = 0; i < r.data()["owners"].size(); ++i) {
        const Json::Value &o = r.data()["owners"][i];
        EXPECT_EQ(i >= 6, o.isMember("internal")) << o;
        EXPECT_TRUE(i < 6 || o["internal"] == Json::Value(true)) << o;
    }
    // The description field works for internal accounts too.
    CallResult byDesc = Search("internal", "agent", "{\"description\": true}");
    EXPECT_EQ(std::vector<std::string>{"user:kxsvc-backup"}, Names(byDesc));
}

TEST_F(OwnersV2, LdapKeywordInEachField) {
    auto ldap = [](const std::string &keyword, const std::string &fields) { return Search("ldap", keyword, fields); };
    CallResult byName = ldap("User001", "{}");
    ASSERT_TRUE(byName.success()) << byName.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:user0010@example.com", "user:user0011@example.com"}), Names(byName));
    const Json::Value &u = byName.data()["owners"][0];
    EXPECT_EQ("user0010@example.com", u["email"].asString());
    EXPECT_EQ("Person 0010", u["fullname"].asString());
    EXPECT_EQ("Staff 0010", u["description"].asString());

    EXPECT_EQ(std::vector<std::string>{"group:group01@example.com"}, Names(ldap("GROUP01", "{}")));
    // Description reaches users and groups. Only the name has an upper-cased
    // copy; the other columns compare as the database does (case-sensitive).
    EXPECT_EQ((std::vector<std::string>{"user:kx_ldap@example.com"}),
              Names(ldap("Payroll", "{\"name\": false, \"description\": true}")));
    EXPECT_TRUE(Names(ldap("payroll", "{\"name\": false, \"description\": true}")).empty());
    EXPECT_EQ(std::vector<std::string>{"group:group02@example.com"}, Names(ldap("Team 02", "{\"description\": true}")));
    // E-mail and full name are user columns: the group source then has no
    // column to search, adds no condition and lists every group.
    const std::vector<std::string> allGroups = {"group:group00@example.com", "group:group01@example.com",
                                                "group:group02@example.com"};
    std::vector<std::string> expected = {"user:kx_ldap@example.com"};
    expected.insert(expected.end(), allGroups.begin(), allGroups.end());
    EXPECT_EQ(expected, Names(ldap("archive@", "{\"name\": false, \"email\": true}")));
    expected[0] = "user:kxQldap@example.com";
    EXPECT_EQ(expected, Names(ldap("Look Alike", "{\"name\": false, \"fullname\": true}")));
    // "_" is matched literally, not as a one-character wildcard.
    EXPECT_EQ(std::vector<std::string>{"user:kx_ldap@example.com"}, Names(ldap("kx_", "{}")));
    EXPECT_TRUE(Names(ldap("kx%", "{}")).empty());
    // With a keyword but no field, no condition is added: everything.
    CallResult everything = ldap("zzz", "{\"name\": false}");
    EXPECT_EQ(uint64_t(12 + 2 + 3), Total(everything)) << everything.Dump();
}

TEST_F(OwnersV2, PagingCutsThroughSourcesAndTotalsStay) {
    // Every source at once, unfiltered; each page must be the matching slice
    // of the unpaged answer, whatever sources it starts and ends in.
    const std::string scope = "[{\"type\": \"builtin\"}, {\"type\": \"local\"}, {\"type\": \"ldap\"}, "
                              "{\"type\": \"internal\"}, {\"type\": \"domain\"}]";
    CallResult full = List("{\"keywordFields\": {}, \"searchScope\": " + scope + "}");
    ASSERT_TRUE(full.success()) << full.Dump();
    const std::vector<std::string> all = Names(full);
    ASSERT_EQ(Total(full), all.size());
    ASSERT_GT(all.size(), 30u);
    EXPECT_EQ("owner:Owner", all.front());
    EXPECT_EQ("group:kxd-it-branch", all.back());

    // Windows chosen to start and end inside sources and to span several.
    const std::vector<std::pair<int, int>> windows = {{0, 3},  {2, 5},  {3, 4},  {7, 20}, {9, 1},
                                                      {20, 9}, {30, 100}, {static_cast<int>(all.size()) - 1, 5},
                                                      {static_cast<int>(all.size()), 5}, {5, 0}};
    kova_owners_test::ExpectPagesAreSlices(all, windows, [&](const std::string &window) {
        return List("{" + window + ", \"keywordFields\": {}, \"searchScope\": " + scope + "}");
    });

    // A negative offset is 0, a negative limit is no limit.
    CallResult negative = List("{\"offset\": -3, \"limit\": -5, \"keywordFields\": {}, \"searchScope\": " + scope + "}");
    EXPECT_EQ(all, Names(negative));
}

TEST_F(OwnersV2, SameTypeTwiceRunsTwice) {
    CallResult once = Search("ldap", "kx");
    CallResult twice = Search("ldap,ldap", "kx");
    ASSERT_TRUE(twice.success()) << twice.Dump();
    std::vector<std::string> doubled = Names(once);
    ASSERT_EQ(2u, doubled.size());
    const std::vector<std::string> single = doubled;
    doubled.insert(doubled.end(), single.begin(), single.end());
    EXPECT_EQ(doubled, Names(twice));
    EXPECT_EQ(2 * Total(once), Total(twice));
    // Paging crosses from the first run into the second.
    CallResult page = Search("ldap,ldap", "kx", "{}", ", \"offset\": 1, \"limit\": 2");
    EXPECT_EQ(std::vector<std::string>(doubled.begin() + 1, doubled.begin() + 3), Names(page));
    EXPECT_EQ(4u, Total(page));
}

TEST_F(OwnersV2, DomainsAcrossBothCaches) {
    CallResult r = Search("domain", "kxd");
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:kxd-dana", "user:kxd-erik", "user:kxd-fiona", "user:kxd-gus",
                                        "group:kxd-sales-corp", "group:kxd-it-branch"}),
              Names(r));
    EXPECT_EQ(6u, Total(r));
    const Json::Value &dana = r.data()["owners"][0];
    EXPECT_EQ("Sales lead", dana["description"].asString());
    EXPECT_EQ("dana@corp.example", dana["email"].asString());
    EXPECT_EQ("Dana Sales", dana["fullname"].asString());

    // Paging runs across the domains: users of CORP then BRANCH.
    CallResult page = Search("domain", "KXD", "{}", ", \"offset\": 1, \"limit\": 2");
    EXPECT_EQ((std::vector<std::string>{"user:kxd-erik", "user:kxd-fiona"}), Names(page));
    EXPECT_EQ(6u, Total(page));

    auto fields = [](const std::string &keyword, const std::string &kf) {
        return Names(Search("domain", keyword, kf));
    };
    EXPECT_EQ(std::vector<std::string>{"user:kxd-erik"}, fields("wrangler", "{\"description\": true}"));
    EXPECT_EQ(std::vector<std::string>{"user:kxd-fiona"}, fields("fiona@", "{\"name\": false, \"email\": true}"));
    EXPECT_EQ(std::vector<std::string>{"user:kxd-gus"}, fields("Gus Wire", "{\"name\": false, \"fullname\": true}"));
    EXPECT_TRUE(fields("wrangler", "{}").empty());
}

TEST_F(OwnersV2, BindonFiltersOrSelectsTheDomain) {
    // Trusted domains off: every joined domain, filtered by the DN suffix.
    ASSERT_TRUE(world().root->SetDomainFlag("trusted", false)) << world().root->lastError();
    CallResult filtered =
        List(Scope("{\"type\": \"domain\", \"config\": {\"bindon\": \"ou=Sales,dc=corp,dc=example\"}}"));
    ASSERT_TRUE(filtered.success()) << filtered.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:kxd-dana", "group:kxd-sales-corp"}), Names(filtered));
    // The suffix must end the DN.
    CallResult middle = List(Scope("{\"type\": \"domain\", \"config\": {\"bindon\": \"ou=Sales\"}}"));
    CallResult plain = Search("domain", "kxd");
    ASSERT_TRUE(world().root->SetDomainFlag("trusted", true)) << world().root->lastError();
    EXPECT_TRUE(Names(middle).empty()) << middle.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:kxd-dana", "user:kxd-erik", "user:kxd-fiona", "user:kxd-gus",
                                        "group:kxd-sales-corp", "group:kxd-it-branch"}),
              Names(plain));

    // Trusted domains on: the bindon names the only domain searched.
    CallResult trusted = List("{\"keyword\": \"kxd\", \"keywordFields\": {}, \"searchScope\": [{\"type\": "
                              "\"domain\", \"config\": {\"bindon\": \"BRANCH\"}}]}");
    ASSERT_TRUE(trusted.success()) << trusted.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:kxd-fiona", "user:kxd-gus", "group:kxd-it-branch"}), Names(trusted));
    EXPECT_EQ(3u, Total(trusted));
}

TEST_F(OwnersV2, UnavailableDirectoriesContributeNothing) {
    PlatformRoot root;  // neither bound nor joined
    CallResult r = List(Scope("{\"type\": \"ldap\"}, {\"type\": \"domain\"}, {\"type\": \"builtin\"}"));
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(4u, Total(r));
    EXPECT_TRUE(r.HasLog(LOG_DEBUG, "acl:1220 ldap is not bound")) << r.LogDump();
    EXPECT_TRUE(r.HasLog(LOG_DEBUG, "acl:1240 domain is not joined")) << r.LogDump();

    // Joined to GHOST only by state: no cache of any domain exists.
    ASSERT_TRUE(root.AddDomain("GHOST")) << root.lastError();
    CallResult none = List(Scope("{\"type\": \"domain\"}"));
    ASSERT_TRUE(none.success()) << none.Dump();
    EXPECT_EQ(0u, Total(none));
    EXPECT_TRUE(none.HasLog(LOG_ERR, "usergroup-enumerator/domain-enumerator:229 failed to open domain database"))
        << none.LogDump();

    // Another domain has caches, GHOST still has none: GHOST is logged and
    // skipped, the cached domain answers.
    ASSERT_TRUE(kova_owners_test::JoinDomains(root)) << root.lastError();  // GHOST stays the joined one
    CallResult mixed = Search("domain", "kxd");
    ASSERT_TRUE(mixed.success()) << mixed.Dump();
    EXPECT_EQ(6u, Total(mixed));
    EXPECT_TRUE(mixed.HasLog(LOG_ERR, "usergroup-enumerator/domain-enumerator:115 "
                                      "KOVAACCOUNTDBOpen#Domain(full:user:GHOST) failed"))
        << mixed.LogDump();
    EXPECT_TRUE(mixed.HasLog(LOG_ERR, "usergroup-enumerator/domain-enumerator:115 "
                                      "KOVAACCOUNTDBOpen#Domain(full:group:GHOST) failed"));
}

TEST_F(OwnersV2, FailingSourcesStillAnswerSuccess) {
    const std::string sources = "local,ldap,internal,domain";
    CallResult clean = Search(sources, "kx");
    ASSERT_TRUE(clean.success()) << clean.Dump();
    const std::vector<std::string> all = Names(clean);

    struct Case {
        Fault fault;
        std::string log;
        std::vector<std::string> lost;  // entries that disappear
    };
    const std::vector<Case> cases = {
        {{"KLIBUserInfoEnum", 0, -1, KOVA_ERR_IO},
         "usergroup-enumerator/local-user-enumerator:97 KLIBUserInfoEnum failed. [0x0800",
         {"user:kxalice", "user:kxbob", "user:kxcarol", "user:kxdave"}},
        {{"KLIBUserInfoEnumInternalUsers", 0, -1, KOVA_ERR_IO},
         "usergroup-enumerator/local-user-enumerator:106 KLIBUserInfoEnumInternalUsers failed. [0x0800",
         {"user:kxsvc-backup", "user:kxsvc-index"}},
        {{"KLIBGroupInfoEnumByPrefix", 0, -1, KOVA_ERR_IO},
         "usergroup-enumerator/local-group-enumerator:100 KLIBGroupInfoEnumByPrefix failed. [0x0800",
         {"group:kxsales", "group:kxstaff"}},
        // The first open is the LDAP users' database.
        {{"KOVAACCOUNTDBOpen", 1, 0, KOVA_ERR_IO},
         "usergroup-enumerator/ldap-user-enumerator:84 KOVAACCOUNTDBOpen#LDAP failed",
         {"user:kx_ldap@example.com", "user:kxQldap@example.com"}},
        {{"KOVAACCOUNTDBCoreEnumExec", 1, -1, KOVA_ERR_IO},
         "usergroup-enumerator/ldap-user-enumerator:141 KOVAACCOUNTDBCoreEnumExec failed",
         {"user:kx_ldap@example.com", "user:kxQldap@example.com"}},
        // Every AddClause fails: both LDAP sources and every domain query.
        {{"KOVAACCOUNTDBAddClause", 0, -1, KOVA_ERR_BADARG},
         "usergroup-enumerator/ldap-group-enumerator:111 KOVAACCOUNTDBAddClause((name_upper LIKE \"%KX%\" "
         "ESCAPE '\\\\')) failed",  // the log writes a backslash doubled
         {"user:kx_ldap@example.com", "user:kxQldap@example.com", "user:kxd-dana", "user:kxd-erik", "user:kxd-fiona",
          "user:kxd-gus", "group:kxd-sales-corp", "group:kxd-it-branch"}},
        {{"KOVAACCOUNTDBEnumSetLimit", 0, -1, KOVA_ERR_IO},
         "usergroup-enumerator/domain-enumerator:141 KOVAACCOUNTDBEnumSet{Start,Limit}(0, ",
         {"user:kx_ldap@example.com", "user:kxQldap@example.com", "user:kxd-dana", "user:kxd-erik", "user:kxd-fiona",
          "user:kxd-gus", "group:kxd-sales-corp", "group:kxd-it-branch"}},
    };
    for (const Case &c : cases) {
        CallResult r = Search(sources, "kx", "{}", "", As("admin", {c.fault}));
        kova_owners_test::ExpectAllBut(r, all, c.lost, c.fault.call);
        EXPECT_TRUE(kova_module_test::LogStartsWith(r, LOG_ERR, c.log)) << c.fault.call << "\n" << r.LogDump();
    }
}

TEST_F(OwnersV2, SmallFailuresCostOnlyOneValue) {
    // A failing description lookup: the group is still listed, matched by
    // name, with an empty description.
    CallResult groups =
        Search("local", "kxstaff", "{}", "", As("admin", {Fault{"KOVAGroupDescGet", 0, -1, KOVA_ERR_IO}}));
    ASSERT_TRUE(groups.success()) << groups.Dump();
    ASSERT_EQ(std::vector<std::string>{"group:kxstaff"}, Names(groups));
    EXPECT_EQ("", groups.data()["owners"][0]["description"].asString());
    EXPECT_TRUE(groups.HasLog(LOG_ERR, "usergroup-enumerator/local-group-enumerator:42 KOVAGroupDescGet failed"))
        << groups.LogDump();

    // Upper-casing the keyword fails once: logged, the search goes on with
    // an empty upper-case keyword (so the in-memory sources match all).
    CallResult upper =
        Search("builtin", "kxbob", "{}", "", As("admin", {Fault{"KLIBCUnicodeUTF8StrUpper", 1, -1, KOVA_ERR_BADARG}}));
    ASSERT_TRUE(upper.success()) << upper.Dump();
    EXPECT_TRUE(upper.HasLog(LOG_ERR, "acl:1282 KLIBCUnicodeUTF8StrUpper(kxbob) failed[0x0D00 "
                                      "KLIBCUnicodeUTF8StrUpper:0]"))
        << upper.LogDump();
    EXPECT_EQ(0u, Total(upper));  // built-ins compare the keyword itself

    // One user whose name cannot be upper-cased costs that candidate only.
    CallResult users =
        Search("internal", "kx", "{}", "", As("admin", {Fault{"KLIBCUnicodeUTF8StrUpper", 2, -1, KOVA_ERR_BADARG}}));
    ASSERT_TRUE(users.success()) << users.Dump();
    // The first internal account upper-cased is the one that fails; it is
    // only lost when it would have matched.
    const std::string prefix = "usergroup-enumerator/local-user-enumerator:57 KLIBCUnicodeUTF8StrUpper(";
    std::vector<std::string> failedNames;
    for (const auto &line : users.logs) {
        if (line.priority == LOG_ERR && line.text.compare(0, prefix.size(), prefix) == 0)
            failedNames.push_back(line.text.substr(prefix.size(), line.text.find(')') - prefix.size()));
    }
    ASSERT_EQ(1u, failedNames.size()) << users.LogDump();
    EXPECT_EQ(failedNames[0].compare(0, 2, "kx") == 0 ? 1u : 2u, Total(users)) << users.Dump();
}

// The built-in source: every config key writes the owner flag (the last
// boolean key in table order wins, other values are ignored); the keyword
// is matched against the lower-cased id; paging counts only what is on.
TEST_F(OwnersV2, BuiltinThroughTheModule) {
    auto builtin = [](const std::string &config, const std::string &keyword = "") {
        CallResult r = List("{\"keyword\": \"" + keyword + "\", \"keywordFields\": {}, \"searchScope\": [{\"type\": "
                            "\"builtin\", \"config\": " + config + "}]}");
        EXPECT_TRUE(r.success()) << r.Dump();
        EXPECT_EQ(Names(r).size(), Total(r)) << r.Dump();
        for (const Json::Value &o : r.data()["owners"])
            EXPECT_EQ("", o["description"].asString() + o["email"].asString() + o["fullname"].asString()) << o;
        return Names(r);
    };
    const std::vector<std::string> all = {"owner:Owner", "everyone:Everyone", "authenticated_user:Authenticated Users",
                                          "system:SYSTEM"};
    const std::vector<std::string> noOwner(all.begin() + 1, all.end());
    EXPECT_EQ(all, builtin("{}"));
    EXPECT_EQ(all, builtin("null"));
    EXPECT_EQ(noOwner, builtin("{\"owner\": false}"));
    EXPECT_EQ(noOwner, builtin("{\"everyone\": false}"));  // Everyone stays
    EXPECT_EQ(all, builtin("{\"owner\": false, \"system\": true}"));
    EXPECT_EQ(noOwner, builtin("{\"owner\": true, \"authenticatedUsers\": false}"));
    EXPECT_EQ(noOwner, builtin("{\"owner\": false, \"everyone\": false, \"authenticatedUsers\": false, "
                               "\"system\": false}"));
    for (const char *ignored : {"{\"owner\": \"no\", \"system\": 0}", "[1]", "7"})
        EXPECT_EQ(all, builtin(ignored)) << ignored;

    EXPECT_EQ(std::vector<std::string>{"authenticated_user:Authenticated Users"}, builtin("{}", "auth"));
    EXPECT_EQ(std::vector<std::string>{"authenticated_user:Authenticated Users"}, builtin("{}", "user"));
    EXPECT_EQ(std::vector<std::string>{"system:SYSTEM"}, builtin("{}", "SyS"));
    EXPECT_EQ(std::vector<std::string>{"everyone:Everyone"}, builtin("{}", "ONE"));
    EXPECT_TRUE(builtin("{}", "authenticated users").empty());

    CallResult r = List("{\"keyword\": \"e\", \"offset\": 1, \"limit\": 2, \"keywordFields\": {}, "
                        "\"searchScope\": [{\"type\": \"builtin\", \"config\": {\"everyone\": false}}]}");
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ((std::vector<std::string>{"authenticated_user:Authenticated Users", "system:SYSTEM"}), Names(r));
    EXPECT_EQ(3u, Total(r));
}

} // namespace
