// check_admin and get_ui_info through the shipped module.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <memory>
#include <string>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;
using kova_host::ModuleHost;

using kova_module_test::Array;
using kova_module_test::Bracket;
using kova_module_test::LogsAre;

class AdminCheck : public kova_module_test::SharedRootTest {
protected:
    static void SetUpTestSuite() {
        kova_host::PlatformRoot &p = NewRoot();
        // "bossy" and "administrator" extend an administrator's name, or the
        // administrators group's, without being either.
        for (const char *user : {"alice", "boss", "bossy"}) ASSERT_TRUE(p.AddUser(user)) << p.lastError();
        ASSERT_TRUE(p.MakeAdmin("boss")) << p.lastError();
        for (const char *group : {"staff", "administrator"}) ASSERT_TRUE(p.AddGroup(group)) << p.lastError();
    }
    static CallResult Check(const std::string &type, const std::string &name, std::vector<Fault> faults = {}) {
        const Json::Value params = kova_module_test::Params({{"owner_type", type}, {"owner_name", name}});
        return ModuleHost::Shared().Call("check_admin", params, kova_module_test::As("alice", std::move(faults)));
    }
};

TEST_F(AdminCheck, UsersAndGroups) {
    const struct {
        const char *type;
        const char *name;
        bool admin;
    } cases[] = {
        {"user", "admin", true},   {"user", "boss", true},        {"user", "alice", false},
        {"user", "ghost", false},  {"group", "administrators", true}, {"group", "staff", false},
        {"group", "ghosts", false}, {"User", "admin", false},     {"GROUP", "administrators", false},
        {"everyone", "administrators", false}, {"system", "admin", false}, {"owner", "admin", false},
        // A name is one account, never the first of those it begins.
        {"user", "bossy", false},  {"user", "bos", false},         {"group", "administrator", false},
        {"group", "admin", false},
    };
    for (const auto &c : cases) {
        CallResult r = Check(c.type, c.name);
        ASSERT_TRUE(r.success()) << c.type << " " << c.name << ": " << r.Dump();
        EXPECT_EQ(c.admin, r.data()["is_admin"].asBool()) << c.type << " " << c.name;
        EXPECT_EQ(1u, r.data().size());
        // Only a user's membership query runs in the privileged section.
        const bool user = std::string(c.type) == "user";
        EXPECT_TRUE(LogsAre(user ? Bracket(1623, 1625) : std::vector<kova_host::LogLine>{}, r)) << c.type;
    }
}

TEST_F(AdminCheck, EmptyNameIs403AndOnlyAnExactOneCounts) {
    CallResult empty = Check("user", "");
    EXPECT_EQ(403, empty.errorCode()) << empty.Dump();
    EXPECT_TRUE(empty.logs.empty());
    EXPECT_TRUE(empty.response["error"]["data"].isNull());

    // Answers other than 1 (errors included) are "not an administrator".
    for (long answer : {2L, -1L, 0L}) {
        CallResult u = Check("user", "admin", {Fault{"KLIBGroupIsAdminGroupMem", 0, answer, 0x0800}});
        ASSERT_TRUE(u.success()) << u.Dump();
        EXPECT_FALSE(u.data()["is_admin"].asBool()) << answer;
        CallResult g = Check("group", "administrators", {Fault{"KOVAGroupIsAdminGroup", 0, answer, 0x0800}});
        ASSERT_TRUE(g.success()) << g.Dump();
        EXPECT_FALSE(g.data()["is_admin"].asBool()) << answer;
    }
}

// ---- get_ui_info: each test gets its own root, so domain state is fresh.

class UiInfo : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ModuleHost::Shared().ok()) << ModuleHost::Shared().error();
        root_.reset(new kova_host::PlatformRoot());
        ASSERT_TRUE(root_->AddUser("alice")) << root_->lastError();
    }
    void TearDown() override { root_.reset(); }
    CallResult Info(std::vector<Fault> faults = {}, bool asRoot = true) {
        const CallOptions o = asRoot ? kova_module_test::AsRoot("alice", std::move(faults))
                                     : kova_module_test::As("alice", std::move(faults));
        return ModuleHost::Shared().Call("get_ui_info", Json::Value(Json::objectValue), o);
    }
    static Json::Value Item(const std::string &name, const std::string &detail) {
        Json::Value i(Json::objectValue);
        i["name"] = name;
        i["detail"] = detail;
        return i;
    }
    static Json::Value Answer(const std::string &type, const Json::Value &items) {
        Json::Value a(Json::objectValue);
        a["directoryServiceInfo"]["type"] = type;
        a["directoryServiceInfo"]["items"] = items;
        return a;
    }
    void JoinWithTrust(bool trusted) {
        ASSERT_TRUE(root_->AddDomain("CORP")) << root_->lastError();
        ASSERT_TRUE(root_->AddDomain("PARTNER.EXAMPLE")) << root_->lastError();
        ASSERT_TRUE(root_->SetDomainFlag("joined", true)) << root_->lastError();
        ASSERT_TRUE(root_->SetDomainFlag("trusted", trusted)) << root_->lastError();
    }
    std::unique_ptr<kova_host::PlatformRoot> root_;
};

