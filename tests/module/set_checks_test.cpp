// The checks of set before anything changes (request and task side), and
// the codes that the apply step and its owner-result rules produce.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;

using kova_module_test::As;
using kova_module_test::RunSet;
using kova_module_test::WithOwner;
using kova_module_test::StoredCount;

// An inherited rule granting read_data (or nothing).
Json::Value Rule(const std::string &type, const std::string &name, bool read = true) {
    return kova_module_test::RuleJson(type, name, "allow", read ? "r" : "");
}

int OwnerUid(const std::string &path) {
    KOVA_ACL_ID owner = {0, 0};
    if (KOVAACLOwnerIdGet(path.c_str(), &owner) != 0) return -1;
    return owner.id;
}

class SetChecksTest : public kova_module_test::ShareFixture {
protected:
    // A set of one rule letting alice read, of `path` within the folder `dir`.
    static Json::Value AclAt(const std::string &path, const std::string &dir) {
        return kova_module_test::SetParams(path, dir, kova_module_test::Array({Rule("user", "alice")}));
    }

    // The same of "<share>/<rel>".
    Json::Value AclParams(const std::string &rel, const std::string &share = "pub") const {
        return AclAt(root_.At("volumes/volume1/" + share + "/" + rel), "/" + share + "/" + rel);
    }
};

// ---- request side ------------------------------------------------------

TEST_F(SetChecksTest, RequestRefusesPathsOutsideSharesAndUnknownFileSystems) {
    ASSERT_TRUE(root_.MakeDir(root_.At("loose"), 0777));
    Json::Value params = AclParams("x");
    params["file_path"] = root_.At("loose");
    CallResult outside = host_.Call("set", params, admin_);
    EXPECT_EQ(403, outside.errorCode()) << outside.Dump();

    ASSERT_TRUE(root_.MakeDir(share_ + "/x", 0777));
    const CallOptions failing = As("boss", {Fault{"KOVAGetFSType", 0, -1, KOVA_ERR_IO}});
    CallResult unknown = host_.Call("set", AclParams("x"), failing);
    EXPECT_EQ(6200, unknown.errorCode()) << unknown.Dump();
    EXPECT_NE(std::string::npos, unknown.LogDump().find("3 acl:765 Failed to get the file system statistics of '" +
                                                         share_ + "/x', errno: "))
        << unknown.LogDump();

    const CallOptions ntfs = As("boss", {Fault{"KOVAGetFSType", 0, FSTYPE_NTFS, 0}});
    EXPECT_EQ(6212, host_.Call("set", AclParams("x"), ntfs).errorCode());
    EXPECT_EQ(-1, StoredCount(share_ + "/x"));
}

// ---- task side: shares and rights ---------------------------------------

