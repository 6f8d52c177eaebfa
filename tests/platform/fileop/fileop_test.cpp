// The file-share helper against real shares and accounts: resolution and escapes, path
// checks, privileges, the identity switch, bad text, and each system call refused in turn.
#include "as-identity.h"
#include "share-fixture.h"
#include "sys-fault.h"
#include "temp-root.h"

#include "kova/account.h"
#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/fileshare.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <signal.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string Real(const std::string &p) {
    char buf[PATH_MAX];
    return realpath(p.c_str(), buf) ? std::string(buf) : std::string("<missing " + p + ">");
}

class FileShare : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char *d : {"volume1/s1/dir/sub", "volume1/s1/dir2", "volume1/s2/x", "volume1/ro/a",
                              "volume1/homes/alice/docs", "volume1/homes/bob", "outside"})
            ASSERT_TRUE(kova_test::MakeDirs(root_.At(d)));
        ASSERT_TRUE(kova_test::WriteFile(root_.At("volume1/s1/dir/file.txt"), "x"));
        ASSERT_EQ(symlink(root_.At("volume1/s2").c_str(), root_.At("volume1/s1/to-s2").c_str()), 0);
        ASSERT_EQ(symlink(root_.At("outside").c_str(), root_.At("volume1/s1/to-outside").c_str()), 0);
        ASSERT_EQ(symlink("dir/sub", root_.At("volume1/s1/inner").c_str()), 0);
        AddShare("s1", false);
        AddShare("s2", false);
        AddShare("ro", true);
        AddShare("homes", false);
        ASSERT_EQ(KOVAUserAdd("alice", -1, "pw", nullptr, nullptr, 0), 0);
        ASSERT_EQ(KOVAUserAdd("bob", -1, "pw", nullptr, nullptr, 0), 0);
        ASSERT_EQ(KOVAGroupAdd("staff", -1, nullptr), 0);
        ASSERT_EQ(KOVAGroupMemberAdd("staff", "alice"), 0);
        int uid = 0, gid = 0;
        ASSERT_EQ(KOVAUserGetUGID("alice", &uid, &gid), 0);
        aliceUid_ = static_cast<uid_t>(uid);
        aliceGid_ = static_cast<gid_t>(gid);
        ASSERT_EQ(KOVAGroupGetGID("staff", &staffGid_), 0);
        s1_ = Real(root_.At("volume1/s1"));
    }

    void AddShare(const char *name, bool readOnly) {
        const std::string path = root_.At(std::string("volume1/") + name);
        ASSERT_EQ(kova_share_test::AddAclShare(name, path, KOVA_SHARE_PRIV_NONE, readOnly), 0) << name;
    }

    // Resolves for alice; returns the method's result and fills the outputs.
    int Full(const std::string &userPath, const std::string &user = "alice") {
        real_.clear();
        name_.clear();
        shareRoot_.clear();
        allowed_.clear();
        return fs_.WfmFullPathGet(userPath, real_, name_, shareRoot_, allowed_, user);
    }

    kova_test::TempRoot root_;
    PanoraFileShare fs_;
    std::string real_, name_, shareRoot_, allowed_, s1_;
    uid_t aliceUid_ = 0;
    gid_t aliceGid_ = 0;
    int staffGid_ = 0;
};

} // namespace

