// The caller's rights decide: read_perm to read, change_perm to write, take_ownership
// to name itself or its groups owner; root passes; administrators pass below a share root.
#include "acl-fixture.h"

#include "as-identity.h"
#include "kova/account.h"
#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <linux/capability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace {

using namespace kova_acl_test;
using kova_test::Identity;
using kova_test::RunAs;

int WriteAcl(const std::string &p, const char *entry) { return SetOneCode(p, entry, false); }
const char kAll[] = "rwxpdDaARWcCo";

// KOVAACLPermGet's rights for `who` on p (0xFFFF on failure), a byte per child's status.
int PermAs(const Identity &who, const std::string &p) {
    int perm = 0;
    for (int shift : {0, 8}) {
        perm |= RunAs(who, [&] {
            unsigned int bits = 0;
            return KOVAACLPermGet(p.c_str(), &bits) == 0 ? static_cast<int>((bits >> shift) & 0xFF) : 0xFF;
        }) << shift;
    }
    return perm;
}

// As a task after its switch to `who`: the user's ids and CAP_SYS_ADMIN alone.
int RunAsTask(const Identity &who, const std::function<int()> &body) {
    return RunAs(who, [&] { return kova_test::KeepOnlyCapability(CAP_SYS_ADMIN) ? body() : 99; });
}

int SetOwner(const std::string &p, int idType, int id) {
    KOVA_ACL_ID o{idType, id};
    return Code(KOVAACLOwnerIdSet(p.c_str(), &o));
}

class AclIdentity : public AclFixture {};

TEST_F(AclIdentity, ReadNeedsReadPermAndWriteNeedsChangePerm) {
    File(In("f"));
    ASSERT_EQ(SetAcl(In("f"), {"everyone:-1:allow:r------------:----"}), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return ReadCode(In("f")); }), 0x03);
    EXPECT_EQ(RunAs(kAlice, [&] { return WriteAcl(In("f"), "user:1030:allow:rwxpdDaARWcCo:----"); }), 0xD8);
    EXPECT_EQ(RunAs(kAlice, [&] { return KOVAACLPermCheck(In("f").c_str(), KOVA_ACL_PERM_READ_DATA); }), 1);
    // Rights asked for together must all be held.
    EXPECT_EQ(RunAs(kAlice, [&] {
                  return KOVAACLPermCheck(In("f").c_str(), KOVA_ACL_PERM_READ_DATA | KOVA_ACL_PERM_WRITE_DATA);
              }),
              0);
    EXPECT_EQ(RunAs(kAlice, [&] {
                  int rc = KOVAACLPermCheck(In("f").c_str(), KOVA_ACL_PERM_WRITE_ACL);
                  return rc == 0 && KLIBCErrGet() == KOVA_ERR_PERM ? 7 : 1;
              }),
              7);

    // read_perm through a group entry lets Alice read but still not write.
    ASSERT_EQ(SetAcl(In("f"), {"group:2000:allow:----------c--:----"}), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return ReadCode(In("f")); }), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return WriteAcl(In("f"), "user:1030:allow:rwxpdDaARWcCo:----"); }), 0xD8);
    // Nor remove it: removing is writing, and the record stays.
    const std::string readable = kova_acl_test::RawRecord(In("f"));
    EXPECT_EQ(RunAs(kAlice, [&] { return Code(KOVAACLRemove(In("f").c_str(), -1)); }), 0xD8);
    EXPECT_EQ(kova_acl_test::RawRecord(In("f")), readable);

    // A deny in the same level wins even when listed after the allow.
    ASSERT_EQ(SetAcl(In("f"), {"group:2000:allow:----------cC-:----", "user:1030:deny:----------c--:----"}), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return ReadCode(In("f")); }), 0x03);
    EXPECT_EQ(RunAs(kBob, [&] { return ReadCode(In("f")); }), 0);

    // change_perm lets the write through, and it is stored.
    ASSERT_EQ(SetAcl(In("f"), {"user:1030:allow:-----------C-:----"}), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return WriteAcl(In("f"), "user:1030:allow:rwxpdDaARWcCo:----"); }), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return ReadCode(In("f")); }), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return Code(KOVAACLRemove(In("f").c_str(), -1)); }), 0);
}

