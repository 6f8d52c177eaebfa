// The background task's process and what must be done before it reports.
//
// The polling library marks the process it forks for a task (MarkTaskProcess)
// and, once the task's body has returned and before its final record says
// "finished", runs every hook registered here (RunTaskEndHooks), in order of
// registration. A library that leaves work of the task's calls for later
// (the ACL library defers following inheritance to the end of the task)
// registers a hook that completes it, so "finished" still means done.
// The mark holds for the marked process only: a child forked from it is no
// task process. Asking costs no system call. Hooks are kept for the process's life; at most
// kMaxTaskEndHooks, a registration beyond them fails.
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
// Runs the hooks; called by the task machinery in the task process only.
void RunTaskEndHooks();

} // namespace kova_internal

#endif
