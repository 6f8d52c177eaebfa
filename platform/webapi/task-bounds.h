// Bounds on background tasks: how many may run per user and in total, and
// how many finished records a user keeps and for how long. A start is
// admitted, and old records are swept, under one lock shared by every
// process that starts tasks, so two starts can never both take the last
// free place.
#ifndef KOVA_WEBAPI_TASK_BOUNDS_H
#define KOVA_WEBAPI_TASK_BOUNDS_H

#include "task-record.h"

#include <time.h>

#include <mutex>
#include <string>

namespace kova_webapi {

struct TaskLimits {
    unsigned perUser = 4;           // running tasks of one user
    unsigned total = 16;            // running tasks of everyone
    unsigned keepPerUser = 100;     // finished records kept per user, newest first
    long long retention = 3600;     // seconds a finished record stays readable

    // The defaults above, each replaced by a positive integer in
    // KOVA_TASKS_PER_USER, KOVA_TASKS_TOTAL, KOVA_TASK_RECORDS_PER_USER and
    // KOVA_TASK_RETENTION_SECONDS when set; any other value is ignored.
    static TaskLimits FromEnvironment();
};

// The start lock: a mutex for the threads of this process and a write lock
// (fcntl) on <tasks>/.lock for the other processes. fcntl locks belong to
// the process and are not inherited by fork, so a task forked while the lock
// is held never holds it.
class StartLock {
public:
    StartLock() = default;
    ~StartLock() { Release(); }
    StartLock(const StartLock &) = delete;
    StartLock &operator=(const StartLock &) = delete;
    // Waits for the lock; false with the last error set.
    bool Acquire(const RecordDir &dir);
    void Release();
    // In a child forked while the lock was held: forgets it without
    // touching the parent's hold.
    void ForgetInChild();

private:
    std::unique_lock<std::mutex> threads_;
    kova_internal::OwnedFd file_;
};

enum class Admission { kAdmitted, kUserBusy, kAllBusy, kError };

// Under the start lock: removes finished (or dead) records that are older
// than the retention or beyond a user's newest `keepPerUser`, and abandoned
// temporary files; then tells whether `user` may start one more task.
Admission SweepAndAdmit(const RecordDir &dir, const std::string &user, const TaskLimits &limits, time_t now);

} // namespace kova_webapi

#endif