// With openat2, and without it (one openat per component, no link followed).
TEST_F(FileShare, ResolvesShareFoldersAndRefusesEscapesWithAndWithoutOpenat2) {
    for (bool withOpenat2 : {true, false}) {
        SCOPED_TRACE(withOpenat2 ? "openat2" : "openat");
        using kova_internal::SysCalls;
        std::unique_ptr<kova_internal::ScopedSysCall<decltype(SysCalls::openat2)>> noOpenat2;
        if (!withOpenat2)
            noOpenat2.reset(new kova_internal::ScopedSysCall<decltype(SysCalls::openat2)>(
                &SysCalls::openat2, [](int, const char *, const struct open_how *, size_t) {
                    errno = ENOSYS;
                    return -1;
                }));
        ASSERT_EQ(Full("/s1/dir"), 0);
        EXPECT_EQ(real_, s1_ + "/dir");
        EXPECT_EQ(name_, "s1");
        EXPECT_EQ(shareRoot_, s1_);
        EXPECT_EQ(allowed_, "");
        EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_NONE);
        // Extra slashes, the share itself and ".." inside come out canonical.
        for (const auto &c : std::vector<std::pair<std::string, std::string>>{
                 {"//s1//dir/sub/", s1_ + "/dir/sub"}, {"/s1", s1_}, {"/s1/dir/../dir2", s1_ + "/dir2"},
                 {"/home/docs", Real(root_.At("volume1/homes/alice/docs"))}}) {
            ASSERT_EQ(Full(c.first), 0) << c.first;
            EXPECT_EQ(real_, c.second) << c.first;
        }
        // A link inside the share: followed by openat2, refused without it.
        EXPECT_EQ(Full("/s1/inner") == 0 ? real_ : "refused", withOpenat2 ? s1_ + "/dir/sub" : "refused");
        EXPECT_EQ(fs_.WfmLibGetErr(), withOpenat2 ? KOVA_WFM_ERR_NONE : KOVA_WFM_ERR_BADPATH);
        for (const char *escape :
             {"/s1/..", "/s1/../s2/x", "/s1/to-s2", "/s1/to-s2/x", "/s1/to-outside", "/..", "/home/../bob"}) {
            EXPECT_NE(Full(escape), 0) << escape;
            EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADPATH) << escape;
            EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADPATH) << escape;
            EXPECT_EQ(real_, "") << "outputs untouched on failure: " << escape;
        }
    }
    // A read-only share names its root as the one path still allowed.
    ASSERT_EQ(Full("/ro/a"), 0);
    EXPECT_EQ(allowed_, Real(root_.At("volume1/ro")));
    EXPECT_NE(Full("/s1/nope"), 0);
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_NOENT);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOENT);
    EXPECT_NE(Full("/nosuch/x"), 0);
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_NOSHARE);
    EXPECT_NE(Full("s1/dir"), 0);
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADARG);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
}

TEST_F(FileShare, OwnHomeOnly) {
    std::string aliceHome = Real(root_.At("volume1/homes/alice"));
    ASSERT_EQ(Full("/home"), 0);
    EXPECT_EQ(real_, aliceHome);
    EXPECT_EQ(name_, "home");
    EXPECT_EQ(shareRoot_, aliceHome);
    EXPECT_TRUE(fs_.IsDirUserHome(name_, 0));
    ASSERT_EQ(Full("/home/docs/"), 0);
    EXPECT_EQ(real_, aliceHome + "/docs");
    // Another user's home is reached only as a folder of "homes".
    ASSERT_EQ(Full("/homes/bob"), 0);
    EXPECT_EQ(name_, "homes");
    EXPECT_FALSE(fs_.IsDirUserHome(name_, 0));
    EXPECT_FALSE(fs_.IsDirUserHome("alice", 0));
    EXPECT_NE(Full("/home", "nobody"), 0);
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_NOUSER);
}

TEST_F(FileShare, CheckPath) {
    EXPECT_EQ(fs_.WfmCheckPath(s1_ + "/dir/file.txt"), 0);
    EXPECT_EQ(fs_.WfmCheckPath(s1_ + "/to-outside"), 0);  // the link itself lies in the share
    EXPECT_NE(fs_.WfmCheckPath(s1_ + "/nope"), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOENT);
    EXPECT_NE(fs_.WfmCheckPath(Real(root_.At("outside"))), 0);
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADPATH);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADPATH);

    // The caller's own ids decide whether it may reach the entry.
    ASSERT_EQ(chmod(root_.At("volume1/s1/dir").c_str(), 0700), 0);
    std::string file = s1_ + "/dir/file.txt";
    int rc = kova_test::RunAs({aliceUid_, aliceGid_, {}}, [&] {
        PanoraFileShare fs;
        if (fs.WfmCheckPath(file) == 0) return 1;
        if (fs.WfmLibGetErr() != KOVA_WFM_ERR_PERM || KLIBCErrGet() != KOVA_ERR_PERM) return 2;
        return fs.WfmCheckPath(s1_ + "/dir2") == 0 ? 0 : 3;
    });
    EXPECT_EQ(rc, 0);
}

