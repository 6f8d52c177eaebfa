// LDAP accounts as platform accounts against a real slapd: names resolve to the entries'
// ids and back, groups come from memberUid, passwords are checked by a bind.
#include "accountdb-fixture.h"
#include "directory-admin.h"
#include "slapd.h"
#include "temp-root.h"

#include "run-admin.h"

#include "kova/account.h"
#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

using namespace kova_accountdb_test;
using kova_test::DirectoryAdmin;
using kova_test::RunAdmin;
using kova_test::Slapd;
using kova_test::TempRoot;
using Names = std::vector<std::string>;

namespace {

// Slapd(5, 2): user0000..user0004 are uid 10001..10005, group00/01 gid 5006/5007.
constexpr int kUser1Uid = 10002, kUser3Uid = 10004;
constexpr int kGroup0Gid = 5006, kGroup1Gid = 5007;
const char kPassword[] = "directory pw 1";

class LdapAccounts : public ::testing::Test {
protected:
    void SetUp() override {
        if (!Slapd::Installed()) GTEST_SKIP() << "slapd is not installed";
        server_ = std::make_unique<Slapd>(5, 2);
        std::string why;
        ASSERT_TRUE(server_->Start(&why)) << why;
        DirectoryAdmin dir(*server_);
        ASSERT_TRUE(dir.ok());
        ASSERT_TRUE(dir.Modify(kova_test::PersonDn(kUser1Uid), LDAP_MOD_REPLACE, "userPassword", {kPassword}));
        ASSERT_TRUE(dir.Modify(kova_test::GroupDn(kGroup0Gid), LDAP_MOD_ADD, "memberUid", {"user0001", "user0004"}));
        ASSERT_TRUE(dir.Modify(kova_test::GroupDn(kGroup1Gid), LDAP_MOD_ADD, "memberUid", {"user0001"}));
        // A person without posixAccount: searchable, but without ids.
        ASSERT_TRUE(dir.AddPerson("uid=nopos,ou=people,dc=example,dc=com", "nopos"));
        std::string out;
        ASSERT_EQ(RunAdmin("init", &out), 0) << out;
        ASSERT_EQ(RunAdmin("ldap bind --uri " + server_->uri() + " --base " + server_->base() + " --suffix example.com", &out), 0)
            << out;
        ASSERT_EQ(RunAdmin("ldap sync", &out), 0) << out;
        ASSERT_NE(out.find("synced 6 users and 2 groups\n1 of them without uidNumber/gidNumber"), std::string::npos) << out;
    }
    TempRoot root_;
    std::unique_ptr<Slapd> server_;
};

} // namespace

