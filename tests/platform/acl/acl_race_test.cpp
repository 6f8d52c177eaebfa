// A user swapping a folder on the way for a link to an outside folder, over and over,
// never gets anything outside the share changed. Run with and without *xattrat.
#include "acl-fixture.h"

#include "as-identity.h"
#include "kova/account.h"
#include "kova/acl.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace {

using namespace kova_acl_test;
using kova_test::Identity;
using kova_test::RunAs;

constexpr int kFiles = 32;
constexpr int kRounds = 4000;

// Everything of one entry an attack could change.
struct EntryState {
    uid_t uid;
    gid_t gid;
    mode_t mode;
    std::map<std::string, std::string> attrs;
    bool operator==(const EntryState &o) const {
        return uid == o.uid && gid == o.gid && mode == o.mode && attrs == o.attrs;
    }
};
using TreeState = std::map<std::string, EntryState>;

void Snapshot(const std::string &path, TreeState &out) {
    struct stat st;
    ASSERT_EQ(lstat(path.c_str(), &st), 0) << path;
    EntryState e{st.st_uid, st.st_gid, st.st_mode, {}};
    char names[4096];
    ssize_t n = llistxattr(path.c_str(), names, sizeof names);
    ASSERT_GE(n, 0) << path;
    for (ssize_t i = 0; i < n; i += static_cast<ssize_t>(std::strlen(names + i)) + 1) {
        char value[8192];
        ssize_t v = lgetxattr(path.c_str(), names + i, value, sizeof value);
        ASSERT_GE(v, 0) << path << " " << (names + i);
        e.attrs[names + i] = std::string(value, static_cast<size_t>(v));
    }
    out[path] = e;
    if (!S_ISDIR(st.st_mode)) return;
    std::unique_ptr<DIR, int (*)(DIR *)> d(opendir(path.c_str()), closedir);
    ASSERT_TRUE(d) << path;
    while (dirent *de = readdir(d.get())) {
        const std::string name = de->d_name;
        if (name != "." && name != "..") Snapshot(path + "/" + name, out);
    }
}

// A process that exchanges two names as fast as it can until it is stopped.
class Swapper {
public:
    Swapper(const std::string &a, const std::string &b) {
        pid_ = fork();
        if (pid_ == 0) {
            for (;;) renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
        }
    }
    ~Swapper() { Stop(); }
    bool Running() const { return pid_ > 0; }
    void Stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

class AclRace : public AclFixture {
protected:
    void SetUp() override {
        AclFixture::SetUp();
        // Alice's folder of files she may take, and beside it a link to an outside folder of
        // root's holding files of the same names.
        outside_ = root_.At("outside");
        ASSERT_TRUE(kova_test::MakeDirs(outside_));
        ASSERT_EQ(chmod(outside_.c_str(), 0755), 0);
        Dir(In("u/d"));
        ASSERT_EQ(chown(In("u").c_str(), kAlice.uid, kAlice.gid), 0);
        ASSERT_EQ(chown(In("u/d").c_str(), kAlice.uid, kAlice.gid), 0);
        for (int i = 0; i < kFiles; ++i) {
            const std::string name = "/f" + std::to_string(i);
            File(In("u/d") + name);
            ASSERT_EQ(SetAcl(In("u/d") + name, {"user:1030:allow:rwxpdDaARWcCo:----"}, false), 0);
            ASSERT_TRUE(kova_test::WriteFile(outside_ + name, "secret"));
            ASSERT_EQ(chmod((outside_ + name).c_str(), 0600), 0);
            ASSERT_EQ(lsetxattr((outside_ + name).c_str(), "trusted.mark", "m", 1, 0), 0);
            // Half of them hold a record that does not grant anything.
            if (i % 2 == 0) {
                ASSERT_EQ(SetAcl(outside_ + name, {"everyone:-1:deny:rwxpdDaARWcCo:----"}, false), 0);
            }
        }
        ASSERT_EQ(symlink(outside_.c_str(), In("u/swap").c_str()), 0);
        Snapshot(outside_, before_);
    }

