// The method table, the entry layer's parameter checks, and the privileged
// section under various effective ids, through the shipped module.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::ModuleHost;

using kova_module_test::AsRoot;
using kova_module_test::kWarn;
using kova_module_test::LogsAre;
using kova_module_test::Params;
using kova_module_test::SetParams;
using kova_module_test::WithOwner;

const std::string kShareLog = "acl:1943 failed to get share name from path";
const int kErr = LOG_AUTH | LOG_ERR;

Json::Value ValidRule() { return kova_module_test::RuleJson("everyone", "Everyone", "allow", "rwxpdDaARWcCo"); }

class Entry : public kova_module_test::SharedRootTest {
protected:
    static void SetUpTestSuite() { NewRootWithDocs({"alice"}); }
};

TEST_F(Entry, TableHasTheTenMethodsInOrderAndOnlyTheyAreDispatched) {
    const struct {
        int version;
        const char *method;
    } want[] = {{1, "get"},         {1, "set"},     {1, "status"},      {1, "stop"},
                {1, "list_owners"}, {2, "list_owners"}, {1, "inspect"}, {1, "check_admin"},
                {1, "check_self_denied"}, {1, "get_ui_info"}};
    const KOVA_API_ENTRY *row = host().table();
    ASSERT_NE(nullptr, row);
    for (const auto &w : want) {
        ASSERT_NE(nullptr, row->szAPI);
        EXPECT_STREQ("KOVA.Core.ACL", row->szAPI);
        EXPECT_EQ(w.version, row->version);
        EXPECT_STREQ(w.method, row->szMethod);
        EXPECT_NE(nullptr, row->handler);
        ++row;
    }
    EXPECT_EQ(nullptr, row->szAPI);
    EXPECT_EQ(nullptr, row->szMethod);
    EXPECT_EQ(nullptr, row->handler);
    EXPECT_EQ(0, row->version);
    EXPECT_EQ(nullptr, host().Find("KOVA.Core.ACL", 2, "get"));
    // The host dispatches only those triples.
    for (const auto &triple : {std::make_tuple("KOVA.Core.ACL", 3, "get"), std::make_tuple("KOVA.Core.ACLX", 1, "get"),
                               std::make_tuple("KOVA.Core.ACL", 1, "Get")}) {
        CallResult r = host().Call(std::get<0>(triple), std::get<1>(triple), std::get<2>(triple), Params({}), AsRoot());
        EXPECT_FALSE(r.delivered) << r.Dump();
        EXPECT_NE(std::string::npos, r.hostError.find("no handler")) << r.hostError;
    }
    ModuleHost missing("/nonexistent/libwebapi-KOVA.Core.ACL.so");
    EXPECT_FALSE(missing.ok());
    EXPECT_FALSE(missing.Call("get", Params({}), AsRoot()).delivered);
}

__attribute__((noinline)) void LoseMemory() {
    for (int i = 0; i < 100; ++i) {
        void *volatile p = std::malloc(1024);
        (void)p;
    }
}

TEST_F(Entry, HostReportsMemoryLostDuringACall) {
    if (!kova_host::LeakCheckActive()) GTEST_SKIP() << "leak checks run in sanitizer builds only";
    CallOptions o = AsRoot();
    o.beforeHandler = [] { LoseMemory(); };
    CallResult r = host().Call("get_ui_info", Params({}), o);
    EXPECT_FALSE(r.delivered);
    EXPECT_NE(std::string::npos, r.hostError.find("leaked")) << r.Dump();
    EXPECT_TRUE(host().Call("get_ui_info", Params({}), AsRoot()).delivered);
}