TEST_F(LdapAccounts, NamesResolveToDirectoryIdsAndBack) {
    EXPECT_EQ(Uid("user0001@example.com"), kUser1Uid);
    EXPECT_EQ(Uid("user0001@EXAMPLE.COM"), kUser1Uid);  // the suffix is a DNS name
    EXPECT_EQ(Uid("user0001"), kUser1Uid);              // bare: no local user0001
    PKOVA_USER u = nullptr;
    ASSERT_EQ(KOVAUserGet("user0001@example.com", &u), 0);
    EXPECT_STREQ(u->szName, "user0001@example.com");
    EXPECT_EQ(u->gid, 100u);
    EXPECT_STREQ(u->szEmail, "user0001@example.com");
    EXPECT_EQ(u->isInternal, 0);
    KOVAUserFree(u);
    EXPECT_EQ(UserName(kUser1Uid), "user0001@example.com");
    EXPECT_EQ(KOVAUserIsInternal("user0001@example.com", kUser1Uid), 0);

    EXPECT_EQ(Gid("group00@example.com"), kGroup0Gid);
    EXPECT_EQ(Gid("group01"), kGroup1Gid);
    EXPECT_EQ(GroupName(kGroup1Gid), "group01@example.com");
    int gid = -1;
    EXPECT_EQ(KOVAGroupGetGID("group00@example.com", &gid), 0);
    EXPECT_EQ(gid, kGroup0Gid);
    EXPECT_EQ(KOVAGroupIsAdminGroup("group00@example.com"), 0);

    // Groups: the primary gidNumber, then every group naming the user in memberUid.
    EXPECT_EQ(GroupsOf("user0001@example.com"), (Names{"100", "5006", "5007"}));
    EXPECT_EQ(GroupsOf("user0004@example.com"), (Names{"100", "5006"}));
    EXPECT_EQ(GroupsOf("user0002@example.com"), (Names{"100"}));
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("user0001@example.com", 0), 0);
    EXPECT_EQ(KLIBGroupIsAdminGroupMemByUid(kUser1Uid, 0), 0);

    // Not found: another suffix, an entry without uidNumber, an unknown id.
    for (const char *name : {"user0001@other.example", "nopos@example.com", "nobody@example.com", "@example.com"}) {
        EXPECT_LT(Uid(name), 0) << name;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER) << name;
    }
    EXPECT_EQ(UserName(10999), "");
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER);
    EXPECT_EQ(GroupName(5999), "");
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOGROUP);

    // kova-admin shows them with their source and groups.
    std::string shown;
    ASSERT_EQ(RunAdmin("user show user0001", &shown), 0) << shown;
    EXPECT_NE(shown.find("name: user0001@example.com\nsource: ldap\nuid: 10002\ngid: 100\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("groups: users (100), group00@example.com (5006), group01@example.com (5007)\n"), std::string::npos)
        << shown;
    ASSERT_EQ(RunAdmin("group show group00@example.com", &shown), 0) << shown;
    EXPECT_EQ(shown, "name: group00@example.com\nsource: ldap\ngid: 5006\ndescription: Team 00\n");
    EXPECT_EQ(RunAdmin("user set user0001 --desc x", &shown), 1);
    EXPECT_EQ(shown, "kova-admin: 'user0001@example.com' is a directory account: change it in its directory\n");

    // Unbound, the directory answers nothing.
    std::string out;
    ASSERT_EQ(RunAdmin("ldap unbind", &out), 0) << out;
    EXPECT_LT(Uid("user0001@example.com"), 0);
    EXPECT_EQ(UserName(kUser1Uid), "");
}

TEST_F(LdapAccounts, LocalAccountWinsANameOrIdClash) {
    ASSERT_EQ(KOVAUserAdd("user0003", 2003, "local pw 1", nullptr, nullptr, 0), 0);
    EXPECT_EQ(Uid("user0003"), 2003);
    EXPECT_EQ(Uid("user0003@example.com"), kUser3Uid);
    EXPECT_EQ(UserName(kUser3Uid), "user0003@example.com");
    // A local account holding a directory id takes it: the entry then has no id.
    ASSERT_EQ(KOVAGroupAdd("localteam", kGroup1Gid, nullptr), 0);
    EXPECT_EQ(GroupName(kGroup1Gid), "localteam");
    EXPECT_LT(Gid("group01@example.com"), 0);
    EXPECT_EQ(GroupsOf("user0001@example.com"), (Names{"100", "5006"}));
    // So does a domain's id range: ids there are the domain's alone.
    std::string out;
    ASSERT_EQ(RunAdmin("domain range CORP --base 10004 --size 10", &out), 0) << out;
    EXPECT_LT(Uid("user0004@example.com"), 0);
    EXPECT_EQ(Uid("user0002@example.com"), 10003);
}

TEST_F(LdapAccounts, PasswordsAreCheckedByABindToTheDirectory) {
    EXPECT_EQ(KOVAUserPasswordCheck("user0001@example.com", kPassword), 0);
    EXPECT_EQ(KOVAUserPasswordCheck("user0001", kPassword), 0);
    for (const char *pw : {"wrong", "", "directory pw 1 "}) {
        EXPECT_EQ(KOVAUserPasswordCheck("user0001@example.com", pw), -1) << pw;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_PERM) << pw;
    }
    // No password in the directory, not in the cache, no ids.
    EXPECT_EQ(KOVAUserPasswordCheck("user0002@example.com", kPassword), -1);
    EXPECT_EQ(KOVAUserPasswordCheck("nobody@example.com", kPassword), -1);
    EXPECT_EQ(KOVAUserPasswordCheck("nopos@example.com", kPassword), -1);
    // A local account of the same bare name is the one checked.
    ASSERT_EQ(KOVAUserAdd("user0001", 2001, "local pw 1", nullptr, nullptr, 0), 0);
    EXPECT_EQ(KOVAUserPasswordCheck("user0001", kPassword), -1);
    EXPECT_EQ(KOVAUserPasswordCheck("user0001", "local pw 1"), 0);
    EXPECT_EQ(KOVAUserPasswordCheck("user0001@example.com", kPassword), 0);
    // The server gone: refused as unreachable.
    server_->Stop();
    EXPECT_EQ(KOVAUserPasswordCheck("user0001@example.com", kPassword), -1);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_DIRSVC);
}

TEST_F(LdapAccounts, FilesOwnedByADirectoryUserCarryItsUidNumber) {
    std::string out;
    ASSERT_EQ(RunAdmin("share add data", &out), 0) << out;
    std::string file = root_.At("volumes/volume1/data/report.txt");
    ASSERT_TRUE(kova_test::WriteFile(file, "x"));
    PKOVA_USER u = nullptr;
    ASSERT_EQ(KOVAUserGet("user0001@example.com", &u), 0);
    KOVA_ACL_ID owner{KOVA_ACL_ID_USER, static_cast<int>(u->uid)};
    KOVAUserFree(u);
    ASSERT_EQ(KOVAACLOwnerIdSet(file.c_str(), &owner), 0);
    struct stat st;
    ASSERT_EQ(lstat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, static_cast<uid_t>(kUser1Uid));
    KOVA_ACL_ID back{};
    ASSERT_EQ(KOVAACLOwnerIdGet(file.c_str(), &back), 0);
    EXPECT_EQ(UserName(static_cast<unsigned>(back.id)), "user0001@example.com");
    // kova-admin names the owner the way the search does.
    ASSERT_EQ(RunAdmin("acl owner " + file + " group:group00@example.com", &out), 0) << out;
    ASSERT_EQ(RunAdmin("acl get " + file, &out), 0) << out;
    EXPECT_NE(out.find("owner: group:group00@example.com"), std::string::npos) << out;
}
