// Inheritance followed at the end of a background task: a task's set holds its job (no wait, no refresh), sets
// below it add none, and anything but progress is published only once every descendant's kernel ACL matches
// (kova-internal/task-end.h). A task killed mid-way leaves its job to the runner.
#include "propagation-fixture.h"

#include "as-identity.h"
#include "kova/account.h"
#include "kova/webapi.h"
#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"
#include "kova-internal/task-end.h"
#include "kova-internal/task-process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <atomic>
#include <cstring>

namespace {

using kova_acl::JobState;
using kova_acl::PropagationJob;
using kova_acl_test::Inheriting;
using kova_acl_test::JobOf;
using kova_acl_test::WaitForPropagations;
using kova_internal::ScopedSysCall;
using kova_internal::SysCalls;

const kova_test::Identity kBob{1031, 1031, {}};

// Kernel ACL writes made by processes other than the task (the runner), counted across the fork in shared
// memory.
std::atomic<long> *gForeignAclWrites = nullptr;
pid_t gTaskPid = 0;
int CountingSetxattrat(int dirFd, const char *name, int atFlags, const char *attr, const void *value, size_t size,
                       int flags) {
    if (getpid() != gTaskPid && std::strncmp(attr, "system.posix_acl", 16) == 0) ++*gForeignAclWrites;
    return kova_internal::RealSysCalls().setxattrat(dirFd, name, atFlags, attr, value, size, flags);
}

// Kernel ACL writes of processes forked from the task (the runner) wait this many microseconds, set across
// the fork in shared memory.
std::atomic<int> *gRunnerWriteUs = nullptr;
int SlowRunnerSetxattrat(int dirFd, const char *name, int atFlags, const char *attr, const void *value,
                         size_t size, int flags) {
    if (gTaskPid != 0 && getpid() != gTaskPid) usleep(static_cast<useconds_t>(gRunnerWriteUs->load()));
    return kova_internal::RealSysCalls().setxattrat(dirFd, name, atFlags, attr, value, size, flags);
}

class AclTaskDefer : public kova_acl_test::PropagationFixture {
public:
    void SetUp() override {
        PropagationFixture::SetUp();
        ASSERT_EQ(KOVAUserAdd("tasker", -1, "pw", nullptr, nullptr, 0), 0);
        all_ = Tree(2, 2, 3);
        // The first change is made outside a task: it waits for its job.
        ASSERT_EQ(SetAcl(top_, {"user:1030:allow:rx:fd"}, false), 0);
        PropagationJob job;
        ASSERT_TRUE(JobOf(top_, job));
        EXPECT_EQ(job.state, JobState::kDone);
        EXPECT_EQ(Drifting(), 0u);
    }

    // The task's body: the top folder's change, a look at what it left, then (walk) every entry below reset
    // to inherit, parents first, as the recursive set's walk does; or a wait to be killed.
    struct Plan {
        AclTaskDefer *self;
        bool walk;
        std::string skip;  // entries under this prefix are left out of the walk
        std::string swap;  // a file renamed over this one just after the walk set it
    };
    static void Body(KOVA::APIRequest *, KOVA::APIResponse *resp, void *data) {
        const Plan &plan = *static_cast<Plan *>(data);
        AclTaskDefer &t = *plan.self;
        gTaskPid = getpid();
        Json::Value out(Json::objectValue);
        out["set"] = t.SetAcl(t.top_, {"user:1031:allow:rx:fd"}, false);
        PropagationJob job;
        out["held"] = JobOf(t.top_, job) && job.state == JobState::kRunning && job.pid == getpid();
        out["drift"] = static_cast<Json::UInt64>(t.Drifting());
        if (!plan.walk) {
            for (;;) pause();
        }
        // A process forked from the task is no task: its sets follow their changes at once.
        out["task"] = kova_internal::InTaskProcess();
        const pid_t child = fork();
        if (child == 0) _exit(kova_internal::InTaskProcess() ? 1 : 0);
        int status = -1;
        out["child is a task"] = child < 0 || waitpid(child, &status, 0) != child || status != 0;
        int failed = 0, jobs = 0;
        for (const std::string &p : t.all_) {
            if (!plan.skip.empty() && p.compare(0, plan.skip.size(), plan.skip) == 0) continue;
            failed += t.SetAcl(p, {}, true) != 0;
            jobs += JobOf(p, job);
            if (p == plan.swap) failed += rename(t.In("stray").c_str(), p.c_str()) != 0;
        }
        out["failed"] = failed;
        out["jobs below"] = jobs;
        resp->SetSuccess(out);
    }