TEST_F(AclIdentity, OwnerKeepsImplicitRightsThatNoEntryRemoves) {
    File(In("f"));
    ASSERT_EQ(chown(In("f").c_str(), 1030, 1030), 0);
    ASSERT_EQ(SetAcl(In("f"), {"everyone:-1:deny:rwxpdDaARWcCo:----"}), 0);
    EXPECT_EQ(PermAs(kAlice, In("f")), static_cast<int>(KOVA_ACL_PERM_OWNER_IMPLICIT));
    EXPECT_EQ(RunAs(kAlice, [&] { return ReadCode(In("f")); }), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return WriteAcl(In("f"), "everyone:-1:allow:r------------:----"); }), 0);
    EXPECT_EQ(RunAs(kBob, [&] { return ReadCode(In("f")); }), 0x03);  // everyone r, no c
    EXPECT_EQ(RunAs(kBob, [&] { return KOVAACLPermCheck(In("f").c_str(), KOVA_ACL_PERM_READ_ACL); }), 0);
}

TEST_F(AclIdentity, RootAndAdministratorsAndTheShareRootException) {
    Dir(In("d"));
    ASSERT_EQ(SetAcl(In("d"), {"everyone:-1:deny:rwxpdDaARWcCo:----"}), 0);
    ASSERT_EQ(SetAcl(Share(), {"everyone:-1:deny:rwxpdDaARWcCo:----"}), 0);
    // Below the share root an administrator holds every right.
    EXPECT_EQ(RunAs(kAdmin, [&] { return ReadCode(In("d")); }), 0);
    EXPECT_EQ(RunAs(kAdmin, [&] { return WriteAcl(In("d"), "everyone:-1:deny:rwxpdDaARWcCo:----"); }), 0);
    EXPECT_EQ(PermAs(kAdmin, In("d")), static_cast<int>(KOVA_ACL_PERM_ALL));
    // At the share root (also written with a trailing slash) only the entries decide.
    EXPECT_EQ(RunAs(kAdmin, [&] { return ReadCode(Share()); }), 0x03);
    EXPECT_EQ(RunAs(kAdmin, [&] { return ReadCode(Share() + "/"); }), 0x03);
    EXPECT_EQ(RunAs(kAdmin, [&] { return WriteAcl(Share(), "everyone:-1:allow:rwxpdDaARWcCo:----"); }), 0xD8);
    // A plain user is refused below the root too.
    EXPECT_EQ(RunAs(kAlice, [&] { return ReadCode(In("d")); }), 0x03);
    // Root passes everywhere.
    EXPECT_EQ(ReadCode(Share()), 0);
    EXPECT_EQ(WriteAcl(Share(), "everyone:-1:allow:rwxpdDaARWcCo:fd--"), 0);
}

