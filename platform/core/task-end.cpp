// The task process's mark and its end hooks (see kova-internal/task-end.h).
#include "kova-internal/task-end.h"

#include <unistd.h>

#include <atomic>
#include <mutex>

namespace kova_internal {

namespace {

// The pid, not a flag: a process forked from the task (the ACL library's
// propagation runner, for one) inherits memory but is not the task.
std::atomic<pid_t> gTaskPid{0};

std::mutex gHooksMutex;
TaskEndHook gHooks[kMaxTaskEndHooks] = {};
int gHookCount = 0;

} // namespace

void MarkTaskProcess() { gTaskPid.store(getpid()); }

bool InTaskProcess() {
    const pid_t marked = gTaskPid.load();
    return marked != 0 && marked == getpid();
}

bool AddTaskEndHook(TaskEndHook hook) {
    if (!hook) return false;
    std::lock_guard<std::mutex> g(gHooksMutex);
    for (int i = 0; i < gHookCount; ++i)
        if (gHooks[i] == hook) return true;
    if (gHookCount == kMaxTaskEndHooks) return false;
    gHooks[gHookCount++] = hook;
    return true;
}

void RunTaskEndHooks() {
    if (!InTaskProcess()) return;
    TaskEndHook hooks[kMaxTaskEndHooks];
    int count = 0;
    {
        std::lock_guard<std::mutex> g(gHooksMutex);
        count = gHookCount;
        for (int i = 0; i < count; ++i) hooks[i] = gHooks[i];
    }
    for (int i = 0; i < count; ++i) hooks[i]();
}

} // namespace kova_internal