TEST_F(SetChecksTest, ShareStateAndPrivilegeRefusalsChangeNothing) {
    // Read-only share: only its root may change.
    const std::string ro = root_.AddShare("ro", true);
    ASSERT_FALSE(ro.empty()) << root_.lastError();
    ASSERT_TRUE(root_.MakeDir(ro + "/sub", 0777));
    CallResult readOnly = RunSet(AclParams("sub", "ro"), admin_);
    EXPECT_EQ(6214, readOnly.errorCode()) << readOnly.Dump();
    EXPECT_EQ(-1, StoredCount(ro + "/sub"));
    // Its root, for a plain user with read-write privilege: refused too.
    ASSERT_GE(KOVASharePrivSet("ro", 1, "alice", KOVA_SHARE_PRIV_RW), 0);
    CallResult rootRefused = RunSet(AclAt(ro, "/ro"), alice_);
    EXPECT_EQ(6209, rootRefused.errorCode()) << rootRefused.Dump();
    EXPECT_EQ(-1, StoredCount(ro));

    // A share without ACL support, an encrypted one and one with ACLs off.
    const std::string noAcl = root_.AddShare("noacl", false, false);
    ASSERT_FALSE(noAcl.empty()) << root_.lastError();
    ASSERT_TRUE(root_.MakeDir(noAcl + "/sub", 0777));
    CallResult unsupported = RunSet(AclParams("sub", "noacl"), admin_);
    EXPECT_EQ(3302, unsupported.errorCode()) << unsupported.Dump();
    EXPECT_EQ(-1, StoredCount(noAcl + "/sub"));

    for (const char *name : {"enc", "off"}) {
        const std::string dir = root_.AddShare(name);
        ASSERT_FALSE(dir.empty());
        ASSERT_TRUE(root_.MakeDir(dir + "/sub", 0777));
        PKOVA_SHARE share = nullptr;
        ASSERT_GE(KOVAShareGet(name, &share), 0);
        if (std::strcmp(name, "enc") == 0) share->isEncrypted = 1;
        else share->aclStatus = 0;
        ASSERT_GE(KOVAShareSet(share), 0);
        KOVAShareFree(share);
        CallResult refused = RunSet(AclParams("sub", name), admin_);
        EXPECT_EQ(3302, refused.errorCode()) << name << ": " << refused.Dump();
        EXPECT_EQ(-1, StoredCount(dir + "/sub"));
    }

    // The share is gone at the task's own lookup (the second one).
    ASSERT_TRUE(root_.MakeDir(share_ + "/sub", 0777));
    const CallOptions noShare = As("boss", {Fault{"KOVAShareGet", 2, -1, KOVA_ERR_NOSHARE}});
    CallResult missing = RunSet(AclParams("sub"), noShare);
    EXPECT_EQ(402, missing.errorCode()) << missing.Dump();

    // A non-administrator with read-only privilege on the share.
    ASSERT_GE(KOVASharePrivSet("pub", 1, "alice", KOVA_SHARE_PRIV_RO), 0);
    CallResult denied = RunSet(AclParams("sub"), alice_);  // the task's own failure, handed through by status
    EXPECT_EQ(6209, denied.errorCode()) << denied.Dump();
    EXPECT_TRUE(denied.response["error"]["data"].isNull()) << denied.Dump();
    EXPECT_EQ(-1, StoredCount(share_ + "/sub"));
    // With read-write privilege she gets through on a folder she owns.
    ASSERT_GE(KOVASharePrivSet("pub", 1, "alice", KOVA_SHARE_PRIV_RW), 0);
    ASSERT_TRUE(root_.MakeDir(share_ + "/mine", 0755, root_.Uid("alice")));
    CallResult allowed = RunSet(AclParams("mine"), alice_);
    EXPECT_TRUE(allowed.success()) << allowed.Dump();
    EXPECT_EQ(1, StoredCount(share_ + "/mine"));
}