// A rejected request never reaches its method; one let through logs the
// failed share lookup of its path outside every share.
TEST_F(Entry, ParameterChecksRejectOrPassEachRequest) {
    const std::string outside = "/nowhere/file";
    Json::Value bad = ValidRule();
    bad["permission"]["read_data"] = "true";
    const Json::Value one = kova_module_test::Array({ValidRule()});
    const Json::Value two = kova_module_test::Array({ValidRule(), ValidRule()});
    const Json::Value secondBad = kova_module_test::Array({ValidRule(), bad, ValidRule()});
    const bool rejected = true, runs = false;
    const struct {
        int version;
        const char *method;
        Json::Value params;
        bool rejected;
        const char *what;
    } cases[] = {
        {1, "get", Params({{"type", "all"}}), rejected, "get without file_path"},
        {1, "get", Params({{"file_path", outside}, {"type", 1}}), rejected, "get type 1"},
        {1, "set", Params({{"file_path", outside}}), rejected, "set without change_acl"},
        {1, "set", Params({{"file_path", outside}, {"change_acl", true}, {"inherited", true}}), rejected,
         "set change_acl without rules"},
        {1, "set", Params({{"file_path", outside}, {"change_acl", true}, {"rules", one}}), rejected,
         "set change_acl without inherited"},
        {1, "set",
         Params({{"file_path", outside}, {"change_acl", false}, {"change_acl_owner", true}, {"acl_owner_type", "user"}}),
         rejected, "set change_acl_owner without acl_owner"},
        {1, "set", Params({{"file_path", outside}, {"change_acl", "yes"}}), rejected, "set change_acl as a string"},
        {1, "status", Params({}), rejected, "status without task_id"},
        {1, "stop", Params({{"task_id", 3}}), rejected, "stop task_id 3"},
        {1, "list_owners", Params({{"offset", "10"}}), rejected, "list_owners offset text"},
        {2, "list_owners", Params({{"searchScope", Json::Value(Json::arrayValue)}}), rejected,
         "list_owners v2 without keywordFields"},
        {2, "list_owners", Params({{"keywordFields", Json::Value(Json::objectValue)}}), rejected,
         "list_owners v2 without searchScope"},
        {1, "inspect", Params({{"file_path", outside}, {"owner_type", "user"}}), rejected, "inspect without owner_name"},
        {1, "check_admin", Params({{"owner_name", "alice"}}), rejected, "check_admin without owner_type"},
        {1, "check_self_denied", Params({{"file_path", outside}, {"change_acl", true}}), rejected,
         "check_self_denied change_acl without rules"},
        // Rules are checked one by one up to the first bad one, even when
        // change_acl says they will not be used.
        {1, "check_self_denied", Params({{"file_path", outside}, {"change_acl", false}, {"rules", secondBad}}),
         rejected, "check_self_denied, second rule invalid, change_acl false"},
        {1, "set", Params({{"file_path", outside}, {"change_acl", true}, {"inherited", false}, {"rules", secondBad}}),
         rejected, "set, second rule invalid"},
        {1, "check_self_denied",
         Params({{"file_path", outside}, {"change_acl", true}, {"inherited", true}, {"rules", two}}), runs,
         "check_self_denied with valid rules"},
        // Requirements computed from other parameters.
        {1, "set", Params({{"file_path", outside}, {"change_acl", false}}), runs, "set change_acl false without rules"},
        {1, "set", Params({{"file_path", outside}, {"change_acl", false}, {"change_acl_owner", false}}), runs,
         "set change_acl_owner false without acl_owner"},
        {1, "get", Params({{"file_path", outside}, {"type", "all"}, {"extra", 1}}), runs, "get with an unlisted parameter"},
    };
    for (const auto &c : cases) {
        const CallResult r = host().Call(kova_host::kApi, c.version, c.method, c.params, AsRoot());
        ASSERT_TRUE(r.delivered) << c.what << ": " << r.Dump();
        if (c.rejected) {
            EXPECT_EQ(403, r.errorCode()) << c.what << ": " << r.Dump();
            EXPECT_TRUE(r.logs.empty()) << c.what << ": " << r.Dump();
        } else {
            EXPECT_TRUE(r.HasLog(LOG_ERR, kShareLog)) << c.what << ": " << r.Dump();
        }
    }
    // Each way a rule object can be malformed refuses the whole request.
    std::vector<std::pair<const char *, Json::Value>> badRules;
    auto variant = [&](const char *what, const char *key, const char *sub, const Json::Value &value) {
        Json::Value r = ValidRule();
        Json::Value &at = sub ? r[key][sub] : r[key];
        if (value.isNull()) sub ? r[key].removeMember(sub) : r.removeMember(key);
        else at = value;
        badRules.emplace_back(what, r);
    };
    for (const char *key : {"owner_type", "owner_name", "permission_type", "permission", "inherit"})
        variant(key, key, nullptr, Json::Value());
    variant("owner types are case-sensitive", "owner_type", nullptr, "Everyone");
    variant("unknown owner type", "owner_type", nullptr, "admin");
    variant("empty name", "owner_name", nullptr, "");
    variant("non-string name", "owner_name", nullptr, 5);
    variant("access is case-sensitive", "permission_type", nullptr, "Allow");
    variant("permission as an array", "permission", nullptr, Json::Value(Json::arrayValue));
    variant("permission without take_ownership", "permission", "take_ownership", Json::Value());
    variant("inherit flag as a number", "inherit", "this_folder", 1);
    variant("inherit without child_files", "inherit", "child_files", Json::Value());
    badRules.emplace_back("a rule that is a string", Json::Value("everyone:Everyone"));
    for (const auto &badRule : badRules) {
        const CallResult r = host().Call(
            "set", Params({{"file_path", outside}, {"change_acl", true}, {"inherited", false}, {"rules", kova_module_test::Array({badRule.second})}}),
            AsRoot());
        EXPECT_EQ(403, r.errorCode()) << badRule.first << ": " << r.Dump();
        EXPECT_TRUE(r.logs.empty()) << badRule.first << ": " << r.Dump();
    }

    CallResult v1 = host().Call("list_owners", Params({}), AsRoot());
    ASSERT_TRUE(v1.delivered) << v1.Dump();
    EXPECT_NE(403, v1.errorCode()) << "version 1 has no mandatory parameter: " << v1.Dump();
    // get_ui_info never fails at the entry, whatever it is given.
    for (const Json::Value &params : {Params({}), Params({{"file_path", 5}, {"type", Json::Value(Json::arrayValue)}})}) {
        CallResult r = host().Call("get_ui_info", params, AsRoot());
        EXPECT_TRUE(r.success()) << r.Dump();
    }
}