TEST_F(AclIdentity, ATaskKeepingTheAttributeCapabilityIsStillJudgedAsItsUser) {
    Dir(In("d"));
    File(In("d/f"));
    ASSERT_EQ(SetAcl(In("d/f"), {"everyone:-1:allow:r------------:----"}), 0);
    ASSERT_EQ(SetAcl(Share(), {"everyone:-1:deny:rwxpdDaARWcCo:----"}), 0);
    const std::string before = kova_acl_test::RawRecord(In("d/f"));
    // The capability lets neither a user without change_perm nor an admin at a root write.
    EXPECT_EQ(RunAsTask(kAlice, [&] { return WriteAcl(In("d/f"), "user:1030:allow:-----------C-:----"); }), 0xD8);
    EXPECT_EQ(kova_acl_test::RawRecord(In("d/f")), before);
    EXPECT_EQ(RunAsTask(kAdmin, [&] { return WriteAcl(Share(), "everyone:-1:allow:rwxpdDaARWcCo:----"); }), 0xD8);

    // Below the root an admin's task writes, also where its ids may not search.
    ASSERT_TRUE(kova_test::MakeDirs(In("locked")));
    File(In("locked/g"));
    ASSERT_EQ(chmod(In("locked").c_str(), 0700), 0);
    int rc = RunAsTask(kAdmin, [&] {
        if (WriteAcl(In("d/f"), "user:1040:allow:rwxpdDaARWcCo:----") != 0) return 1;
        if (WriteAcl(In("locked/g"), "user:1040:allow:rwxpdDaARWcCo:----") != 0) return 2;
        return kova_test::EffectiveCapabilities() == (uint64_t{1} << CAP_SYS_ADMIN) ? 0 : 3;
    });
    EXPECT_EQ(rc, 0);
    std::vector<std::string> entries;
    ASSERT_TRUE(GetAcl(In("locked/g"), KOVA_ACL_GET_OWN, entries));
    EXPECT_EQ(entries, std::vector<std::string>{"user:1040:allow:rwxpdDaARWcCo:----:0"});
    ASSERT_TRUE(GetAcl(In("d/f"), KOVA_ACL_GET_OWN, entries));
    EXPECT_EQ(entries, std::vector<std::string>{"user:1040:allow:rwxpdDaARWcCo:----:0"});
}

