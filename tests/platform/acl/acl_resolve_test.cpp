// Where the path calls act and with which ids, when folders move or become links.
#include "acl-fixture.h"
#include "share-fixture.h"

#include "as-identity.h"
#include "kova/account.h"
#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

using namespace kova_acl_test;
using kova_test::Identity;
using kova_test::RunAs;

int SetOne(const std::string &p, const char *entry, bool inherits = true) {
    return SetOneCode(p, entry, inherits);
}

// The ids a RunAs child started with are still in force.
bool SameIds(const Identity &who) {
    if (geteuid() != who.uid || getegid() != who.gid) return false;
    std::vector<gid_t> groups(64);
    int n = getgroups(static_cast<int>(groups.size()), groups.data());
    if (n < 0) return false;
    groups.resize(static_cast<size_t>(n));
    return groups == who.groups;
}

int RemoveFileRecord(const std::string &p) { return Code(KOVAACLRemove(p.c_str(), -1)); }

class AclResolve : public AclFixture {};

TEST_F(AclResolve, AFolderSwappedForALinkIsJudgedWhereItLeads) {
    Dir(In("a"));
    File(In("a/f"));
    Dir(root_.At("outside"));
    // Below the share root an administrator may write.
    ASSERT_EQ(RunAs(kAdmin, [&] { return SetOne(In("a/f"), "user:1030:allow:r------------:----"); }), 0);
    const std::string written = RawRecord(In("a/f"));
    ASSERT_FALSE(written.empty());

    // The folder moves out of every share and a link takes its place.
    ASSERT_EQ(rename(In("a").c_str(), root_.At("outside/a").c_str()), 0);
    ASSERT_EQ(symlink(root_.At("outside/a").c_str(), In("a").c_str()), 0);
    // The path now leads outside: the admin is judged by the entries there, no change_perm.
    EXPECT_EQ(RunAs(kAdmin, [&] { return SetOne(In("a/f"), "everyone:-1:allow:rwxpdDaARWcCo:----"); }), 0xD8);
    EXPECT_EQ(RawRecord(root_.At("outside/a/f")), written);
    // Root writes where the path really leads, not in a stale place.
    EXPECT_EQ(SetOne(In("a/f"), "user:1031:allow:r------------:----"), 0);
    EXPECT_NE(RawRecord(root_.At("outside/a/f")), written);
    EXPECT_EQ(RawRecord(In("a")), "");  // the link itself was left alone
}

// A link at a share root's own path is an entry of the share around it.
TEST_F(AclResolve, ALinkAtAShareRootsPathBelongsToTheShareAroundIt) {
    ASSERT_EQ(kova_share_test::AddAclShare("vol", root_.At("volumes/volume1"), KOVA_SHARE_PRIV_RW), 0);
    // Wait until the share table is kept, so that it still knows data's root.
    usleep(2100 * 1000);
    char name[64], root[4096];
    ASSERT_EQ(KOVAShareNamePathGet(Share().c_str(), name, sizeof name, root, sizeof root), 0);
    ASSERT_STREQ(name, "data");
    const std::string moved = root_.At("elsewhere");
    ASSERT_EQ(rename(Share().c_str(), moved.c_str()), 0);
    ASSERT_EQ(symlink(moved.c_str(), Share().c_str()), 0);
    // Below the root of "vol" an admin writes the link's own record, never its target's.
    EXPECT_EQ(RunAs(kAdmin, [&] { return SetOne(Share(), "everyone:-1:allow:r------------:----"); }), 0);
    EXPECT_NE(RawRecord(Share()), "");
    EXPECT_EQ(RawRecord(moved), "");
}