// A NUL byte or invalid UTF-8 anywhere in a request is a bad parameter that
// nothing acts on ("<share>/alice\0/../bob" was once judged as ".../alice").
TEST_F(Entry, TextWithNulOrInvalidUtf8IsRefusedBeforeAnythingRuns) {
    const std::string alice = share_ + "/alice", bob = share_ + "/bob";
    ASSERT_TRUE(root_->MakeDir(alice, 0777));
    ASSERT_TRUE(root_->MakeDir(bob, 0777));
    ASSERT_TRUE(root_->SetAcl(alice, {"user:alice:allow:rwxpdDaARWcCo:fd--"}, false)) << root_->lastError();
    const std::string nulPath = alice + std::string("\0/../bob", 8);
    const Json::Value nulName(std::string("alice\0x", 7));
    const Json::Value badUtf8("ali\xc3(ce");  // a lead byte without its continuation
    const Json::Value overlong("\xc0\xaf");     // "/" in an overlong form
    Json::Value nulRule = ValidRule();
    nulRule["owner_type"] = "user";
    nulRule["owner_name"] = nulName;
    Json::Value nulKey(Json::objectValue);
    nulKey[std::string("name\0", 5)] = true;
    const Json::Value scope = kova_module_test::Parse("[{\"type\": \"local\"}]");
    Json::Value nestedScope = kova_module_test::Parse("[{\"type\": \"local\", \"config\": {}}]");
    nestedScope[0]["config"]["name"] = badUtf8;
    const Json::Value fields = kova_module_test::Parse("{\"name\": true}");
    const Json::Value one = kova_module_test::Array({ValidRule()});

    const struct {
        int version;
        const char *method;
        Json::Value params;
        const char *what;
    } cases[] = {
        {1, "get", Params({{"file_path", nulPath}, {"type", "all"}}), "get, NUL in the path"},
        {1, "get", Params({{"file_path", alice}, {"type", std::string("all\0x", 5)}}), "get, NUL in the type"},
        {1, "get", Params({{"file_path", alice + "/\xff"}, {"type", "all"}}), "get, a byte that is never UTF-8"},
        {1, "set", SetParams(nulPath, "/docs/alice"), "set, NUL in the path"},
        {1, "set", SetParams(bob, std::string("/docs/bob\0", 10)), "set, NUL in a parameter outside the schema"},
        {1, "set", SetParams(bob, "/docs/bob", kova_module_test::Array({nulRule})), "set, NUL in a rule's owner name"},
        {1, "set", WithOwner(SetParams(bob, "/docs/bob"), "user", nulName.asString()), "set, NUL in the new owner"},
        {1, "inspect", Params({{"file_path", nulPath}, {"owner_type", "user"}, {"owner_name", "alice"}}),
         "inspect, NUL in the path"},
        {1, "inspect", Params({{"file_path", alice}, {"owner_type", "user"}, {"owner_name", overlong}}),
         "inspect, overlong UTF-8 in the name"},
        {1, "check_self_denied",
         Params({{"file_path", nulPath}, {"change_acl", true}, {"inherited", false}, {"rules", one}}),
         "check_self_denied, NUL in the path"},
        {1, "check_admin", Params({{"owner_type", "user"}, {"owner_name", nulName}}), "check_admin, NUL in the name"},
        {1, "status", Params({{"task_id", std::string("setacl\0x", 8)}}), "status, NUL in the task id"},
        {1, "stop", Params({{"task_id", badUtf8}}), "stop, invalid UTF-8 in the task id"},
        {1, "list_owners", Params({{"prefix", nulName}}), "list_owners, NUL in the prefix"},
        {2, "list_owners", Params({{"keyword", nulName}, {"keywordFields", fields}, {"searchScope", scope}}),
         "list_owners v2, NUL in the keyword"},
        {2, "list_owners", Params({{"keyword", badUtf8}, {"keywordFields", fields}, {"searchScope", scope}}),
         "list_owners v2, invalid UTF-8 in the keyword"},
        {2, "list_owners", Params({{"keywordFields", nulKey}, {"searchScope", scope}}),
         "list_owners v2, NUL in a member name of the keyword fields"},
        {2, "list_owners", Params({{"keywordFields", fields}, {"searchScope", nestedScope}}),
         "list_owners v2, invalid UTF-8 in a source's config"},
    };
    for (const auto &c : cases) {
        const CallResult r = host().Call(kova_host::kApi, c.version, c.method, c.params, kova_module_test::As("alice"));
        ASSERT_TRUE(r.delivered) << c.what << ": " << r.Dump();
        EXPECT_EQ(403, r.errorCode()) << c.what << ": " << r.Dump();
        EXPECT_TRUE(r.response["error"]["data"].isNull()) << c.what << ": " << r.Dump();
        EXPECT_TRUE(r.logs.empty()) << c.what << ": " << r.Dump();
    }
    // Nothing was started that could change alice's folder later.
    usleep(200 * 1000);
    const kova_module_test::StoredAcl kept = kova_module_test::ReadStored(alice);
    EXPECT_EQ(1u, kept.entries.size());
    EXPECT_EQ(0, kept.inherited);
    EXPECT_EQ(-1, kova_module_test::StoredCount(bob));
    // The same requests with clean text are served.
    CallResult clean = host().Call("get", Params({{"file_path", bob}, {"type", "all"}}), kova_module_test::As("alice"));
    EXPECT_TRUE(clean.success()) << clean.Dump();
}

