// Local accounts: defaults, lookups, holder reuse, passwords and administration.
#include "../accountdb/accountdb-fixture.h"
#include "as-identity.h"
#include "temp-root.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

using namespace kova_accountdb_test;
using kova_test::TempRoot;

TEST(Accounts, NewRootHasDefaultAccountsAndAdministrators) {
    TempRoot root;
    PKOVA_USER admin = nullptr;
    ASSERT_EQ(KOVAUserGet("admin", &admin), 0);
    EXPECT_EQ(admin->uid, 1024u);
    EXPECT_EQ(admin->gid, 100u);
    EXPECT_FALSE(admin->isInternal);
    KOVAUserFree(admin);
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("admin", 0), 1);
    EXPECT_EQ(KLIBGroupIsAdminGroupMemByUid(1024, 0), 1);
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("guest", 0), 0);
    EXPECT_EQ(KOVAGroupIsAdminGroup("administrators"), 1);
    EXPECT_EQ(KOVAGroupIsAdminGroup("users"), 0);
    EXPECT_EQ(KOVAGroupIsAdminGroupByGid(KOVA_ADMIN_GID), 1);
    EXPECT_EQ(KOVAGroupIsAdminGroupByGid(100), 0);
    EXPECT_LT(KOVAGroupIsAdminGroup("nosuch"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOGROUP);

    PKOVA_USER guest = nullptr;
    ASSERT_EQ(KOVAUserGetByUID(KOVA_UID_GUEST, &guest), 0);
    EXPECT_STREQ(guest->szName, "guest");
    EXPECT_TRUE(guest->isDisabled);
    KOVAUserFree(guest);
    EXPECT_NE(KOVAUserIsInternal("kova-sys", 0), 0);
    EXPECT_NE(KOVAUserIsInternal(nullptr, 81), 0);
    EXPECT_EQ(KOVAUserIsInternal("admin", 0), 0);
    // The admin password stays unset until one is set: no login at all.
    EXPECT_LT(KOVAUserPasswordCheck("admin", ""), 0);
    // The file holds password hashes: only root may read it.
    struct stat st;
    ASSERT_EQ(stat(root.At("etc/accounts.db").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 077, 0u);
}

TEST(Accounts, ResultConventionsErrorsAndHolderReuse) {
    TempRoot root;
    PKOVA_USER u = nullptr;
    EXPECT_EQ(KOVAUserGet("nobody", &u), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER);
    EXPECT_EQ(u, nullptr);
    // Names are case-sensitive.
    EXPECT_LT(KOVAUserGet("Admin", &u), 0);
    EXPECT_EQ(Gid("nogroup"), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOGROUP);
    EXPECT_EQ(Gid("users"), 100);
    int uid = -5, gid = -5;
    ASSERT_EQ(KOVAUserGetUGID("admin", &uid, nullptr), 0);
    EXPECT_EQ(uid, 1024);
    ASSERT_EQ(KOVAUserGetUGID("admin", nullptr, &gid), 0);
    EXPECT_EQ(gid, 100);
    ASSERT_GE(KOVAGroupGetGID("administrators", &gid), 0);
    EXPECT_EQ(gid, 101);
    EXPECT_LT(KOVAUserGet(nullptr, &u), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    EXPECT_LT(KLIBGroupIsAdminGroupMem("nobody", 0), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER);
    EXPECT_EQ(GroupsOf("nobody"), std::vector<std::string>{"failed"});

    // By-id calls refill the holder they are given.
    ASSERT_EQ(KOVAUserAdd("carol", -1, nullptr, "first desc", "c@example.com", 0), 0);
    PKOVA_USER holder = nullptr;
    ASSERT_EQ(KOVAUserGetByUID(1024, &holder), 0);
    PKOVA_USER first = holder;
    ASSERT_EQ(KOVAUserGetByUID(1026, &holder), 0);
    EXPECT_EQ(holder, first);  // same record, refilled
    EXPECT_STREQ(holder->szName, "carol");
    EXPECT_STREQ(holder->szDesc, "first desc");
    // A failed lookup leaves the holder as it was.
    EXPECT_LT(KOVAUserGetByUID(4242, &holder), 0);
    EXPECT_STREQ(holder->szName, "carol");
    KOVAUserFree(holder);

    PKOVA_GROUP gh = nullptr;
    ASSERT_GE(KOVAGroupGetByGID(100, &gh), 0);
    PKOVA_GROUP gfirst = gh;
    ASSERT_GE(KOVAGroupGetByGID(101, &gh), 0);
    EXPECT_EQ(gh, gfirst);
    EXPECT_STREQ(gh->szName, "administrators");
    KOVAGroupFree(gh);
}

TEST(Accounts, AdministrationKeepsIdsAndNamesUnique) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("erin", -1, nullptr, nullptr, nullptr, 0), 0);
    ASSERT_EQ(KOVAUserAdd("frank", -1, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(Uid("frank"), 1027);  // users count from 1026
    EXPECT_LT(KOVAUserAdd("erin", -1, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_EXIST);
    EXPECT_LT(KOVAUserAdd("other", 1026, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_EXIST);
    for (const char *bad : {"", "a/b", "dom\\user", "x@y", " lead", "tab\there", "quote\"d"}) {
        EXPECT_LT(KOVAUserAdd(bad, -1, nullptr, nullptr, nullptr, 0), 0) << bad;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG) << bad;
    }
    ASSERT_EQ(KOVAUserAdd("svc", -1, nullptr, nullptr, nullptr, 1), 0);
    EXPECT_GE(Uid("svc"), 0);
    EXPECT_LT(Uid("svc"), KOVA_UID_FIRST_USER);
    EXPECT_NE(KOVAUserIsInternal("svc", 0), 0);

    ASSERT_EQ(KOVAGroupAdd("devs", -1, "Developers"), 0);
    int gid = 0;
    ASSERT_GE(KOVAGroupGetGID("devs", &gid), 0);
    EXPECT_EQ(gid, 1000);
    EXPECT_LT(KOVAGroupAdd("devs", -1, nullptr), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_EXIST);
    char *desc = nullptr;
    ASSERT_GE(KOVAGroupDescGet("devs", &desc, nullptr), 0);
    EXPECT_STREQ(desc, "Developers");
    free(desc);
    ASSERT_EQ(KOVAGroupAdd("nodesc", -1, nullptr), 0);
    ASSERT_GE(KOVAGroupDescGet("nodesc", &desc, nullptr), 0);
    EXPECT_STREQ(desc, "");
    free(desc);

    // Membership: primary group first, then the others by gid.
    ASSERT_EQ(KOVAGroupMemberAdd("devs", "erin"), 0);
    ASSERT_EQ(KOVAGroupMemberAdd("administrators", "erin"), 0);
    ASSERT_EQ(KOVAGroupMemberAdd("devs", "erin"), 0);  // twice is once
    EXPECT_EQ(GroupsOf("erin"), (std::vector<std::string>{"100", "101", "1000"}));
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("erin", 0), 1);
    ASSERT_EQ(KOVAGroupMemberRemove("administrators", "erin"), 0);
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("erin", 0), 0);
    EXPECT_LT(KOVAGroupMemberRemove("administrators", "erin"), 0);
    EXPECT_LT(KOVAGroupMemberAdd("devs", "nobody"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER);
    EXPECT_LT(KOVAGroupMemberAdd("nogroup", "erin"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOGROUP);

    // A primary group and the built-in groups cannot go.
    PKOVA_USER u = nullptr;
    ASSERT_EQ(KOVAUserGet("frank", &u), 0);
    u->gid = static_cast<unsigned>(gid);
    ASSERT_EQ(KOVAUserSet(u), 0);
    KOVAUserFree(u);
    EXPECT_LT(KOVAGroupDelete("devs"), 0);
    EXPECT_LT(KOVAGroupDelete("administrators"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_PERM);
    ASSERT_EQ(KOVAUserDelete("frank"), 0);
    ASSERT_EQ(KOVAGroupDelete("devs"), 0);
    // Deleting a user drops its memberships with it.
    ASSERT_EQ(KOVAGroupMemberAdd("administrators", "erin"), 0);
    ASSERT_EQ(KOVAUserDelete("erin"), 0);
    ASSERT_EQ(KOVAUserAdd("erin", 1026, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("erin", 0), 0);
}

TEST(Accounts, UserSetRenamesAndRefusesClashesAndPasswordsAreReplaced) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("gina", -1, nullptr, nullptr, nullptr, 0), 0);
    PKOVA_USER u = nullptr;
    ASSERT_EQ(KOVAUserGet("gina", &u), 0);
    char other[] = "admin";
    char *keep = u->szName;
    u->szName = other;
    EXPECT_LT(KOVAUserSet(u), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_EXIST);
    char renamed[] = "gina2";
    u->szName = renamed;
    u->gid = 4242;
    EXPECT_LT(KOVAUserSet(u), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOGROUP);
    u->gid = 100;
    ASSERT_EQ(KOVAUserSet(u), 0);
    u->szName = keep;
    KOVAUserFree(u);
    EXPECT_EQ(Uid("gina"), -1);
    EXPECT_EQ(Uid("gina2"), 1026);

    // Which sign-ins pass is sign_in_test's; here a new password replaces the old one.
    ASSERT_EQ(KOVAUserAdd("dave", -1, "s3cret", nullptr, nullptr, 0), 0);
    EXPECT_LT(KOVAUserPasswordCheck("dave", "S3cret"), 0);
    ASSERT_EQ(KOVAUserPasswordSet("dave", "new pw"), 0);
    EXPECT_LT(KOVAUserPasswordCheck("dave", "s3cret"), 0);
    EXPECT_EQ(KOVAUserPasswordCheck("dave", "new pw"), 0);
    EXPECT_LT(KOVAUserPasswordSet("nobody", "x"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER);
}

TEST(Accounts, InjectedFaultsFailCleanlyAndLeaveDataAsItWas) {
    TempRoot root;
    KLIBCFaultClearAll();
    ASSERT_EQ(KLIBCFaultSet("KOVAUserGet", 1, -1, KOVA_ERR_IO), 0);
    PKOVA_USER u = nullptr;
    EXPECT_EQ(KOVAUserGet("admin", &u), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
    EXPECT_EQ(u, nullptr);
    ASSERT_EQ(KOVAUserGet("admin", &u), 0);
    KOVAUserFree(u);
    // Upper-casing failing inside a case-insensitive enumeration fails it as a whole.
    ASSERT_EQ(KLIBCFaultSet("KLIBCUnicodeUTF8StrUpper", 0, -1, KOVA_ERR_BADARG), 0);
    EXPECT_LT(KLIBUserInfoEnumBySubstr(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, "adm", 1, nullptr, nullptr), 0);
    KLIBCFaultClearAll();
    EXPECT_EQ(KLIBUserInfoEnumBySubstr(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, "adm", 1, nullptr, nullptr), 1);
}

TEST(Accounts, OrdinaryIdentityCanLookUpAccounts) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("henry", -1, nullptr, nullptr, nullptr, 0), 0);
    // The server calls as the logged-in user with saved uid 0.
    int rc = kova_test::RunAs({1026, 100, {100}}, [] {
        if (Uid("henry") != 1026) return 1;
        if (KLIBGroupIsAdminGroupMem("admin", 0) != 1) return 3;
        return geteuid() == 1026 ? 0 : 4;  // back to the caller's identity
    });
    EXPECT_EQ(rc, 0);
}
