// Following inheritance at the end of a background task rather than at
// each set (docs/platform/enforcement.md, "Propagation").
//
// A task that sets a tree (the module's recursive walk) rewrites every
// entry below the folder it starts at itself; waiting at that folder's set
// for a propagation of the whole tree, or refreshing every folder's children
// as the walk reaches them, would do the walk's work twice. So in a task
// process (kova-internal/task-end.h) a folder's set that changes what it
// passes down records its job, durably, as running under the task's own
// process, which the runner leaves alone while the task lives and takes up
// as orphaned if the task dies; it neither waits nor refreshes. A later set
// of the same task below a folder whose job it holds, reached from it
// through folders that all inherit, adds nothing: that job's walk covers it.
// The task's end hook queues the held jobs for the runner and waits for
// them, so the task's "finished" still means every descendant's kernel ACL
// matches. At most kMaxHeldJobs jobs are held; beyond them, and outside a
// task, a set follows its change as before (propagation.h).
#ifndef KOVA_ACL_PROPAGATION_DEFER_H
#define KOVA_ACL_PROPAGATION_DEFER_H

#include "target.h"

#include <cstddef>

namespace kova_acl {

constexpr size_t kMaxHeldJobs = 64;

// t: the judged folder (stat filled) whose record just changed; inherits:
// its new record inherits (a folder without one, or whose record does not
// inherit, is not descended into by a walk from above). True when the
// change is thereby taken care of; false outside a task, or when no job
// could be held (the caller then follows it at once).
bool DeferPropagation(const Target &t, bool inherits);

// The task-end hook's work: queues the held jobs for the runner and, with
// wait, waits until each is done (or stopped, replaced, gone).
void ReleaseHeldPropagations(bool wait);

} // namespace kova_acl

#endif
