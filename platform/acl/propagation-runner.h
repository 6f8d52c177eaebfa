// What a caller of the propagation machinery needs beyond recording a job
// (propagation.cpp has the rules): making sure the runner works on the jobs,
// and waiting for one of them.
#ifndef KOVA_ACL_PROPAGATION_RUNNER_H
#define KOVA_ACL_PROPAGATION_RUNNER_H

#include "propagation-job.h"

#include <cstdint>
#include <string>

namespace kova_acl {

// Under the job lock: tells a live runner to look at the jobs again; false
// when there is none (SpawnRunner, after the lock, is then needed).
bool NudgeRunner(const JobDir &dir);
// Starts a detached runner; false when it could not be started.
bool SpawnRunner();
// Under the job lock: makes room for one more record; false when the
// unfinished jobs fill every place.
bool MakeRoom(const JobDir &dir);
// Until the job (key, seq) is done, stopped, replaced, gone or orphaned.
void WaitForJob(const JobDir &dir, const std::string &key, uint64_t seq);
// Wall clock in ns: job queue order.
uint64_t NowNs();

} // namespace kova_acl

#endif
