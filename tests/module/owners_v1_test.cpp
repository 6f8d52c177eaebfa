// list_owners version 1 through the host: special principals, local and
// internal accounts, the Windows domain and LDAP, paged by offset and limit.
#include "owners-fixture.h"

#include "kova/errcode.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <vector>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;
using kova_host::PlatformRoot;

using kova_module_test::As;
using kova_owners_test::Total;

class OwnersV1 : public kova_owners_test::OwnersSuite {
protected:
    static CallResult List(const std::string &params, const CallOptions &options = CallOptions()) {
        return kova_owners_test::List(1, params, options);
    }
    // Version 1 entries carry "type" and "name" only.
    static std::vector<std::string> Names(const CallResult &r) { return kova_owners_test::Names(r, 2); }
};

const std::vector<std::string> kSpecials = {"owner:Owner", "everyone:Everyone",
                                            "authenticated_user:Authenticated Users", "system:SYSTEM"};
const std::string kAllSpecials =
    "\"include_owner\": true, \"include_everyone\": true, \"include_builtin\": true";

TEST_F(OwnersV1, SpecialPrincipalsByPrefix) {
    // "local" and a prefix no account contains keep the accounts out.
    auto specials = [](const std::string &prefix) {
        return List("{" + kAllSpecials + ", \"auth_type\": \"local\", \"prefix\": \"" + prefix + "\"}");
    };
    CallResult auth = specials("auth");
    ASSERT_TRUE(auth.success()) << auth.Dump();
    EXPECT_EQ(std::vector<std::string>{"authenticated_user:Authenticated Users"}, Names(auth));  // display name
    EXPECT_EQ(1u, Total(auth));
    EXPECT_EQ(std::vector<std::string>{"system:SYSTEM"}, Names(specials("sys")));  // type
    EXPECT_EQ(std::vector<std::string>{"system:SYSTEM"}, Names(specials("SYS")));
    EXPECT_EQ(std::vector<std::string>{"everyone:Everyone"}, Names(specials("EVERY")));
    EXPECT_EQ(std::vector<std::string>{"owner:Owner"}, Names(specials("Own")));
    // Compared over the prefix's whole length: longer than the text fails
    // (the built-in principals are filtered too).
    EXPECT_TRUE(Names(specials("systems")).empty());
    // Prefix, not substring.
    EXPECT_TRUE(Names(specials("ystem")).empty());

    // Without their flags none is offered.
    CallResult none = List("{\"auth_type\": \"local\", \"prefix\": \"sys\"}");
    ASSERT_TRUE(none.success());
    EXPECT_TRUE(Names(none).empty());
}

TEST_F(OwnersV1, OffsetSkipsAndLimitOnlyBoundsAccounts) {
    // The prefix filters the specials too, so an empty one is needed here;
    // the local accounts then include the root's own.
    CallResult accounts = List("{\"auth_type\": \"local\", \"prefix\": \"\"}");
    ASSERT_TRUE(accounts.success()) << accounts.Dump();
    const std::vector<std::string> local = Names(accounts);
    ASSERT_GE(local.size(), 3u);
    ASSERT_EQ(local.size(), Total(accounts));

    // Offset 1: Owner is skipped but counted, and the accounts start at 0.
    CallResult skipped = List("{\"include_owner\": true, \"include_everyone\": true, \"auth_type\": \"local\", "
                              "\"prefix\": \"\", \"offset\": 1}");
    ASSERT_TRUE(skipped.success()) << skipped.Dump();
    std::vector<std::string> expected = {"everyone:Everyone"};
    expected.insert(expected.end(), local.begin(), local.end());
    EXPECT_EQ(expected, Names(skipped));
    EXPECT_EQ(local.size() + 2, Total(skipped));
    // Offset 3 runs past both specials into the accounts.
    CallResult further = List("{\"include_owner\": true, \"include_everyone\": true, \"auth_type\": \"local\", "
                              "\"prefix\": \"\", \"offset\": 3}");
    EXPECT_EQ(std::vector<std::string>(local.begin() + 1, local.end()), Names(further));

    // Limit 1: all four specials anyway, the accounts get nothing.
    CallResult limited = List("{" + kAllSpecials + ", \"auth_type\": \"local\", \"prefix\": \"\", \"limit\": 1}");
    ASSERT_TRUE(limited.success()) << limited.Dump();
    EXPECT_EQ(kSpecials, Names(limited));
    EXPECT_EQ(local.size() + 4, Total(limited));  // the accounts are still counted

    // Limit 2 with one special: one account fits after it.
    CallResult two = List("{\"include_owner\": true, \"auth_type\": \"local\", \"prefix\": \"\", \"limit\": 2}");
    EXPECT_EQ((std::vector<std::string>{"owner:Owner", local[0]}), Names(two));
    EXPECT_EQ(local.size() + 1, Total(two));
}

