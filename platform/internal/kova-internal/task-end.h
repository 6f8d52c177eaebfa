// The background task's process and the work its calls leave for later.
//
// The polling library marks the process it forks for a task
// (MarkTaskProcess). A library that leaves work of the task's calls for
// later (the ACL library follows a task's inheritance changes in one go,
// propagation-defer.h) registers a hook that completes it. The task's
// response publishes by one rule (kova/webapi.h): a progress record (success
// data that is an object whose "finished" member is false) is written at
// once; a success record (and a final record that is one) only after
// RunTaskEndHooks(true) has completed that work, so what a client reads as
// done is done; an error record after RunTaskEndHooks(false) has handed it
// on (the ACL library's runner) without waiting for it, so a stopped or
// failed task ends at once. Hooks run in order of registration and may run
// several times (each run deals with what was left since the last one).
// The mark holds for the marked process only: a child forked from it is no
// task process. Asking costs no system call. Hooks are kept for the
// process's life; at most kMaxTaskEndHooks, a registration beyond them fails.
#ifndef KOVA_INTERNAL_TASK_END_H
#define KOVA_INTERNAL_TASK_END_H

namespace kova_internal {

constexpr int kMaxTaskEndHooks = 8;

// wait: complete the work before returning, or only hand it on.
using TaskEndHook = void (*)(bool wait);

void MarkTaskProcess();
// Whether the calling process is the one MarkTaskProcess marked.
bool InTaskProcess();
// Registers hook once (a second registration of the same hook is a no-op);
// false when every place is taken.
bool AddTaskEndHook(TaskEndHook hook);
// Runs the hooks in the marked task process; nothing elsewhere.
void RunTaskEndHooks(bool wait);

} // namespace kova_internal

#endif
