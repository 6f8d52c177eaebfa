// kova-admin's user and group commands against a fresh root.
#include "temp-root.h"

#include "kova/account.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <string>

using kova_test::TempRoot;

namespace {
int Admin(const std::string &args, std::string *out = nullptr) {
    std::string cmd = kova_test::BuildDir() + "/bin/kova-admin " + args + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    std::string text;
    char buf[512];
    while (size_t n = fread(buf, 1, sizeof(buf), p)) text.append(buf, n);
    int status = pclose(p);
    if (out) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}
} // namespace

TEST(AdminCommands, UsersAndGroupsRoundTrip) {
    TempRoot root;
    std::string out;
    ASSERT_EQ(Admin("user add ivy --password 'pa ss' --desc 'Ivy I' --email ivy@example.com", &out), 0) << out;
    EXPECT_EQ(KOVAUserPasswordCheck("ivy", "pa ss"), 0);
    ASSERT_EQ(Admin("group add ops --gid 2000 --desc Operations", &out), 0) << out;
    ASSERT_EQ(Admin("group member add administrators ivy", &out), 0) << out;
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("ivy", 0), 1);
    ASSERT_EQ(Admin("user set ivy --gid 2000 --disabled yes --desc 'Ivy II'", &out), 0) << out;
    ASSERT_EQ(Admin("user list", &out), 0);
    EXPECT_NE(out.find("ivy\t1026\t2000\tIvy II\tivy@example.com"), std::string::npos) << out;
    EXPECT_LT(KOVAUserPasswordCheck("ivy", "pa ss"), 0);  // disabled now
    ASSERT_EQ(Admin("group list", &out), 0);
    EXPECT_NE(out.find("ops\t2000\tOperations"), std::string::npos) << out;
    // Refusals say why, with the platform error, and change nothing.
    EXPECT_EQ(Admin("user add ivy", &out), 1);
    EXPECT_NE(out.find("cannot add user 'ivy' [0x0900"), std::string::npos) << out;
    EXPECT_EQ(Admin("user add jay --uid abc", &out), 1);
    EXPECT_NE(out.find("invalid uid"), std::string::npos) << out;
    EXPECT_EQ(Admin("group del ops", &out), 1);  // ivy's primary group
    EXPECT_EQ(Admin("user set ivy --disabled maybe", &out), 1);
    ASSERT_EQ(Admin("user passwd ivy newpw", &out), 0) << out;
    ASSERT_EQ(Admin("group member del administrators ivy", &out), 0) << out;
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("ivy", 0), 0);
    ASSERT_EQ(Admin("user del ivy", &out), 0) << out;
    ASSERT_EQ(Admin("group del ops", &out), 0) << out;
    PKOVA_USER u = nullptr;
    EXPECT_LT(KOVAUserGet("ivy", &u), 0);
}