// Each auth type selects its sources. Within them the text is looked for
// anywhere in an account's name, in any letter case; a longer text narrows
// names that begin one another.
TEST_F(OwnersV1, AuthTypeSelectsSourcesAndTheTextMatchesAnywhere) {
    auto names = [](const std::string &text, const std::string &extra) {
        CallResult r = List("{\"prefix\": \"" + text + "\"" + extra + "}");
        EXPECT_TRUE(r.success()) << r.Dump();
        std::vector<std::string> n = Names(r);
        EXPECT_EQ(n.size(), Total(r)) << r.Dump();
        return n;
    };
    const std::string localOnly = ", \"auth_type\": \"local\"";
    const std::vector<std::string> local = {"user:kxalice", "user:kxbob",     "user:kxcarol",
                                            "user:kxdave",  "group:kxsales", "group:kxstaff"};
    EXPECT_EQ(local, names("kx", localOnly));

    // The domains first (their users, then their groups), then LDAP, each in
    // the form the host's account library gives its names.
    const std::vector<std::string> directory = names("kx", ", \"auth_type\": \"directory\"");
    EXPECT_EQ((std::vector<std::string>{"user:CORP\\kxd-dana", "user:CORP\\kxd-erik", "user:BRANCH\\kxd-fiona",
                                        "user:BRANCH\\kxd-gus", "group:CORP\\kxd-sales-corp",
                                        "group:BRANCH\\kxd-it-branch", "user:kxQldap@example.com",
                                        "user:kx_ldap@example.com"}),
              directory);

    std::vector<std::string> all = local;
    all.insert(all.end(), directory.begin(), directory.end());
    EXPECT_EQ(all, names("kx", ", \"auth_type\": \"all\""));
    EXPECT_EQ(all, names("kx", ""));

    // Internal users come between the local accounts and the domain.
    std::vector<std::string> withInternal = local;
    const std::vector<std::string> internal = {"user:kxsvc-backup", "user:kxsvc-index"};
    withInternal.insert(withInternal.end(), internal.begin(), internal.end());
    withInternal.insert(withInternal.end(), directory.begin(), directory.end());
    EXPECT_EQ(withInternal, names("kx", ", \"include_internal\": true"));

    CallResult bad = List("{\"auth_type\": \"ldap\", \"include_owner\": true}");
    EXPECT_EQ(403, bad.errorCode()) << bad.Dump();
    EXPECT_TRUE(bad.response["error"]["data"].isNull());
    EXPECT_EQ(403, List("{\"auth_type\": \"Local\"}").errorCode());

    for (const auto &c : kova_owners_test::kNamesBeginningOneAnother)
        EXPECT_EQ(c.names, names(c.text, localOnly)) << c.text;
    EXPECT_EQ(internal, names("SVC", localOnly + ", \"include_internal\": true"));
}

TEST_F(OwnersV1, PagesAreSlicesOfTheWholeList) {
    const std::string base = "\"prefix\": \"kx\", \"include_internal\": true";
    CallResult whole = List("{" + base + "}");
    ASSERT_TRUE(whole.success()) << whole.Dump();
    const std::vector<std::string> all = Names(whole);
    ASSERT_EQ(16u, all.size());  // local 0-5, internal 6-7, domains 8-13, LDAP 14-15
    kova_owners_test::ExpectPagesAreSlices(all, {{0, 2}, {1, 3}, {5, 4}, {7, 2}, {6, 9}, {13, 2}, {14, 5}, {15, 1}, {16, 3}},
                                           [&](const std::string &window) { return List("{" + base + ", " + window + "}"); });
}

TEST_F(OwnersV1, DirectoryWithoutServicesListsOnlySpecials) {
    PlatformRoot bare;
    ASSERT_TRUE(bare.AddUser("kxsvc2", -1, true)) << bare.lastError();
    CallResult r = List("{\"auth_type\": \"directory\", \"include_everyone\": true, \"prefix\": \"\"}");
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(std::vector<std::string>{"everyone:Everyone"}, Names(r));
    EXPECT_EQ(1u, Total(r));
    CallResult internal = List("{\"auth_type\": \"directory\", \"include_internal\": true, \"prefix\": \"kxsvc\"}");
    EXPECT_EQ(std::vector<std::string>{"user:kxsvc2"}, Names(internal));
}

TEST_F(OwnersV1, FailingEnumerationsAreLoggedAndSkipped) {
    const std::string request = "{\"prefix\": \"kx\", \"include_internal\": true}";
    // An error line of the module naming the failed enumeration.
    auto logged = [](const CallResult &r, const std::string &what) {
        for (const auto &line : r.logs)
            if (line.priority == LOG_ERR && line.text.compare(0, 4, "acl:") == 0 &&
                line.text.find(" " + what + " failed. [0x0800 ") != std::string::npos)
                return true;
        return false;
    };
    const std::vector<std::string> all = Names(List(request));
    ASSERT_EQ(16u, all.size());
    const struct {
        Fault fault;
        std::vector<std::string> lost;
        const char *log;  // the failed enumeration logged, or "" for no log at all
    } cases[] = {
        // The first user enumeration is the local one: its groups go too.
        {{"KLIBUserInfoEnumBySubstr", 1, -1, KOVA_ERR_IO},
         {"user:kxalice", "user:kxbob", "user:kxcarol", "user:kxdave", "group:kxsales", "group:kxstaff"},
         "KLIBUserInfoEnumByPrefix"},
        {{"KLIBGroupInfoEnumBySubstr", 1, -1, KOVA_ERR_IO},
         {"group:kxsales", "group:kxstaff"},
         "KLIBGroupInfoEnumByPrefix"},
        {{"KLIBUserInfoEnumInternalUsers", 0, -1, KOVA_ERR_IO}, {"user:kxsvc-backup", "user:kxsvc-index"}, ""},
    };
    for (const auto &c : cases) {
        CallResult r = List(request, As("admin", {c.fault}));
        kova_owners_test::ExpectAllBut(r, all, c.lost, c.fault.call, 2);
        if (*c.log) EXPECT_TRUE(logged(r, c.log)) << c.fault.call << "\n" << r.LogDump();
        else EXPECT_EQ("", r.LogDump()) << c.fault.call;
    }
}

} // namespace
