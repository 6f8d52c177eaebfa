// check_self_denied through the host on real files: rules that lock the
// caller out or not, inherited levels, the owner entry, every error code.
#include "principal-fixture.h"

#include "kova/acl.h"
#include "kova/errcode.h"

#include <dlfcn.h>
#include <syslog.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;
using kova_host::Ids;

namespace {

// Set in a handler's child only: the first inherited entry comes back one
// level further up, out of order, as the ACL library never answers.
bool gRaiseFirstInheritedLevel = false;

} // namespace

// Interposes the library's read (the module binds to the program's exports first).
extern "C" int KOVAACLGet(const char *szPath, int fd, int selector, PKOVA_ACL *ppAcl) {
    using Fn = int (*)(const char *, int, int, PKOVA_ACL *);
    static Fn real = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, "KOVAACLGet"));
    const int rc = real(szPath, fd, selector, ppAcl);
    if (gRaiseFirstInheritedLevel && rc >= 0 && selector == KOVA_ACL_GET_INHERITED && ppAcl && *ppAcl &&
        (*ppAcl)->pHead) {
        (*ppAcl)->pHead->level += 1;
    }
    return rc;
}

namespace {

using kova_module_test::As;
using kova_module_test::LogStartsWith;

Json::Value Rules(std::initializer_list<Json::Value> rules) { return kova_module_test::Array(rules); }

// A rule granting or denying the given permission letters; by default it
// applies to the path itself and is not inherited.
Json::Value Rule(const std::string &type, const std::string &name, const std::string &access,
                 const std::string &letters, bool thisFolder = true) {
    return kova_module_test::RuleJson(type, name, access, letters, thisFolder ? "----" : "--i-");
}

// file_ is "f.txt" in the share, owned by bob and the staff group.
class SelfDeniedTest : public PrincipalFixture {
protected:
    void SetUp() override {
        PrincipalFixture::SetUp();
        if (HasFatalFailure()) return;
        file_ = share_ + "/f.txt";
        ASSERT_TRUE(root_.MakeFile(file_, "x", 0644, 2002, 3001)) << root_.lastError();
    }

    CallResult Check(const std::string &path, const Json::Value &rules, bool inherited,
                     const CallOptions &options = As("alice"), bool changeAcl = true) {
        return host().Call("check_self_denied",
                           kova_module_test::Params({{"file_path", path}, {"change_acl", changeAcl},
                                                     {"rules", rules}, {"inherited", inherited}}),
                           options);
    }

    // An inheriting file in `dir` whose own entry (replaced by the proposed
    // rules) lets alice read what it inherits.
    std::string InheritingChild(const std::string &dir) {
        const std::string child = dir + "/c.txt";
        EXPECT_TRUE(root_.MakeFile(child)) << root_.lastError();
        EXPECT_TRUE(root_.SetAcl(child, {"user:alice:allow:c:----"}, true)) << root_.lastError();
        return child;
    }

    // "is_denied" of a successful answer; fails the test otherwise.
    bool Denied(const CallResult &r) {
        EXPECT_TRUE(r.success()) << r.Dump();
        EXPECT_TRUE(r.data()["is_denied"].isBool()) << r.Dump();
        EXPECT_EQ(1u, r.data().size()) << r.Dump();
        return r.data()["is_denied"].asBool();
    }

    bool Denied(const std::string &path, const Json::Value &rules, bool inherited) {
        return Denied(Check(path, rules, inherited));
    }

