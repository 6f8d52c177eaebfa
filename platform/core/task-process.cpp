// Task liveness from /proc, signals through pidfds.
#include "kova-internal/task-process.h"

#include "kova-internal/owned-fd.h"
#include "kova-internal/sys-calls.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace kova_internal {

namespace {

using kova_internal::Sys;

// State letter and start time from /proc/<pid>/stat. The command name may
// hold spaces and parentheses, so fields are counted after the last ')'.
bool ReadStat(pid_t pid, char &state, unsigned long long &startTime) {
    const std::string path = "/proc/" + std::to_string(pid) + "/stat";
    kova_internal::OwnedFd fd(Sys().openat(AT_FDCWD, path.c_str(), O_RDONLY | O_CLOEXEC, 0));
    if (fd.get() < 0) return false;
    // The line is well under 1 KiB; a command name is at most 16 bytes.
    char buf[1024];
    size_t used = 0;
    while (used < sizeof(buf) - 1) {
        ssize_t n = Sys().read(fd.get(), buf + used, sizeof(buf) - 1 - used);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) return false;
        if (n == 0) break;
        used += static_cast<size_t>(n);
    }
    buf[used] = '\0';
    const char *close = std::strrchr(buf, ')');
    if (!close) return false;
    // Field 3 is the state; field 22 the start time.
    const char *p = close + 1;
    for (int n = 3; n <= 22; ++n) {
        while (*p == ' ') ++p;
        if (*p == '\0' || *p == '\n') return false;
        if (n == 3) state = *p;
        if (n == 22) {
            char *end = nullptr;
            errno = 0;
            startTime = std::strtoull(p, &end, 10);
            return end != p && errno == 0 && (*end == ' ' || *end == '\n' || *end == '\0');
        }
        while (*p != ' ' && *p != '\0') ++p;
    }
    return false;
}

} // namespace

unsigned long long ProcessStartTime(pid_t pid) {
    char state = 0;
    unsigned long long start = 0;
    if (pid <= 0 || !ReadStat(pid, state, start)) return 0;
    return start;
}

bool TaskAlive(pid_t pid, unsigned long long startTime) {
    if (pid <= 0 || startTime == 0) return false;
    if (Sys().kill(pid, 0) != 0 && errno != EPERM) return false;
    char state = 0;
    unsigned long long start = 0;
    if (!ReadStat(pid, state, start)) return false;
    if (state == 'Z' || state == 'X' || state == 'x') return false;
    return start == startTime;
}

int SignalTask(pid_t pid, unsigned long long startTime, int sig) {
    if (pid <= 0 || startTime == 0) return 0;
    kova_internal::OwnedFd pidFd(Sys().pidfd_open(pid, 0));
    if (pidFd.get() < 0) {
        if (errno == ESRCH) return 0;
        if (errno != ENOSYS) return -1;
        // No pidfds on this kernel: the narrow window between the check and
        // the signal stays open here and only here.
        if (!TaskAlive(pid, startTime)) return 0;
        if (Sys().kill(pid, sig) != 0) return errno == ESRCH ? 0 : -1;
        return 1;
    }
    // The descriptor names the process that had `pid` when it was opened.
    // If that process has the task's start time now, it is the task: a
    // process that ended before the open could not have it, and one that
    // ends after it can no longer be signalled through the descriptor.
    if (!TaskAlive(pid, startTime)) return 0;
    if (Sys().pidfd_send_signal(pidFd.get(), sig, nullptr, 0) != 0) return errno == ESRCH ? 0 : -1;
    return 1;
}

} // namespace kova_internal
