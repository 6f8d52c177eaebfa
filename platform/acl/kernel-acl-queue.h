// A background task's kernel ACL writes on a second thread.
//
// The module's walk is single-threaded; while it judges and records the
// next entry, one writer thread of the task writes the kernel ACLs of the
// entries before it. Only entries the task's held propagation job covers
// (walk-coverage.h: below the held folder, reached by the walk) are handed
// over, so a write that fails there is never lost: it fails the walk's
// proof, and the job is then walked by the runner, which rewrites every
// kernel ACL that is not what the projection says. The writer gets a
// descriptor of its own of the judged entry's folder (one per folder) and
// the entry's name, as the set would have written it, never a path. At
// most kMaxQueuedWrites wait; the walk waits for room. Everything queued is
// written before the task publishes anything but progress (the task-end
// hook, propagation-defer.h) and before any write of this process that is
// not queued, so writes to one entry keep their order.
#ifndef KOVA_ACL_KERNEL_ACL_QUEUE_H
#define KOVA_ACL_KERNEL_ACL_QUEUE_H

#include "target.h"

#include <cstddef>
#include <string>

namespace kova_acl {

constexpr size_t kMaxQueuedWrites = 1024;

// A projection in the kernel's binary form, ready to be written.
struct Encoded {
    std::string access, coarse, deflt;
    bool hasDefault = false;
};

using EncodedWriter = bool (*)(const Target &t, const Encoded &e);

// Hands write(t, e) to the writer thread. False when it is not taken (not
// a task process, t not in the thread's kept folder, no thread): the
// caller writes itself.
bool QueueKernelAclWrite(const Target &t, const Encoded &e, EncodedWriter write);
// Returns once every queued write is done (at once outside a task process).
void WaitForKernelAclWrites();
// Whether a queued write failed since the last call; clears it.
bool KernelAclWriteFailed();

} // namespace kova_acl

#endif