TEST_F(SetChecksTest, FolderResolutionAndPathChecks) {
    ASSERT_TRUE(root_.MakeDir(share_ + "/a", 0777));
    ASSERT_TRUE(root_.MakeDir(share_ + "/a2", 0777));
    ASSERT_TRUE(root_.MakeDir(share_ + "/b", 0777));

    // Trailing slashes name the same folder.
    CallResult sameFolder = RunSet(AclAt(share_ + "/a", "/pub/a///"), admin_);
    EXPECT_TRUE(sameFolder.success()) << sameFolder.Dump();
    EXPECT_EQ(1, StoredCount(share_ + "/a"));

    // A path outside the named folder.
    CallResult outside = RunSet(AclAt(share_ + "/b", "/pub/a"), admin_);
    EXPECT_EQ(6206, outside.errorCode()) << outside.Dump();
    EXPECT_EQ(-1, StoredCount(share_ + "/b"));

    // Whole path components: "a2" is not in "a", nor share "pub2" in "pub".
    const std::string pub2 = root_.AddShare("pub2");
    ASSERT_FALSE(pub2.empty()) << root_.lastError();
    ASSERT_TRUE(root_.MakeDir(pub2 + "/x", 0777));
    for (const auto &named : {std::make_pair(std::string("/pub/a"), share_ + "/a2"),
                              std::make_pair(std::string("/pub"), pub2 + "/x"),
                              std::make_pair(std::string("/pub"), pub2)}) {
        CallResult prefixed = RunSet(AclAt(named.second, named.first), admin_);
        EXPECT_EQ(6206, prefixed.errorCode()) << named.second << " in " << named.first << ": " << prefixed.Dump();
        EXPECT_EQ(-1, StoredCount(named.second)) << named.second;
    }
    // The folder itself and what lies below it still pass.
    ASSERT_TRUE(root_.MakeDir(share_ + "/a/in", 0777));
    EXPECT_TRUE(RunSet(AclAt(share_ + "/a/in", "/pub/a"), admin_).success());
    EXPECT_EQ(1, StoredCount(share_ + "/a/in"));

    // A folder that does not exist.
    EXPECT_EQ(6207, RunSet(AclAt(share_ + "/a", "/pub/nowhere"), admin_).errorCode());

    // No folder: the answer comes from this request's last error, not from
    // a "no such file" an earlier request left in the worker.
    Json::Value noFolder = AclParams("a");
    noFolder.removeMember("dirPaths");
    CallOptions reused = admin_;
    reused.beforeHandler = [] { KLIBCErrSetEx(KOVA_ERR_NOENT, "earlier-request", 1); };
    EXPECT_EQ(6200, RunSet(noFolder, reused).errorCode());

    // The path is refused to the user when the task checks it.
    const CallOptions gone = As("boss", {Fault{"PanoraFileShare::WfmCheckPath", 0, 1, KOVA_ERR_PERM}});
    EXPECT_EQ(6205, RunSet(AclParams("a"), gone).errorCode());
}

// A child a non-administrator may not change keeps its ACL; all else changes.
TEST_F(SetChecksTest, ChildThatRefusesKeepsItsAclAndTheWalkGoesOn) {
    const uid_t alice = static_cast<uid_t>(root_.Uid("alice"));
    const std::string top = share_ + "/work";
    ASSERT_TRUE(root_.MakeDir(top, 0755, alice));
    ASSERT_TRUE(root_.MakeDir(top + "/a_mine", 0755, alice));
    ASSERT_TRUE(root_.MakeFile(top + "/a_mine/f", "", 0644, alice));
    ASSERT_TRUE(root_.MakeDir(top + "/locked", 0755, 0));
    ASSERT_TRUE(root_.MakeFile(top + "/locked/inner", "", 0644, alice));
    ASSERT_TRUE(root_.MakeFile(top + "/z_mine", "", 0644, alice));
    // Root's folder: readable by all, not changeable by alice, passing nothing down.
    ASSERT_TRUE(root_.SetAcl(top + "/locked", {"everyone::allow:r-x---a-R-c--:----"}, false)) << root_.lastError();

    Json::Value params = AclParams("work");
    params["acl_recur"] = true;
    // She keeps traverse on what she sets, or her walk stops at its first folder.
    params["rules"] = kova_module_test::Array({kova_module_test::RuleJson("user", "alice", "allow", "rx")});
    CallResult end = RunSet(params, alice_);
    ASSERT_TRUE(end.success()) << end.Dump();
    EXPECT_EQ(1, StoredCount(top));
    EXPECT_EQ(0, StoredCount(top + "/a_mine"));
    EXPECT_EQ(0, StoredCount(top + "/a_mine/f"));
    EXPECT_EQ(1, StoredCount(top + "/locked")) << "the refused child must keep its own ACL";
    EXPECT_EQ(0, StoredCount(top + "/locked/inner"));
    EXPECT_EQ(0, StoredCount(top + "/z_mine"));
}

// ---- apply: owners, limits and the owner-result rules -------------------

