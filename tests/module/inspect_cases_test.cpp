// inspect through the host on real files: principal kinds, the order entries
// decide in, owner and administrator rights, each error code.
#include "principal-fixture.h"

#include "kova/acl.h"
#include "kova/errcode.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;

namespace {

using kova_module_test::As;

const unsigned int R = KOVA_ACL_PERM_READ_DATA;
const unsigned int W = KOVA_ACL_PERM_WRITE_DATA;
const unsigned int X = KOVA_ACL_PERM_EXECUTE;
const unsigned int P = KOVA_ACL_PERM_APPEND_DATA;
const unsigned int D = KOVA_ACL_PERM_DELETE;
const unsigned int A = KOVA_ACL_PERM_READ_ATTR;
const unsigned int OWNER = KOVA_ACL_PERM_OWNER_IMPLICIT;
const unsigned int ALL = KOVA_ACL_PERM_ALL;

// Besides the shared accounts: bob is also in staff and in "other" (3002),
// carol (2003) is in no group and svc (300) is an internal account.
class InspectTest : public PrincipalFixture {
protected:
    void SetUp() override {
        PrincipalFixture::SetUp();
        if (HasFatalFailure()) return;
        ASSERT_TRUE(root_.AddGroup("other", 3002)) << root_.lastError();
        ASSERT_TRUE(root_.AddUser("carol", 2003)) << root_.lastError();
        ASSERT_TRUE(root_.AddUser("svc", 300, true)) << root_.lastError();
        ASSERT_TRUE(root_.AddMember("staff", "bob")) << root_.lastError();
        ASSERT_TRUE(root_.AddMember("other", "bob")) << root_.lastError();
    }

    unsigned int MaskFor(const std::string &path, const std::string &type, const std::string &name) {
        return Mask(Inspect(path, type, name));
    }

    std::string File(const std::string &rel, uid_t uid = 0, gid_t gid = 0, mode_t mode = 0644) {
        const std::string path = share_ + "/" + rel;
        EXPECT_TRUE(root_.MakeFile(path, "x", mode, uid, gid)) << root_.lastError();
        return path;
    }

    std::string Dir(const std::string &rel, uid_t uid = 0, gid_t gid = 0) {
        const std::string path = share_ + "/" + rel;
        EXPECT_TRUE(root_.MakeDir(path, 0755, uid, gid)) << root_.lastError();
        return path;
    }