TEST_F(FileShare, Privileges) {
    ASSERT_EQ(KOVASharePrivSet("s1", 1, "alice", KOVA_SHARE_PRIV_RW), 0);
    ASSERT_EQ(KOVASharePrivSet("ro", 4, "staff", KOVA_SHARE_PRIV_RW), 0);
    // "privilege/flags", or "failed" ("err" when it failed without saying so).
    auto privilege = [&](const char *path, const char *user) {
        int priv = -1, flags = -1;
        if (fs_.WfmLibGetPrivilege(path, user, "sid", &priv, &flags) == 0)
            return std::to_string(priv) + "/" + std::to_string(flags);
        return fs_.WfmLibGetErr() == KOVA_WFM_ERR_NONE ? std::string("err") : std::string("failed");
    };
    auto shown = [](int priv, int flags) { return std::to_string(priv) + "/" + std::to_string(flags); };
    EXPECT_EQ(privilege("/s1/dir", "alice"), shown(KOVA_SHARE_PRIV_RW, 0));
    EXPECT_EQ(privilege("/s1/dir", "bob"), shown(KOVA_SHARE_PRIV_NONE, 0));
    EXPECT_EQ(privilege("/ro/a", "alice"), shown(KOVA_SHARE_PRIV_RW, KOVA_WFM_PRIV_FLAG_READONLY));
    EXPECT_EQ(privilege("/home/docs", "alice"), shown(KOVA_SHARE_PRIV_RW, KOVA_WFM_PRIV_FLAG_HOME));
    // Someone else's home is judged by the "homes" share like any folder.
    EXPECT_EQ(privilege("/homes/bob", "alice"), shown(KOVA_SHARE_PRIV_NONE, 0));

    // An escape is refused before any privilege is looked up.
    EXPECT_EQ(privilege("/s1/to-s2", "alice"), "failed");
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADPATH);

    KLIBCFaultSet("KOVASharePrivGet", 0, -1, KOVA_ERR_IO);
    EXPECT_EQ(privilege("/s1/dir", "alice"), "failed");
    KLIBCFaultClearAll();
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_PRIVILEGE);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
}

TEST_F(FileShare, UGIDSetActsAsUserKeepingSavedRoot) {
    const std::string secret = root_.At("secret");
    ASSERT_TRUE(kova_test::WriteFile(secret, "root only"));
    ASSERT_EQ(chmod(secret.c_str(), 0600), 0);
    // In a child, from a user identity as a task would start.
    int rc = kova_test::RunAs({4000, 4000, {}}, [&] {
        PanoraFileShare fs;
        if (fs.WfmLibUGIDSet("sid", "alice") != 0) return 1;
        uid_t ru, eu, su;
        gid_t rg, eg, sg;
        getresuid(&ru, &eu, &su);
        getresgid(&rg, &eg, &sg);
        if (eu != aliceUid_ || ru != 0 || su != 0) return 2;
        if (eg != aliceGid_ || rg != 0 || sg != 0) return 3;
        std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)));
        getgroups(static_cast<int>(groups.size()), groups.data());
        if (std::find(groups.begin(), groups.end(), static_cast<gid_t>(staffGid_)) == groups.end()) return 4;
        // Only the task's two capabilities stay; files are still judged by Alice's ids.
        const uint64_t task = (uint64_t{1} << CAP_SYS_ADMIN) | (uint64_t{1} << CAP_FOWNER);
        if (kova_test::EffectiveCapabilities() != task) return 9;
        if (open(secret.c_str(), O_RDONLY) >= 0 || errno != EACCES) return 10;
        PKOVA_ACL acl = nullptr;
        (void)KOVAACLGet(s1_.c_str(), -1, KOVA_ACL_GET_ALL, &acl);
        KOVAACLFree(acl);
        if (kova_test::EffectiveCapabilities() != task) return 11;
        // An unknown user changes nothing.
        if (fs.WfmLibUGIDSet("sid", "nobody") == 0) return 5;
        if (fs.WfmLibGetErr() != KOVA_WFM_ERR_NOUSER || KLIBCErrGet() != KOVA_ERR_NOUSER) return 6;
        if (geteuid() != aliceUid_) return 7;
        // The switch can be repeated from the user identity.
        return fs.WfmLibUGIDSet("sid", "bob") == 0 && geteuid() != aliceUid_ && geteuid() != 0 ? 0 : 8;
    });
    EXPECT_EQ(rc, 0);
}