TEST_F(AclIdentity, ATasksKeptFolderIsNeverReachedThroughALinkPutInItsPlace) {
    Dir(In("a"));
    File(In("a/f1"));
    File(In("a/f2"));
    const std::string outside = root_.At("outside");
    Dir(outside);
    File(outside + "/f2");
    // The folder swapped for a link between two writes: the second lands where the first did.
    int rc = RunAsTask(kAdmin, [&] {
        if (WriteAcl(In("a/f1"), "user:1040:allow:rwxpdDaARWcCo:----") != 0) return 1;
        if (rename(In("a").c_str(), In("moved").c_str()) != 0) return 2;
        if (symlink(outside.c_str(), In("a").c_str()) != 0) return 3;
        return WriteAcl(In("a/f2"), "user:1040:allow:rwxpdDaARWcCo:----") == 0 ? 0 : 4;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(kova_acl_test::RawRecord(outside + "/f2"), "");
    EXPECT_NE(kova_acl_test::RawRecord(In("moved/f2")), "");

    // A new folder at the old name is resolved afresh; a removed one fails the write.
    ASSERT_EQ(unlink(In("a").c_str()), 0);
    Dir(In("a"));
    File(In("a/f3"));
    rc = RunAsTask(kAdmin, [&] {
        if (WriteAcl(In("moved/f1"), "user:1040:allow:rwxpdDaARWcCo:----") != 0) return 1;
        if (WriteAcl(In("a/f3"), "user:1040:allow:rwxpdDaARWcCo:----") != 0) return 2;
        if (unlink(In("a/f3").c_str()) != 0 || rmdir(In("a").c_str()) != 0) return 3;
        return WriteAcl(In("a/f3"), "user:1040:allow:rwxpdDaARWcCo:----");
    });
    EXPECT_EQ(rc, 0x06);
}

// A task whose effective uid changes resolves its kept folder afresh.
TEST_F(AclIdentity, ATasksKeptFolderIsNotReusedUnderAnotherUid) {
    Dir(In("a"));
    File(In("a/f1"));
    File(In("a/f2"));
    int rc = RunAsTask(kAdmin, [&] {
        if (WriteAcl(In("a/f1"), "user:1040:allow:rwxpdDaARWcCo:----") != 0) return 1;
        // As root, the folder moves away and a new one takes its name.
        if (setresuid(static_cast<uid_t>(-1), 0, static_cast<uid_t>(-1)) != 0) return 2;
        if (rename(In("a").c_str(), In("moved").c_str()) != 0 || mkdir(In("a").c_str(), 0777) != 0)
            return 3;
        File(In("a/f2"));
        // Another administrator, as a task.
        if (setresuid(static_cast<uid_t>(-1), 1041, static_cast<uid_t>(-1)) != 0) return 4;
        if (!kova_test::KeepOnlyCapability(CAP_SYS_ADMIN)) return 5;
        return WriteAcl(In("a/f2"), "user:1041:allow:rwxpdDaARWcCo:----") == 0 ? 0 : 6;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_NE(kova_acl_test::RawRecord(In("a/f2")), "");
    EXPECT_EQ(kova_acl_test::RawRecord(In("moved/f2")), "");
}

TEST_F(AclIdentity, OwnerChangeRules) {
    File(In("f"));
    ASSERT_EQ(SetAcl(In("f"), {"everyone:-1:allow:r------------:----"}), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return SetOwner(In("f"), KOVA_ACL_ID_USER, 1030); }), 0x03);

    ASSERT_EQ(SetAcl(In("f"), {"user:1030:allow:------------o:----", "user:1031:allow:------------o:----"}), 0);
    // Another user, or a group Alice is not in: refused.
    EXPECT_EQ(RunAs(kAlice, [&] { return SetOwner(In("f"), KOVA_ACL_ID_USER, 1031); }), 0x24);
    EXPECT_EQ(RunAs(kAlice, [&] { return SetOwner(In("f"), KOVA_ACL_ID_GROUP, 2001); }), 0x24);
    struct stat st;
    ASSERT_EQ(lstat(In("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    // Herself: the file's uid changes.
    EXPECT_EQ(RunAs(kAlice, [&] { return SetOwner(In("f"), KOVA_ACL_ID_USER, 1030); }), 0);
    ASSERT_EQ(lstat(In("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 1030u);
    // One of her groups: the owner, and its members hold the owner's implicit rights.
    EXPECT_EQ(RunAs(kAlice, [&] { return SetOwner(In("f"), KOVA_ACL_ID_GROUP, 2000); }), 0);
    EXPECT_EQ(OwnerOf(In("f")), "group:2000");
    EXPECT_EQ(RunAs(kBob, [&] { return ReadCode(In("f")); }), 0);
    // Naming a user again replaces the group owner.
    EXPECT_EQ(RunAs(kBob, [&] { return SetOwner(In("f"), KOVA_ACL_ID_USER, 1031); }), 0);
    EXPECT_EQ(OwnerOf(In("f")), "user:1031");
    // An administrator may name anyone below a share root.
    EXPECT_EQ(RunAs(kAdmin, [&] { return SetOwner(In("f"), KOVA_ACL_ID_USER, 4242); }), 0);
    EXPECT_EQ(OwnerOf(In("f")), "user:4242");
}

TEST_F(AclIdentity, GroupOwnerOnModeBitPathConvertsItToAclMode) {
    File(In("g"));
    chmod(In("g").c_str(), 0640);
    ASSERT_EQ(SetOwner(In("g"), KOVA_ACL_ID_GROUP, 2000), 0);
    EXPECT_EQ(KOVAACLIsSupport(In("g").c_str(), -1, KOVA_ACL_SUPPORT_MODE), 1);
    std::vector<std::string> got;
    ASSERT_TRUE(GetAcl(In("g"), KOVA_ACL_GET_OWN, got));
    EXPECT_EQ(got, std::vector<std::string>({"owner:-1:allow:rw-pdDaARWc--:----:0", "group:0:allow:r-----a-R-c--:----:0",
                                             "everyone:-1:allow:-------------:----:0"}));
}

TEST_F(AclIdentity, PrincipalClassesForFixedEntries) {
    File(In("f"));
    ASSERT_EQ(SetAcl(In("f"), {"authenticated_user:-1:allow:r------------:----", "system:-1:allow:-w-----------:----"}),
              0);
    auto perm = [&](uid_t uid) { return PermAs(Identity{uid, uid, {}}, In("f")); };
    EXPECT_EQ(perm(1024), 1);
    EXPECT_EQ(perm(1025), 0);  // the guest is not an authenticated user
    EXPECT_EQ(perm(1026), 1);
    EXPECT_EQ(perm(999), 2);
}

} // namespace
