// Background propagation of a folder's inheritable entries to its descendants' kernel ACLs (checked by a
// child with a user's real ids and by the drift check): progress, stops, resumes, swaps and bounds.
#include "propagation-fixture.h"
#include "share-fixture.h"

#include "as-identity.h"
#include "run-admin.h"
#include "kova/share.h"
#include "kova-internal/sys-calls.h"

#include "../../../platform/acl/propagation.h"
#include "../../../platform/acl/refresh.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <new>

namespace {

using kova_acl::JobState;
using kova_acl::PropagationJob;
using kova_acl_test::Inheriting;
using kova_acl_test::JobOf;
using kova_acl_test::KernelBitsAs;
using kova_acl_test::kR;
using kova_acl_test::kW;
using kova_acl_test::kX;
using kova_acl_test::RawRecord;
using kova_acl_test::WaitForPropagations;
using kova_acl_test::WaitJob;
using kova_internal::ScopedSysCall;
using kova_internal::SysCalls;
using kova_test::Identity;
const Identity kAlice{1030, 1030, {}}, kBob{1031, 1031, {}};

// Folders slowed down for the runner, which a set forks from this process and which inherits the system-call
// table: each look at an entry waits. Memory the runner shares with the test also counts its looks and can
// slow it down further while it runs.
struct Shared {
    std::atomic<int> looks{0};
    std::atomic<int> extraUs{0};
};
Shared *SharedWithRunners() {
    void *m = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return m == MAP_FAILED ? nullptr : new (m) Shared();
}
std::atomic<int> gDelayUs{0};
Shared *gShared = nullptr;
int SlowFstatat(int dirFd, const char *name, struct stat *st, int flags) {
    if (gShared) {
        gShared->looks.fetch_add(1);
        if (const int us = gShared->extraUs.load()) usleep(static_cast<useconds_t>(us));
    }
    if (const int us = gDelayUs.load()) usleep(static_cast<useconds_t>(us));
    return kova_internal::RealSysCalls().fstatat(dirFd, name, st, flags);
}

class AclPropagation : public kova_acl_test::PropagationFixture {
protected:
    void SetUp() override {
        PropagationFixture::SetUp();
        // Two workers: the tests that slow the walk down count on its pace.
        setenv("KOVA_PROPAGATION_THREADS", "2", 1);
        // Looks at entries wait gDelayUs (0 unless a test slows the walk).
        slow_.reset(new ScopedSysCall<decltype(SysCalls::fstatat)>(&SysCalls::fstatat, SlowFstatat));
    }
    void TearDown() override {
        gDelayUs = 0;
        PropagationFixture::TearDown();
        slow_.reset();
        unsetenv("KOVA_PROPAGATION_THREADS");
    }

    // A set waits for the propagation it starts; the tests that watch one under way start a set of top on a
    // thread of its own (joined at the latest when the future goes), with every look at an entry delayed by
    // delayUs, and wait until its job runs and `until` holds.
    template <typename Pred>
    bool SlowSet(int delayUs, const std::vector<std::string> &entries, std::future<int> &set, Pred until,
                 PropagationJob &job) {
        gDelayUs = delayUs;
        set = std::async(std::launch::async, [this, entries] { return SetAcl(top_, entries, false); });
        return WaitJob(top_, [&](const PropagationJob &j) { return j.state == JobState::kRunning && until(j); }, job);
    }

    // What the platform and the kernel hold for each path.
    static std::vector<std::string> Snapshot(const std::vector<std::string> &paths) {
        std::vector<std::string> out;
        for (const std::string &p : paths) {
            char buf[512];
            const ssize_t n = lgetxattr(p.c_str(), "system.posix_acl_access", buf, sizeof buf);
            out.push_back(RawRecord(p) + "|" + std::string(buf, static_cast<size_t>(n > 0 ? n : 0)));
        }
        return out;
    }
    // A file outside the share with a record, reachable through the link top/d0/out; its snapshot.
    std::vector<std::string> LinkOutside(const std::string &name) {
        const std::string outside = root_.At(name);
        Dir(outside);
        File(outside + "/g");
        EXPECT_EQ(SetAcl(outside + "/g", {"user:1030:allow:r:-"}, true), 0);
        EXPECT_EQ(symlink(outside.c_str(), (top_ + "/d0/out").c_str()), 0);
        return Snapshot({outside + "/g"});
    }

