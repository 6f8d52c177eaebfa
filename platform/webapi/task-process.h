// Identity of a task process over time: a pid plus the kernel's start time
// of that process, so a reused pid is never mistaken for the task.
#ifndef KOVA_WEBAPI_TASK_PROCESS_H
#define KOVA_WEBAPI_TASK_PROCESS_H

#include <sys/types.h>

namespace kova_webapi {

// Start time (clock ticks since boot, field 22 of /proc/<pid>/stat); 0 when
// the process does not exist.
unsigned long long ProcessStartTime(pid_t pid);
// True while the process with this pid and start time runs (a zombie counts
// as ended: it will never write its record again).
bool TaskAlive(pid_t pid, unsigned long long startTime);

} // namespace kova_webapi

#endif
