// The share table a process keeps sees every change to the share database, names each share's real root, and
// a link put at a root's path holds nothing.
#include "share-fixture.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/task-end.h"
#include "share-lookup.h"
#include "sys-fault.h"
#include "temp-root.h"

#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <climits>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>

namespace {

using namespace kova_share_test;

class ShareCache : public ::testing::Test {
protected:
    void SetUp() override {
        vol_ = root_.At("volumes/volume1");
        db_ = root_.At("etc/shares.db");
        for (const char *d : {"data", "other", "otheR", "real1", "real2"}) ASSERT_TRUE(kova_test::MakeDirs(vol_ + "/" + d));
        ASSERT_EQ(Add("data", vol_ + "/data"), 0);
        clock_gettime(CLOCK_REALTIME, &old_);
        old_.tv_sec -= 60;
    }
    // Dates the database a minute back (always the same time), so this process keeps the table it reads next.
    void Age() {
        struct timespec times[2] = {old_, old_};
        ASSERT_EQ(utimensat(AT_FDCWD, db_.c_str(), times, 0), 0);
    }
    // Runs body in another process; its exit status.
    static int InOtherProcess(const std::function<int()> &body) {
        pid_t pid = fork();
        if (pid == 0) _exit(body());
        int st = 0;
        if (pid < 0 || waitpid(pid, &st, 0) != pid || !WIFEXITED(st)) return -1;
        return WEXITSTATUS(st);
    }
    kova_test::TempRoot root_;
    std::string vol_, db_;
    struct timespec old_;
};

TEST_F(ShareCache, AnotherProcessesChangesAreSeenOnTheNextCall) {
    Age();
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "data|" + vol_ + "/data");
    EXPECT_EQ(Lookup(vol_ + "/other/x"), "err:0x2500");

    ASSERT_EQ(InOtherProcess([&] { return Add("other", vol_ + "/other") == 0 ? 0 : 1; }), 0);
    EXPECT_EQ(Lookup(vol_ + "/other/x"), "other|" + vol_ + "/other");

    // Same size, modification time put back: the status change time still tells.
    Age();
    EXPECT_EQ(Lookup(vol_ + "/other/x"), "other|" + vol_ + "/other");
    struct timespec pause = {0, 50 * 1000 * 1000};  // past one timestamp tick
    nanosleep(&pause, nullptr);
    struct stat before;
    ASSERT_EQ(stat(db_.c_str(), &before), 0);
    ASSERT_EQ(InOtherProcess([&] { return Add("other", vol_ + "/otheR") == 0 ? 0 : 1; }), 0);
    Age();
    struct stat after;
    ASSERT_EQ(stat(db_.c_str(), &after), 0);
    EXPECT_EQ(after.st_size, before.st_size);  // the case this step is about
    EXPECT_EQ(Lookup(vol_ + "/otheR/x"), "other|" + vol_ + "/otheR");
    EXPECT_EQ(Lookup(vol_ + "/other/x"), "err:0x2500");

    ASSERT_EQ(InOtherProcess([&] { return KOVAShareDelete("other") == 0 ? 0 : 1; }), 0);
    Age();
    EXPECT_EQ(Lookup(vol_ + "/otheR/x"), "err:0x2500");
}

// A background task looks at the database at most every 100 ms, so another process's change reaches it after that.
TEST_F(ShareCache, ATaskSeesAnotherProcesssChangeOnceItsRecheckTimeIsOver) {
    ASSERT_EQ(Add("other", vol_ + "/other"), 0);
    sleep(3);  // past the two seconds in which a just-written table is read again on every call
    EXPECT_EQ(InOtherProcess([&] {
        kova_internal::MarkTaskProcess();
        if (Lookup(vol_ + "/other/x") != "other|" + vol_ + "/other") return 1;
        if (InOtherProcess([] { return KOVAShareDelete("other") == 0 ? 0 : 1; }) != 0) return 2;
        struct timespec pause = {0, 150 * 1000 * 1000};
        nanosleep(&pause, nullptr);
        return Lookup(vol_ + "/other/x") == "err:0x2500" ? 0 : 3;
    }), 0);
}

TEST_F(ShareCache, ADatabasePutInPlaceOrRemovedIsNoticed) {
    Age();
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "data|" + vol_ + "/data");
    // The database moves aside and one with another share takes its place.
    const std::string aside = db_ + ".aside";
    ASSERT_EQ(rename(db_.c_str(), aside.c_str()), 0);
    ASSERT_EQ(InOtherProcess([&] { return Add("other", vol_ + "/other") == 0 ? 0 : 1; }), 0);
    Age();
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "err:0x2500");
    EXPECT_EQ(Lookup(vol_ + "/other/x"), "other|" + vol_ + "/other");
    // No database: no shares.
    ASSERT_EQ(unlink(db_.c_str()), 0);
    EXPECT_EQ(Lookup(vol_ + "/other/x"), "err:0x2500");
    // The first one comes back.
    ASSERT_EQ(rename(aside.c_str(), db_.c_str()), 0);
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "data|" + vol_ + "/data");
}