// User text reaches the system log escaped: a newline cannot end a line
// early and start a forged one, and a backslash cannot fake an escape.
TEST_F(Entry, UserTextInLogLinesIsEscaped) {
    const std::string dir = share_ + "/evil\nacl:765 forged\\x0A";
    ASSERT_TRUE(root_->MakeDir(dir, 0777));
    const std::string escapedDir = share_ + "/evil\\x0Aacl:765 forged\\\\x0A";
    CallResult fsType = host().Call(
        "set", Params({{"file_path", dir}, {"change_acl", false}}),
        kova_module_test::AsRoot("admin", {kova_host::Fault{"KOVAGetFSType", 0, -1, 0x0800}}));
    ASSERT_EQ(6200, fsType.errorCode()) << fsType.Dump();
    ASSERT_EQ(1u, fsType.logs.size()) << fsType.Dump();
    EXPECT_EQ(0u, fsType.logs[0].text.find("acl:765 Failed to get the file system statistics of '" + escapedDir + "'"))
        << fsType.Dump();

    CallResult name = host().Call(
        "inspect", Params({{"file_path", share_}, {"owner_type", "user"}, {"owner_name", "ghost\r\nacl:1 x\x1b[2K\x7f"}}),
        AsRoot());
    ASSERT_EQ(6211, name.errorCode()) << name.Dump();
    ASSERT_FALSE(name.logs.empty()) << name.Dump();
    EXPECT_EQ(0u, name.logs[0].text.find("acl:130 Failed to get user 'ghost\\x0D\\x0Aacl:1 x\\x1B[2K\\x7F' [0x"))
        << name.Dump();

    // A C1 control (U+0085, a line break to some readers) and ordinary
    // non-ASCII text.
    CallResult task = host().Call("status", Params({{"task_id", "t\xc2\x85\xc3\xa9"}}), AsRoot());
    ASSERT_EQ(117, task.errorCode()) << task.Dump();
    EXPECT_TRUE(task.HasLog(LOG_ERR, "acl:940 Internal error task_id=t\\xC2\\x85\xc3\xa9")) << task.Dump();

    for (const CallResult *r : {&fsType, &name, &task})
        for (const auto &line : r->logs)
            for (unsigned char c : line.text) EXPECT_TRUE(c >= 0x20 && c != 0x7f) << line.text;
}

