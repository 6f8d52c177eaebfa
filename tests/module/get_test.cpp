// get through the host on real files: ACL and mode-only paths, inherited
// entries, administrators and other users, every error code.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include <gtest/gtest.h>
#include <syslog.h>

#include <set>
#include <string>
#include <vector>

namespace {

using kova_host::CallResult;
using kova_host::Fault;
using kova_host::ModuleHost;

using kova_module_test::Bracket;
using kova_module_test::Join;
using kova_module_test::kPermKeys;
using kova_module_test::LogsAre;

const char kAll[] = "rwxpdDaARWcCo";

// The rule object a client should see, written from letters independently
// of the module's tables.
Json::Value ExpectedRule(const std::string &type, const std::string &name, const std::string &access,
                         const std::string &perm, const std::string &inherit, unsigned level, bool internal = false) {
    Json::Value r = kova_module_test::RuleJson(type, name, access, perm, inherit);
    if (internal) r["owner_is_internal"] = true;
    r["level"] = static_cast<Json::Int>(level);  // numbers read back from JSON text are signed
    return r;
}

// The owner names of the rules from index `from` on, each checked to be
// inherited from the parent (level 1).
std::set<std::string> InheritedNames(const Json::Value &acl, Json::ArrayIndex from) {
    std::set<std::string> names;
    for (Json::ArrayIndex i = from; i < acl.size(); ++i) {
        EXPECT_EQ(1u, acl[i]["level"].asUInt()) << acl[i];
        names.insert(acl[i]["owner_name"].asString());
    }
    return names;
}

std::vector<std::string> OwnerNames(const Json::Value &acl) {
    std::vector<std::string> names;
    for (const auto &rule : acl) names.push_back(rule["owner_name"].asString());
    return names;
}

class Get : public kova_module_test::SharedRootTest {
protected:
    static void SetUpTestSuite() {
        ASSERT_NO_FATAL_FAILURE(NewRootWithDocs({"alice", "bob", "dave", "carol"}));
        kova_host::PlatformRoot &p = *root_;
        ASSERT_TRUE(p.AddUser("svc", 300, true)) << p.lastError();
        ASSERT_TRUE(p.AddGroup("staff")) << p.lastError();
        ASSERT_TRUE(p.AddGroup("oldgrp")) << p.lastError();
        ASSERT_TRUE(p.AddMember("staff", "alice")) << p.lastError();

        ASSERT_TRUE(p.MakeDir(share_ + "/project"));
        ASSERT_TRUE(p.SetAcl(share_ + "/project",
                             {"user:alice:allow:rwxpdDaARWcCo:fd--", "group:staff:deny:-w-----------:----",
                              "everyone:-:allow:r---------c--:f---", "user:carol:allow:r------------:fd--",
                              "group:oldgrp:allow:r------------:----", "user:svc:allow:r------------:----",
                              "authenticated_user:-:allow:--------R----:---n", "system:-:allow:rwxpdDaARWcCo:fd--",
                              "owner:-:allow:rwxpdDaARWcCo:fdi-"},
                             false))
            << p.lastError();
        ASSERT_TRUE(p.MakeFile(share_ + "/project/report.txt", "text"));
        ASSERT_TRUE(p.SetAcl(share_ + "/project/report.txt", {"user:bob:allow:r------------:----"}, true)) << p.lastError();

        ASSERT_TRUE(p.MakeDir(share_ + "/private"));
        ASSERT_TRUE(p.SetAcl(share_ + "/private", {"user:alice:allow:rwxpdDaARWcCo:fd--"}, false)) << p.lastError();
        ASSERT_TRUE(p.MakeFile(share_ + "/private/inner.txt", "x"));
        ASSERT_TRUE(p.SetAcl(share_ + "/private/inner.txt", {"user:alice:allow:r------------:----"}, true)) << p.lastError();

        ASSERT_TRUE(p.MakeDir(share_ + "/orphans"));
        ASSERT_TRUE(p.SetAcl(share_ + "/orphans",
                             {"user:carol:allow:rwxpdDaARWcCo:fd--", "group:oldgrp:allow:r------------:fd--"}, false))
            << p.lastError();

        ASSERT_TRUE(p.MakeFile(share_ + "/plain.txt", "plain", 0640, p.Uid("alice"), p.Gid("staff")));

        // Principals that disappear after the ACLs naming them were written.
        ASSERT_TRUE(p.DeleteUser("carol")) << p.lastError();
        ASSERT_TRUE(p.DeleteGroup("oldgrp")) << p.lastError();
    }
    static CallResult Call(const std::string &user, const std::string &rel, const std::string &type,
                           std::vector<Fault> faults = {}) {
        const std::string path = rel.empty() || rel[0] == '/' ? rel : share_ + "/" + rel;
        return ModuleHost::Shared().Call("get", kova_module_test::Params({{"file_path", path}, {"type", type}}),
                                         kova_module_test::As(user, std::move(faults)));
    }
};

TEST_F(Get, AdministratorReadsEveryNameableEntry) {
    CallResult r = Call("admin", "project", "all");
    ASSERT_TRUE(r.success()) << r.Dump();
    const Json::Value &d = r.data();
    EXPECT_TRUE(d["is_acl"].asBool());
    EXPECT_FALSE(d["is_inherited"].asBool());
    EXPECT_TRUE(d["change_permission"].asBool());
    EXPECT_TRUE(d["acl_editable"].asBool());

    // carol and oldgrp no longer exist: their entries are skipped. An entry
    // without inheritance flags reads as "---n".
    const Json::Value want = kova_module_test::Array({
        ExpectedRule("user", "alice", "allow", kAll, "fd--", 0),
        ExpectedRule("group", "staff", "deny", "-w-----------", "---n", 0),
        ExpectedRule("everyone", "Everyone", "allow", "r---------c--", "f---", 0),
        ExpectedRule("user", "svc", "allow", "r------------", "---n", 0, true),
        ExpectedRule("authenticated_user", "Authenticated Users", "allow", "--------R----", "---n", 0),
        ExpectedRule("system", "SYSTEM", "allow", kAll, "fd--", 0),
        ExpectedRule("owner", "Owner", "allow", kAll, "fdi-", 0),
    });
    EXPECT_EQ(want, d["acl"]) << r.Dump();
    EXPECT_TRUE(LogsAre(Join({Bracket(210, 212), Bracket(239, 241)}), r));

    // Entries of deleted principals only: an empty list, still an ACL.
    CallResult orphans = Call("admin", "orphans", "all");
    ASSERT_TRUE(orphans.success()) << orphans.Dump();
    EXPECT_TRUE(orphans.data()["is_acl"].asBool());
    EXPECT_EQ(Json::Value(Json::arrayValue), orphans.data()["acl"]);
}

// report.txt inherits: "all" lists its own entry then what reaches it;
// "inherite" only the latter and never reads as an ACL.
TEST_F(Get, OwnAndInheritedEntriesOfAnInheritingFile) {
    CallResult r = Call("admin", "project/report.txt", "all");
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_TRUE(r.data()["is_acl"].asBool());
    EXPECT_TRUE(r.data()["is_inherited"].asBool());
    const Json::Value &acl = r.data()["acl"];
    ASSERT_GE(acl.size(), 2u) << r.Dump();
    EXPECT_EQ(ExpectedRule("user", "bob", "allow", "r------------", "---n", 0), acl[0]);
    // Entries passed to files (f) arrive; the deleted carol's is skipped.
    EXPECT_EQ((std::set<std::string>{"alice", "Everyone", "SYSTEM", "Owner"}), InheritedNames(acl, 1)) << r.Dump();

    CallResult bob = Call("bob", "project/report.txt", "inherite");
    ASSERT_TRUE(bob.success()) << bob.Dump();
    EXPECT_FALSE(bob.data()["is_acl"].asBool()) << "even though the path supports ACLs";
    EXPECT_FALSE(bob.data()["is_inherited"].asBool());
    EXPECT_EQ((std::set<std::string>{"alice", "Everyone", "SYSTEM", "Owner"}), InheritedNames(bob.data()["acl"], 0))
        << bob.Dump();
    EXPECT_FALSE(bob.data()["change_permission"].asBool()) << "bob lacks change_perm: " << bob.Dump();
    EXPECT_TRUE(LogsAre(Bracket(210, 212), bob)) << "a non-administrator reads under its own ids";

    CallResult admin = Call("admin", "project/report.txt", "inherite");
    ASSERT_TRUE(admin.success()) << admin.Dump();
    EXPECT_EQ(bob.data()["acl"], admin.data()["acl"]);
    EXPECT_TRUE(LogsAre(Join({Bracket(210, 212), Bracket(219, 221)}), admin));
}

TEST_F(Get, ChangePermissionFollowsTheCallersRights) {
    CallResult alice = Call("alice", "project", "all");
    ASSERT_TRUE(alice.success()) << alice.Dump();
    EXPECT_TRUE(alice.data()["change_permission"].asBool());
    EXPECT_TRUE(alice.data()["acl_editable"].asBool());
    EXPECT_TRUE(LogsAre(Bracket(210, 212), alice));

    // bob may read the ACL (everyone has read_perm) but not change it; the
    // platform's permission-denied answer is not a failure.
    CallResult bob = Call("bob", "project", "all");
    ASSERT_TRUE(bob.success()) << bob.Dump();
    EXPECT_FALSE(bob.data()["change_permission"].asBool());
    EXPECT_TRUE(bob.data()["is_acl"].asBool());
    EXPECT_EQ(alice.data()["acl"], bob.data()["acl"]);

    // Without read_perm the read itself is refused.
    CallResult dave = Call("dave", "private", "all");
    EXPECT_EQ(6205, dave.errorCode()) << dave.Dump();
    CallResult daveInherited = Call("dave", "private/inner.txt", "inherite");
    EXPECT_EQ(6205, daveInherited.errorCode()) << daveInherited.Dump();
    CallResult admin = Call("admin", "private", "all");
    EXPECT_TRUE(admin.success()) << admin.Dump();

    // A failed administrator lookup (a negative answer) is not a yes: the
    // caller reads with its own rights and is refused what it cannot read.
    const Fault failed{"KLIBGroupIsAdminGroupMem", 1, -1, 0x0800};
    CallResult failedDave = Call("dave", "private", "all", {failed});
    EXPECT_EQ(6205, failedDave.errorCode()) << failedDave.Dump();
    EXPECT_FALSE(failedDave.HasLog(39, "acl:239 WARNING: setresuid(-1, 0, -1)")) << failedDave.LogDump();
    CallResult plain = Call("dave", "plain.txt", "all", {failed, Fault{"KOVAGetFSType", 0, 14, 0}});
    ASSERT_TRUE(plain.success()) << plain.Dump();
    EXPECT_FALSE(plain.data()["acl_editable"].asBool()) << "only an administrator edits a type without ACLs";
}

TEST_F(Get, ModeOnlyPathsGiveRulesFromTheModeBits) {
    CallResult r = Call("admin", "plain.txt", "all");
    ASSERT_TRUE(r.success()) << r.Dump();
    const Json::Value &d = r.data();
    EXPECT_FALSE(d["is_acl"].asBool());
    EXPECT_FALSE(d["is_inherited"].asBool());
    EXPECT_FALSE(d["change_permission"].asBool());
    EXPECT_TRUE(d["acl_editable"].asBool());
    ASSERT_EQ(3u, d["acl"].size()) << r.Dump();
    // 0640, alice:staff
    EXPECT_EQ("owner", d["acl"][0]["owner_type"].asString());
    EXPECT_EQ("Owner", d["acl"][0]["owner_name"].asString());
    EXPECT_TRUE(d["acl"][0]["permission"]["write_data"].asBool());
    EXPECT_FALSE(d["acl"][0]["permission"]["exe_file"].asBool());
    EXPECT_EQ("group", d["acl"][1]["owner_type"].asString());
    EXPECT_EQ("staff", d["acl"][1]["owner_name"].asString());
    EXPECT_TRUE(d["acl"][1]["permission"]["read_data"].asBool());
    EXPECT_FALSE(d["acl"][1]["permission"]["write_data"].asBool());
    EXPECT_EQ("Everyone", d["acl"][2]["owner_name"].asString());
    for (const char *key : kPermKeys) EXPECT_FALSE(d["acl"][2]["permission"][key].asBool()) << key;
    for (const auto &rule : d["acl"]) EXPECT_EQ(0u, rule["level"].asUInt());
    EXPECT_TRUE(LogsAre(Join({Bracket(210, 212), Bracket(257, 259)}), r));

    // Other users get the file-system verdict, with its own support check.
    CallResult alice = Call("alice", "plain.txt", "all");
    ASSERT_TRUE(alice.success()) << alice.Dump();
    EXPECT_TRUE(alice.data()["acl_editable"].asBool());
    EXPECT_EQ(d["acl"], alice.data()["acl"]);
    EXPECT_TRUE(LogsAre(Join({Bracket(210, 212), Bracket(99, 101)}), alice));
}

TEST_F(Get, FileSystemVerdictOnlyAffectsEditability) {
    for (const Fault &f : {Fault{"KOVAGetFSType", 0, -1, 0x0800}, Fault{"KOVAGetFSType", 0, 14, 0},
                           Fault{"KOVAGetFSType", 0, 10, 0}}) {
        CallResult alice = Call("alice", "plain.txt", "all", {f});
        ASSERT_TRUE(alice.success()) << f.result << ": " << alice.Dump();
        EXPECT_FALSE(alice.data()["acl_editable"].asBool()) << f.result;
        CallResult admin = Call("admin", "plain.txt", "all", {f});
        ASSERT_TRUE(admin.success()) << f.result << ": " << admin.Dump();
        EXPECT_TRUE(admin.data()["acl_editable"].asBool()) << "administrators skip the type check";
    }
    // A file system that says it cannot hold ACLs.
    CallResult noSupport = Call("alice", "plain.txt", "all", {Fault{"KOVAACLIsSupport", 2, 0, 0}});
    ASSERT_TRUE(noSupport.success()) << noSupport.Dump();
    EXPECT_FALSE(noSupport.data()["acl_editable"].asBool());
    // An error answer to the support question counts as support: a path
    // without a stored ACL reads as an empty one.
    CallResult error = Call("admin", "plain.txt", "all", {Fault{"KOVAACLIsSupport", 1, -1, 0x0800}});
    ASSERT_TRUE(error.success()) << error.Dump();
    EXPECT_TRUE(error.data()["is_acl"].asBool());
    EXPECT_EQ(Json::Value(Json::arrayValue), error.data()["acl"]);
}

TEST_F(Get, BadTypeOrPathIs403) {
    for (const char *type : {"ALL", "inherited", "", "own"}) {
        CallResult r = Call("admin", "project", type);
        EXPECT_EQ(403, r.errorCode()) << type << ": " << r.Dump();
        EXPECT_TRUE(r.logs.empty()) << "refused before any privileged work: " << r.Dump();
    }
    // The path is checked before the type.
    CallResult outside = Call("admin", root_->At("etc"), "bogus");
    EXPECT_EQ(403, outside.errorCode()) << outside.Dump();
    EXPECT_TRUE(LogsAre({{LOG_ERR, "acl:1943 failed to get share name from path"}}, outside));
    CallResult empty = Call("admin", "", "all");
    EXPECT_EQ(403, empty.errorCode()) << empty.Dump();
    EXPECT_TRUE(empty.logs.empty());
}

TEST_F(Get, HostFailuresMapToTheirCodes) {
    const struct {
        const char *user;
        const char *path;
        const char *type;
        Fault fault;
        int code;  // 0: success
    } cases[] = {
        {"admin", "project", "all", {"KOVAACLGet", 0, -1, 0x0300}, 6205},
        {"admin", "project", "all", {"KOVAACLGet", 0, -1, 0x0800}, 6200},
        {"bob", "project/report.txt", "inherite", {"KOVAACLGet", 0, -1, 0x0300}, 6205},
        {"bob", "project/report.txt", "inherite", {"KOVAACLGet", 0, -1, 0xC100}, 6200},
        {"admin", "project", "all", {"KOVAACLGet", 0, 0, 0}, 6200},  // success without an ACL
        {"admin", "plain.txt", "all", {"KOVAACLDumpFromMode", 0, -1, 0x0800}, 6200},
        {"admin", "plain.txt", "all", {"KOVAACLDumpFromMode", 0, 0, 0}, 6200},
        {"alice", "plain.txt", "all", {"KOVAACLDumpFromMode", 0, 1, 0}, 6200},
        {"admin", "project", "all", {"KOVAACLAceParsePermission", 0, -1, 0x0D00}, 6200},
        {"admin", "project", "all", {"KOVAACLAceParsePermission", 0, 0, 0}, 6200},  // empty mask
        {"bob", "project", "all", {"KOVAACLPermCheck", 0, 0, 0x0800}, 6200},
        {"bob", "project", "all", {"KOVAACLPermCheck", 0, -1, 0x0300}, 6200},
        {"bob", "project", "all", {"KOVAACLPermCheck", 0, 0, 0x0300}, 0},
        {"admin", "project", "all", {"KOVAACLPermCheck", 0, -1, 0x0800}, 0},  // never asked
        {"alice", "project", "all", {"KOVAACLPermCheck", 0, 1, 0}, 0},
    };
    for (const auto &c : cases) {
        CallResult r = Call(c.user, c.path, c.type, {c.fault});
        const std::string what = std::string(c.user) + " " + c.path + " " + c.fault.call + "=" + std::to_string(c.fault.result);
        ASSERT_TRUE(r.delivered) << what << ": " << r.Dump();
        EXPECT_EQ(c.code, r.errorCode()) << what << ": " << r.Dump();
        if (c.code == 0) {
            EXPECT_EQ(std::string(c.user) != "bob", r.data()["change_permission"].asBool()) << what;
        } else {
            EXPECT_TRUE(r.response["error"]["data"].isNull()) << what;
        }
    }
}

TEST_F(Get, FailedNameLookupsDropOnlyTheirEntries) {
    CallResult r = Call("admin", "project", "all", {Fault{"KOVAGroupGetByGID", 0, -1, 0x1800}});
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ((std::vector<std::string>{"alice", "Everyone", "svc", "Authenticated Users", "SYSTEM", "Owner"}),
              OwnerNames(r.data()["acl"]));

    CallResult users = Call("admin", "project", "all", {Fault{"KOVAUserGetByUID", 0, -1, 0x1D00}});
    ASSERT_TRUE(users.success()) << users.Dump();
    for (const auto &rule : users.data()["acl"]) EXPECT_FALSE(rule.isMember("owner_is_internal"));
    EXPECT_EQ((std::vector<std::string>{"staff", "Everyone", "Authenticated Users", "SYSTEM", "Owner"}),
              OwnerNames(users.data()["acl"]));
}

} // namespace
