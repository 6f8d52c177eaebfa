// Identity of a task process over time: a pid plus the kernel's start time
// of that process, so a reused pid is never mistaken for the task.
#ifndef KOVA_INTERNAL_TASK_PROCESS_H
#define KOVA_INTERNAL_TASK_PROCESS_H

#include <sys/types.h>

namespace kova_internal {

// Start time (clock ticks since boot, field 22 of /proc/<pid>/stat); 0 when
// the process does not exist.
unsigned long long ProcessStartTime(pid_t pid);
// True while the process with this pid and start time runs (a zombie counts
// as ended: it will never write its record again).
bool TaskAlive(pid_t pid, unsigned long long startTime);
// Sends `sig` to the task only while the process with this pid still has
// this start time. The process is pinned by a pidfd before its start time
// is compared, and signalled through that pidfd, so a pid freed and reused
// between the check and the signal is never signalled (kernels without
// pidfds fall back to check-then-kill). 1 signalled, 0 the task has ended
// (nothing sent), -1 the signal could not be sent (errno set).
int SignalTask(pid_t pid, unsigned long long startTime, int sig);

} // namespace kova_internal

#endif