TEST_F(ShareCache, WritesOfThisProcessAndOtherRootsAreSeenAtOnce) {
    Age();
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "data|" + vol_ + "/data");
    ASSERT_EQ(KOVAShareDelete("data"), 0);
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "err:0x2500");
    ASSERT_EQ(Add("data", vol_ + "/data"), 0);
    Age();
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "data|" + vol_ + "/data");
    {
        // Another platform root has its own database.
        kova_test::TempRoot other;
        EXPECT_EQ(Lookup(vol_ + "/data/x"), "err:0x2500");
    }
    EXPECT_EQ(Lookup(vol_ + "/data/x"), "data|" + vol_ + "/data");
}

TEST_F(ShareCache, TheTableNamesTheRealRootAndALinkAtItsPathHoldsNothing) {
    const std::string link = vol_ + "/current";
    ASSERT_EQ(symlink((vol_ + "/real1").c_str(), link.c_str()), 0);
    ASSERT_EQ(Add("linked", link), 0);
    // A share below it, and a folder of the same name where the link leads.
    ASSERT_TRUE(kova_test::MakeDirs(vol_ + "/real1/sub"));
    ASSERT_TRUE(kova_test::MakeDirs(vol_ + "/real2/sub"));
    ASSERT_EQ(Add("sub", vol_ + "/real1/sub"), 0);
    Age();
    EXPECT_EQ(Lookup(vol_ + "/real1/x"), "linked|" + vol_ + "/real1");
    EXPECT_EQ(Lookup(vol_ + "/real2/x"), "err:0x2500");
    // The link it was given through is pointed elsewhere: the share stays.
    ASSERT_EQ(unlink(link.c_str()), 0);
    ASSERT_EQ(symlink((vol_ + "/real2").c_str(), link.c_str()), 0);
    EXPECT_EQ(Lookup(vol_ + "/real1/x"), "linked|" + vol_ + "/real1");
    EXPECT_EQ(Lookup(vol_ + "/real2/x"), "err:0x2500");

    // A link put in the root's place holds nothing, whether the table is kept or read afresh.
    const std::string aside = vol_ + "/real1.aside";
    ASSERT_EQ(rename((vol_ + "/real1").c_str(), aside.c_str()), 0);
    ASSERT_EQ(symlink((vol_ + "/real2").c_str(), (vol_ + "/real1").c_str()), 0);
    for (int fresh = 0; fresh < 2; ++fresh) {
        if (fresh) {
            ASSERT_EQ(Add("other", vol_ + "/other"), 0);
        }
        EXPECT_EQ(Lookup(vol_ + "/real2/x"), "err:0x2500") << fresh;
        EXPECT_EQ(Lookup(vol_ + "/real1/x"), "err:0x2500") << fresh;
        EXPECT_EQ(Lookup(aside + "/x"), "err:0x2500") << fresh;
        // A link above a root is no better.
        EXPECT_EQ(Lookup(vol_ + "/real2/sub/x"), "err:0x2500") << fresh;
    }
    // The real folder back at its path holds the share again.
    ASSERT_EQ(unlink((vol_ + "/real1").c_str()), 0);
    ASSERT_EQ(rename(aside.c_str(), (vol_ + "/real1").c_str()), 0);
    EXPECT_EQ(Lookup(vol_ + "/real1/x"), "linked|" + vol_ + "/real1");
    EXPECT_EQ(Lookup(vol_ + "/real1/sub/x"), "sub|" + vol_ + "/real1/sub");
}

TEST_F(ShareCache, LookupFailsCleanlyAtEveryFileCall) {
    ASSERT_TRUE(kova_test::MakeDirs(vol_ + "/data/sub"));
    for (const std::string &p : {vol_ + "/data/sub", vol_ + "/data/new", vol_ + "/data/sub/../sub"}) {
        std::string got;
        std::vector<std::string> refused;
        const auto problems = kova_test::FailEachCall(
            {},
            [&] {
                KLIBCErrSetEx(0, "", 0);
                got = Lookup(p);
                if (got == "data|" + vol_ + "/data") return 0;
                return got.compare(0, 4, "err:") == 0 && got != "err:0x0000" ? 1 : 2;
            },
            0, [&](const kova_test::FailedRun &run) { return run.result == 2 ? "answered " + got : std::string(); },
            &refused);
        EXPECT_TRUE(problems.empty()) << p << "\n" << kova_test::Lines(problems);
        // The database watch, the root and the path itself were refused.
        for (const char *entry : {"openat", "fstat", "openat2"})
            EXPECT_NE(std::find(refused.begin(), refused.end(), entry), refused.end()) << p << " " << entry;
    }
}

TEST_F(ShareCache, ARealPathWithANulIsRefused) {
    std::string name = "untouched", root;
    EXPECT_LT(kova_share::ShareOfRealPath(vol_ + std::string("/data\0/../other", 15), name, root), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    EXPECT_EQ(name, "untouched");
    ASSERT_EQ(kova_share::ShareOfRealPath(vol_ + "/data/x", name, root), 0);
    EXPECT_EQ(name, "data");
    // The C call: too small a buffer is an error, never a cut name.
    char small[4] = "abc", full[PATH_MAX];
    EXPECT_LT(KOVAShareOfRealPath((vol_ + "/data/x").c_str(), small, sizeof small, nullptr, 0), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_RANGE);
    EXPECT_EQ(0, KOVAShareOfRealPath((vol_ + "/data/x").c_str(), nullptr, 0, full, sizeof full));
    EXPECT_EQ(root, full);
    EXPECT_LT(KOVAShareOfRealPath("/nowhere/at/all", small, sizeof small, nullptr, 0), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOSHARE);
}

} // namespace