TEST_F(FileShare, UGIDSetFailsCleanlyAtEveryIdCall) {
    std::string before;
    std::vector<std::string> refused;
    const auto problems = kova_test::FailEachCall(
        {"setresuid", "setresgid", "setgroups", "capget", "capset"},
        [&] {
            // A task that raised and lowered again (direct: not under test).
            if (setresuid(static_cast<uid_t>(-1), 4000, static_cast<uid_t>(-1)) != 0) return -2;
            before = kova_test::IdsNow();
            KLIBCErrSetEx(0, "", 0);
            return fs_.WfmLibUGIDSet("sid", "alice");
        },
        0,
        [&](const kova_test::FailedRun &run) -> std::string {
            // Keeping the capability is best effort: refused, the switch stands.
            if (run.entry == "capget" || run.entry == "capset")
                return run.result == 0 && geteuid() == aliceUid_ ? "" : "a refused capability failed the switch";
            if (run.result == 0) return "reported success";
            // The account lookup raises its own ids; its refusals carry the lookup's class.
            if (fs_.WfmLibGetErr() == KOVA_WFM_ERR_NONE || KLIBCErrGet() == 0) return "failure not reported";
            const std::string after = kova_test::IdsNow();
            return after == before ? "" : "ids " + before + " became " + after;
        },
        &refused,
        // A lookup that cannot give its raised uid back ends the task.
        [](long, const std::string &entry, int sig) {
            return sig == SIGABRT && (entry == "setresuid" || entry == "setresgid");
        });
    EXPECT_TRUE(problems.empty()) << kova_test::Lines(problems);
    // The switch's own calls and the capability's were among those refused.
    for (const char *entry : {"setgroups", "setresgid", "capget", "capset"})
        EXPECT_NE(std::find(refused.begin(), refused.end(), entry), refused.end()) << entry;
}

TEST_F(FileShare, ResolutionFailsCleanlyAtEveryFileCall) {
    // Each call of the resolution refused in turn: reported, and no output half-filled.
    for (const auto &c : std::vector<std::pair<std::string, std::string>>{
             {"/s1/dir/sub", s1_ + "/dir/sub"}, {"/s1/inner", s1_ + "/dir/sub"},
             {"/home/docs", Real(root_.At("volume1/homes/alice/docs"))}}) {
        std::vector<std::string> refused;
        const auto problems = kova_test::FailEachCall(
            {},
            [&] {
                KLIBCErrSetEx(0, "", 0);
                const int rc = Full(c.first);
                return rc == 0 && real_ == c.second ? 0 : rc == 0 ? 2 : 1;
            },
            0,
            [&](const kova_test::FailedRun &run) -> std::string {
                if (run.result == 0) return "";  // a call whose refusal costs nothing
                if (run.result != 1) return "resolved to " + real_;
                if (fs_.WfmLibGetErr() == KOVA_WFM_ERR_NONE || KLIBCErrGet() == 0) return "failure not reported";
                return real_.empty() && name_.empty() && shareRoot_.empty() ? "" : "outputs half-filled";
            },
            &refused);
        EXPECT_TRUE(problems.empty()) << c.first << "\n" << kova_test::Lines(problems);
        for (const char *entry : {"openat2", "readlinkat"})
            EXPECT_NE(std::find(refused.begin(), refused.end(), entry), refused.end()) << c.first << " " << entry;
    }

    // The path check: folder, entry, share lookup, search right.
    std::vector<std::string> refused;
    const auto problems = kova_test::FailEachCall(
        {},
        [&] {
            KLIBCErrSetEx(0, "", 0);
            return fs_.WfmCheckPath(s1_ + "/dir/file.txt");
        },
        0,
        [&](const kova_test::FailedRun &run) -> std::string {
            if (run.result == 0) return "";
            return fs_.WfmLibGetErr() != KOVA_WFM_ERR_NONE && KLIBCErrGet() != 0 ? "" : "failure not reported";
        },
        &refused);
    EXPECT_TRUE(problems.empty()) << kova_test::Lines(problems);
    for (const char *entry : {"openat2", "fstatat", "faccessat"})
        EXPECT_NE(std::find(refused.begin(), refused.end(), entry), refused.end()) << entry;
}

