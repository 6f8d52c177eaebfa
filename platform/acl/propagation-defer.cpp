// Inheritance followed at the end of a task (see propagation-defer.h).
#include "propagation-defer.h"

#include "acl-record.h"
#include "entry-attr.h"
#include "propagation-job.h"
#include "propagation-runner.h"
#include "walk-coverage.h"

#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"
#include "kova-internal/task-end.h"

// The task process's identity (pid and start time), under which its held
// jobs are recorded.
#include "kova-internal/task-process.h"

#include <fcntl.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

namespace kova_acl {

namespace {

using kova_internal::OwnedFd;
using kova_internal::Sys;

struct Held {
    uint64_t dev = 0;
    uint64_t ino = 0;
    uint64_t seq = 0;
    std::string path;
    std::string key;
};

std::mutex gMutex;
std::vector<Held> gHeld;  // at most kMaxHeldJobs
pid_t gHeldBy = 0;        // whose list it is: a process forked from the task starts empty

std::vector<Held> &HeldList() {
    const pid_t self = getpid();
    if (gHeldBy != self) {
        gHeld.clear();
        gHeldBy = self;
    }
    return gHeld;
}

bool StrictlyBelow(const std::string &path, const std::string &top) {
    if (top == "/") return path.size() > 1 && path[0] == '/';
    return path.size() > top.size() && path.compare(0, top.size(), top) == 0 && path[top.size()] == '/';
}

// Whether the folder holding t is h's folder or reaches it going up through
// folders that each hold a record that inherits: a walk from h's folder
// then descends to t. Descriptors only ("..", O_PATH|O_NOFOLLOW), at most as
// many levels as t's path names below h's.
bool ReachedThroughInheritance(const Target &t, const Held &h) {
    size_t levels = 0;
    for (size_t i = h.path.size(); i < t.path.size(); ++i) levels += t.path[i] == '/';
    kova_internal::RootScope root;
    if (!root.ok()) return false;
    OwnedFd cur = OwnedFd::Borrowed(t.parent.get());
    for (size_t i = 0; i < levels; ++i) {
        struct stat st;
        if (Sys().fstat(cur.get(), &st) != 0) return false;
        if (static_cast<uint64_t>(st.st_dev) == h.dev && static_cast<uint64_t>(st.st_ino) == h.ino) return true;
        char raw[kMaxRecordSize + 1];
        const ssize_t n = GetEntryAttr(cur.get(), "", kAttrName, raw, sizeof raw);
        StoredAcl rec;
        if (n < 0 || !DecodeRecord(raw, static_cast<size_t>(n), rec) || !rec.inherits) return false;
        OwnedFd up(Sys().openat(cur.get(), "..", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
        if (up.get() < 0) return false;
        cur = std::move(up);
    }
    return false;
}

bool Covered(const Target &t, bool inherits, const std::vector<Held> &held) {
    const uint64_t dev = static_cast<uint64_t>(t.st.st_dev), ino = static_cast<uint64_t>(t.st.st_ino);
    for (const Held &h : held)
        if (h.dev == dev && h.ino == ino) return true;
    // The walk from above rewrites and enters only entries whose record
    // inherits; t's name must be in its folder for ".." to lead up.
    if (!inherits || t.name.empty()) return false;
    for (const Held &h : held)
        if (h.dev == dev && StrictlyBelow(t.path, h.path) && ReachedThroughInheritance(t, h)) return true;
    return false;
}

unsigned long long SelfStartTime() {
    static pid_t pid = 0;
    static unsigned long long start = 0;
    if (pid != getpid()) {
        pid = getpid();
        start = kova_internal::ProcessStartTime(pid);
    }
    return start;
}

// Records t's job as running under this process: the runner leaves it
// while the task lives and takes it up as orphaned once it is gone.
bool HoldJob(const Target &t, Held &out) {
    JobDir dir;
    if (!dir.Open()) return false;
    PropagationJob job;
    bool spawn = false;
    {
        JobLock lock(dir);
        if (!lock.ok()) return false;
        job.dev = static_cast<uint64_t>(t.st.st_dev);
        job.ino = static_cast<uint64_t>(t.st.st_ino);
        job.path = t.path;
        job.seq = NowNs();
        job.state = JobState::kRunning;
        job.checkFirst = true;
        job.pid = getpid();
        job.startTime = SelfStartTime();
        if (job.startTime == 0) return false;
        PropagationJob old;
        const int had = dir.Read(job.Key(), old);
        if (had == 1 && old.seq >= job.seq) job.seq = old.seq + 1;
        if ((had != 1 && !MakeRoom(dir)) || !dir.Write(job)) return false;
        // A runner walking an older job of this folder stops at its next
        // look; without one, one is started (once the lock is let go, which
        // it would inherit), to take the job up should the task die before
        // it releases it.
        spawn = !NudgeRunner(dir);
    }
    if (spawn) (void)SpawnRunner();
    out.dev = job.dev;
    out.ino = job.ino;
    out.seq = job.seq;
    out.path = job.path;
    out.key = job.Key();
    return true;
}

void ReleaseHook(bool wait) { ReleaseHeldPropagations(wait); }

} // namespace

bool DeferPropagation(const Target &t, bool inherits) {
    if (!kova_internal::InTaskProcess()) return false;
    if (!t.hasStat || !t.IsDir()) return true;
    // Outside every share the change is followed in place, as outside a task.
    if (!t.inShare) return false;
    std::lock_guard<std::mutex> g(gMutex);
    std::vector<Held> &held = HeldList();
    if (Covered(t, inherits, held)) return true;
    if (held.size() >= kMaxHeldJobs || !kova_internal::AddTaskEndHook(ReleaseHook)) return false;
    Held h;
    if (!HoldJob(t, h)) return false;
    held.push_back(std::move(h));
    // The task's own sets below it may leave its job nothing to do.
    CoverageStart(t);
    return true;
}

void ReleaseHeldPropagations(bool wait) {
    std::vector<Held> held;
    {
        std::lock_guard<std::mutex> g(gMutex);
        held.swap(HeldList());
    }
    if (held.empty()) return;
    // One held job whose whole tree the task has set since: done already.
    const bool covered = CoverageProven(held.front().dev, held.front().ino) && held.size() == 1;
    JobDir dir;
    // Without the job folder the jobs stay recorded under this process and
    // are taken up as orphaned once it has ended.
    if (!dir.Open()) return;
    bool spawn = false;
    {
        JobLock lock(dir);
        if (!lock.ok()) return;
        const pid_t self = getpid();
        for (const Held &h : held) {
            PropagationJob j;
            // A job stopped or replaced meanwhile is no longer ours to queue.
            if (dir.Read(h.key, j) != 1 || j.seq != h.seq || j.state != JobState::kRunning || j.pid != self)
                continue;
            j.state = covered ? JobState::kDone : JobState::kQueued;
            j.checkFirst = true;
            j.pid = 0;
            j.startTime = 0;
            (void)dir.Write(j);
        }
        if (covered) return;
        spawn = !NudgeRunner(dir);
    }
    // A runner that cannot be started leaves the jobs queued for the next
    // start or `kova-admin acl propagation resume`; the wait gives up on
    // them after a few seconds without a runner.
    if (spawn) (void)SpawnRunner();
    if (!wait) return;
    for (const Held &h : held) WaitForJob(dir, h.key, h.seq);
}

} // namespace kova_acl
