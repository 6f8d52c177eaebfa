// Background propagation: after a folder's set or removal changed what it
// passes down, its descendants' projections are rewritten by a process of
// the platform's own, not by the call that made the change.
//
// StartPropagation records a job for the folder (propagation-job.h; a job
// for the same folder is replaced, so a newer change supersedes an older
// one) and makes sure the runner works on it: the one runner process is
// told to look at the jobs again (SIGUSR1: it interrupts the walk it is in,
// keeping that job's resume point, and takes the jobs in queue order with
// everything read afresh), or a new runner is started (a detached process
// of its own program, all ids 0). The runner publishes progress in the records, stops a job
// whose record says "stopped" or was replaced, ends on SIGTERM leaving its
// jobs queued, and goes away when no job is left and no live task holds
// one (propagation-defer.h). A runner killed
// outright leaves its job "running" under a dead pid; the next start or
// ResumePropagations takes it up from its resume point.
//
// Folders outside every share, and changes beyond kMaxPropagationJobs
// pending jobs, are refreshed in place by the bounded synchronous walk
// (refresh.h). In a background task the set path holds its job until the
// task's end instead of calling StartPropagation (propagation-defer.h).
#ifndef KOVA_ACL_PROPAGATION_H
#define KOVA_ACL_PROPAGATION_H

#include "propagation-job.h"
#include "target.h"

#include <vector>

namespace kova_acl {

// t: the judged folder (stat filled) whose record just changed. Needs root.
// False with the last error set when neither a job nor the synchronous
// refresh could be made.
bool StartPropagation(const Target &t);

// Whether a runner process is there (working or waiting for more jobs).
bool PropagationRunnerAlive();

// Marks the job of the folder at path (resolved as the set resolves it)
// stopped; the runner leaves it at its resume point. False with
// KOVA_ERR_NOENT when that folder has no unfinished job.
bool StopPropagation(const char *path);

// Queues every stopped job and every job whose runner died again and makes
// sure a runner works on them. count: how many jobs are now waiting.
bool ResumePropagations(size_t &count);

// The runner's body (KOVAACLPropagationRunnerMain, kova/acladmin.h). Returns on SIGTERM, or when no job has come for a
// moment (2 s, or KOVA_PROPAGATION_LINGER_MS): the sets of a recursive walk
// come close together and find it there.
void RunPropagations();

} // namespace kova_acl

#endif