TEST_F(FileShare, ARootReplacedByALinkHoldsNothing) {
    // A share root moved aside and replaced by a link to an outside folder holds nothing.
    const std::string outside = Real(root_.At("outside"));
    ASSERT_TRUE(kova_test::WriteFile(outside + "/secret", "x"));
    ASSERT_EQ(rename(root_.At("volume1/s2").c_str(), root_.At("volume1/s2.aside").c_str()), 0);
    ASSERT_EQ(symlink(outside.c_str(), root_.At("volume1/s2").c_str()), 0);
    for (const char *p : {"/s2", "/s2/secret"}) {
        EXPECT_NE(Full(p), 0) << p;
        EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADPATH) << p;
        EXPECT_EQ(real_, "") << p;
    }
    EXPECT_NE(fs_.WfmCheckPath(outside + "/secret"), 0);
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADPATH);
    // The homes share the same way: no home is found through the link.
    ASSERT_EQ(rename(root_.At("volume1/homes").c_str(), root_.At("volume1/homes.aside").c_str()), 0);
    ASSERT_TRUE(kova_test::MakeDirs(outside + "/alice"));
    ASSERT_EQ(symlink(outside.c_str(), root_.At("volume1/homes").c_str()), 0);
    EXPECT_NE(Full("/home"), 0);
    EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADPATH);
    // A real folder back in place is the share again.
    ASSERT_EQ(unlink(root_.At("volume1/s2").c_str()), 0);
    ASSERT_EQ(rename(root_.At("volume1/s2.aside").c_str(), root_.At("volume1/s2").c_str()), 0);
    ASSERT_EQ(Full("/s2/x"), 0);
    EXPECT_EQ(real_, Real(root_.At("volume1/s2/x")));
}

TEST_F(FileShare, NulAndInvalidUtf8AreRefusedEverywhere) {
    ASSERT_EQ(KOVASharePrivSet("s1", 1, "alice", KOVA_SHARE_PRIV_RW), 0);
    const std::string nulUser("alice\0/../bob", 13);
    const std::string nulPath("/s1/dir\0/../../s2", 17);
    const std::string badUtf8("/s1/dir\xC3", 8);
    auto refused = [&](int rc, const std::string &what) {
        EXPECT_NE(rc, 0) << what;
        EXPECT_EQ(fs_.WfmLibGetErr(), KOVA_WFM_ERR_BADARG) << what;
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG) << what;
    };
    refused(Full(nulPath), "path with NUL");
    refused(Full(badUtf8), "path not UTF-8");
    refused(Full("/home", nulUser), "user with NUL");
    EXPECT_EQ(real_, "");
    refused(fs_.WfmCheckPath(s1_ + std::string("/dir\0/x", 7)), "checked path with NUL");
    refused(fs_.WfmCheckPath(s1_ + "/dir\xFF"), "checked path not UTF-8");
    int priv = -1, flags = -1;
    // Not alice's privilege for the text before the NUL.
    refused(fs_.WfmLibGetPrivilege("/s1/dir", nulUser, "sid", &priv, &flags), "privilege of a user with NUL");
    refused(fs_.WfmLibGetPrivilege("/s1/dir", "alice", std::string("s\0d", 3), &priv, &flags), "session with NUL");
    EXPECT_EQ(priv, -1);
    // Not a switch to alice.
    const int rc = kova_test::RunAs({4000, 4000, {}}, [&] {
        PanoraFileShare fs;
        if (fs.WfmLibUGIDSet("sid", nulUser) == 0) return 1;
        if (fs.WfmLibGetErr() != KOVA_WFM_ERR_BADARG || KLIBCErrGet() != KOVA_ERR_BADARG) return 2;
        if (fs.WfmLibUGIDSet("sid", "alic\xC3") == 0) return 3;
        return geteuid() == 4000 ? 0 : 4;
    });
    EXPECT_EQ(rc, 0);
}
