#include "sys-fault.h"

#include "kova-internal/sys-calls.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <type_traits>
#include <cerrno>

namespace kova_test {

namespace {

using kova_internal::SysCalls;

struct State {
    bool armed = false;
    long nth = 0;
    long calls = 0;
    int err = EIO;
    std::vector<std::string> only;
    std::string firedAt;
    int reportFd = -1;  // told the entry at once, in case the run dies of it
    SysCalls saved;
};

State gState;

// True when this call is the one to fail.
bool Hit(const char *name) {
    if (!gState.armed) return false;
    if (!gState.only.empty() && std::find(gState.only.begin(), gState.only.end(), name) == gState.only.end())
        return false;
    if (++gState.calls != gState.nth) return false;
    gState.firedAt = name;
    if (gState.reportFd >= 0) {
        const std::string line = "E" + gState.firedAt + "\n";
        (void)!write(gState.reportFd, line.data(), line.size());
    }
    return true;
}

template <typename R>
R Failed() {
    if constexpr (std::is_pointer<R>::value)
        return nullptr;
    else
        return static_cast<R>(-1);
}

template <typename Fn, Fn SysCalls::*Entry>
struct Wrap;

template <typename R, typename... A, R (*SysCalls::*Entry)(A...)>
struct Wrap<R (*)(A...), Entry> {
    static const char *name;
    static R Call(A... args) {
        if (Hit(name)) {
            errno = gState.err;
            return Failed<R>();
        }
        return (gState.saved.*Entry)(args...);
    }
};

template <typename R, typename... A, R (*SysCalls::*Entry)(A...)>
const char *Wrap<R (*)(A...), Entry>::name = nullptr;

// Every entry of the table, in its order. An entry appended to SysCalls is
// appended here too, or the fault loops never refuse it.
#define KOVA_SYS_ENTRIES(X)                                                                                        \
    X(openat) X(openat2) X(close) X(fstat) X(fstatat) X(fstatfs) X(fchownat) X(fchmod) X(mkdirat) X(unlinkat)      \
    X(renameat) X(readlinkat) X(read) X(write) X(fsync) X(fdopendir) X(readdir64) X(closedir) X(getxattrat)        \
    X(setxattrat) X(removexattrat) X(fgetxattr) X(fsetxattr) X(fremovexattr) X(getxattr) X(setxattr)              \
    X(removexattr) X(kill) X(setresuid) X(setresgid) X(setgroups) X(capget) X(capset) X(pidfd_open)   \
    X(pidfd_send_signal) X(fcntl_lock) X(faccessat) X(lseek) X(execve)

// The list must name every entry: a table that grew without it fails here.
#define KOVA_COUNT_ENTRY(e) +1
static_assert(sizeof(SysCalls) == (0 KOVA_SYS_ENTRIES(KOVA_COUNT_ENTRY)) * sizeof(void *),
              "KOVA_SYS_ENTRIES must list every entry of SysCalls");
#undef KOVA_COUNT_ENTRY

void Install() {
    SysCalls &t = kova_internal::Sys();
#define KOVA_WRAP(e)                                                                                               \
    {                                                                                                              \
        using W = Wrap<decltype(SysCalls::e), &SysCalls::e>;                                                       \
        W::name = #e;                                                                                              \
        t.e = &W::Call;                                                                                            \
    }
    KOVA_SYS_ENTRIES(KOVA_WRAP)
#undef KOVA_WRAP
}

} // namespace

SysCallFault::SysCallFault(long nth, std::vector<std::string> only, int err) {
    gState.saved = kova_internal::Sys();
    gState.nth = nth;
    gState.calls = 0;
    gState.err = err;
    gState.only = std::move(only);
    gState.firedAt.clear();
    Install();
    gState.armed = true;
}

SysCallFault::~SysCallFault() {
    gState.armed = false;
    kova_internal::Sys() = gState.saved;
}

long SysCallFault::Calls() const { return gState.calls; }
bool SysCallFault::Fired() const { return !gState.firedAt.empty(); }
std::string SysCallFault::FiredAt() const { return gState.firedAt; }

std::vector<std::string> FailEachCall(const std::vector<std::string> &only, const std::function<int()> &op,
                                      int success, const std::function<std::string(const FailedRun &)> &check,
                                      std::vector<std::string> *refused, const DeathCheck &died, long limit) {
    std::vector<std::string> problems;
    std::vector<std::string> failed;
    bool done = false;
    for (long nth = 1; nth <= limit && !done; ++nth) {
        int pipeFds[2];
        if (pipe(pipeFds) != 0) return {"pipe failed"};
        pid_t pid = fork();
        if (pid < 0) return {"fork failed"};
        if (pid == 0) {
            close(pipeFds[0]);
            gState.reportFd = pipeFds[1];
            std::string report;
            bool fired;
            {
                SysCallFault fault(nth, only);
                FailedRun run{nth, "", op()};
                fired = fault.Fired();
                run.entry = fault.FiredAt();
                if (!fired && run.result != success)
                    report = "no call failed, yet the result was " + std::to_string(run.result);
                else if (fired)
                    report = check(run);
                if (!report.empty()) report = "call " + std::to_string(nth) + " (" + run.entry + "): " + report;
            }
            const char tag = fired ? 'F' : 'D';
            (void)!write(pipeFds[1], &tag, 1);
            (void)!write(pipeFds[1], report.data(), report.size());
            _exit(0);
        }
        close(pipeFds[1]);
        std::string got;
        char buf[512];
        ssize_t n;
        while ((n = read(pipeFds[0], buf, sizeof buf)) > 0) got.append(buf, static_cast<size_t>(n));
        close(pipeFds[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        std::string entry;
        if (!got.empty() && got[0] == 'E') {
            const size_t eol = got.find('\n');
            entry = got.substr(1, eol - 1);
            got.erase(0, eol + 1);
        }
        if (!WIFEXITED(status)) {
            const int sig = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
            if (entry.empty() || !died || !died(nth, entry, sig)) {
                problems.push_back("call " + std::to_string(nth) + " (" + entry + "): the run died (signal " +
                                   std::to_string(sig) + ")");
                break;
            }
            failed.push_back(entry);
            continue;
        }
        if (got.empty()) {
            problems.push_back("call " + std::to_string(nth) + ": no report");
            break;
        }
        if (got.size() > 1) problems.push_back(got.substr(1));
        done = got[0] == 'D';
        if (!done) failed.push_back(entry);
    }
    if (!done && problems.empty()) problems.push_back("still failing after " + std::to_string(limit) + " calls");
    if (refused) *refused = failed;
    return problems;
}

} // namespace kova_test
