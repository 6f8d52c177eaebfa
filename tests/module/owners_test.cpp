// list_owners through the host, both versions over one world: special and
// built-in principals, local and internal accounts, an LDAP cache filled from
// a real slapd and the caches of two Windows domains, paged by offset and
// limit. Version 1 picks sources by auth type, version 2 by search scope.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"
#include "slapd.h"
#include "temp-root.h"

#include "kova/account.h"
#include "kova/errcode.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;
using kova_host::PlatformRoot;

using kova_module_test::As;
using kova_module_test::Parse;

struct World {
    std::unique_ptr<kova_host::PlatformRoot> root;
    std::unique_ptr<kova_test::Slapd> slapd;
    std::string error;
};

// Two domains, CORP and BRANCH, each with two users and a group named
// "kxd...", spread over Sales and IT units.
bool JoinDomains(kova_host::PlatformRoot &root) {
    const struct {
        const char *domain, *unit, *name, *desc, *mail, *fullname;  // no mail: a group
    } entries[] = {
        {"corp", "Sales", "kxd-dana", "Sales lead", "dana@corp.example", "Dana Sales"},
        {"corp", "IT", "kxd-erik", "Printer wrangler", "erik@corp.example", "Erik Ops"},
        {"corp", "Sales", "kxd-sales-corp", "Corp sellers", nullptr, nullptr},
        {"branch", "Sales", "kxd-fiona", "Branch sales", "fiona@branch.example", "Fiona Field"},
        {"branch", "IT", "kxd-gus", "Network", "gus@branch.example", "Gus Wire"},
        {"branch", "IT", "kxd-it-branch", "Branch IT", nullptr, nullptr},
    };
    std::map<std::string, std::string> ldif;
    for (const auto &e : entries) {
        const std::string name = e.name, rdn = (e.mail ? "uid=" : "cn=") + name;
        ldif[e.domain] += "dn: " + rdn + ",ou=" + e.unit + ",dc=" + e.domain + ",dc=example\n";
        ldif[e.domain] += e.mail ? "objectClass: inetOrgPerson\nuid: " + name + "\ncn: " + e.fullname + "\nsn: " + name +
                                       "\ndisplayName: " + e.fullname + "\nmail: " + e.mail + "\n"
                                 : "objectClass: posixGroup\ncn: " + name + "\ngidNumber: 7000\n";
        ldif[e.domain] += "description: " + std::string(e.desc) + "\n\n";
    }
    for (const auto &d : ldif) kova_test::WriteFile(root.At(d.first + ".ldif"), d.second);
    // Without trusted domains the host knows only the joined one (CORP).
    return root.Admin({"domain", "join", "CORP", "--from-ldif", root.At("corp.ldif")}) == 0 &&
           root.Admin({"domain", "join", "BRANCH", "--from-ldif", root.At("branch.ldif")}) == 0 &&
           root.SetDomainFlag("trusted", true);
}

bool AddUser(const char *name, const char *desc, const char *mail, bool internal) {
    return KOVAUserAdd(name, -1, "Passw0rd!", desc, mail, internal ? 1 : 0) >= 0;
}

std::string BuildWorld(World &w) {
    w.root.reset(new kova_host::PlatformRoot());
    kova_host::PlatformRoot &root = *w.root;
    // Local accounts named "kx..." so that a keyword isolates them.
    if (!AddUser("kxalice", "Head of Payroll", "alice@corp.example", false) ||
        !AddUser("kxbob", nullptr, nullptr, false) || !AddUser("kxcarol", "Courier", "carol@mail.example", false) ||
        !AddUser("kxdave", "Night shift", nullptr, false) || !AddUser("kxsvc-backup", "Backup agent", nullptr, true) ||
        !AddUser("kxsvc-index", nullptr, nullptr, true))
        return "local users";
    if (KOVAGroupAdd("kxstaff", -1, "Payroll team") < 0 || KOVAGroupAdd("kxsales", -1, nullptr) < 0)
        return "local groups";
    // Names that begin one another, outside the "kx" searches.
    if (!AddUser("zqpat", nullptr, nullptr, false) || !AddUser("zqpatrick", nullptr, nullptr, false) ||
        KOVAGroupAdd("zqpatrol", -1, nullptr) < 0)
        return "local accounts beginning one another";

    if (!kova_test::Slapd::Installed()) return "slapd is not installed";
    w.slapd.reset(new kova_test::Slapd(12, 3));
    w.slapd->Add({"kx_ldap", "Payroll archive", "archive@ldap.example", "Archive Keeper"});
    w.slapd->Add({"kxQldap", "", "", "Look Alike"});
    std::string error;
    if (!w.slapd->Start(&error)) return "slapd: " + error;
    // The LDAP source (suffix "example.com"), its cache filled.
    if (root.Admin({"ldap", "bind", "--uri", w.slapd->uri(), "--base", w.slapd->base(), "--binddn", w.slapd->rootDn(),
                    "--password", w.slapd->rootPassword(), "--suffix", "example.com"}) != 0 ||
        root.Admin({"ldap", "sync"}) != 0 || !JoinDomains(root))
        return root.lastError();
    return "";
}