    // Publishes progress after the top folder's change, waits for the test to have seen it, then publishes
    // the module's last record and stays a while: the record must not be readable before the change is
    // followed.
    static void PublishBody(KOVA::APIRequest *, KOVA::APIResponse *resp, void *data) {
        AclTaskDefer &t = *static_cast<AclTaskDefer *>(data);
        Json::Value out(Json::objectValue);
        out["finished"] = false;
        out["set"] = t.SetAcl(t.top_, {"user:1031:allow:rx:fd"}, false);
        resp->SetSuccess(out);
        for (int i = 0; i < 500 && access(t.In("seen").c_str(), F_OK) != 0; ++i) usleep(10000);
        out["finished"] = true;
        resp->SetSuccess(out);
        sleep(1);
    }

    // The top folder's change, then the error a stopped set ends with.
    static void FailBody(KOVA::APIRequest *, KOVA::APIResponse *resp, void *data) {
        AclTaskDefer &t = *static_cast<AclTaskDefer *>(data);
        gTaskPid = getpid();
        (void)t.SetAcl(t.top_, {"user:1031:allow:rx:fd"}, false);
        resp->SetError(6200, Json::Value());
    }

    long WalkToTheEnd(const std::string &skip, const std::string &swap = "");

    // Starts the task; returns its id.
    std::string Start(Plan &plan) { return Start(Body, &plan); }
    std::string Start(KOVA::APIPolling::TaskFunc fn, void *data) {
        KOVA::APIRequest req(Json::Value(Json::objectValue), "tasker", "sid");
        KOVA::APIPolling poll(&req);
        KOVA::APIResponse resp;
        if (!poll.Start(&resp, fn, data) || !resp.IsSuccess()) return "";
        return resp.GetData()["task_id"].asString();
    }
    bool Status(const std::string &id, Json::Value &out) {
        KOVA::APIRequest req(Json::Value(Json::objectValue), "tasker", "sid");
        KOVA::APIPolling poll(&req);
        return poll.Status(id, out);
    }
    // The task's record once `done` holds of it, looked at every `us` for about 30 s; the last one read.
    template <typename Pred>
    Json::Value Until(const std::string &id, Pred done, int us = 10000) {
        Json::Value st;
        if (!id.empty()) kova_test::Eventually([&] { return Status(id, st) && done(st); }, 30000, us);
        return st;
    }

