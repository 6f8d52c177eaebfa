// Through the shipped module: the method table, the entry layer's parameter
// checks, and the privileged section as processes with various effective
// ids see it.
#include "module-host.h"
#include "platform-fixture.h"

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
using kova_host::LogLine;
using kova_host::ModuleHost;

const std::string kShareLog = "acl:1943 failed to get share name from path";
const int kWarn = LOG_AUTH | LOG_DEBUG;
const int kErr = LOG_AUTH | LOG_ERR;

Json::Value Params(std::initializer_list<std::pair<const char *, Json::Value>> kv) {
    Json::Value p(Json::objectValue);
    for (const auto &e : kv) p[e.first] = e.second;
    return p;
}

Json::Value ValidRule() {
    Json::Value r(Json::objectValue);
    r["owner_type"] = "everyone";
    r["owner_name"] = "Everyone";
    r["permission_type"] = "allow";
    for (const char *k : {"read_data", "write_data", "exe_file", "append_data", "delete", "delete_sub", "read_attr",
                          "write_attr", "read_ext_attr", "write_ext_attr", "read_perm", "change_perm", "take_ownership"})
        r["permission"][k] = true;
    for (const char *k : {"child_files", "child_folders", "this_folder", "all_descendants"}) r["inherit"][k] = true;
    return r;
}

std::vector<LogLine> Lines(std::initializer_list<LogLine> lines) { return lines; }

bool SameLogs(const std::vector<LogLine> &want, const CallResult &r) {
    if (want.size() != r.logs.size()) return false;
    for (size_t i = 0; i < want.size(); ++i)
        if (want[i].priority != r.logs[i].priority || want[i].text != r.logs[i].text) return false;
    return true;
}

class Entry : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new kova_host::PlatformRoot();
        ASSERT_TRUE(root_->AddUser("alice")) << root_->lastError();
        share_ = root_->AddShare("docs");
        ASSERT_FALSE(share_.empty()) << root_->lastError();
    }
    static void TearDownTestSuite() {
        delete root_;
        root_ = nullptr;
    }
    void SetUp() override { ASSERT_TRUE(host().ok()) << host().error(); }
    static ModuleHost &host() { return ModuleHost::Shared(); }
    static CallOptions AsRoot() {
        CallOptions o;
        o.ids = kova_host::Ids::Root;
        return o;
    }
    // A 403 from the entry layer: the method never ran, so nothing was
    // logged (the methods log the failed share lookup of a path outside
    // every share).
    static void ExpectRejectedAtEntry(const CallResult &r, const std::string &what) {
        ASSERT_TRUE(r.delivered) << what << ": " << r.Dump();
        EXPECT_EQ(403, r.errorCode()) << what << ": " << r.Dump();
        EXPECT_TRUE(r.logs.empty()) << what << ": " << r.Dump();
    }
    static void ExpectMethodRan(const CallResult &r, const std::string &what) {
        ASSERT_TRUE(r.delivered) << what << ": " << r.Dump();
        EXPECT_TRUE(r.HasLog(LOG_ERR, kShareLog)) << what << ": " << r.Dump();
    }
    static kova_host::PlatformRoot *root_;
    static std::string share_;
};
kova_host::PlatformRoot *Entry::root_ = nullptr;
std::string Entry::share_;

TEST_F(Entry, TableHasTheTenMethodsInOrder) {
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
}

