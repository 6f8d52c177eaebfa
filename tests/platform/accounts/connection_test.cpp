// The per-thread account-database connection sees other processes' changes and replaced
// files, and is never shared with a forked child or another thread.
#include "as-identity.h"
#include "run-admin.h"
#include "temp-root.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>
#include <dirent.h>
#include <linux/kcmp.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

using kova_test::RunAdmin;
using kova_test::TempRoot;

namespace {

bool UserExists(const char *name) {
    int uid = -1, gid = -1;
    return KOVAUserGetUGID(name, &uid, &gid) == 0;
}

// Descriptors of this process open on the file at path.
std::vector<int> FdsOn(const std::string &path) {
    std::vector<int> fds;
    DIR *d = opendir("/proc/self/fd");
    if (!d) return fds;
    int self = dirfd(d);
    while (dirent *e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        int fd = atoi(e->d_name);
        if (fd == self) continue;
        char target[4096];
        ssize_t n = readlink(("/proc/self/fd/" + std::string(e->d_name)).c_str(), target, sizeof(target) - 1);
        if (n > 0 && std::string(target, static_cast<size_t>(n)) == path) fds.push_back(fd);
    }
    closedir(d);
    return fds;
}

bool SameOpenFile(pid_t a, int fdA, pid_t b, int fdB) {
    return syscall(SYS_kcmp, a, b, KCMP_FILE, fdA, fdB) == 0;
}

} // namespace

TEST(AccountConnection, OnePerProcessAndThreadSeeingOtherProcessesAndReplacedFiles) {
    TempRoot root;
    ASSERT_TRUE(UserExists("admin"));  // opens and keeps the connection
    std::string db = root.At("etc/accounts.db");
    // Repeated calls reuse one connection rather than opening the file anew; another thread has its own.
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(UserExists("admin"));
    std::vector<int> parentFds = FdsOn(db);
    ASSERT_EQ(parentFds.size(), 1u);
    int failures = 0;
    size_t fdsInThread = 0;
    std::thread t([&] {
        for (int i = 0; i < 200; ++i)
            if (KLIBGroupIsAdminGroupMem("admin", 0) != 1) ++failures;
        fdsInThread = FdsOn(db).size();
    });
    int mine = 0;
    for (int i = 0; i < 200; ++i)
        if (!UserExists("admin")) ++mine;
    t.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(mine, 0);
    EXPECT_EQ(fdsInThread, 2u);  // the main thread's and its own
    EXPECT_EQ(FdsOn(db).size(), 1u);  // closed when the thread ended

    // A forked child opens its own and keeps using it.
    pid_t parent = getpid();
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        if (!UserExists("admin")) _exit(1);
        // Some descriptor on the file must be one the child opened itself.
        int own = -1;
        for (int fd : FdsOn(db))
            if (!SameOpenFile(getpid(), fd, parent, parentFds[0])) own = fd;
        if (own < 0) _exit(2);
        if (KOVAUserAdd("kid", -1, nullptr, nullptr, nullptr, 0) != 0) _exit(3);
        if (!UserExists("kid")) _exit(4);
        _exit(FdsOn(db).size() <= 2 ? 0 : 5);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // The parent's connection is intact and sees the child's change.
    EXPECT_TRUE(UserExists("kid"));
    EXPECT_EQ(KOVAUserAdd("mom", -1, nullptr, nullptr, nullptr, 0), 0);
    EXPECT_TRUE(UserExists("mom"));

    ASSERT_EQ(RunAdmin("user add zed"), 0);
    EXPECT_TRUE(UserExists("zed"));
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("zed", 0), 0);
    ASSERT_EQ(RunAdmin("group member add administrators zed"), 0);
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("zed", 0), 1);
    ASSERT_EQ(RunAdmin("group member del administrators zed"), 0);
    EXPECT_EQ(KLIBGroupIsAdminGroupMem("zed", 0), 0);
    ASSERT_EQ(RunAdmin("user del zed"), 0);
    EXPECT_FALSE(UserExists("zed"));
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOUSER);

    // A warm process sees every change, also one that leaves the file's size as it was.
    ASSERT_EQ(RunAdmin("user add yan --password first1 --desc d0"), 0);
    auto desc = [] {
        PKOVA_USER u = nullptr;
        std::string d = KOVAUserGet("yan", &u) == 0 && u->szDesc ? u->szDesc : "<failed>";
        KOVAUserFree(u);
        return d;
    };
    for (int i = 1; i <= 4; ++i) {
        EXPECT_EQ(desc(), "d" + std::to_string(i - 1));
        ASSERT_EQ(RunAdmin("user set yan --desc d" + std::to_string(i)), 0);
        EXPECT_EQ(desc(), "d" + std::to_string(i));
    }
    EXPECT_EQ(KOVAUserPasswordCheck("yan", "first1"), 0);
    ASSERT_EQ(RunAdmin("user passwd yan second"), 0);
    EXPECT_NE(KOVAUserPasswordCheck("yan", "first1"), 0);
    EXPECT_EQ(KOVAUserPasswordCheck("yan", "second"), 0);

    // A file put in place of the open one (a restore) is the one read.
    ASSERT_EQ(KOVAUserAdd("old", -1, nullptr, nullptr, nullptr, 0), 0);
    ASSERT_EQ(rename(db.c_str(), (db + ".bak").c_str()), 0);
    EXPECT_FALSE(UserExists("old"));
    EXPECT_TRUE(UserExists("admin"));  // a new file with the defaults
    ASSERT_EQ(rename((db + ".bak").c_str(), db.c_str()), 0);
    EXPECT_TRUE(UserExists("old"));

    // A new platform root is a new database.
    {
        TempRoot other;
        EXPECT_FALSE(UserExists("old"));
    }
}

TEST(AccountConnection, UnraisedReadsOfAWarmConnectionSeeChanges) {
    TempRoot root;
    ASSERT_EQ(KOVAUserAdd("uma", -1, nullptr, nullptr, nullptr, 0), 0);
    int toParent[2], toChild[2];
    ASSERT_EQ(pipe(toParent), 0);
    ASSERT_EQ(pipe(toChild), 0);
    // While the child waits as an ordinary user, kova-admin changes the database.
    std::thread changer([&] {
        char c;
        if (read(toParent[0], &c, 1) != 1) return;
        c = RunAdmin("group member add administrators uma") == 0 &&
                    RunAdmin("user add vic") == 0 ? 'y' : 'n';
        (void)!write(toChild[1], &c, 1);
    });
    int rc = kova_test::RunAs({1026, 100, {100}}, [&]() -> int {
        if (KLIBGroupIsAdminGroupMem("uma", 0) != 0 || UserExists("vic")) return 1;
        char c = 'r';
        if (write(toParent[1], &c, 1) != 1 || read(toChild[0], &c, 1) != 1 || c != 'y') return 2;
        if (KLIBGroupIsAdminGroupMem("uma", 0) != 1) return 3;
        if (!UserExists("vic")) return 4;
        return geteuid() == 1026 && getegid() == 100 ? 0 : 5;
    });
    if (rc != 0) {
        char c = 'x';
        (void)!write(toParent[1], &c, 1);  // release the changer if the child failed early
    }
    changer.join();
    for (int fd : {toParent[0], toParent[1], toChild[0], toChild[1]}) close(fd);
    EXPECT_EQ(rc, 0);
}