    std::vector<std::string> all_;
};

// Runs a walking task (leaving out `skip`) to its end; returns the kernel ACL writes its runner made, or -1
// when a check failed.
long AclTaskDefer::WalkToTheEnd(const std::string &skip, const std::string &swap) {
    void *shared = mmap(nullptr, sizeof(std::atomic<long>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) return -1;
    gForeignAclWrites = new (shared) std::atomic<long>(0);
    ScopedSysCall<decltype(SysCalls::setxattrat)> counting(&SysCalls::setxattrat, CountingSetxattrat);
    Plan plan{this, true, skip, swap};
    const Json::Value st = Until(Start(plan), [](const Json::Value &v) { return v["finished"].asBool(); });
    const long writes = gForeignAclWrites->load();
    gForeignAclWrites = nullptr;
    munmap(shared, sizeof(std::atomic<long>));
    EXPECT_TRUE(st["finished"].asBool() && st["success"].asBool()) << st;
    const Json::Value &d = st["data"];
    EXPECT_EQ(d["set"].asInt(), 0);
    EXPECT_TRUE(d["task"].asBool());
    EXPECT_FALSE(d["child is a task"].asBool());
    // The change was neither waited for nor followed in place ...
    EXPECT_TRUE(d["held"].asBool());
    EXPECT_GT(d["drift"].asUInt64(), 0u);
    // ... the sets below it added no job of their own ...
    EXPECT_EQ(d["failed"].asInt(), 0);
    EXPECT_EQ(d["jobs below"].asInt(), 0);
    // ... and at "finished" every descendant's kernel access matches.
    EXPECT_EQ(Drifting(), 0u);
    EXPECT_EQ(kova_test::RunAs(kBob, [&] {
                  if (setresgid(kBob.gid, kBob.gid, kBob.gid) != 0 || setresuid(kBob.uid, kBob.uid, kBob.uid) != 0)
                      return 100;
                  const int fd = open((top_ + "/d1/s1/f2").c_str(), O_RDONLY);
                  if (fd >= 0) close(fd);
                  return fd >= 0 ? 1 : 0;
              }),
              1);
    return ::testing::Test::HasFailure() ? -1 : writes;
}

// The task's walk set every entry below: its job is done without a walk.
TEST_F(AclTaskDefer, AWalkThatSetEverythingLeavesItsJobNothingToDo) {
    EXPECT_EQ(WalkToTheEnd(""), 0);
    PropagationJob job;
    ASSERT_TRUE(JobOf(top_, job));
    EXPECT_EQ(job.state, JobState::kDone);
    EXPECT_EQ(job.visited, 0u);
}

// A folder the walk left out: the runner walks the tree and writes only what the task did not (d1/s1's access
// and default ACLs, its files' access ACLs).
TEST_F(AclTaskDefer, WhatTheWalkLeftOutIsFollowedByTheRunnerBeforeFinished) {
    const long writes = WalkToTheEnd(top_ + "/d1/s1");
    EXPECT_GT(writes, 0);
    EXPECT_LE(writes, 5);
    PropagationJob job;
    ASSERT_TRUE(JobOf(top_, job));
    EXPECT_EQ(job.state, JobState::kDone);
    EXPECT_GE(job.visited, all_.size());
}

// A file with its own old projection renamed over one the walk had set: the folder still lists the same
// names, yet the runner must project the newcomer.
TEST_F(AclTaskDefer, AFileRenamedOverOneTheWalkSetIsFollowedByTheRunner) {
    File(In("stray"));
    Inheriting(In("stray"));
    EXPECT_GT(WalkToTheEnd("", top_ + "/d0/s0/f1"), 0);
    PropagationJob job;
    ASSERT_TRUE(JobOf(top_, job));
    EXPECT_GE(job.visited, all_.size());
}

// Progress is published at once, with the change still held; the record that says finished (the module's,
// before the task's own end) only once every descendant's kernel access matches.
TEST_F(AclTaskDefer, ARecordThatIsNotProgressIsPublishedOnlyOnceTheChangeIsFollowed) {
    const std::string id = Start(PublishBody, this);
    ASSERT_FALSE(id.empty());
    Json::Value st = Until(id, [](const Json::Value &v) { return v["data"].isMember("set"); });
    EXPECT_FALSE(st["data"]["finished"].asBool()) << st;
    EXPECT_EQ(st["data"]["set"].asInt(), 0);
    EXPECT_GT(Drifting(), 0u);
    File(In("seen"));
    st = Until(id, [](const Json::Value &v) { return v["data"]["finished"].asBool(); }, 2000);
    ASSERT_TRUE(st["data"]["finished"].asBool()) << st;
    EXPECT_EQ(Drifting(), 0u);
    Until(id, [](const Json::Value &v) { return v["finished"].asBool(); });
}

// An error claims nothing done: a stopped task ends at once and its held change goes on in the (here slowed)
// runner.
TEST_F(AclTaskDefer, AnErrorIsPublishedWithoutWaitingForTheHeldChange) {
    void *shared = mmap(nullptr, sizeof(std::atomic<int>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    gRunnerWriteUs = new (shared) std::atomic<int>(1000000);
    ScopedSysCall<decltype(SysCalls::setxattrat)> slow(&SysCalls::setxattrat, SlowRunnerSetxattrat);
    const std::string id = Start(FailBody, this);
    ASSERT_FALSE(id.empty());
    const Json::Value st = Until(id, [](const Json::Value &v) { return v.isMember("error"); });
    EXPECT_EQ(st["error"]["code"].asInt(), 6200) << st;
    PropagationJob job;
    ASSERT_TRUE(JobOf(top_, job));
    EXPECT_TRUE(job.state == JobState::kQueued || job.state == JobState::kRunning) << kova_acl::JobStateName(job.state);
    gRunnerWriteUs->store(0);
    EXPECT_TRUE(WaitForPropagations());
    EXPECT_EQ(Drifting(), 0u);
    munmap(shared, sizeof(std::atomic<int>));
}

// A task keeps its caller's groups between calls, but a switch of its groups through the identity component
// is seen by the next call.
TEST_F(AclTaskDefer, ATaskSeesItsGroupsChangeThroughTheIdentityComponent) {
    const std::string file = top_ + "/d0/s0/f0";
    ASSERT_EQ(SetAcl(file, {"group:2000:allow:r------------:----"}, false), 0);
    EXPECT_EQ(kova_test::RunAs(kBob, [&] {
                  kova_internal::MarkTaskProcess();
                  unsigned without = 0, with = 0, again = 0;
                  if (KOVAACLPermGet(file.c_str(), &without) != 0 ||
                      !kova_internal::SwitchToUser(kBob.uid, kBob.gid, {2000}) ||
                      KOVAACLPermGet(file.c_str(), &with) != 0 ||
                      !kova_internal::SwitchToUser(kBob.uid, kBob.gid, {}) ||
                      KOVAACLPermGet(file.c_str(), &again) != 0)
                      return 100;
                  return (without == 0 && with != 0 && again == 0) ? 0 : 1;
              }),
              0);
}

TEST_F(AclTaskDefer, AKilledTaskLeavesItsJobToTheRunner) {
    Plan plan{this, false, "", ""};
    const std::string id = Start(plan);
    ASSERT_FALSE(id.empty());
    Json::Value st;
    ASSERT_TRUE(Status(id, st));
    const pid_t task = static_cast<pid_t>(st["pid"].asInt64());
    ASSERT_GT(task, 0);
    // The task waits to be killed, whatever this test finds; once it is gone its pid may be another
    // process's, which is never signalled.
    struct Killer {
        pid_t pid;
        unsigned long long start;
        ~Killer() { kova_internal::SignalTask(pid, start, SIGKILL); }
    } killer{task, kova_internal::ProcessStartTime(task)};
    PropagationJob job;
    ASSERT_TRUE(kova_test::Eventually(
        [&] { return JobOf(top_, job) && job.state == JobState::kRunning && job.pid == task; }, 5000, 20000));
    // Until the task ends, the runner leaves the held job alone.
    usleep(200000);
    ASSERT_TRUE(JobOf(top_, job));
    EXPECT_EQ(job.state, JobState::kRunning);
    EXPECT_GT(Drifting(), 0u);
    // The runner started with the held job takes it up once the task is gone, with nobody asking it to
    // resume.
    EXPECT_EQ(1, KOVAACLPropagationRunnerAlive());
    ASSERT_EQ(kill(task, SIGKILL), 0);
    kova_test::Eventually([&] { return !kova_internal::TaskAlive(task, killer.start); }, 5000, 20000);
    ASSERT_TRUE(WaitForPropagations());
    ASSERT_TRUE(JobOf(top_, job));
    EXPECT_EQ(job.state, JobState::kDone);
    EXPECT_EQ(Drifting(), 0u);
}

} // namespace
