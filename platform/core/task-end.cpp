// The task process's mark and its end hooks (see kova-internal/task-end.h).
#include "kova-internal/task-end.h"

#include <pthread.h>

#include <atomic>
#include <mutex>

namespace kova_internal {

namespace {

// A process forked from the task (the ACL library's propagation runner,
// for one) inherits memory but is not the task: the fork handler clears
// the mark in the child, so asking costs no system call.
std::atomic<bool> gMarked{false};

void ClearInChild() { gMarked.store(false); }

std::mutex gHooksMutex;
TaskEndHook gHooks[kMaxTaskEndHooks] = {};
int gHookCount = 0;

} // namespace

void MarkTaskProcess() {
    static std::once_flag once;
    std::call_once(once, [] { pthread_atfork(nullptr, nullptr, ClearInChild); });
    gMarked.store(true);
}

bool InTaskProcess() { return gMarked.load(std::memory_order_relaxed); }

bool AddTaskEndHook(TaskEndHook hook) {
    if (!hook) return false;
    std::lock_guard<std::mutex> g(gHooksMutex);
    for (int i = 0; i < gHookCount; ++i)
        if (gHooks[i] == hook) return true;
    if (gHookCount == kMaxTaskEndHooks) return false;
    gHooks[gHookCount++] = hook;
    return true;
}

void RunTaskEndHooks(bool wait) {
    if (!InTaskProcess()) return;
    TaskEndHook hooks[kMaxTaskEndHooks];
    int count = 0;
    {
        std::lock_guard<std::mutex> g(gHooksMutex);
        count = gHookCount;
        for (int i = 0; i < count; ++i) hooks[i] = gHooks[i];
    }
    for (int i = 0; i < count; ++i) hooks[i](wait);
}

} // namespace kova_internal
