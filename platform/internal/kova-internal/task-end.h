// The background task's process and the work its calls leave for later.
//
// The polling library marks the process it forks for a task
// (MarkTaskProcess). A library that leaves work of the task's calls for
// later (the ACL library follows a task's inheritance changes in one go,
// propagation-defer.h) registers a hook that completes it. The task's
// response publishes by one rule (kova/webapi.h): a progress record (success
// data that is an object whose "finished" member is false) is written at
// once; any other record (success, error) and the task's final record are
// written only after RunTaskEndHooks has completed that work, so what a
// client reads as done is done. Hooks run in order of registration and may
// run several times (each run completes what was left since the last one).
// The mark holds for the marked process only: a child forked from it is no
// task process. Asking costs no system call. Hooks are kept for the
// process's life; at most kMaxTaskEndHooks, a registration beyond them fails.
#ifndef KOVA_INTERNAL_TASK_END_H
#define KOVA_INTERNAL_TASK_END_H

namespace kova_internal {

constexpr int kMaxTaskEndHooks = 8;

using TaskEndHook = void (*)();

void MarkTaskProcess();
// Whether the calling process is the one MarkTaskProcess marked.
bool InTaskProcess();
// Registers hook once (a second registration of the same hook is a no-op);
// false when every place is taken.
bool AddTaskEndHook(TaskEndHook hook);
// Runs the hooks in the marked task process; nothing elsewhere.
void RunTaskEndHooks();

} // namespace kova_internal

#endif