    // Runs body as `who` (as a task, without *xattrat, when asked) while the names swap.
    void Race(const Identity &who, bool task, bool withoutAt, const std::function<int()> &body) {
        Swapper swapper(In("u/d"), In("u/swap"));
        ASSERT_TRUE(swapper.Running());
        EXPECT_EQ(RunAs(who,
                        [&] {
                            if (task && !kova_test::KeepOnlyCapability(CAP_SYS_ADMIN)) return 90;
                            std::unique_ptr<WithoutXattrAt> noAt;
                            if (withoutAt) noAt.reset(new WithoutXattrAt);
                            const int rc = body();
                            // The fallback must really have been taken.
                            if (withoutAt && WithoutXattrAt::Count() == 0) return 91;
                            return rc;
                        }),
                  0);
        swapper.Stop();
        TreeState after;
        Snapshot(outside_, after);
        int owners = 0, modes = 0, attrs = 0;
        for (const auto &entry : before_) {
            auto it = after.find(entry.first);
            ASSERT_NE(it, after.end()) << entry.first;
            owners += it->second.uid != entry.second.uid || it->second.gid != entry.second.gid;
            modes += it->second.mode != entry.second.mode;
            attrs += it->second.attrs != entry.second.attrs;
        }
        EXPECT_EQ(owners + modes + attrs, 0) << "of " << before_.size() << " entries outside the share, " << owners
                                             << " changed owner, " << modes << " mode, " << attrs << " attributes";
        EXPECT_EQ(after.size(), before_.size());
    }

    std::string Path(int i) const { return In("u/d/f") + std::to_string(i % kFiles); }

    std::string outside_;
    TreeState before_;
};

// A race that only ever hit refusals would prove nothing.
int EnoughSucceeded(int ok) { return ok >= kRounds / 10 ? 0 : 1; }

TEST_F(AclRace, APlainUserTakingOwnershipNeverReachesOutside) {
    for (bool withoutAt : {false, true}) {
        SCOPED_TRACE(withoutAt ? "without *xattrat" : "with *xattrat");
        Race(kAlice, false, withoutAt, [&] {
            int ok = 0;
            for (int i = 0; i < kRounds; ++i) {
                const KOVA_ACL_ID self{KOVA_ACL_ID_USER, static_cast<int>(kAlice.uid)};
                if (KOVAACLOwnerIdSet(Path(i).c_str(), &self) == 0) ++ok;
            }
            return EnoughSucceeded(ok);
        });
    }
}

TEST_F(AclRace, AnAdministratorsTaskSettingAclsAndOwnersNeverReachesOutside) {
    PKOVA_ACL acl = KOVAACLAlloc(0);
    ASSERT_NE(acl, nullptr);
    PKOVA_ACL_ENTRY e = KOVAACLAceAlloc();
    ASSERT_EQ(KOVAACLAceParse("user:4242:allow:rwxpdDaARWcCo:fd--", e), 0);
    ASSERT_EQ(KOVAACLAceAppend(acl, e), 0);
    acl->isInherited = 1;
    for (bool withoutAt : {false, true}) {
        SCOPED_TRACE(withoutAt ? "without *xattrat" : "with *xattrat");
        // Entry after entry of one folder, as the recursive walk names them.
        Race(kAdmin, true, withoutAt, [&] {
            int ok = 0;
            const KOVA_ACL_ID owner{KOVA_ACL_ID_USER, 4242};
            for (int i = 0; i < kRounds; ++i) {
                if (KOVAACLSet(Path(i).c_str(), -1, acl) == 0) ++ok;
                if (i % 2 == 1) (void)KOVAACLOwnerIdSet(Path(i).c_str(), &owner);
            }
            return EnoughSucceeded(ok);
        });
    }
    KOVAACLFree(acl);
}

// Inherited rights never come from a folder of the user's swapped in above the file.
TEST_F(AclRace, InheritedRightsNeverComeFromAFolderSwappedInAbove) {
    Dir(In("r/s"));
    File(In("r/s/f"));
    Dir(In("mine/s"));
    ASSERT_EQ(SetAcl(In("r/s"), {"everyone:-1:allow:r------------:fd--"}, false), 0);
    ASSERT_EQ(SetAcl(In("r/s/f"), {"everyone:-1:allow:------a------:----"}, true), 0);
    ASSERT_EQ(SetAcl(In("mine/s"), {"user:1030:allow:rwxpdDaARWcCo:fd--"}, false), 0);
    ASSERT_EQ(symlink(In("mine").c_str(), In("swap2").c_str()), 0);
    for (bool withoutAt : {false, true}) {
        SCOPED_TRACE(withoutAt ? "without *xattrat" : "with *xattrat");
        Swapper swapper(In("r"), In("swap2"));
        ASSERT_TRUE(swapper.Running());
        EXPECT_EQ(RunAs(kAlice,
                        [&] {
                            std::unique_ptr<WithoutXattrAt> noAt;
                            if (withoutAt) noAt.reset(new WithoutXattrAt);
                            int answered = 0, granted = 0;
                            for (int i = 0; i < kRounds; ++i) {
                                unsigned int perm = 0;
                                if (KOVAACLPermGet(In("r/s/f").c_str(), &perm) != 0) continue;
                                ++answered;
                                if (perm & KOVA_ACL_PERM_WRITE_ACL) ++granted;
                            }
                            if (granted > 0) return 1;
                            return EnoughSucceeded(answered) ? 2 : 0;
                        }),
                  0);
    }
}

} // namespace
