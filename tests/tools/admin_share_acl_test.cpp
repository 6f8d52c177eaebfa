// kova-admin init, share and acl commands, run as the built tool.
#include "kova/account.h"
#include "kova/acl.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "run-admin.h"
#include "temp-root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

struct Result {
    int status;
    std::string out;
};

// Runs kova-admin --root <root> args... with stdout and stderr captured.
Result Admin(const std::string &root, std::vector<std::string> args) {
    args.insert(args.begin(), {"--root", root});
    Result r;
    r.status = kova_test::RunAdmin(args, &r.out);
    return r;
}

class AdminTool : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(Admin(root_.path(), {"init"}).status, 0); }
    Result Run(const std::vector<std::string> &args) { return Admin(root_.path(), args); }
    // A command that must succeed: its output.
    std::string Out(const std::vector<std::string> &args) {
        Result r = Run(args);
        EXPECT_EQ(r.status, 0) << r.out;
        return r.out;
    }
    kova_test::TempRoot root_;
};

TEST_F(AdminTool, ShareAddShowListAndPrivileges) {
    Out({"share", "add", "data", "--read-only", "--default-priv", "ro", "--acl-status", "0"});
    struct stat st;
    ASSERT_EQ(stat(root_.At("volumes/volume1/data").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    // A new share folder is root's, mode 0755, unless asked otherwise.
    EXPECT_EQ(st.st_mode & 07777, 0755u);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_gid, 0u);
    ASSERT_GE(KOVAUserAdd("owner1", 2101, nullptr, nullptr, nullptr, 0), 0);
    Out({"share", "add", "team", "--path", root_.At("elsewhere/team"), "--mode", "2770", "--owner", "owner1"});
    ASSERT_EQ(stat(root_.At("elsewhere/team").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 02770u);
    EXPECT_EQ(st.st_uid, 2101u);
    EXPECT_EQ(st.st_gid, 100u);  // the owner's primary group
    for (std::vector<std::string> bad : {std::vector<std::string>{"--mode", "999"}, {"--mode", "0777x"}, {"--owner", "ghost"}}) {
        std::vector<std::string> args = {"share", "add", "bad", "--path", root_.At("elsewhere/bad")};
        args.insert(args.end(), bad.begin(), bad.end());
        EXPECT_NE(Run(args).status, 0) << bad[1];
        EXPECT_NE(lstat(root_.At("elsewhere/bad").c_str(), &st), 0) << bad[1];  // refused before creating anything
    }
    PKOVA_SHARE s = nullptr;
    ASSERT_EQ(KOVAShareGet("data", &s), 0);
    EXPECT_EQ(std::string(s->szPath), root_.At("volumes/volume1/data"));
    EXPECT_EQ(s->isReadOnly, 1);
    EXPECT_EQ(s->aclStatus, 0);
    EXPECT_EQ(s->supportAcl, 1);
    EXPECT_EQ(s->defaultPriv, KOVA_SHARE_PRIV_RO);
    KOVAShareFree(s);

    ASSERT_TRUE(kova_test::MakeDirs(root_.At("elsewhere/pub")));
    ASSERT_EQ(Run({"share", "add", "pub", "--path", root_.At("elsewhere/pub"), "--no-acl"}).status, 0);
    EXPECT_EQ(Out({"share", "list"}), "data\t" + root_.At("volumes/volume1/data") + "\npub\t" + root_.At("elsewhere/pub") + "\nteam\t" +
                         root_.At("elsewhere/team") + "\n");
    EXPECT_NE(Out({"share", "show", "pub"}).find("acl: 0\n"), std::string::npos);
    EXPECT_NE(Run({"share", "show", "missing"}).status, 0);

    ASSERT_GE(KOVAUserAdd("alice", -1, "Passw0rd!", nullptr, nullptr, 0), 0);
    ASSERT_EQ(Run({"share", "priv", "data", "--user", "alice", "rw"}).status, 0);
    int priv = -1;
    ASSERT_EQ(KOVASharePrivGet("data", "alice", &priv), 0);
    EXPECT_EQ(priv, KOVA_SHARE_PRIV_RW);
    // Bad values and unknown principals are refused and change nothing.
    EXPECT_NE(Run({"share", "priv", "data", "--user", "alice", "full"}).status, 0);
    EXPECT_NE(Run({"share", "priv", "data", "--user", "nobody", "ro"}).status, 0);
    EXPECT_NE(Run({"share", "add", "x", "--default-priv", "all"}).status, 0);
    ASSERT_EQ(KOVASharePrivGet("data", "alice", &priv), 0);
    EXPECT_EQ(priv, KOVA_SHARE_PRIV_RW);
}

TEST_F(AdminTool, AclSetGetOwnerRemove) {
    ASSERT_EQ(Run({"share", "add", "data"}).status, 0);
    ASSERT_GE(KOVAUserAdd("alice", -1, "Passw0rd!", nullptr, nullptr, 0), 0);
    ASSERT_GE(KOVAGroupAdd("staff", -1, nullptr), 0);
    std::string dir = root_.At("volumes/volume1/data/docs");
    ASSERT_TRUE(kova_test::MakeDirs(dir));
    ASSERT_TRUE(kova_test::WriteFile(dir + "/a.txt", "a"));

    Out({"acl", "set", root_.At("volumes/volume1/data"), "--no-inherit", "group:staff:allow:r-x---a-R-c--:fd--"});
    const std::vector<std::string> setAlice = {"acl", "set", dir, "user:alice:allow:rwxpdDaARWcCo:fd--",
                                               "everyone:x:deny:-w-----------:----"};
    Out(setAlice);
    // uid 0 has no platform account: the owner is shown by number.
    EXPECT_EQ(Out({"acl", "get", dir}), "owner: user:0\nmode: acl\ninherit: yes\n"
                                        "user:alice:allow:rwxpdDaARWcCo:fd--  (level 0)\n"
                                        "everyone:Everyone:deny:-w-----------:----  (level 0)\n"
                                        "group:staff:allow:r-x---a-R-c--:fd--  (level 1)\n");
    EXPECT_EQ(Out({"acl", "get", dir, "--inherited"}),
              "owner: user:0\nmode: acl\ninherit: yes\ngroup:staff:allow:r-x---a-R-c--:fd--  (level 1)\n");

    Out({"acl", "owner", dir, "group:staff"});
    EXPECT_EQ(0u, Out({"acl", "get", dir, "--own"}).find("owner: group:staff\n"));
    ASSERT_EQ(Run({"acl", "owner", dir, "user:alice"}).status, 0);
    KOVA_ACL_ID owner;
    ASSERT_EQ(KOVAACLOwnerIdGet(dir.c_str(), &owner), 0);
    EXPECT_EQ(owner.idType, KOVA_ACL_ID_USER);

    // "#N" names a raw id: rules and owners for uids and gids no account holds.
    Out({"acl", "set", dir, "user:#4242:allow:r------------:----", "group:#777:deny:-w-----------:----"});
    Out({"acl", "owner", dir, "group:#778"});
    Result r = Run({"acl", "get", dir, "--own"});
    EXPECT_NE(r.out.find("owner: group:778\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("user:4242:allow:r------------:----  (level 0)\ngroup:777:deny:-w-----------:----  (level 0)"),
              std::string::npos)
        << r.out;
    for (const char *bad : {"user:#:allow:r:----", "user:#-1:allow:r:----", "user:#12a:allow:r:----", "user:#99999999999:allow:r:----"})
        EXPECT_NE(Run({"acl", "set", dir, bad}).status, 0) << bad;
    Out(setAlice);
    Out({"acl", "owner", dir, "user:alice"});

    // Bad entries are refused and leave the ACL as it was.
    EXPECT_NE(Run({"acl", "set", dir, "user:nobody:allow:r:----"}).status, 0);
    EXPECT_NE(Run({"acl", "set", dir, "user:alice:maybe:r:----"}).status, 0);
    EXPECT_NE(Run({"acl", "set", dir, "user:alice:allow:r"}).status, 0);
    EXPECT_NE(Run({"acl", "owner", dir, "everyone:x"}).status, 0);
    r = Run({"acl", "get", dir, "--own"});
    EXPECT_NE(r.out.find("user:alice:allow:rwxpdDaARWcCo:fd--  (level 0)"), std::string::npos) << r.out;

    Out({"acl", "remove", dir});
    r = Run({"acl", "get", dir});
    EXPECT_NE(r.out.find("mode: mode bits\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("owner:Owner:allow:"), std::string::npos) << r.out;
}

// --empty makes a root without default users; init lays out the root and
// keeps its settings when repeated.
TEST_F(AdminTool, InitShowCommandsTransferLogAndHelp) {
    // The built-in groups stay in a root without default users.
    Result r;
    {
        kova_test::TempRoot fresh;  // KOVA_ROOT points at it until the end of this block
        r = Admin(fresh.path(), {"init", "--empty"});
        ASSERT_EQ(r.status, 0) << r.out;
        r = Admin(fresh.path(), {"user", "list", "--internal"});
        ASSERT_EQ(r.status, 0) << r.out;
        EXPECT_EQ(r.out, "");
        r = Admin(fresh.path(), {"group", "show", "administrators"});
        EXPECT_EQ(r.out, "name: administrators\nsource: local\ngid: 101\ndescription: System default admin group\nmembers: \n");
        // Never on a root that has accounts: "admin" may be a real one there.
        r = Admin(fresh.path(), {"init", "--empty"});
        EXPECT_NE(r.status, 0);
        EXPECT_NE(r.out.find("already has accounts"), std::string::npos) << r.out;
    }
    EXPECT_NE(Run({"init", "--bogus"}).status, 0);

    ASSERT_GE(KOVAUserAdd("alice", 2001, nullptr, "Alice A", "alice@example.com", 0), 0);
    ASSERT_GE(KOVAGroupAdd("staff", 3001, "Staff"), 0);
    ASSERT_EQ(KOVAGroupMemberAdd("staff", "alice"), 0);
    Out({"user", "add", "svc", "--internal"});
    EXPECT_EQ(Out({"user", "show", "alice"}), "name: alice\nsource: local\nuid: 2001\ngid: 100\ninternal: no\ndisabled: no\n"
                     "description: Alice A\nemail: alice@example.com\ngroups: users (100), staff (3001)\n");
    EXPECT_NE(Out({"user", "show", "svc"}).find("internal: yes\n"), std::string::npos);
    EXPECT_EQ(Out({"group", "show", "staff"}), "name: staff\nsource: local\ngid: 3001\ndescription: Staff\nmembers: alice\n");
    r = Run({"user", "show", "ghost"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "kova-admin: cannot show user 'ghost': no such user\n");
    EXPECT_EQ(Run({"group", "show", "ghosts"}).out, "kova-admin: cannot show group 'ghosts': no such group\n");

    // The transfer-log switch.
    EXPECT_EQ(Run({"xferlog"}).out, "off\n");
    Out({"xferlog", "on"});
    EXPECT_NE(KLIBCFileCheckKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "yes", 0), 0);
    EXPECT_EQ(Run({"xferlog"}).out, "on\n");
    EXPECT_NE(Run({"xferlog", "maybe"}).status, 0);
    Out({"xferlog", "off"});
    EXPECT_NE(KLIBCFileCheckKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "no", 0), 0);

    // --help lists every command, on standard output.
    const std::string help = Out({"--help"});
    for (const char *c : {"acl get", "acl owner", "acl remove", "acl set", "domain join", "domain leave", "domain ou add",
                          "domain range", "domain ranges", "domain set", "group add", "group del", "group list",
                          "group member add", "group member del", "group show", "init", "ldap bind", "ldap sync",
                          "ldap unbind", "share add", "share list", "share priv", "share show", "user add", "user del",
                          "user list", "user passwd", "user set", "user show", "xferlog"})
        EXPECT_NE(help.find(std::string("\n  ") + c), std::string::npos) << c;
    r = Run({"user", "frobnicate"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.out.find("unknown command 'user'"), std::string::npos) << r.out;

    for (const char *d : {"etc", "var/run/tasks", "var/log", "volumes/volume1", "usr/share/strings/enu"}) {
        struct stat st;
        EXPECT_EQ(stat(root_.At(d).c_str(), &st), 0) << d;
        EXPECT_TRUE(S_ISDIR(st.st_mode)) << d;
    }
    std::string ini = kova_test::ReadFile(root_.At("usr/share/strings/enu/module-3.ini"));
    EXPECT_NE(ini.find("[property]"), std::string::npos);
    EXPECT_NE(ini.find("privilege_recursive = \"Apply to this folder, sub-folders and files\""), std::string::npos);

    ASSERT_EQ(KLIBCFileSetKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "yes"), 0);
    ASSERT_EQ(Run({"init"}).status, 0);
    EXPECT_NE(KLIBCFileCheckKeyValue("/etc/kovainfo.conf", "filebrowserxferlog", "yes", 0), 0);
    EXPECT_EQ(kova_test::ReadFile(root_.At("usr/share/strings/enu/module-3.ini")), ini);
}

} // namespace