TEST_F(UiInfo, DomainListFollowsTheJoinState) {
    CallResult none = Info();
    ASSERT_TRUE(none.success()) << none.Dump();
    EXPECT_EQ(Answer("none", Json::Value(Json::arrayValue)), none.data());
    EXPECT_TRUE(none.logs.empty()) << none.Dump();

    // Trusted domains are listed by name.
    JoinWithTrust(true);
    CallResult trusted = Info();
    ASSERT_TRUE(trusted.success()) << trusted.Dump();
    EXPECT_EQ(Answer("domain:domain", Array({Item("CORP", "CORP"), Item("PARTNER.EXAMPLE", "PARTNER.EXAMPLE")})),
              trusted.data());
    EXPECT_TRUE(trusted.logs.empty()) << trusted.Dump();

    // An unreachable directory (0xE500) is an expected state: no log.
    ASSERT_TRUE(root_->SetDomainFlag("reachable", false)) << root_->lastError();
    CallResult unreachable = Info();
    ASSERT_TRUE(unreachable.success()) << unreachable.Dump();
    EXPECT_EQ("domain:domain", unreachable.data()["directoryServiceInfo"]["type"].asString());
    EXPECT_TRUE(unreachable.logs.empty()) << unreachable.Dump();
}

TEST_F(UiInfo, DomainListFailures) {
    JoinWithTrust(true);
    CallResult r = Info({Fault{"KOVAWinsEnumAllDomains", 0, -1, 0x0800}});
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(Answer("domain:domain", Json::Value(Json::arrayValue)), r.data());
    ASSERT_EQ(1u, r.logs.size()) << r.Dump();
    EXPECT_TRUE(kova_module_test::LogStartsWith(r, LOG_ERR, "acl:1967 failed to get the domain list, kovaerr=[0x0800 "))
        << r.Dump();
    EXPECT_EQ(']', r.logs[0].text.back());

    // The list itself cannot be allocated.
    CallResult noMemory = Info({Fault{"KLIBCSzListAlloc", 1, 0, 0x0700}});
    EXPECT_EQ(2617, noMemory.errorCode()) << noMemory.Dump();
    EXPECT_TRUE(LogsAre({{LOG_ERR, "acl:1958 out of memory"}}, noMemory));

    // With our own domain controller a failed enumeration is not logged.
    ASSERT_TRUE(root_->SetDomainFlag("own-dc", true)) << root_->lastError();
    CallResult own = Info({Fault{"KOVAWinsEnumAllDomains", 0, -1, 0x0800}});
    ASSERT_TRUE(own.success()) << own.Dump();
    EXPECT_TRUE(own.logs.empty()) << own.Dump();
}

TEST_F(UiInfo, OrganisationalUnitsWithAndWithoutDetailsAndTheirFailures) {
    JoinWithTrust(false);
    ASSERT_TRUE(root_->AddOu("Sales", "OU=Sales,DC=corp")) << root_->lastError();
    ASSERT_TRUE(root_->AddOu("Lab", "")) << root_->lastError();
    const Json::Value items = Array({Item("Sales", "OU=Sales,DC=corp"), Item("Lab", "")});

    CallResult r = Info();
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(Answer("domain:ou", items), r.data());
    EXPECT_TRUE(r.logs.empty()) << r.Dump();

    // A user process raises its ids around the enumeration.
    CallResult user = Info({}, false);
    ASSERT_TRUE(user.success()) << user.Dump();
    EXPECT_EQ(Answer("domain:ou", items), user.data());
    EXPECT_TRUE(LogsAre(Bracket(2004, 2009), user));

    CallResult enumFails = Info({Fault{"KOVAWinsEnumOU", 0, -1, 0x0800}});
    ASSERT_TRUE(enumFails.success()) << enumFails.Dump();
    EXPECT_EQ(Answer("domain:ou", Json::Value(Json::arrayValue)), enumFails.data());
    EXPECT_TRUE(LogsAre({{LOG_ERR, "acl:2007 failed to get ou"}}, enumFails));
    const struct {
        int nth;
        const char *log;
    } allocs[] = {{1, "acl:1996 out of memory"}, {2, "acl:2000 out of memory"}};
    for (const auto &a : allocs) {
        CallResult failed = Info({Fault{"KLIBCSzListAlloc", a.nth, 0, 0x0700}});
        EXPECT_EQ(2617, failed.errorCode()) << failed.Dump();
        EXPECT_TRUE(LogsAre({{LOG_ERR, a.log}}, failed));
    }
}

} // namespace
