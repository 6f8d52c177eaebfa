// kova-admin's user and group commands against a fresh root.
#include "temp-root.h"

#include "kova/account.h"

#include "run-admin.h"

#include <gtest/gtest.h>

#include <string>

using kova_test::TempRoot;

namespace {
using kova_test::RunAdmin;
} // namespace

TEST(AdminCommands, UsersAndGroupsRoundTrip) {
    TempRoot root;
    std::string out;
    ASSERT_EQ(RunAdmin("user add ivy --password 'pa ss' --desc 'Ivy I' --email ivy@example.com", &out), 0) << out;
    EXPECT_EQ(KOVAUserPasswordCheck("ivy", "pa ss"), 0);
    ASSERT_EQ(RunAdmin("group add ops --gid 2000 --desc Operations", &out), 0) << out;
    ASSERT_EQ(RunAdmin("group member add administrators ivy", &out), 0) << out;
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("ivy", 0), 1);
    ASSERT_EQ(RunAdmin("user set ivy --gid 2000 --disabled yes --desc 'Ivy II'", &out), 0) << out;
    ASSERT_EQ(RunAdmin("user list", &out), 0);
    EXPECT_NE(out.find("ivy\t1026\t2000\tIvy II\tivy@example.com"), std::string::npos) << out;
    EXPECT_LT(KOVAUserPasswordCheck("ivy", "pa ss"), 0);  // disabled now
    ASSERT_EQ(RunAdmin("group list", &out), 0);
    EXPECT_NE(out.find("ops\t2000\tOperations"), std::string::npos) << out;
    // Refusals say why in words, and change nothing.
    EXPECT_EQ(RunAdmin("user add ivy", &out), 1);
    EXPECT_EQ(out, "kova-admin: user 'ivy' already exists\n");
    EXPECT_EQ(RunAdmin("user add ivy2 --uid 1026", &out), 1);
    EXPECT_NE(out.find("cannot add user 'ivy2': uid 1026 is taken"), std::string::npos) << out;
    EXPECT_EQ(RunAdmin("group add ops", &out), 1);
    EXPECT_EQ(out, "kova-admin: group 'ops' already exists\n");
    EXPECT_EQ(RunAdmin("user del nobody", &out), 1);
    EXPECT_EQ(out, "kova-admin: cannot delete user 'nobody': no such user\n");
    EXPECT_EQ(out.find("0x"), std::string::npos) << out;
    EXPECT_EQ(RunAdmin("user add jay --uid abc", &out), 1);
    EXPECT_NE(out.find("invalid uid"), std::string::npos) << out;
    EXPECT_EQ(RunAdmin("group del ops", &out), 1);  // ivy's primary group
    EXPECT_EQ(RunAdmin("user set ivy --disabled maybe", &out), 1);
    ASSERT_EQ(RunAdmin("user passwd ivy newpw", &out), 0) << out;
    ASSERT_EQ(RunAdmin("group member del administrators ivy", &out), 0) << out;
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("ivy", 0), 0);
    ASSERT_EQ(RunAdmin("user del ivy", &out), 0) << out;
    ASSERT_EQ(RunAdmin("group del ops", &out), 0) << out;
    PKOVA_USER u = nullptr;
    EXPECT_LT(KOVAUserGet("ivy", &u), 0);
}