TEST_F(SetChecksTest, OwnerRequestsThatCannotBeMet) {
    ASSERT_TRUE(root_.MakeDir(share_ + "/o", 0777));
    const std::string path = share_ + "/o";
    for (const auto &owner : std::vector<std::pair<std::string, std::string>>{
             {"everyone", "Everyone"}, {"system", "SYSTEM"}, {"user", "nobody-here"}, {"owner", "Owner"}}) {
        CallResult r = RunSet(WithOwner(AclParams("o"), owner.first, owner.second), admin_);
        EXPECT_EQ(6211, r.errorCode()) << owner.first << ": " << r.Dump();
    }
    // A rule naming an unknown user is a principal that cannot be resolved.
    Json::Value unknownRule = AclParams("o");
    unknownRule["rules"].append(Rule("user", "ghost"));
    EXPECT_EQ(6211, RunSet(unknownRule, admin_).errorCode());
    EXPECT_EQ(-1, StoredCount(path));
    EXPECT_EQ(0, OwnerUid(path));

    // A non-administrator may only take a path for itself, with take_ownership.
    ASSERT_TRUE(root_.MakeDir(share_ + "/given", 0755, root_.Uid("alice")));
    ASSERT_TRUE(root_.SetAcl(share_ + "/given", {"user:alice:allow:rwxpdDaARWcCo:fd--"}));
    Json::Value giveAway = WithOwner(AclParams("given"), "user", "bob");
    giveAway["change_acl"] = false;
    CallResult refused = RunSet(giveAway, alice_);
    EXPECT_EQ(6213, refused.errorCode()) << refused.Dump();
    EXPECT_EQ(root_.Uid("alice"), OwnerUid(share_ + "/given"));

    ASSERT_TRUE(root_.MakeDir(share_ + "/taken", 0755, 0));
    ASSERT_TRUE(root_.SetAcl(share_ + "/taken", {"user:alice:allow:rwxpdDaARWcC-:fd--"}));
    Json::Value take = WithOwner(AclParams("taken"), "user", "alice");
    take["change_acl"] = false;
    CallResult noRight = RunSet(take, alice_);
    EXPECT_EQ(6209, noRight.errorCode()) << noRight.Dump();
    EXPECT_EQ(0, OwnerUid(share_ + "/taken"));
}

TEST_F(SetChecksTest, EntryLimitIsInclusive) {
    ASSERT_TRUE(root_.MakeDir(share_ + "/full", 0777));
    ASSERT_TRUE(root_.MakeDir(share_ + "/over", 0777));
    ASSERT_TRUE(root_.SetAcl(share_ + "/over", {"everyone::allow:r------------:----"}));
    const int max = KOVAACLGetMaxACECount();
    ASSERT_GT(max, 0);
    Json::Value rules(Json::arrayValue);
    for (int i = 0; i < max; ++i) rules.append(Rule("user", "alice"));

    Json::Value full = AclParams("full");
    full["rules"] = rules;
    CallResult fits = RunSet(full, admin_);
    EXPECT_TRUE(fits.success()) << fits.Dump();
    EXPECT_EQ(max, StoredCount(share_ + "/full"));

    Json::Value over = WithOwner(AclParams("over"), "user", "alice");
    rules.append(Rule("user", "alice"));
    over["rules"] = rules;
    CallResult tooMany = RunSet(over, admin_);
    EXPECT_EQ(6215, tooMany.errorCode()) << tooMany.Dump();
    // The owner changed first and stays changed; the ACL was not written.
    EXPECT_EQ(root_.Uid("alice"), OwnerUid(share_ + "/over"));
    EXPECT_EQ(1, StoredCount(share_ + "/over")) << "the old ACL stays";
}