TEST_F(AclResolve, DotAndDotDotNamesAndFinalLinksWriteTheRightRecord) {
    Dir(In("d/sub"));
    File(In("d/target"));
    ASSERT_EQ(symlink(In("d/target").c_str(), In("d/link").c_str()), 0);
    // "d/sub/.." and "d/." both name d itself.
    ASSERT_EQ(SetOne(In("d/sub/.."), "user:1030:allow:r------------:----"), 0);
    const std::string viaDotDot = RawRecord(In("d"));
    EXPECT_FALSE(viaDotDot.empty());
    EXPECT_EQ(RawRecord(In("d/sub")), "");
    ASSERT_EQ(SetOne(In("d/."), "user:1031:allow:r------------:----"), 0);
    EXPECT_NE(RawRecord(In("d")), viaDotDot);
    // A link is its own subject: its record changes, its target's does not.
    ASSERT_EQ(SetOne(In("d/link"), "user:1032:allow:r------------:----"), 0);
    EXPECT_FALSE(RawRecord(In("d/link")).empty());
    EXPECT_EQ(RawRecord(In("d/target")), "");
    // A link in the middle of the path is followed to the real folder.
    ASSERT_EQ(symlink(In("d").c_str(), In("alias").c_str()), 0);
    ASSERT_EQ(SetOne(In("alias/sub"), "user:1033:allow:r------------:----"), 0);
    EXPECT_FALSE(RawRecord(In("d/sub")).empty());
    EXPECT_EQ(RawRecord(In("alias")), "");
}

TEST_F(AclResolve, AdministratorsBelowTheRootDoNotDependOnAncestors) {
    Dir(In("d"));
    File(In("d/f"));
    ASSERT_EQ(SetAcl(In("d/f"), {"user:1030:allow:rwxpdDaARWcCo:----"}, true), 0);
    ASSERT_TRUE(WriteRawRecord(In("d"), std::string(40, 'x')));
    // An admin's rights below the root come from its group: a damaged ancestor is not read.
    EXPECT_EQ(RunAs(kAdmin, [&] { return SetOne(In("d/f"), "user:1030:allow:rwxpdDaARWcCo:----"); }), 0);
    EXPECT_EQ(RunAs(kAdmin, [&] { return Code(KOVAACLRemove(In("d/f").c_str(), -1)); }), 0);
    // A user's right from an entry needs the inherited ones, which the damage stops.
    ASSERT_EQ(SetAcl(In("d/f"), {"user:1030:allow:rwxpdDaARWcCo:----"}, true), 0);
    EXPECT_EQ(RunAs(kAlice, [&] { return SetOne(In("d/f"), "user:1030:allow:rwxpdDaARWcCo:----"); }),
              KOVA_ERR_CORRUPT >> 8);
    // The administrator's own record must still be readable to be kept.
    ASSERT_TRUE(WriteRawRecord(In("d/f"), std::string(40, 'x')));
    EXPECT_EQ(RunAs(kAdmin, [&] { return SetOne(In("d/f"), "everyone:-1:allow:r------------:----"); }),
              KOVA_ERR_CORRUPT >> 8);
    EXPECT_EQ(RawRecord(In("d/f")), std::string(40, 'x'));
}