// Built before the first test and removed (slapd stopped first) after the
// last; a test whose world could not be built stops in SetUp with the reason.
World gWorld;
class WorldEnvironment : public ::testing::Environment {
    void SetUp() override { gWorld.error = BuildWorld(gWorld); }
    void TearDown() override {
        gWorld.slapd.reset();
        gWorld.root.reset();
    }
};
::testing::Environment *const gEnvironment = ::testing::AddGlobalTestEnvironment(new WorldEnvironment);

// The reply's entries as "type:name".
std::vector<std::string> Names(const CallResult &r) {
    std::vector<std::string> out;
    for (const Json::Value &o : r.data()["owners"]) out.push_back(o["type"].asString() + ":" + o["name"].asString());
    return out;
}

uint64_t Total(const CallResult &r) { return r.data()["total"].asUInt64(); }

// A source that failed costs only its own entries: the reply is a success
// listing `all` but `lost`, in order, and counts just those.
void ExpectAllBut(const CallResult &r, const std::vector<std::string> &all, const std::vector<std::string> &lost,
                  const std::string &what) {
    ASSERT_TRUE(r.success()) << what << "\n" << r.Dump();
    std::vector<std::string> expected;
    for (const std::string &name : all)
        if (std::find(lost.begin(), lost.end(), name) == lost.end()) expected.push_back(name);
    EXPECT_EQ(expected, Names(r)) << what;
    EXPECT_EQ(expected.size(), Total(r)) << what;
}

// Each window {offset, limit} of `page` is the slice of `all`, counting all.
void ExpectPagesAreSlices(const std::vector<std::string> &all, const std::vector<std::pair<int, int>> &windows,
                          const std::function<CallResult(const std::string &window)> &page) {
    for (const auto &w : windows) {
        const std::string window = "\"offset\": " + std::to_string(w.first) + ", \"limit\": " + std::to_string(w.second);
        CallResult r = page(window);
        ASSERT_TRUE(r.success()) << window << "\n" << r.Dump();
        const size_t begin = std::min<size_t>(w.first, all.size());
        const size_t end = std::min<size_t>(begin + w.second, all.size());
        EXPECT_EQ(std::vector<std::string>(all.begin() + begin, all.begin() + end), Names(r)) << window;
        EXPECT_EQ(all.size(), Total(r)) << window;
    }
}

class Owners : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(kova_host::ModuleHost::Shared().ok()) << kova_host::ModuleHost::Shared().error();
        ASSERT_EQ("", gWorld.error);
    }

    // list_owners version 1, whose entries carry "type" and "name" only.
    static CallResult V1(const std::string &params, const CallOptions &options = CallOptions()) {
        CallResult r = kova_host::ModuleHost::Shared().Call("list_owners", Parse(params), options);
        for (const Json::Value &o : r.data()["owners"]) EXPECT_EQ(2u, o.size()) << o;
        return r;
    }

    static CallResult V2(const std::string &params, const CallOptions &options = CallOptions()) {
        return kova_host::ModuleHost::Shared().Call(kova_host::kApi, 2, "list_owners", Parse(params), options);
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
        return V2("{\"keyword\": \"" + keyword + "\", \"keywordFields\": " + fields + ", \"searchScope\": [" + scope +
                        "]" + extra + "}",
                    options);
    }

    static std::string Scope(const std::string &types, const std::string &extra = "") {
        return "{\"keywordFields\": {}, \"searchScope\": [" + types + "]" + extra + "}";
    }
};
using OwnersV1 = Owners;
using OwnersV2 = Owners;