// "rules": null is kept as given and builds the same empty ACL as [].
TEST_F(SetChecksTest, EmptyRulesWriteAnEmptyAclWithTheRequestedInheritance) {
    for (const Json::Value &rules : {Json::Value(Json::arrayValue), Json::Value()}) {
        const std::string rel = rules.isNull() ? "null" : "empty";
        ASSERT_TRUE(root_.MakeDir(share_ + "/" + rel, 0777));
        Json::Value params = AclParams(rel);
        params["rules"] = rules;
        params["inherited"] = false;
        CallResult r = RunSet(params, admin_);
        ASSERT_TRUE(r.success()) << rel << ": " << r.Dump();
        const kova_module_test::StoredAcl empty = kova_module_test::ReadStored(share_ + "/" + rel);
        ASSERT_TRUE(empty.readable) << rel;
        EXPECT_EQ(0, empty.count) << rel;
        EXPECT_EQ(0, empty.inherited) << rel;
    }
}

// In their own home a user needs no share privilege at all.
TEST_F(SetChecksTest, OwnHomeNeedsNoPrivilegeCheck) {
    const std::string homes = root_.AddShare("homes");
    ASSERT_FALSE(homes.empty()) << root_.lastError();
    const uid_t alice = static_cast<uid_t>(root_.Uid("alice"));
    ASSERT_TRUE(root_.MakeDir(homes + "/alice", 0755, alice));
    ASSERT_TRUE(root_.MakeDir(homes + "/alice/docs", 0755, alice));
    ASSERT_GE(KOVASharePrivSet("homes", 1, "alice", KOVA_SHARE_PRIV_NONE), 0);

    CallResult own = RunSet(AclAt(homes + "/alice/docs", "/home/docs"), alice_);
    EXPECT_TRUE(own.success()) << own.Dump();
    EXPECT_EQ(1, StoredCount(homes + "/alice/docs"));

    // The same folder reached through the share itself is checked.
    ASSERT_TRUE(root_.MakeDir(homes + "/alice/other", 0755, alice));
    CallResult viaShare = RunSet(AclAt(homes + "/alice/other", "/homes/alice/other"), alice_);
    EXPECT_EQ(6209, viaShare.errorCode()) << viaShare.Dump();
    EXPECT_EQ(-1, StoredCount(homes + "/alice/other"));
}

// An unmapped ACL failure or failed walk is success once the owner changed, else 6200.
TEST_F(SetChecksTest, OwnerResultDecidesUnmappedFailures) {
    for (const char *dir : {"plain", "owned"}) {
        ASSERT_TRUE(root_.MakeDir(share_ + "/" + dir, 0777));
        ASSERT_TRUE(root_.SetAcl(share_ + "/" + dir, {"everyone::allow:rwxpdDaARWcCo:fd--"}));
    }
    const CallOptions ioFault = As("boss", {Fault{"KOVAACLSet", 0, -1, KOVA_ERR_IO}});
    EXPECT_EQ(6200, RunSet(AclParams("plain"), ioFault).errorCode());

    const Json::Value owned = WithOwner(AclParams("owned"), "user", "alice");
    CallResult asSuccess = RunSet(owned, ioFault);
    EXPECT_TRUE(asSuccess.success()) << asSuccess.Dump();
    EXPECT_EQ(root_.Uid("alice"), OwnerUid(share_ + "/owned"));
    EXPECT_EQ(1, StoredCount(share_ + "/owned")) << "the old ACL stays";

    // Mapped failures keep their codes whatever the owner did.
    const std::pair<int, int> mapped[] = {
        {KOVA_ERR_ACL_DENIED, 6205}, {KOVA_ERR_ACL_NOSPACE, 6216}, {KOVA_ERR_ACL_NOTSUP, 6201}};
    for (const auto &m : mapped) {
        EXPECT_EQ(m.second, RunSet(owned, As("boss", {Fault{"KOVAACLSet", 0, -1, m.first}})).errorCode())
            << std::hex << m.first;
    }

    // A walk that meets an unreadable folder.
    for (const char *dir : {"walkplain", "walkowned"}) {
        const std::string top = share_ + "/" + dir;
        ASSERT_TRUE(root_.MakeDir(top, 0777));
        ASSERT_TRUE(root_.MakeDir(top + "/closed", 0700, 0));
        ASSERT_TRUE(root_.MakeFile(top + "/closed/hidden", ""));
    }
    Json::Value walkPlain = AclParams("walkplain");
    walkPlain["acl_recur"] = true;
    EXPECT_EQ(6200, RunSet(walkPlain, admin_).errorCode());
    EXPECT_EQ(1, StoredCount(share_ + "/walkplain")) << "the top path keeps its new ACL";

    Json::Value walkOwned = WithOwner(AclParams("walkowned"), "user", "alice");
    walkOwned["acl_recur"] = true;
    CallResult walked = RunSet(walkOwned, admin_);
    EXPECT_TRUE(walked.success()) << walked.Dump();
    EXPECT_EQ(-1, StoredCount(share_ + "/walkowned/closed/hidden"));
}