// Writers whose rights ignore entries keep a group owner, leave an equal record alone
// and make nothing for a missing path.
TEST_F(AclResolve, WritersWhoseRightsIgnoreEntriesKeepTheGroupOwner) {
    Dir(In("d"));
    File(In("d/f"));
    File(In("d/g"));
    const KOVA_ACL_ID group{KOVA_ACL_ID_GROUP, 2000};
    ASSERT_EQ(KOVAACLOwnerIdSet(In("d/f").c_str(), &group), 0);
    const std::string grouped = RawRecord(In("d/f"));
    ASSERT_FALSE(grouped.empty());
    for (const Identity &who : {Identity{0, 0, {}}, kAdmin}) {
        SCOPED_TRACE(who.uid);
        EXPECT_EQ(RunAs(who, [&] { return SetOne(In("d/f"), "user:1030:allow:r------------:----"); }), 0);
        const std::string first = RawRecord(In("d/f"));
        EXPECT_NE(first, grouped);
        EXPECT_EQ(OwnerOf(In("d/f")), "group:2000");
        // The same ACL again: nothing changes.
        EXPECT_EQ(RunAs(who, [&] { return SetOne(In("d/f"), "user:1030:allow:r------------:----"); }), 0);
        EXPECT_EQ(RawRecord(In("d/f")), first);
        // Another one replaces the entries and still keeps the group.
        EXPECT_EQ(RunAs(who, [&] { return SetOne(In("d/f"), "user:1031:allow:rw-----------:----", false); }), 0);
        std::vector<std::string> entries;
        bool inherits = true;
        ASSERT_TRUE(GetAcl(In("d/f"), KOVA_ACL_GET_OWN, entries, &inherits));
        EXPECT_EQ(entries, std::vector<std::string>({"user:1031:allow:rw-----------:----:0"}));
        EXPECT_FALSE(inherits);
        EXPECT_EQ(OwnerOf(In("d/f")), "group:2000");
        // A path without a record gets one with the file's user as owner.
        ASSERT_EQ(RemoveFileRecord(In("d/g")), 0);
        EXPECT_EQ(RunAs(who, [&] { return SetOne(In("d/g"), "user:1030:allow:r------------:----"); }), 0);
        EXPECT_EQ(OwnerOf(In("d/g")), "user:0");
        ASSERT_TRUE(GetAcl(In("d/g"), KOVA_ACL_GET_OWN, entries));
        EXPECT_EQ(entries, std::vector<std::string>({"user:1030:allow:r------------:----:0"}));
        // A missing name in an existing folder: refused, nothing made.
        EXPECT_EQ(RunAs(who, [&] { return SetOne(In("d/missing"), "user:1030:allow:r------------:----"); }),
                  KOVA_ERR_NOENT >> 8);
        struct stat st;
        EXPECT_NE(lstat(In("d/missing").c_str(), &st), 0);
    }
}

// The administrator group is found however many groups the caller has.
TEST_F(AclResolve, AdministratorFoundAmongManyGroups) {
    Dir(In("d"));
    File(In("d/f"));
    ASSERT_EQ(SetAcl(In("d/f"), {"everyone:-1:deny:rwxpdDaARWcCo:----"}, false), 0);
    Identity many{1041, 1041, {}};
    for (gid_t g = 3000; g < 3100; ++g) many.groups.push_back(g);
    many.groups.push_back(KOVA_ADMIN_GID);
    EXPECT_EQ(RunAs(many, [&] { return SetOne(In("d/f"), "user:1030:allow:r------------:----"); }), 0);
    many.groups.pop_back();
    EXPECT_EQ(RunAs(many, [&] { return SetOne(In("d/f"), "user:1030:allow:r------------:----"); }),
              KOVA_ERR_ACL_DENIED >> 8);
}

TEST_F(AclResolve, EveryCallHandsTheCallerItsIdsBack) {
    Dir(In("d"));
    File(In("d/f"));
    for (const Identity &who : {kAdmin, kAlice}) {
        EXPECT_EQ(RunAs(who,
                        [&] {
                            int bad = 0;
                            SetOne(In("d/f"), "user:1030:allow:r------------:----");  // allowed or not
                            bad |= SameIds(who) ? 0 : 1;
                            SetOne(Share(), "everyone:-1:allow:r------------:----");  // refused
                            bad |= SameIds(who) ? 0 : 2;
                            SetOne(In("missing/f"), "everyone:-1:allow:r------------:----");  // no such path
                            bad |= SameIds(who) ? 0 : 4;
                            PKOVA_ACL acl = nullptr;
                            KOVAACLGet(In("d/f").c_str(), -1, KOVA_ACL_GET_ALL, &acl);
                            KOVAACLFree(acl);
                            bad |= SameIds(who) ? 0 : 8;
                            return bad;
                        }),
                  0)
            << who.uid;
    }
}

} // namespace