const std::vector<std::string> kSpecials = {"owner:Owner", "everyone:Everyone",
                                            "authenticated_user:Authenticated Users", "system:SYSTEM"};
const std::string kAllSpecials =
    "\"include_owner\": true, \"include_everyone\": true, \"include_builtin\": true";

TEST_F(OwnersV1, SpecialPrincipalsByPrefix) {
    // "local" and a prefix no account contains keep the accounts out.
    auto specials = [](const std::string &prefix) {
        return V1("{" + kAllSpecials + ", \"auth_type\": \"local\", \"prefix\": \"" + prefix + "\"}");
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
    CallResult none = V1("{\"auth_type\": \"local\", \"prefix\": \"sys\"}");
    ASSERT_TRUE(none.success());
    EXPECT_TRUE(Names(none).empty());
}

TEST_F(OwnersV1, OffsetSkipsAndLimitOnlyBoundsAccounts) {
    // The prefix filters the specials too, so an empty one is needed here;
    // the local accounts then include the root's own.
    CallResult accounts = V1("{\"auth_type\": \"local\", \"prefix\": \"\"}");
    ASSERT_TRUE(accounts.success()) << accounts.Dump();
    const std::vector<std::string> local = Names(accounts);
    ASSERT_GE(local.size(), 3u);
    ASSERT_EQ(local.size(), Total(accounts));

    // Offset 1: Owner is skipped but counted, and the accounts start at 0.
    CallResult skipped = V1("{\"include_owner\": true, \"include_everyone\": true, \"auth_type\": \"local\", "
                              "\"prefix\": \"\", \"offset\": 1}");
    ASSERT_TRUE(skipped.success()) << skipped.Dump();
    std::vector<std::string> expected = {"everyone:Everyone"};
    expected.insert(expected.end(), local.begin(), local.end());
    EXPECT_EQ(expected, Names(skipped));
    EXPECT_EQ(local.size() + 2, Total(skipped));
    // Offset 3 runs past both specials into the accounts.
    CallResult further = V1("{\"include_owner\": true, \"include_everyone\": true, \"auth_type\": \"local\", "
                              "\"prefix\": \"\", \"offset\": 3}");
    EXPECT_EQ(std::vector<std::string>(local.begin() + 1, local.end()), Names(further));

    // Limit 1: all four specials anyway, the accounts get nothing.
    CallResult limited = V1("{" + kAllSpecials + ", \"auth_type\": \"local\", \"prefix\": \"\", \"limit\": 1}");
    ASSERT_TRUE(limited.success()) << limited.Dump();
    EXPECT_EQ(kSpecials, Names(limited));
    EXPECT_EQ(local.size() + 4, Total(limited));  // the accounts are still counted

    // Limit 2 with one special: one account fits after it.
    CallResult two = V1("{\"include_owner\": true, \"auth_type\": \"local\", \"prefix\": \"\", \"limit\": 2}");
    EXPECT_EQ((std::vector<std::string>{"owner:Owner", local[0]}), Names(two));
    EXPECT_EQ(local.size() + 1, Total(two));
}

// Each auth type selects its sources. Within them the text is looked for
// anywhere in an account's name, in any letter case.
TEST_F(OwnersV1, AuthTypeSelectsSourcesAndTheTextMatchesAnywhere) {
    auto names = [](const std::string &text, const std::string &extra) {
        CallResult r = V1("{\"prefix\": \"" + text + "\"" + extra + "}");
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

    CallResult bad = V1("{\"auth_type\": \"ldap\", \"include_owner\": true}");
    EXPECT_EQ(403, bad.errorCode()) << bad.Dump();
    EXPECT_TRUE(bad.response["error"]["data"].isNull());
    EXPECT_EQ(403, V1("{\"auth_type\": \"Local\"}").errorCode());

    EXPECT_EQ(internal, names("SVC", localOnly + ", \"include_internal\": true"));
}

TEST_F(OwnersV1, PagesAreSlicesOfTheWholeList) {
    const std::string base = "\"prefix\": \"kx\", \"include_internal\": true";
    CallResult whole = V1("{" + base + "}");
    ASSERT_TRUE(whole.success()) << whole.Dump();
    const std::vector<std::string> all = Names(whole);
    ASSERT_EQ(16u, all.size());  // local 0-5, internal 6-7, domains 8-13, LDAP 14-15
    ExpectPagesAreSlices(all, {{0, 2}, {1, 3}, {5, 4}, {7, 2}, {6, 9}, {13, 2}, {14, 5}, {15, 1}, {16, 3}},
                                           [&](const std::string &window) { return V1("{" + base + ", " + window + "}"); });
}

TEST_F(OwnersV1, DirectoryWithoutServicesListsOnlySpecials) {
    PlatformRoot bare;
    ASSERT_TRUE(bare.AddUser("kxsvc2", -1, true)) << bare.lastError();
    CallResult r = V1("{\"auth_type\": \"directory\", \"include_everyone\": true, \"prefix\": \"\"}");
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(std::vector<std::string>{"everyone:Everyone"}, Names(r));
    EXPECT_EQ(1u, Total(r));
    CallResult internal = V1("{\"auth_type\": \"directory\", \"include_internal\": true, \"prefix\": \"kxsvc\"}");
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
    const std::vector<std::string> all = Names(V1(request));
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
        CallResult r = V1(request, As("admin", {c.fault}));
        ExpectAllBut(r, all, c.lost, c.fault.call);
        if (*c.log) EXPECT_TRUE(logged(r, c.log)) << c.fault.call << "\n" << r.LogDump();
        else EXPECT_EQ("", r.LogDump()) << c.fault.call;
    }
}

// Both versions find a local name's text anywhere in it, in any letter case;
// a longer text narrows names that begin one another.
TEST_F(Owners, LocalNamesBeginningOneAnother) {
    const struct {
        const char *text;
        std::vector<std::string> names;
    } cases[] = {
        {"zqpat", {"user:zqpat", "user:zqpatrick", "group:zqpatrol"}},
        {"zqpatr", {"user:zqpatrick", "group:zqpatrol"}},
        {"ZQPATR", {"user:zqpatrick", "group:zqpatrol"}},
        {"zqpatrick", {"user:zqpatrick"}},
        {"trick", {"user:zqpatrick"}},
        {"TROL", {"group:zqpatrol"}},
        {"patro", {"group:zqpatrol"}},
    };
    for (const auto &c : cases) {
        const std::string v1 = "{\"auth_type\": \"local\", \"prefix\": \"" + std::string(c.text) + "\"}";
        for (const CallResult &r : {V1(v1), Search("local", c.text)}) {
            EXPECT_EQ(c.names, Names(r)) << c.text << "\n" << r.Dump();
            EXPECT_EQ(c.names.size(), Total(r)) << c.text;
        }
    }
}

TEST_F(OwnersV2, EmptyScopeAndUnknownType) {
    CallResult empty = V2(Scope(""));
    ASSERT_TRUE(empty.success()) << empty.Dump();
    EXPECT_TRUE(empty.data()["owners"].isArray());
    EXPECT_EQ(0u, empty.data()["owners"].size());
    EXPECT_EQ(0u, Total(empty));

    // The local source would fail loudly (a log line) if it ran.
    CallResult unknown = V2(Scope("{\"type\": \"local\"}, {\"type\": \"nis\", \"config\": {}}"),
                              As("admin", {Fault{"KLIBUserInfoEnum", 0, -1, KOVA_ERR_IO}}));
    ASSERT_EQ(403, unknown.errorCode()) << unknown.Dump();
    EXPECT_EQ(Parse("{\"name\": \"searchScope[1].type\", \"value\": \"nis\"}"),
              unknown.response["error"]["data"]);
    EXPECT_EQ("", unknown.LogDump());

    CallResult first = V2(Scope("{\"type\": \"Local\"}"));
    EXPECT_EQ(403, first.errorCode());
    EXPECT_EQ("searchScope[0].type", first.response["error"]["data"]["name"].asString());
    CallResult missing = V2(Scope("{\"config\": {}}"));
    EXPECT_EQ(403, missing.errorCode());
    EXPECT_EQ("", missing.response["error"]["data"]["value"].asString());

    // The schema still guards the required parameters.
    EXPECT_EQ(403, V2("{\"searchScope\": []}").errorCode());
    EXPECT_EQ(403, V2("{\"keywordFields\": {}}").errorCode());
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
    CallResult full = V2("{\"keywordFields\": {}, \"searchScope\": " + scope + "}");
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
    ExpectPagesAreSlices(all, windows, [&](const std::string &window) {
        return V2("{" + window + ", \"keywordFields\": {}, \"searchScope\": " + scope + "}");
    });

    // A negative offset is 0, a negative limit is no limit.
    CallResult negative = V2("{\"offset\": -3, \"limit\": -5, \"keywordFields\": {}, \"searchScope\": " + scope + "}");
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
    ASSERT_TRUE(gWorld.root->SetDomainFlag("trusted", false)) << gWorld.root->lastError();
    CallResult filtered =
        V2(Scope("{\"type\": \"domain\", \"config\": {\"bindon\": \"ou=Sales,dc=corp,dc=example\"}}"));
    ASSERT_TRUE(filtered.success()) << filtered.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:kxd-dana", "group:kxd-sales-corp"}), Names(filtered));
    // The suffix must end the DN.
    CallResult middle = V2(Scope("{\"type\": \"domain\", \"config\": {\"bindon\": \"ou=Sales\"}}"));
    CallResult plain = Search("domain", "kxd");
    ASSERT_TRUE(gWorld.root->SetDomainFlag("trusted", true)) << gWorld.root->lastError();
    EXPECT_TRUE(Names(middle).empty()) << middle.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:kxd-dana", "user:kxd-erik", "user:kxd-fiona", "user:kxd-gus",
                                        "group:kxd-sales-corp", "group:kxd-it-branch"}),
              Names(plain));

    // Trusted domains on: the bindon names the only domain searched.
    CallResult trusted = V2("{\"keyword\": \"kxd\", \"keywordFields\": {}, \"searchScope\": [{\"type\": "
                              "\"domain\", \"config\": {\"bindon\": \"BRANCH\"}}]}");
    ASSERT_TRUE(trusted.success()) << trusted.Dump();
    EXPECT_EQ((std::vector<std::string>{"user:kxd-fiona", "user:kxd-gus", "group:kxd-it-branch"}), Names(trusted));
    EXPECT_EQ(3u, Total(trusted));
}