    void Acl(const std::string &path, const std::vector<std::string> &entries, bool inherit = true) {
        ASSERT_TRUE(root_.SetAcl(path, entries, inherit)) << root_.lastError();
    }
};

TEST_F(InspectTest, EachPrincipalKindSeesOnlyTheEntriesThatNameIt) {
    const std::string f = File("f.txt");
    Acl(f, {"user:alice:allow:rw:----", "group:staff:allow:x:----", "everyone:-:allow:a:----",
            "authenticated_user:-:allow:p:----", "system:-:allow:d:----"});

    EXPECT_EQ(R | W | X | A | P, MaskFor(f, "user", "alice"));
    EXPECT_EQ(X | A | P, MaskFor(f, "user", "bob"));
    EXPECT_EQ(A | P, MaskFor(f, "user", "carol"));
    EXPECT_EQ(X | A, MaskFor(f, "group", "staff"));
    EXPECT_EQ(A, MaskFor(f, "group", "other"));
    EXPECT_EQ(A, MaskFor(f, "everyone", "anything"));
    EXPECT_EQ(A | P, MaskFor(f, "authenticated_user", "x"));
    EXPECT_EQ(A | D, MaskFor(f, "system", "x"));
    // A system account (uid below 1024) is "system", not authenticated.
    EXPECT_EQ(A | D, MaskFor(f, "user", "svc"));
    // The guest (uid 1025) is neither authenticated nor system.
    EXPECT_EQ(A, MaskFor(f, "user", "guest"));
}

TEST_F(InspectTest, DenyWinsOverAllowOfTheSameLevelAndInheritOnlyEntriesNeverCount) {
    const std::string f = File("f.txt");
    Acl(f, {"user:alice:allow:rw:----", "user:alice:deny:w:----", "group:staff:allow:rwx:----",
            "everyone:-:deny:x:----", "user:carol:allow:a:----", "user:carol:deny:a:----"});
    EXPECT_EQ(R, MaskFor(f, "user", "alice"));
    EXPECT_EQ(R | W, MaskFor(f, "user", "bob"));
    EXPECT_EQ(0u, MaskFor(f, "user", "carol"));
    // Inherit-only entries never contribute.
    const std::string dir = Dir("io");
    Acl(dir, {"user:alice:allow:r:--i-", "user:alice:allow:x:----"});
    EXPECT_EQ(X, MaskFor(dir, "user", "alice"));
}

TEST_F(InspectTest, AnEarlierLevelDecidesOverALaterOne) {
    const std::string dir = Dir("p");
    Acl(dir, {"user:alice:allow:w:fd--", "user:bob:deny:r:fd--", "user:carol:allow:x:fd--"});
    const std::string f = File("p/c.txt");
    Acl(f, {"user:alice:deny:w:----", "user:bob:allow:r:----"});

    // Own entries (level 0) decide first ...
    EXPECT_EQ(0u, MaskFor(f, "user", "alice"));
    EXPECT_EQ(R, MaskFor(f, "user", "bob"));
    // ... and an inherited entry still grants what they left undecided.
    EXPECT_EQ(X, MaskFor(f, "user", "carol"));

    // Without inheritance the parent's entries do not reach the file.
    Acl(f, {"user:alice:deny:w:----", "user:bob:allow:r:----"}, false);
    EXPECT_EQ(0u, MaskFor(f, "user", "carol"));
}

// Without a stored ACL the mode bits decide; with one the owner keeps its
// implicit bits.
TEST_F(InspectTest, ModeBitsAndTheOwnersImplicitBits) {
    const std::string f = File("owned.txt", 2001, 3001, 0640);
    EXPECT_TRUE(MaskFor(f, "user", "bob") & R);
    EXPECT_FALSE(MaskFor(f, "user", "bob") & W);
    EXPECT_TRUE(MaskFor(f, "user", "alice") & W);
    EXPECT_FALSE(MaskFor(f, "user", "carol") & R);
    // A failing support query counts as "has an ACL": the (empty) stored ACL
    // is read instead of the mode bits, so bob's group read disappears.
    EXPECT_EQ(0u, Mask(Inspect(f, "user", "bob", As("admin", {{"KOVAACLIsSupport", 0, -1, KOVA_ERR_IO}}))));

    Acl(f, {"everyone:-:deny:rwxpdDaARWcCo:----", "user:alice:deny:rwxpdDaARWcCo:----"});
    EXPECT_EQ(OWNER, MaskFor(f, "user", "alice"));
    EXPECT_EQ(0u, MaskFor(f, "user", "bob"));

    Acl(f, {"owner:-:allow:r:----"});
    EXPECT_EQ(OWNER | R, MaskFor(f, "user", "alice"));
    EXPECT_EQ(0u, MaskFor(f, "user", "bob"));

    // A group owner: every member of the group, and the group itself, owns.
    KOVA_ACL_ID staff = {KOVA_ACL_ID_GROUP, 3001};
    ASSERT_EQ(0, KOVAACLOwnerIdSet(f.c_str(), &staff));
    EXPECT_EQ(OWNER | R, MaskFor(f, "user", "bob"));
    EXPECT_EQ(OWNER | R, MaskFor(f, "group", "staff"));
    EXPECT_EQ(0u, MaskFor(f, "user", "carol"));
}

TEST_F(InspectTest, AdministratorsHoldEverythingBelowAShareRootButNotAtIt) {
    Acl(share_, {"authenticated_user:-:allow:r:----", "everyone:-:deny:w:----"}, false);
    const std::string dir = Dir("deep");
    Acl(dir, {"everyone:-:deny:rwxpdDaARWcCo:----"}, false);

    EXPECT_EQ(ALL, MaskFor(dir, "user", "admin"));
    EXPECT_EQ(ALL, MaskFor(dir, "group", "administrators"));
    EXPECT_EQ(0u, MaskFor(dir, "user", "alice"));

    // At the root only the entries decide; uid 1024 is an authenticated user.
    EXPECT_EQ(R, MaskFor(share_, "user", "admin"));
    EXPECT_EQ(R, MaskFor(share_ + "/", "user", "admin"));
    EXPECT_EQ(0u, MaskFor(share_, "group", "administrators"));
    EXPECT_EQ(0u, MaskFor(share_ + "/", "group", "administrators"));
}

TEST_F(InspectTest, PrivilegedSectionsStandAroundTheReadsOfAnAdministratorCaller) {
    const std::string f = File("f.txt");
    Acl(f, {"everyone:-:allow:rc:----"});
    const std::string plain = File("plain.txt");

    CallResult admin = Inspect(f, "user", "alice");
    ASSERT_TRUE(admin.success()) << admin.Dump();
    for (int line : {1502, 1504, 1526, 1528, 1532, 1534})
        EXPECT_TRUE(admin.HasLog(39, "acl:" + std::to_string(line) + " WARNING: setresuid(-1, 0, -1)")) << admin.LogDump();
    EXPECT_FALSE(admin.HasLog(39, "acl:1550 WARNING: setresuid(-1, 0, -1)")) << admin.LogDump();

    CallResult mode = Inspect(plain, "user", "alice");
    ASSERT_TRUE(mode.success()) << mode.Dump();
    EXPECT_TRUE(mode.HasLog(39, "acl:1550 WARNING: setresuid(-1, 0, -1)")) << mode.LogDump();
    EXPECT_TRUE(mode.HasLog(39, "acl:1552 WARNING: setresuid(-1, 0, -1)")) << mode.LogDump();

    // An ordinary caller reads under its own identity; only the support
    // check is privileged.
    CallResult carol = Inspect(f, "user", "alice", As("carol"));
    ASSERT_TRUE(carol.success()) << carol.Dump();
    EXPECT_TRUE(carol.HasLog(39, "acl:1526 WARNING: setresuid(-1, 0, -1)")) << carol.LogDump();
    EXPECT_FALSE(carol.HasLog(39, "acl:1502 WARNING: setresuid(-1, 0, -1)")) << carol.LogDump();
    EXPECT_FALSE(carol.HasLog(39, "acl:1532 WARNING: setresuid(-1, 0, -1)")) << carol.LogDump();

    // A failed administrator check of the caller raises no read: what the
    // caller cannot read stays unread; an administrator is answered.
    const std::string closed = File("closed.txt");
    Acl(closed, {"user:alice:allow:rwc:----"}, false);
    const Fault failed{"KLIBGroupIsAdminGroupMem", 1, -1, KOVA_ERR_IO};
    CallResult refused = Inspect(closed, "user", "alice", As("carol", {failed}));
    EXPECT_EQ(6209, refused.errorCode()) << refused.Dump();
    for (int line : {1502, 1532})
        EXPECT_FALSE(refused.HasLog(39, "acl:" + std::to_string(line) + " WARNING: setresuid(-1, 0, -1)"))
            << refused.LogDump();
    EXPECT_EQ(R | W | KOVA_ACL_PERM_READ_ACL, MaskFor(closed, "user", "alice"));
}

TEST_F(InspectTest, RefusalsAndPlatformFailuresMapToTheirCodes) {
    const std::string f = File("f.txt");
    Acl(f, {"user:alice:allow:rwc:----"});
    const std::string plain = File("plain.txt");
    ASSERT_TRUE(kova_test::WriteFile(root_.At("outside/x.txt"), "x"));

    // No usable path or principal.
    EXPECT_EQ(403, Inspect("", "user", "alice").errorCode());
    EXPECT_EQ(403, Inspect(root_.At("outside/x.txt"), "user", "alice").errorCode());
    EXPECT_EQ(403, Inspect(share_ + "/../../outside/x.txt", "user", "alice").errorCode());
    EXPECT_EQ(6211, Inspect(f, "user", "nobody").errorCode());
    EXPECT_EQ(6211, Inspect(f, "group", "nogroup").errorCode());
    EXPECT_EQ(6211, Inspect(f, "owner", "alice").errorCode());
    EXPECT_EQ(6211, Inspect(f, "User", "alice").errorCode());
    // A path inside the share that does not exist has no owner.
    EXPECT_EQ(6207, Inspect(share_ + "/missing.txt", "user", "alice").errorCode());

    struct Case {
        const char *name;
        std::string path;
        const char *type;
        Fault fault;
        int code;
    } cases[] = {
        {"group list", f, "user", {"KLIBGroupInfoListGet", 0, 0, KOVA_ERR_IO}, 6200},
        {"user admin check", f, "user", {"KLIBGroupIsAdminGroupMemByUid", 0, -1, KOVA_ERR_IO}, 6200},
        {"group admin check", f, "group", {"KOVAGroupIsAdminGroupByGid", 0, -1, KOVA_ERR_IO}, 6200},
        {"owner: no such file", f, "user", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_NOENT}, 6207},
        {"owner: no ACL support", f, "user", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_ACL_NOTSUP}, 6201},
        {"owner: permission", f, "user", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_PERM}, 6205},
        {"owner: other", f, "user", {"KOVAACLOwnerIdGet", 0, -1, KOVA_ERR_IO}, 6200},
        {"acl read: permission", f, "user", {"KOVAACLGet", 0, -1, KOVA_ERR_PERM}, 6209},
        {"acl read: other", f, "user", {"KOVAACLGet", 0, -1, KOVA_ERR_CORRUPT}, 6200},
        {"mode acl", plain, "user", {"KOVAACLDumpFromMode", 0, -1, KOVA_ERR_IO}, 6200},
        {"print", f, "user", {"KOVAACLAcePrintPermission", 0, -1, KOVA_ERR_RANGE}, 6200},
    };
    for (const Case &c : cases) {
        const std::string name = std::string(c.type) == "user" ? "alice" : "staff";
        CallResult r = Inspect(c.path, c.type, name, As("admin", {c.fault}));
        EXPECT_EQ(c.code, r.errorCode()) << c.name << "\n" << r.Dump();
        EXPECT_TRUE(r.response["error"]["data"].isNull()) << c.name << "\n" << r.Dump();
    }

    // The same refusal for real: carol may not read this ACL.
    CallResult denied = Inspect(f, "user", "alice", As("carol"));
    EXPECT_EQ(6209, denied.errorCode()) << denied.Dump();
}

} // namespace