    // What the kernel lets each user do with each path, as a table.
    struct Access {
        const Identity &who;
        std::string path;
        unsigned bits;
    };
    void ExpectKernel(const std::vector<Access> &table) {
        for (const Access &a : table)
            EXPECT_EQ(KernelBitsAs(a.who, a.path), a.bits) << (&a.who == &kAlice ? "alice " : "bob ") << a.path;
    }
    // After "user:1031:allow:rwxpD:fd everyone:-1:allow:x:d": bob may do everything, alice only traverse the
    // folders.
    static std::vector<Access> BobAllAliceTraverse(const std::vector<std::string> &paths) {
        std::vector<Access> table;
        for (const std::string &p : paths) {
            table.push_back({kAlice, p, p.find("/f") == std::string::npos ? kX : 0u});
            table.push_back({kBob, p, kR | kW | kX});
        }
        return table;
    }

    // Nothing below top (or `below`) drifts and the kernel answers as `table` says.
    void Followed(const std::vector<Access> &table, const std::string &below = "") {
        EXPECT_EQ(Drifting(below), 0u);
        ExpectKernel(table);
    }
    // Once every propagation has ended, top's job is done and followed.
    PropagationJob Done(const std::vector<Access> &table = {}) {
        EXPECT_TRUE(WaitForPropagations());
        PropagationJob job;
        EXPECT_TRUE(JobOf(top_, job));
        EXPECT_EQ(job.state, JobState::kDone);
        Followed(table);
        return job;
    }

    // A job left unfinished part-way (stopped, or under a killed runner) stays so: in `state`, short of the
    // `total` entries, and entries below top still drift.
    PropagationJob Held(JobState state, size_t total) {
        PropagationJob job;
        EXPECT_TRUE(JobOf(top_, job));
        EXPECT_EQ(job.state, state);
        EXPECT_LT(job.visited, total);
        EXPECT_GT(Drifting(), 0u);
        return job;
    }