TEST_F(Entry, HostDispatchesOnlyTheTableTriples) {
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

TEST_F(Entry, SchemaFailuresAnswer403WithoutRunningTheMethod) {
    const std::string outside = "/nowhere/file";
    ExpectRejectedAtEntry(host().Call("get", Params({{"type", "all"}}), AsRoot()), "get without file_path");
    ExpectRejectedAtEntry(host().Call("get", Params({{"file_path", outside}, {"type", 1}}), AsRoot()), "get type 1");
    ExpectRejectedAtEntry(host().Call("set", Params({{"file_path", outside}}), AsRoot()), "set without change_acl");
    ExpectRejectedAtEntry(host().Call("set", Params({{"file_path", outside}, {"change_acl", true}, {"inherited", true}}), AsRoot()),
                          "set change_acl without rules");
    Json::Value rules(Json::arrayValue);
    rules.append(ValidRule());
    ExpectRejectedAtEntry(host().Call("set", Params({{"file_path", outside}, {"change_acl", true}, {"rules", rules}}), AsRoot()),
                          "set change_acl without inherited");
    ExpectRejectedAtEntry(host().Call("set", Params({{"file_path", outside}, {"change_acl", false}, {"change_acl_owner", true},
                                                     {"acl_owner_type", "user"}}),
                                      AsRoot()),
                          "set change_acl_owner without acl_owner");
    ExpectRejectedAtEntry(host().Call("set", Params({{"file_path", outside}, {"change_acl", "yes"}}), AsRoot()),
                          "set change_acl as a string");
    ExpectRejectedAtEntry(host().Call("status", Params({}), AsRoot()), "status without task_id");
    ExpectRejectedAtEntry(host().Call("stop", Params({{"task_id", 3}}), AsRoot()), "stop task_id 3");
    ExpectRejectedAtEntry(host().Call("list_owners", Params({{"offset", "10"}}), AsRoot()), "list_owners offset text");
    ExpectRejectedAtEntry(host().Call(kova_host::kApi, 2, "list_owners", Params({{"searchScope", Json::Value(Json::arrayValue)}}), AsRoot()),
                          "list_owners v2 without keywordFields");
    ExpectRejectedAtEntry(host().Call(kova_host::kApi, 2, "list_owners", Params({{"keywordFields", Json::Value(Json::objectValue)}}), AsRoot()),
                          "list_owners v2 without searchScope");
    ExpectRejectedAtEntry(host().Call("inspect", Params({{"file_path", outside}, {"owner_type", "user"}}), AsRoot()),
                          "inspect without owner_name");
    ExpectRejectedAtEntry(host().Call("check_admin", Params({{"owner_name", "alice"}}), AsRoot()), "check_admin without owner_type");
    ExpectRejectedAtEntry(host().Call("check_self_denied", Params({{"file_path", outside}, {"change_acl", true}}), AsRoot()),
                          "check_self_denied change_acl without rules");
}

TEST_F(Entry, ComputedRequirementsLetTheMethodRun) {
    const std::string outside = "/nowhere/file";
    ExpectMethodRan(host().Call("set", Params({{"file_path", outside}, {"change_acl", false}}), AsRoot()),
                    "set change_acl false without rules");
    ExpectMethodRan(host().Call("set", Params({{"file_path", outside}, {"change_acl", false}, {"change_acl_owner", false}}), AsRoot()),
                    "set change_acl_owner false without acl_owner");
    ExpectMethodRan(host().Call("get", Params({{"file_path", outside}, {"type", "all"}, {"extra", 1}}), AsRoot()),
                    "get with an unlisted parameter");
    CallResult v1 = host().Call("list_owners", Params({}), AsRoot());
    ASSERT_TRUE(v1.delivered) << v1.Dump();
    EXPECT_NE(403, v1.errorCode()) << "version 1 has no mandatory parameter: " << v1.Dump();
}

TEST_F(Entry, InvalidRulesStopTheRequestAtTheFirstBadOne) {
    const std::string outside = "/nowhere/file";
    Json::Value bad = ValidRule();
    bad["permission"]["read_data"] = "true";
    Json::Value rules(Json::arrayValue);
    rules.append(ValidRule());
    rules.append(bad);
    rules.append(ValidRule());
    ExpectRejectedAtEntry(host().Call("check_self_denied", Params({{"file_path", outside}, {"change_acl", false}, {"rules", rules}}), AsRoot()),
                          "check_self_denied, second rule invalid, change_acl false");
    ExpectRejectedAtEntry(host().Call("set", Params({{"file_path", outside}, {"change_acl", true}, {"inherited", false}, {"rules", rules}}),
                                      AsRoot()),
                          "set, second rule invalid");
    Json::Value good(Json::arrayValue);
    good.append(ValidRule());
    good.append(ValidRule());
    ExpectMethodRan(host().Call("check_self_denied", Params({{"file_path", outside}, {"change_acl", true}, {"inherited", true}, {"rules", good}}),
                                AsRoot()),
                    "check_self_denied with valid rules");
}

TEST_F(Entry, UiInfoNeverFailsAtTheEntry) {
    for (const Json::Value &params : {Params({}), Params({{"file_path", 5}, {"type", Json::Value(Json::arrayValue)}})}) {
        CallResult r = host().Call("get_ui_info", params, AsRoot());
        ASSERT_TRUE(r.delivered) << r.Dump();
        EXPECT_TRUE(r.success()) << r.Dump();
    }
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

TEST_F(Privileged, RootChangesNothingAndLogsNothing) {
    CallResult r = CheckAdminAs(AsRoot());
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_TRUE(r.data()["is_admin"].asBool()) << r.Dump();
    EXPECT_TRUE(r.logs.empty()) << r.Dump();
    EXPECT_EQ(0u, r.euidAfter);
    EXPECT_EQ(0u, r.egidAfter);
}

TEST_F(Privileged, AUserProcessRaisesBothIdsAndGetsThemBack) {
    CallOptions o;
    o.user = "alice";
    CallResult r = CheckAdminAs(o);
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_TRUE(r.data()["is_admin"].asBool()) << r.Dump();
    EXPECT_NE(0u, r.euidBefore);
    EXPECT_NE(0u, r.egidBefore);
    EXPECT_TRUE(SameLogs(Lines({{kWarn, "acl:1623 WARNING: setresgid(-1, 0, -1)"},
                                {kWarn, "acl:1623 WARNING: setresuid(-1, 0, -1)"},
                                {kWarn, "acl:1625 WARNING: setresuid(-1, 0, -1)"}}),
                         r))
        << r.Dump();
    EXPECT_EQ(r.euidBefore, r.euidAfter);
    EXPECT_EQ(r.egidBefore, r.egidAfter);
}

TEST_F(Privileged, GroupRootUserNotChangesOnlyTheUid) {
    CallResult r = CheckAdminAs(Explicit(root_->Uid("alice"), 0));
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_TRUE(SameLogs(Lines({{kWarn, "acl:1623 WARNING: setresuid(-1, 0, -1)"},
                                {kWarn, "acl:1625 WARNING: setresuid(-1, 0, -1)"}}),
                         r))
        << r.Dump();
    EXPECT_EQ(static_cast<uid_t>(root_->Uid("alice")), r.euidAfter);
    EXPECT_EQ(0u, r.egidAfter);
}

TEST_F(Privileged, ARefusedGroupChangeIsLoggedAndTheWorkStillRuns) {
    // All three gids are the user's: the group cannot become 0, so ENTER
    // stops after its first step; LEAVE finds nothing changed.
    const uid_t uid = root_->Uid("alice");
    const gid_t gid = 100;
    CallOptions o = Explicit(uid, gid, {gid});
    o.beforeHandler = [uid, gid] {
        if (setresuid(-1, 0, -1) != 0 || setresgid(gid, gid, gid) != 0 || setresuid(-1, uid, -1) != 0) _exit(3);
    };
    CallResult r = CheckAdminAs(o);
    ASSERT_TRUE(r.delivered) << r.Dump();
    EXPECT_TRUE(r.success()) << r.Dump();
    EXPECT_TRUE(SameLogs(Lines({{kErr, "acl:1623 ERROR: setresgid(-1, 0, -1) [Operation not permitted]"},
                                {kErr, "acl:1623 ERROR: ENTERCriticalSection"}}),
                         r))
        << r.Dump();
}

TEST_F(Privileged, ARefusedUidChangeFailsBothBrackets) {
    // Real and saved uid are the user's, the gids stay regainable: ENTER
    // raises the group, fails on the uid; LEAVE cannot put the group back
    // without root.
    const uid_t uid = root_->Uid("alice");
    CallOptions o = Explicit(uid, 100, {100});
    o.beforeHandler = [uid] {
        if (setresuid(uid, uid, uid) != 0) _exit(3);
    };
    CallResult r = CheckAdminAs(o);
    ASSERT_TRUE(r.delivered) << r.Dump();
    EXPECT_TRUE(r.success()) << r.Dump();
    EXPECT_TRUE(SameLogs(Lines({{kWarn, "acl:1623 WARNING: setresgid(-1, 0, -1)"},
                                {kErr, "acl:1623 ERROR: setresuid(-1, 0, -1) [Operation not permitted]"},
                                {kErr, "acl:1623 ERROR: ENTERCriticalSection"},
                                {kErr, "acl:1625 ERROR: setresgid(-1, 100, -1) [Operation not permitted]"},
                                {kErr, "acl:1625 ERROR: LEAVECriticalSection"}}),
                         r))
        << r.Dump();
    EXPECT_EQ(0u, r.egidAfter) << "the group stays raised when it cannot be restored";
}

} // namespace