// A symbolic link given as the path is changed itself and never walked.
TEST_F(SetChecksTest, LinkAsThePathIsNotWalked) {
    ASSERT_TRUE(root_.MakeDir(share_ + "/real", 0777));
    ASSERT_TRUE(root_.MakeFile(share_ + "/real/f"));
    ASSERT_EQ(0, symlink((share_ + "/real").c_str(), (share_ + "/alias").c_str()));
    Json::Value params = AclAt(share_ + "/alias", "/pub");
    params["acl_recur"] = true;
    CallResult r = RunSet(params, admin_);
    EXPECT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(1, StoredCount(share_ + "/alias"));
    EXPECT_EQ(-1, StoredCount(share_ + "/real"));
    EXPECT_EQ(-1, StoredCount(share_ + "/real/f"));
}

// With the transfer log switched on, one record names the whole change.
TEST_F(SetChecksTest, TransferLogRecordsARecursiveChangeOnce) {
    ASSERT_TRUE(kova_test::WriteFile(root_.At("etc/kovainfo.conf"), "filebrowserxferlog = \"yes\"\n"));
    ASSERT_TRUE(kova_test::WriteFile(root_.At("usr/share/strings/enu/module-3.ini"),
                                     "[property]\nprivilege_recursive = \"Below too\"\n"));
    const std::string top = share_ + "/logged";
    ASSERT_TRUE(root_.MakeDir(top, 0777));
    ASSERT_TRUE(root_.MakeFile(top + "/a", "12345"));
    ASSERT_TRUE(root_.MakeFile(share_ + "/single", "12345"));

    CallOptions withAddress = admin_;
    withAddress.env.push_back({"REMOTE_ADDR", "192.0.2.7"});
    Json::Value recursive = AclParams("logged");
    recursive["acl_recur"] = true;
    ASSERT_TRUE(RunSet(recursive, withAddress).success());
    ASSERT_TRUE(RunSet(AclAt(share_ + "/single", "/pub"), admin_).success());

    std::ifstream in(root_.At("var/log/xfer.log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    ASSERT_EQ(2u, lines.size());
    // time, address, user, action, size, is-directory, type, path
    auto fields = [](const std::string &line) {
        std::vector<std::string> out;
        std::stringstream ss(line);
        for (std::string f; std::getline(ss, f, '\t');) out.push_back(f);
        return out;
    };
    std::vector<std::string> dir = fields(lines[0]);
    ASSERT_EQ(8u, dir.size()) << lines[0];
    EXPECT_EQ("192.0.2.7", dir[1]);
    EXPECT_EQ("boss", dir[2]);
    EXPECT_EQ("property set", dir[3]);
    EXPECT_EQ("0", dir[4]);
    EXPECT_EQ(top + "/ **Below too**", dir[7]);
    std::vector<std::string> file = fields(lines[1]);
    ASSERT_EQ(8u, file.size()) << lines[1];
    EXPECT_EQ("unknown", file[1]);
    EXPECT_EQ("5", file[4]);
    EXPECT_EQ(share_ + "/single", file[7]);
}

} // namespace