    std::string file_;
};

TEST_F(SelfDeniedTest, OnlyAnApplyingAllowKeepsTheCallersAccess) {
    const std::string all = "rwxpdDaARWcCo";
    const struct {
        Json::Value rules;
        bool denied;
        const char *what;
    } cases[] = {
        {Rules({}), true, "no rule"},
        {Rules({Rule("user", "alice", "deny", all)}), true, "everything denied"},
        {Rules({Rule("user", "bob", "allow", all)}), true, "someone else allowed"},
        {Rules({Rule("user", "alice", "allow", "r"), Rule("user", "alice", "deny", "r")}), true, "deny after allow"},
        {Rules({Rule("user", "alice", "deny", "r"), Rule("user", "alice", "allow", "r")}), true, "deny before allow"},
        {Rules({Rule("system", "SYSTEM", "allow", "rwx")}), true, "only SYSTEM allowed"},
        {Rules({Rule("user", "alice", "allow", "rwx", false)}), true, "an entry only for what lies below"},
        {Rules({Rule("user", "alice", "allow", "r")}), false, "alice allowed"},
        {Rules({Rule("user", "alice", "deny", "w"), Rule("group", "staff", "allow", "r")}), false,
         "another bit through her group"},
        {Rules({Rule("user", "alice", "deny", "r"), Rule("group", "staff", "allow", "r")}), true,
         "the same bit through her group"},
        {Rules({Rule("everyone", "Everyone", "allow", "a")}), false, "everyone allowed"},
        {Rules({Rule("authenticated_user", "x", "allow", "x")}), false, "authenticated users allowed"},
    };
    for (const auto &c : cases) EXPECT_EQ(c.denied, Denied(file_, c.rules, false)) << c.what;
}

// An administrator's owner lookup is privileged; an owner entry counts only
// for the owner.
TEST_F(SelfDeniedTest, TheOwnerLookupAndTheOwnerEntry) {
    const Json::Value rules = Rules({Rule("user", "admin", "allow", "r")});
    CallResult admin = Check(file_, rules, false, As("admin"));
    EXPECT_FALSE(Denied(admin));
    EXPECT_TRUE(admin.HasLog(39, "acl:1644 WARNING: setresuid(-1, 0, -1)")) << admin.LogDump();
    EXPECT_TRUE(admin.HasLog(39, "acl:1646 WARNING: setresuid(-1, 0, -1)")) << admin.LogDump();

    CallResult alice = Check(file_, rules, false);
    EXPECT_TRUE(Denied(alice));
    EXPECT_FALSE(alice.HasLog(39, "acl:1644 WARNING: setresuid(-1, 0, -1)")) << alice.LogDump();

    // A failed administrator check (negative) is not a yes.
    CallResult failed = Check(file_, rules, false, As("alice", {{"KLIBGroupIsAdminGroupMemByUid", 1, -1, 0x0800}}));
    EXPECT_TRUE(Denied(failed));
    EXPECT_FALSE(failed.HasLog(39, "acl:1644 WARNING: setresuid(-1, 0, -1)")) << failed.LogDump();

    const Json::Value ownerRead = Rules({Rule("owner", "Owner", "allow", "r")});
    EXPECT_TRUE(Denied(file_, ownerRead, false));  // bob owns the file
    const std::string mine = share_ + "/mine.txt";
    ASSERT_TRUE(root_.MakeFile(mine, "x", 0644, 2001, 100)) << root_.lastError();
    EXPECT_FALSE(Denied(mine, ownerRead, false));
    // Ownership alone grants nothing here: no implicit owner bits.
    EXPECT_TRUE(Denied(mine, Rules({}), false));
    // A group owner makes every member an owner.
    KOVA_ACL_ID staff = {KOVA_ACL_ID_GROUP, 3001};
    ASSERT_EQ(0, KOVAACLOwnerIdSet(file_.c_str(), &staff));
    EXPECT_FALSE(Denied(file_, ownerRead, false));
}

TEST_F(SelfDeniedTest, InheritedEntriesFollowTheProposedOnes) {
    const std::string dir = share_ + "/p";
    ASSERT_TRUE(root_.MakeDir(dir)) << root_.lastError();
    ASSERT_TRUE(root_.SetAcl(dir, {"user:alice:allow:r:fd--"})) << root_.lastError();
    const std::string child = InheritingChild(dir);

    EXPECT_FALSE(Denied(child, Rules({}), true));
    EXPECT_TRUE(Denied(child, Rules({}), false));
    // A proposed deny masks the same bit allowed further up ...
    EXPECT_TRUE(Denied(child, Rules({Rule("user", "alice", "deny", "r")}), true));
    // ... but not another bit.
    EXPECT_FALSE(Denied(child, Rules({Rule("user", "alice", "deny", "w")}), true));

    // Without read_perm of her own, alice cannot read the inherited entries.
    ASSERT_TRUE(root_.SetAcl(child, {}, true)) << root_.lastError();
    EXPECT_EQ(6200, Check(child, Rules({}), true).errorCode());
    EXPECT_TRUE(Denied(child, Rules({}), false));
}

TEST_F(SelfDeniedTest, DenyAndAllowAcrossInheritedLevels) {
    const std::string g = share_ + "/g";
    const std::string p = g + "/p";
    ASSERT_TRUE(root_.MakeDir(p)) << root_.lastError();
    const std::string child = InheritingChild(p);
    ASSERT_TRUE(root_.SetAcl(g, {"user:alice:allow:w:fd--"})) << root_.lastError();
    ASSERT_TRUE(root_.SetAcl(p, {"user:alice:deny:w:fd--"})) << root_.lastError();

    // Level 1 denies w, level 2 allows it: the deny is never reset.
    EXPECT_TRUE(Denied(child, Rules({}), true));
    // What level 0 allowed is carried, whatever a later level denies.
    EXPECT_FALSE(Denied(child, Rules({Rule("user", "alice", "allow", "w")}), true));
    // Without the nearer deny the farther allow does reach the file.
    ASSERT_TRUE(root_.SetAcl(p, {}, true)) << root_.lastError();
    EXPECT_FALSE(Denied(child, Rules({}), true));

    // Level 1 allows r and, listed after it, denies r; level 2 follows, so
    // the evaluation moves past level 1 before it ends. What level 1 allows
    // and denies at once is not carried to level 2, but an allow of the
    // proposed level is decided before level 1 is reached.
    ASSERT_TRUE(root_.SetAcl(p, {"user:alice:allow:r:fd--", "user:alice:deny:r:fd--"})) << root_.lastError();
    ASSERT_TRUE(root_.SetAcl(g, {"user:bob:allow:w:fd--"})) << root_.lastError();
    EXPECT_TRUE(Denied(child, Rules({}), true));
    EXPECT_FALSE(Denied(child, Rules({Rule("user", "alice", "allow", "r")}), true));
}

TEST_F(SelfDeniedTest, LevelsThatGoDownAreRefused) {
    const std::string dir = share_ + "/p";
    ASSERT_TRUE(root_.MakeDir(dir)) << root_.lastError();
    // The entries that end up out of order do not even apply to alice.
    ASSERT_TRUE(root_.SetAcl(dir, {"user:bob:allow:r:fd--", "user:bob:allow:w:fd--"})) << root_.lastError();
    const std::string child = InheritingChild(dir);

    CallOptions options = As("alice");
    options.beforeHandler = [] { gRaiseFirstInheritedLevel = true; };
    CallResult r = Check(child, Rules({Rule("user", "alice", "allow", "r")}), true, options);
    EXPECT_EQ(4203, r.errorCode()) << r.Dump();
    EXPECT_TRUE(r.HasLog(LOG_ERR, "acl:1694 wrong level order: current=2, ace=1")) << r.LogDump();

    // In order, the same request is answered.
    EXPECT_FALSE(Denied(child, Rules({Rule("user", "alice", "allow", "r")}), true));
}

TEST_F(SelfDeniedTest, RulesThatCannotBecomeEntries) {
    const Json::Value alice = Rule("user", "alice", "allow", "r");
    const struct {
        Json::Value rules;
        std::vector<Fault> faults;
        int code;
        std::string log;  // the error line, or how it starts when not ending in ']'
    } cases[] = {
        {Rules({alice, Rule("user", "ghost", "allow", "r")}), {}, 6211,
         "acl:1767 failed to convert acl str[0x1D00 acl-object:206]"},
        {Rules({Rule("group", "ghosts", "allow", "r")}), {}, 6211,
         "acl:1767 failed to convert acl str[0x1800 acl-object:212]"},
        {Rules({alice}), {{"KOVAACLAceParsePermission", 0, -1, KOVA_ERR_BADARG}}, 6200,
         "acl:1767 failed to convert acl str[0x0D00 "},
        {Rules({alice}), {{"KOVAACLAceIsValid", 0, 0, KOVA_ERR_BADARG}}, 6200, "acl:1773 failed to check acl[0x0D00 "},
        {Rules({alice}), {{"KOVAACLAceAppend", 0, -1, KOVA_ERR_NOMEM}}, 6200, ""},
    };
    for (const auto &c : cases) {
        CallResult r = Check(file_, c.rules, false, As("alice", c.faults));
        EXPECT_EQ(c.code, r.errorCode()) << c.log << "\n" << r.Dump();
        if (c.log.empty()) continue;
        EXPECT_TRUE(c.log.back() == ']' ? r.HasLog(LOG_ERR, c.log) : LogStartsWith(r, LOG_ERR, c.log)) << r.LogDump();
    }
}

TEST_F(SelfDeniedTest, FailuresAndTheirCodes) {
    const Json::Value rules = Rules({Rule("user", "alice", "allow", "r")});
    ASSERT_TRUE(kova_test::WriteFile(root_.At("outside/x.txt"), "x"));
    EXPECT_EQ(403, Check(root_.At("outside/x.txt"), rules, false).errorCode());
    EXPECT_EQ(403, Check("", rules, false).errorCode());

    CallOptions ghost;
    ghost.user = "ghost";
    ghost.ids = Ids::Root;
    EXPECT_EQ(6211, Check(file_, rules, false, ghost).errorCode());

    EXPECT_EQ(6207, Check(share_ + "/missing.txt", rules, false).errorCode());

    struct Case {
        const char *name;
        Fault fault;
        bool inherited;
        int code;
    } cases[] = {
        {"group list", {"KLIBGroupInfoListGet", 0, 0, KOVA_ERR_IO}, false, 6211},
        {"owner: no such file", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_NOENT}, false, 6207},
        {"owner: no ACL support", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_ACL_NOTSUP}, false, 6201},
        {"owner: permission", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_PERM}, false, 6205},
        {"owner: other", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_IO}, false, 6200},
        {"inherited read", {"KOVAACLGet", 0, -1, KOVA_ERR_PERM}, true, 6200},
        {"acl allocation", {"KOVAACLAlloc", 0, 0, KOVA_ERR_NOMEM}, false, 1415},
        {"entry allocation", {"KOVAACLAceAlloc", 0, 0, KOVA_ERR_NOMEM}, false, 1415},
    };
    for (const Case &c : cases) {
        CallResult r = Check(file_, rules, c.inherited, As("alice", {c.fault}));
        EXPECT_EQ(c.code, r.errorCode()) << c.name << "\n" << r.Dump();
        EXPECT_TRUE(r.response["error"]["data"].isNull()) << c.name << "\n" << r.Dump();
    }
    // Without an ACL change nothing is evaluated: every read would fail, yet
    // the answer is "not denied".
    CallResult unchanged = Check(file_, Rules({Rule("user", "alice", "deny", "rwxpdDaARWcCo")}), true,
                                 As("alice", {{"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_IO},
                                              {"KOVAACLGet", 0, -1, KOVA_ERR_IO},
                                              {"KOVAACLAlloc", 0, 0, KOVA_ERR_NOMEM}}),
                                 false);
    EXPECT_FALSE(Denied(unchanged));
}

} // namespace