TEST_F(OwnersV2, UnavailableDirectoriesContributeNothing) {
    PlatformRoot root;  // neither bound nor joined
    CallResult r = V2(Scope("{\"type\": \"ldap\"}, {\"type\": \"domain\"}, {\"type\": \"builtin\"}"));
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(4u, Total(r));
    EXPECT_TRUE(r.HasLog(LOG_DEBUG, "acl:1220 ldap is not bound")) << r.LogDump();
    EXPECT_TRUE(r.HasLog(LOG_DEBUG, "acl:1240 domain is not joined")) << r.LogDump();

    // Joined to GHOST only by state: no cache of any domain exists.
    ASSERT_TRUE(root.AddDomain("GHOST")) << root.lastError();
    CallResult none = V2(Scope("{\"type\": \"domain\"}"));
    ASSERT_TRUE(none.success()) << none.Dump();
    EXPECT_EQ(0u, Total(none));
    EXPECT_TRUE(none.HasLog(LOG_ERR, "usergroup-enumerator/domain-enumerator:229 failed to open domain database"))
        << none.LogDump();

    // Another domain has caches, GHOST still has none: GHOST is logged and
    // skipped, the cached domain answers.
    ASSERT_TRUE(JoinDomains(root)) << root.lastError();  // GHOST stays the joined one
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
        ExpectAllBut(r, all, c.lost, c.fault.call);
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
        CallResult r = V2("{\"keyword\": \"" + keyword + "\", \"keywordFields\": {}, \"searchScope\": [{\"type\": "
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

    CallResult r = V2("{\"keyword\": \"e\", \"offset\": 1, \"limit\": 2, \"keywordFields\": {}, "
                        "\"searchScope\": [{\"type\": \"builtin\", \"config\": {\"everyone\": false}}]}");
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ((std::vector<std::string>{"authenticated_user:Authenticated Users", "system:SYSTEM"}), Names(r));
    EXPECT_EQ(3u, Total(r));
}

} // namespace