// ---- privileged section ------------------------------------------------
// check_admin for a user brackets its membership query at lines 1623/1625.

class Privileged : public Entry {
protected:
    static CallResult CheckAdminAs(const CallOptions &options) {
        return host().Call("check_admin", Params({{"owner_type", "user"}, {"owner_name", "admin"}}), options);
    }
    static CallOptions Explicit(uid_t uid, gid_t gid, std::vector<gid_t> groups = {}) {
        CallOptions o;
        o.user = "alice";
        o.ids = kova_host::Ids::Explicit;
        o.uid = uid;
        o.gid = gid;
        o.groups = groups;
        return o;
    }
};

// A refused group change stops ENTER after its first step and LEAVE finds
// nothing changed; a refused uid change fails both, and without root the
// raised group cannot be put back. The work runs either way.
TEST_F(Privileged, OnlyIdsThatAreNotRootAreRaisedAndRefusalsAreLogged) {
    const uid_t alice = root_->Uid("alice");
    CallOptions groupRefused = Explicit(alice, 100, {100}), uidRefused = Explicit(alice, 100, {100});
    groupRefused.beforeHandler = [=] {  // all three gids are the user's
        if (setresuid(-1, 0, -1) != 0 || setresgid(100, 100, 100) != 0 || setresuid(-1, alice, -1) != 0) _exit(3);
    };
    uidRefused.beforeHandler = [=] {  // real and saved uid are the user's
        if (setresuid(alice, alice, alice) != 0) _exit(3);
    };
    const struct {
        const char *what;
        CallOptions options;
        std::vector<kova_host::LogLine> logs;
        uid_t euid;
        bool rootGroupBefore, rootGroupAfter, admin;  // admin: the membership query could run
    } cases[] = {
        {"root", AsRoot(), {}, 0, true, true, true},
        {"alice", kova_module_test::As("alice"), kova_module_test::Bracket(1623, 1625), alice, false, false, true},
        {"alice with gid 0", Explicit(alice, 0),
         {{kWarn, "acl:1623 WARNING: setresuid(-1, 0, -1)"}, {kWarn, "acl:1625 WARNING: setresuid(-1, 0, -1)"}}, alice,
         true, true, true},
        {"group change refused", groupRefused,
         {{kErr, "acl:1623 ERROR: setresgid(-1, 0, -1) [Operation not permitted]"},
          {kErr, "acl:1623 ERROR: ENTERCriticalSection"}},
         alice, false, false, true},
        {"uid change refused", uidRefused,
         {{kWarn, "acl:1623 WARNING: setresgid(-1, 0, -1)"},
          {kErr, "acl:1623 ERROR: setresuid(-1, 0, -1) [Operation not permitted]"},
          {kErr, "acl:1623 ERROR: ENTERCriticalSection"},
          {kErr, "acl:1625 ERROR: setresgid(-1, 100, -1) [Operation not permitted]"},
          {kErr, "acl:1625 ERROR: LEAVECriticalSection"}},
         alice, false, true, false},
    };
    for (const auto &c : cases) {
        CallResult r = CheckAdminAs(c.options);
        ASSERT_TRUE(r.success()) << c.what << ": " << r.Dump();
        EXPECT_EQ(c.admin, r.data()["is_admin"].asBool()) << c.what << ": " << r.Dump();
        EXPECT_TRUE(LogsAre(c.logs, r)) << c.what;
        EXPECT_EQ(c.euid, r.euidBefore) << c.what;
        EXPECT_EQ(c.euid, r.euidAfter) << c.what;
        EXPECT_EQ(c.rootGroupBefore, r.egidBefore == 0) << c.what;
        EXPECT_EQ(c.rootGroupAfter, r.egidAfter == 0) << c.what;
    }
}

} // namespace