    std::unique_ptr<ScopedSysCall<decltype(SysCalls::fstatat)>> slow_;
};

// The plain case, down three levels: every inheriting entry follows the new entries, one that does not
// inherit keeps its own (and so does what lies below it), one without a record keeps its mode, a link is not
// followed.
TEST_F(AclPropagation, NonRecursiveChangeReachesEveryInheritingDescendant) {
    unsetenv("KOVA_PROPAGATION_THREADS");  // as many workers as by default
    const std::vector<std::string> all = Tree(3, 2, 6);
    const std::vector<std::string> outside = LinkOutside("outside");
    Dir(top_ + "/d0/own");
    Make(top_ + "/d0/own/g", false);
    ASSERT_EQ(SetAcl(top_ + "/d0/own", {"user:1031:allow:rx:fd"}, false), 0);
    File(top_ + "/d1/plain");
    chmod((top_ + "/d1/plain").c_str(), 0604);
    // Files of one folder that differ from their siblings: another owner, an entry of their own.
    ASSERT_EQ(chown((top_ + "/d2/s1/f2").c_str(), 1032, 1032), 0);
    ASSERT_EQ(SetAcl(top_ + "/d2/s1/f3", {"user:1030:allow:wp:-"}, true), 0);

    ASSERT_EQ(SetAcl(top_, {"user:1030:allow:rx:fd"}, false), 0);
    ASSERT_TRUE(WaitForPropagations());
    EXPECT_EQ(KernelBitsAs(kAlice, top_ + "/d2/s1/f5"), kR | kX);

    // Bob gets everything; everyone may only traverse the folders, so alice still reaches each entry but no
    // longer reads the files.
    ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rwxpD:fd", "everyone:-1:allow:x:d"}, false), 0);
    const PropagationJob job =
        Done(BobAllAliceTraverse({top_ + "/d0", top_ + "/d1/s0", top_ + "/d2/s1/f5", top_ + "/d0/s0/f0"}));
    // Each inheriting entry once; own and plain looked at, not rewritten.
    EXPECT_EQ(job.rewritten, all.size());
    EXPECT_EQ(job.visited, all.size() + 2);
    EXPECT_EQ(job.failed, 0u);
    ExpectKernel({{kBob, top_ + "/d0/own/g", kR | kX}, {kAlice, top_ + "/d0/own/g", 0},
                  {kAlice, top_ + "/d2/s1/f3", kW}, {kBob, top_ + "/d2/s1/f2", kR | kW | kX},
                  {kBob, top_ + "/d1/plain", kR}, {kAlice, top_ + "/d1/plain", kR}});

    // A removal passes nothing down any more.
    ASSERT_EQ(KOVAACLRemove(top_.c_str(), -1), 0);
    ASSERT_TRUE(WaitForPropagations());
    Followed({{kBob, top_ + "/d2/s1/f5", 0}});
    EXPECT_EQ(Snapshot({root_.At("outside/g")}), outside);
}

// A small tree is followed in place, without a job, and so is a larger one while every place of the job
// directory is held by an unfinished job: no record is added and none of the held ones is lost. Once one of
// them has finished, it is forgotten and the change goes to a job, which finishes it.
TEST_F(AclPropagation, SmallTreesAndChangesBeyondTheJobPlacesAreFollowedInPlace) {
    Tree(2, 2, 3);
    const std::vector<std::string> outside = LinkOutside("outside");
    unsetenv("KOVA_PROPAGATION_IN_PLACE");
    ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rx:fd"}, false), 0);
    std::vector<PropagationJob> jobs;
    ASSERT_TRUE(kova_acl::ListPropagations(jobs));
    EXPECT_TRUE(jobs.empty());
    Followed({{kBob, top_ + "/d1/s1/f2", kR | kX}});
    EXPECT_EQ(Snapshot({root_.At("outside/g")}), outside) << "the in-place refresh followed a link";

    setenv("KOVA_PROPAGATION_IN_PLACE", "5", 1);  // fewer than the tree's 18
    kova_acl::JobDir dir;
    ASSERT_TRUE(dir.Open());
    PropagationJob held;
    held.dev = 0xfff0;
    held.state = JobState::kStopped;
    for (size_t i = 1; i <= kova_acl::kMaxPropagationJobs; ++i) {
        held.ino = held.seq = held.visited = i;
        held.path = In("held/" + std::to_string(i));
        ASSERT_TRUE(dir.Write(held));
    }
    // Every record by key, as "path seq state visited".
    auto records = [] {
        std::map<std::string, std::string> out;
        std::vector<PropagationJob> list;
        EXPECT_TRUE(kova_acl::ListPropagations(list));
        for (const PropagationJob &j : list)
            out[j.Key()] = j.path + " " + std::to_string(j.seq) + " " + kova_acl::JobStateName(j.state) + " " +
                           std::to_string(j.visited);
        return out;
    };
    const auto before = records();
    ASSERT_EQ(before.size(), kova_acl::kMaxPropagationJobs);
    ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rwxpD:fd"}, false), 0);
    Followed({{kBob, top_ + "/d1/s1/f2", kR | kW | kX}});
    EXPECT_EQ(records(), before);

    held.state = JobState::kDone;  // the last one
    ASSERT_TRUE(dir.Write(held));
    ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rx:fd"}, false), 0);
    const PropagationJob job = Done({{kBob, top_ + "/d1/s1/f2", kR | kX}});
    EXPECT_EQ(job.rewritten, 2u * (1 + 2 * (1 + 3)));
    auto after = records(), expected = before;
    after.erase(job.Key());
    expected.erase(held.Key());
    EXPECT_EQ(after, expected);
}

// A share whose root lies inside the tree starts its own inheritance there: the walk gives that folder and
// what lies below it nothing of the top's.
TEST_F(AclPropagation, AShareRootInsideTheTreeInheritsNothingFromAbove) {
    Tree(2, 1, 2);
    ASSERT_EQ(kova_share_test::AddAclShare("inner", top_ + "/d0", KOVA_SHARE_PRIV_RW), 0);
    ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rwxpD:fd"}, false), 0);
    ASSERT_TRUE(WaitForPropagations());
    Followed({{kBob, top_ + "/d1/s0/f1", kR | kW | kX}}, top_ + "/d1");
    // The platform gives bob nothing there (the inner share's root has an empty ACL), and neither does the
    // kernel.
    std::vector<std::string> acl;
    ASSERT_TRUE(GetAcl(top_ + "/d0", KOVA_ACL_GET_ALL, acl));
    EXPECT_TRUE(acl.empty());
    EXPECT_EQ(KernelBitsAs(kBob, top_ + "/d0"), 0u);
}

// Progress shows while the walk runs (in the record and through kova-admin), a stop holds the job where it
// is, and a resume finishes it.
TEST_F(AclPropagation, ProgressIsVisibleAndAStopHolds) {
    const std::vector<std::string> all = Tree(6, 2, 10, true);
    static Shared *const shared = SharedWithRunners();
    ASSERT_NE(shared, nullptr);
    gShared = shared;
    std::future<int> set;
    PropagationJob job;
    ASSERT_TRUE(SlowSet(20000, {"user:1031:allow:rx:fd"}, set, [](const PropagationJob &j) { return j.visited > 3; },
                        job));
    EXPECT_EQ(job.current.compare(0, top_.size(), top_), 0) << job.current;
    std::string out;
    ASSERT_EQ(kova_test::RunAdmin("acl propagation", &out), 0) << out;
    EXPECT_NE(out.find("running " + top_ + " visited "), std::string::npos) << out;
    EXPECT_NE(out.find(" at " + top_), std::string::npos) << out;

    // From now on each look of the runner takes 0.4 s, so that going on after the stop would show.
    shared->extraUs = 400000;
    ASSERT_EQ(kova_test::RunAdmin("acl propagation stop " + top_, &out), 0) << out;
    ASSERT_TRUE(WaitJob(top_, [](const PropagationJob &j) { return j.state == JobState::kStopped; }, job));
    // The set that waited for its propagation returns once it is stopped.
    EXPECT_EQ(set.get(), 0);
    // The runner notices within a quarter of a second and finishes the entries under way (slower under a
    // sanitizer on a busy machine), then looks at nothing more; walking on would look every 0.4 s.
    usleep(1500000);
    const int looked = shared->looks.load();
    usleep(1000000);
    EXPECT_EQ(shared->looks.load(), looked);
    gShared = nullptr;
    shared->extraUs = 0;
    gDelayUs = 0;  // in this process: the drift check is not slowed down
    EXPECT_EQ(Held(JobState::kStopped, all.size()).visited, job.visited);

    ASSERT_EQ(kova_test::RunAdmin("acl propagation resume", &out), 0) << out;
    Done({{kBob, top_ + "/d5/s1/f9", kR | kX}, {kAlice, top_ + "/d5/s1/f9", 0}});
    EXPECT_NE(kova_test::RunAdmin("acl propagation stop " + top_, &out), 0) << "nothing left to stop";
}

// A runner killed outright: the job reads as running under a dead process, a resume takes it up at its resume
// point (what lies before it is not looked at again) and finishes it.
TEST_F(AclPropagation, AKilledRunnerIsResumedWhereItStopped) {
    const std::vector<std::string> all = Tree(8, 2, 8, true);
    PropagationJob job;
    std::future<int> set;
    const bool seen =
        SlowSet(15000, {"user:1031:allow:rx:fd"}, set, [](const PropagationJob &j) { return j.resume != 0; }, job);
    if (seen) {
        EXPECT_EQ(kill(static_cast<pid_t>(job.pid), SIGKILL), 0);
    }
    // The waiting set sees the runner die and returns.
    EXPECT_EQ(set.get(), 0);
    ASSERT_TRUE(seen);
    EXPECT_GT(job.pid, 0);
    usleep(300000);
    const PropagationJob killed = Held(JobState::kRunning, all.size());
    ASSERT_NE(killed.resume, 0);

    gDelayUs = 0;
    size_t waiting = 0;
    ASSERT_EQ(0, KOVAACLPropagationResume(&waiting));
    EXPECT_EQ(waiting, 1u);
    job = Done({{kBob, top_ + "/d7/s1/f7", kR | kX}});
    // Only what lay from the resume point on was looked at again: the whole tree once more would add every
    // entry to the count.
    EXPECT_LT(job.visited, killed.visited + all.size());
}

// Folders swapped during the walk, between the look at them and their opening: one for a link to a folder
// outside the share, one for that very folder moved in. Neither is entered, by the runner's walk, the
// in-place refresh or the drift check's repair; outside the share nothing changes.
std::string gOutside;
int SwappingOpenat(int dirFd, const char *name, int flags, mode_t mode) {
    if ((flags & O_DIRECTORY) && (std::strcmp(name, "s0") == 0 || std::strcmp(name, "s1") == 0)) {
        const std::string moved = std::string(".") + name + "-moved";
        if (renameat(dirFd, name, dirFd, moved.c_str()) == 0) {
            if (std::strcmp(name, "s0") == 0)
                (void)symlinkat(gOutside.c_str(), dirFd, name);
            else
                (void)renameat(AT_FDCWD, (gOutside + "-dir").c_str(), dirFd, name);
        }
    }
    return kova_internal::RealSysCalls().openat(dirFd, name, flags, mode);
}

TEST_F(AclPropagation, FoldersSwappedDuringTheWalkChangeNothingOutside) {
    for (const std::string how : {"job", "in-place", "verify"}) {
        SCOPED_TRACE(how);
        top_ = In("top-" + how);
        setenv("KOVA_PROPAGATION_IN_PLACE", how == "in-place" ? "2000" : "0", 1);
        Tree(1, 2, 2);
        File(top_ + "/d0/f");
        Inheriting(top_ + "/d0/f");
        gOutside = root_.At("outside-" + how);
        for (const std::string &o : {gOutside, gOutside + "-dir"}) {
            Dir(o);
            File(o + "/g");
            ASSERT_EQ(SetAcl(o + "/g", {}, true), 0);
            ASSERT_EQ(SetAcl(o, {"user:1030:allow:r:fd"}, false), 0);
        }
        ASSERT_TRUE(WaitForPropagations());
        // The outside folders by where they are: the second one is moved into the tree by the swap.
        const std::vector<std::string> before =
            Snapshot({gOutside, gOutside + "/g", gOutside + "-dir", gOutside + "-dir/g"});

        if (how == "verify") {
            ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rwxpD:fd"}, false), 0);
            ASSERT_TRUE(WaitForPropagations());
            KOVA_ACL_VERIFY_COUNTS counts = {};
            ScopedSysCall<decltype(SysCalls::openat)> swap(&SysCalls::openat, SwappingOpenat);
            ASSERT_EQ(0, KOVAACLVerifyTree(top_.c_str(), 1, nullptr, nullptr, &counts));
        } else {
            ScopedSysCall<decltype(SysCalls::openat)> swap(&SysCalls::openat, SwappingOpenat);
            ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rwxpD:fd"}, false), 0);
            ASSERT_TRUE(WaitForPropagations());
        }
        struct stat st;
        ASSERT_EQ(lstat((top_ + "/d0/s0").c_str(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << "the link was swapped in";
        ASSERT_NE(lstat((gOutside + "-dir").c_str(), &st), 0) << "the folder was moved in";
        EXPECT_EQ(Snapshot({gOutside, gOutside + "/g", top_ + "/d0/s1", top_ + "/d0/s1/g"}), before);
        EXPECT_EQ(KernelBitsAs(kBob, top_ + "/d0/s1/g"), 0u);
        // The rest of the tree followed.
        EXPECT_EQ(KernelBitsAs(kBob, top_ + "/d0/f"), kR | kW | kX);
        EXPECT_EQ(KernelBitsAs(kBob, top_ + "/d0"), kR | kW | kX);
    }
}

// What the walks leave out: another file system mounted in the tree, the platform's attribute folders, and
// what lies beyond their bounds (the in-place refresh: kRefreshDepth levels, and as many entries as asked).
TEST_F(AclPropagation, WalksStayOnTheirFileSystemOutOfAttributeFoldersAndWithinBounds) {
    Dir(top_ + "/@kova_attr");
    File(top_ + "/@kova_attr/x");
    File(top_ + "/f");
    for (const char *rel : {"/@kova_attr", "/@kova_attr/x", "/f"}) Inheriting(top_ + rel);
    const std::string mnt = top_ + "/mnt";
    Dir(mnt);
    const bool mounted = mount("tmpfs", mnt.c_str(), "tmpfs", 0, "size=1m") == 0;
    if (mounted) {
        File(mnt + "/y");
        Inheriting(mnt);
        Inheriting(mnt + "/y");
    }
    KOVA_ACL_VERIFY_COUNTS counts = {};
    EXPECT_EQ(0, KOVAACLVerifyTree(top_.c_str(), 0, nullptr, nullptr, &counts));
    if (mounted) umount2(mnt.c_str(), MNT_DETACH);
    EXPECT_EQ(counts.checked, 1u) << "only f is ours to check";
    EXPECT_EQ(counts.failed, 0u);

    // A chain of inheriting folders below `deep`, as deep as the in-place refresh goes: followed in place (no
    // job) when the whole chain fits its bounds, else left to a job.
    std::string p = top_ + "/deep";
    Dir(p);
    for (size_t level = 1; level < kova_acl::kRefreshDepth; ++level) {
        p += "/c";
        Dir(p);
        Inheriting(p);
    }
    const std::string deep = top_ + "/deep";
    auto change = [&](const char *inPlace, const std::string &user) {
        setenv("KOVA_PROPAGATION_IN_PLACE", inPlace, 1);
        EXPECT_EQ(SetAcl(deep, {"user:" + user + ":allow:rx:fd"}, false), 0);
        EXPECT_TRUE(WaitForPropagations());
        PropagationJob job;
        return JobOf(deep, job) ? job.seq : 0;
    };
    EXPECT_EQ(change("2000", "1030"), 0u);
    EXPECT_EQ(Drifting(deep), 0u);
    const std::string fits = std::to_string(kova_acl::kRefreshDepth - 1);
    const std::string short1 = std::to_string(kova_acl::kRefreshDepth - 2);
    EXPECT_EQ(change(fits.c_str(), "1031"), 0u) << "every entry within the limit";
    const uint64_t first = change(short1.c_str(), "1032");
    EXPECT_NE(first, 0u) << "one entry beyond the limit";
    Dir(p + "/c");
    Inheriting(p + "/c");
    EXPECT_GT(change("2000", "1030"), first) << "one folder beyond the depth";
    EXPECT_EQ(Drifting(deep), 0u);
}

// A runner whose job lock fails part-way leaves its job "running" under itself; it takes the job up again
// rather than going away with it.
std::atomic<int> *gRunnerLocks = nullptr;
pid_t gTestPid = 0;
int FailSecondRunnerLock(int fd, int cmd, struct flock *fl) {
    if (getpid() != gTestPid && cmd == F_SETLKW && gRunnerLocks->fetch_add(1) == 1) {
        errno = ENOLCK;
        return -1;
    }
    return kova_internal::RealSysCalls().fcntl_lock(fd, cmd, fl);
}

TEST_F(AclPropagation, ARunnerThatLosesItsLockPartWayTakesItsJobUpAgain) {
    Tree(2, 2, 3);
    void *m = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(m, MAP_FAILED);
    gRunnerLocks = new (m) std::atomic<int>(0);
    gTestPid = getpid();
    {
        ScopedSysCall<decltype(SysCalls::fcntl_lock)> failing(&SysCalls::fcntl_lock, FailSecondRunnerLock);
        ASSERT_EQ(SetAcl(top_, {"user:1031:allow:rx:fd"}, false), 0);
        Done({{kBob, top_ + "/d1/s1/f2", kR | kX}});
    }
    EXPECT_GE(gRunnerLocks->load(), 2) << "the runner's lock failed once";
    munmap(m, sizeof(std::atomic<int>));
}

// A newer change of the folder while its propagation runs replaces the job (one record per folder): the
// running walk stops, the newer one runs from the start, and the newer entries are what every descendant ends
// with.
TEST_F(AclPropagation, ANewerChangeSupersedesTheRunningOne) {
    const std::vector<std::string> all = Tree(6, 2, 8, true);
    PropagationJob first;
    std::future<int> set;
    const bool seen =
        SlowSet(5000, {"user:1030:allow:r:fd"}, set, [](const PropagationJob &j) { return j.visited > 5; }, first);
    gDelayUs = 0;
    // The newer set waits for its own propagation; the older one's wait ends when its job is replaced.
    EXPECT_EQ(SetAcl(top_, {"user:1031:allow:rwxpD:fd", "everyone:-1:allow:x:d"}, false), 0);
    EXPECT_EQ(set.get(), 0);
    ASSERT_TRUE(seen);
    const PropagationJob last = Done(BobAllAliceTraverse({top_ + "/d5/s1/f7", top_ + "/d0/s0/f0", top_ + "/d3"}));
    std::vector<PropagationJob> jobs;
    ASSERT_TRUE(kova_acl::ListPropagations(jobs));
    EXPECT_EQ(std::count_if(jobs.begin(), jobs.end(), [&](const PropagationJob &j) { return j.path == top_; }), 1);
    EXPECT_GT(last.seq, first.seq);
    // One whole walk of the newer change, not the older one's count added.
    EXPECT_EQ(last.rewritten, all.size());
}

} // namespace
