// Starting, stopping and running background propagation (see propagation.h).
#include "propagation.h"

#include "propagation-runner.h"
#include "propagation-walk.h"
#include "refresh.h"

#include "kova/acladmin.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/identity.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/owned-fd.h"
#include "kova-internal/sys-calls.h"

// The task machinery's process identity (pid and start time) and its
// pidfd-pinned signals.
#include "kova-internal/task-process.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cerrno>
#include <cstdlib>
#include <thread>

namespace kova_acl {

using kova_internal::Sys;

namespace {

// How long a runner waits for more jobs after its last one (ns): 2 s, or
// KOVA_PROPAGATION_LINGER_MS.
uint64_t Linger() {
    const char *env = std::getenv("KOVA_PROPAGATION_LINGER_MS");
    if (env) {
        char *end = nullptr;
        const long ms = std::strtol(env, &end, 10);
        if (end != env && *end == '\0' && ms >= 0 && ms <= 60000) return static_cast<uint64_t>(ms) * 1000000ull;
    }
    return 2000000000ull;
}

volatile sig_atomic_t gLookAgain = 0;  // SIGUSR1: the jobs changed
volatile sig_atomic_t gEnd = 0;        // SIGTERM: leave the jobs queued and go

void OnLookAgain(int) { gLookAgain = 1; }
void OnEnd(int) { gEnd = 1; }

bool Unfinished(const PropagationJob &j) {
    return j.state == JobState::kQueued || j.state == JobState::kRunning || j.state == JobState::kStopped;
}

bool RunnerAlive(pid_t pid, unsigned long long start) { return kova_internal::TaskAlive(pid, start); }

// A job marked running whose runner is gone: killed or crashed mid-way.
bool Orphaned(const PropagationJob &j) {
    return j.state == JobState::kRunning &&
           !RunnerAlive(static_cast<pid_t>(j.pid), static_cast<unsigned long long>(j.startTime));
}

unsigned WorkerThreads() {
    const char *env = std::getenv("KOVA_PROPAGATION_THREADS");
    if (env) {
        char *end = nullptr;
        const long n = std::strtol(env, &end, 10);
        if (end != env && *end == '\0' && n >= 1 && n <= 64) return static_cast<unsigned>(n);
    }
    // The walk waits on the disk (attribute blocks, the journal) more than
    // it computes: four threads a core keep the cores busy.
    const unsigned hw = std::thread::hardware_concurrency();
    return std::min(4 * (hw ? hw : 1u), 32u);
}

} // namespace

uint64_t NowNs() {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// The runner is its own program (kova-acl-runner), installed beside this
// library: the build tree's lib/ and the package's private library folder
// alike. Empty when the library cannot say where it was loaded from.
static std::string RunnerProgram() {
    Dl_info info;
    if (dladdr(reinterpret_cast<void *>(&SpawnRunner), &info) == 0 || !info.dli_fname) return {};
    char dir[PATH_MAX];
    if (!realpath(info.dli_fname, dir)) return {};
    std::string path(dir);
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1) + "kova-acl-runner";
}

// In the forked child, which may be the copy of a multi-threaded caller
// (a server worker, a task): only async-signal-safe steps until the exec, so
// no lock another thread of the caller held at the fork (the allocator's,
// stdio's, a library mutex) is ever waited for. The runner gets all ids 0,
// default signal handling, /dev/null for its standard streams and none of
// the caller's other descriptors (a client's connection, a pipe someone
// waits on must not stay open in a process that may run for hours).
[[noreturn]] static void ExecRunner(const char *program, int devNull) {
    JobLock::ResetAfterFork();
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    // An ignored signal would stay ignored across the exec.
    for (int s = 1; s < NSIG; ++s) signal(s, SIG_DFL);
    if (devNull < 0 || dup2(devNull, STDIN_FILENO) < 0 || dup2(devNull, STDOUT_FILENO) < 0 ||
        dup2(devNull, STDERR_FILENO) < 0)
        _exit(1);
    close_range(3, ~0u, 0);
    if (!kova_internal::RestoreRoot({})) _exit(1);
    char *const argv[] = {const_cast<char *>(program), nullptr};
    Sys().execve(program, argv, environ);
    _exit(127);
}

bool SpawnRunner() {
    // Without the program (a partial install) the caller follows its change
    // in place rather than waiting for a runner that never comes.
    const std::string program = RunnerProgram();
    if (program.empty() || access(program.c_str(), X_OK) != 0) {
        KOVA_FAIL(KOVA_ERR_NOENT);
        return false;
    }
    kova_internal::OwnedFd devNull(open("/dev/null", O_RDWR | O_CLOEXEC));
    if (devNull.get() < 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    const pid_t middle = fork();
    if (middle < 0) return false;
    if (middle == 0) {
        // Double fork: the runner is reparented to init, so no caller ever
        // has to reap it.
        setsid();
        const pid_t runner = fork();
        if (runner != 0) _exit(runner < 0 ? 1 : 0);
        ExecRunner(program.c_str(), devNull.get());
    }
    int status = 0;
    pid_t waited;
    do {
        waited = waitpid(middle, &status, 0);
    } while (waited < 0 && errno == EINTR);
    return waited < 0 ? errno == ECHILD : (WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// Under the lock: tells the runner to look again, or says one is needed.
bool NudgeRunner(const JobDir &dir) {
    pid_t pid = 0;
    unsigned long long start = 0;
    if (dir.ReadRunner(pid, start) == 1 && kova_internal::SignalTask(pid, start, SIGUSR1) == 1) return true;
    return false;
}

// Makes room for one more job by forgetting the oldest finished ones;
// false when the unfinished jobs alone fill the place.
bool MakeRoom(const JobDir &dir) {
    std::vector<PropagationJob> jobs;
    if (!dir.List(jobs)) return false;
    if (jobs.size() < kMaxPropagationJobs) return true;
    std::sort(jobs.begin(), jobs.end(), [](const PropagationJob &a, const PropagationJob &b) { return a.seq < b.seq; });
    size_t count = jobs.size();
    for (const PropagationJob &j : jobs) {
        if (count < kMaxPropagationJobs) break;
        if (!Unfinished(j) && dir.Remove(j.Key())) --count;
    }
    return count < kMaxPropagationJobs;
}

namespace {

bool RefreshInPlace(const Target &t) {
    size_t visited = 0;
    return RefreshDescendants(t, visited);
}

// One job, from its resume point. Returns how it ended.
WalkEnd RunJob(const JobDir &dir, PropagationJob job) {
    const std::string key = job.Key();
    Target top;
    const bool same = ResolveTarget(job.path.c_str(), top) && top.IsDir() && top.inShare &&
                      static_cast<uint64_t>(top.st.st_dev) == job.dev &&
                      static_cast<uint64_t>(top.st.st_ino) == job.ino;
    WalkProgress progress;
    WalkEnd end = WalkEnd::kFailed;
    bool replaced = false;
    auto record = [&](const WalkProgress &p, PropagationJob &out) {
        out.visited = job.visited + p.visited.load();
        out.rewritten = job.rewritten + p.rewritten.load();
        out.failed = job.failed + p.failed.load();
        out.beyondDepth = job.beyondDepth + p.beyondDepth.load();
        out.resume = p.resume;
        out.current = p.current;
    };
    if (same) {
        auto tick = [&](const WalkProgress &p) {
            if (gLookAgain || gEnd) return false;
            JobLock lock(dir);
            PropagationJob cur;
            if (!lock.ok() || dir.Read(key, cur) != 1 || cur.seq != job.seq || cur.state != JobState::kRunning) {
                replaced = true;
                return false;
            }
            record(p, cur);
            (void)dir.Write(cur);
            return true;
        };
        end = PropagateBelow(top, job.resume, WorkerThreads(), progress, tick, 250, job.checkFirst);
    }
    JobLock lock(dir);
    PropagationJob cur;
    if (replaced || !lock.ok() || dir.Read(key, cur) != 1 || cur.seq != job.seq || cur.state != JobState::kRunning)
        return end;
    if (same) record(progress, cur);
    // A folder that is gone, or is another one now, has nothing to follow.
    cur.state = !same || end == WalkEnd::kFailed ? JobState::kGone
                : end == WalkEnd::kFinished       ? JobState::kDone
                                                  : JobState::kQueued;
    if (cur.state != JobState::kRunning) cur.current.clear();
    (void)dir.Write(cur);
    return end;
}

} // namespace

// The caller's change is followed when its job is done: a set reports
// finished only once every descendant's kernel ACL matches. The wait ends
// too when the job is stopped, replaced by a newer change (whose own set
// waits for it), gone, or left by a runner that died (resumable); a caller
// stopped meanwhile (a task's SIGTERM) leaves the job to the runner.
void WaitForJob(const JobDir &dir, const std::string &key, uint64_t seq) {
    useconds_t pause = 500;
    uint64_t noRunnerSince = 0;
    for (;;) {
        PropagationJob j;
        if (dir.Read(key, j) != 1 || j.seq != seq || !Unfinished(j) || j.state == JobState::kStopped ||
            Orphaned(j))
            return;
        if (j.state == JobState::kQueued) {
            pid_t pid = 0;
            unsigned long long start = 0;
            // A runner just started names itself once it runs; one that is
            // still not there after a few seconds died before it took the job.
            if (dir.ReadRunner(pid, start) == 1 && RunnerAlive(pid, start)) noRunnerSince = 0;
            else if (noRunnerSince == 0) noRunnerSince = NowNs();
            else if (NowNs() - noRunnerSince > 5000000000ull) return;
        }
        usleep(pause);
        pause = std::min<useconds_t>(pause * 2, 20000);
    }
}

// How many entries a change may have below it to be followed in place,
// without a job: 2,000, or KOVA_PROPAGATION_IN_PLACE.
static size_t InPlaceLimit() {
    const char *env = std::getenv("KOVA_PROPAGATION_IN_PLACE");
    if (env) {
        char *end = nullptr;
        const long n = std::strtol(env, &end, 10);
        if (end != env && *end == '\0' && n >= 0 && n <= 100000) return static_cast<size_t>(n);
    }
    return 2000;
}

bool StartPropagation(const Target &t) {
    if (!t.hasStat || !t.IsDir()) return true;
    if (!t.inShare) return RefreshInPlace(t);
    // A small tree (a folder the recursive walk has just reached, whose
    // children have no record yet, looks like one) costs less to follow
    // here than a job and its runner; a larger one is left to them.
    const size_t limit = InPlaceLimit();
    if (limit > 0) {
        size_t visited = 0;
        bool complete = false;
        if (RefreshDescendants(t, limit, visited, complete) && complete) return true;
    }
    JobDir dir;
    if (!dir.Open()) return RefreshInPlace(t);
    bool spawn = false, inPlace = false;
    uint64_t seq = 0;
    std::string key;
    {
        JobLock lock(dir);
        PropagationJob job;
        job.dev = static_cast<uint64_t>(t.st.st_dev);
        job.ino = static_cast<uint64_t>(t.st.st_ino);
        job.path = t.path;
        job.seq = NowNs();
        PropagationJob old;
        const int had = lock.ok() ? dir.Read(job.Key(), old) : -1;
        if (had == 1 && old.seq >= job.seq) job.seq = old.seq + 1;
        // With every place taken by unfinished jobs (or no record to be
        // made) the change is followed here and now, as far as the bounded
        // walk goes.
        inPlace = !lock.ok() || (had != 1 && !MakeRoom(dir)) || !dir.Write(job);
        spawn = !inPlace && !NudgeRunner(dir);
        seq = job.seq;
        key = job.Key();
    }
    // A runner that cannot be started leaves the job queued for the next
    // start or resume; until then the change is followed in place.
    if (inPlace || (spawn && !SpawnRunner())) return RefreshInPlace(t);
    WaitForJob(dir, key, seq);
    return true;
}

bool PropagationRunnerAlive() {
    JobDir dir;
    pid_t pid = 0;
    unsigned long long start = 0;
    return dir.Open() && dir.ReadRunner(pid, start) == 1 && RunnerAlive(pid, start);
}

bool StopPropagation(const char *path) {
    kova_internal::RootScope root;
    Target t;
    if (!root.ok() || !path || !ResolveTarget(path, t)) return false;
    JobDir dir;
    if (!dir.Open()) return false;
    JobLock lock(dir);
    PropagationJob job;
    job.dev = static_cast<uint64_t>(t.st.st_dev);
    job.ino = static_cast<uint64_t>(t.st.st_ino);
    if (!lock.ok() || dir.Read(job.Key(), job) != 1 ||
        (job.state != JobState::kQueued && job.state != JobState::kRunning)) {
        KOVA_FAIL(KOVA_ERR_NOENT);
        return false;
    }
    job.state = JobState::kStopped;
    if (!dir.Write(job)) return false;
    (void)NudgeRunner(dir);
    return true;
}

bool ResumePropagations(size_t &count) {
    count = 0;
    JobDir dir;
    if (!dir.Open()) return false;
    bool spawn = false;
    {
        JobLock lock(dir);
        std::vector<PropagationJob> jobs;
        if (!lock.ok() || !dir.List(jobs)) return false;
        for (PropagationJob &j : jobs) {
            if (j.state == JobState::kStopped || Orphaned(j)) {
                j.state = JobState::kQueued;
                if (!dir.Write(j)) return false;
            }
            if (j.state == JobState::kQueued || j.state == JobState::kRunning) ++count;
        }
        spawn = count > 0 && !NudgeRunner(dir);
    }
    if (spawn && !SpawnRunner()) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    return true;
}

void RunPropagations() {
    struct sigaction sa = {};
    sa.sa_flags = SA_RESTART;
    sa.sa_handler = OnLookAgain;
    sigaction(SIGUSR1, &sa, nullptr);
    sa.sa_handler = OnEnd;
    sigaction(SIGTERM, &sa, nullptr);

    JobDir dir;
    if (!dir.Open()) return;
    const pid_t self = getpid();
    const unsigned long long selfStart = kova_internal::ProcessStartTime(self);
    uint64_t idleSince = 0;
    const uint64_t linger = Linger();
    for (;;) {
        PropagationJob job;
        bool found = false;
        {
            JobLock lock(dir);
            if (!lock.ok()) return;
            pid_t pid = 0;
            unsigned long long start = 0;
            // One runner at a time: a second one started in a race leaves.
            if (dir.ReadRunner(pid, start) == 1 && pid != self && RunnerAlive(pid, start)) return;
            std::vector<PropagationJob> jobs;
            if (gEnd || !dir.List(jobs)) {
                (void)dir.RemoveRunner();
                return;
            }
            (void)dir.WriteRunner(self, selfStart);
            // A job a live task holds (propagation-defer.h) is the task's
            // until it ends; the runner stays to take it up should the task
            // die without releasing it.
            // Between walks, a job "running" under this runner is one whose
            // walk ended without its record being written (the lock or the
            // write failed): it is taken up again, not left behind.
            bool held = false;
            for (const PropagationJob &j : jobs) {
                const bool running = j.state == JobState::kRunning;
                const bool mine = running && j.pid == static_cast<int64_t>(self);
                const bool orphaned = Orphaned(j);
                held = held || (running && !mine && !orphaned);
                if (j.state != JobState::kQueued && !orphaned && !mine) continue;
                if (!found || j.seq < job.seq) job = j;
                found = true;
            }
            gLookAgain = 0;
            if (!found && held) {
                idleSince = 0;
            } else if (!found) {
                // A runner stays a moment after its last job: the sets of a
                // recursive walk follow each other closely.
                if (idleSince == 0) idleSince = NowNs();
                if (NowNs() - idleSince >= linger) {
                    (void)dir.RemoveRunner();
                    return;
                }
            } else {
                idleSince = 0;
                job.state = JobState::kRunning;
                job.pid = self;
                job.startTime = selfStart;
                if (!dir.Write(job)) {
                    (void)dir.RemoveRunner();
                    return;
                }
            }
        }
        if (!found) {
            // A new job's SIGUSR1 cuts the pause short.
            for (int i = 0; i < 5 && !gLookAgain && !gEnd; ++i) usleep(10000);
            continue;
        }
        (void)RunJob(dir, job);
    }
}

} // namespace kova_acl

// The runner program's body: every permitted capability made effective (a
// root whose capabilities the exec left permitted only), then the jobs.
extern "C" int KOVAACLPropagationRunnerMain(void) {
    if (getuid() != 0 || geteuid() != 0) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return 2;
    }
    struct __user_cap_header_struct hdr = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct caps[_LINUX_CAPABILITY_U32S_3] = {};
    if (kova_internal::Sys().capget(&hdr, caps) == 0) {
        for (auto &c : caps) c.effective = c.permitted;
        (void)kova_internal::Sys().capset(&hdr, caps);
    }
    kova_acl::RunPropagations();
    return 0;
}
