// The durable side of background propagation: one small record per top
// folder in <root>/var/run/propagation (root-owned, mode 0700), named by the
// folder's device and inode, so there is at most one job per folder and a
// newer change of it replaces the job. A record tells what the job is (the
// folder's identity and its path when judged), its queue order, its state,
// its progress (entries looked at and rewritten, the folder being walked)
// and where a resumed walk starts (a position in the top folder before
// which every entry and everything below it is done). The record "runner"
// names the one process working through the jobs (pid and start time).
// Records are replaced atomically (temporary file, renameat) relative to
// the folder's descriptor; JobLock serialises every read-modify-write.
// Callers act as root.
#ifndef KOVA_ACL_PROPAGATION_JOB_H
#define KOVA_ACL_PROPAGATION_JOB_H

#include "kova/export.h"

#include "kova-internal/owned-fd.h"

#include <sys/types.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace kova_acl {

// Most job records kept at once; a change beyond it is refreshed in place.
constexpr size_t kMaxPropagationJobs = 256;

enum class JobState { kQueued, kRunning, kStopped, kDone, kGone };
const char *JobStateName(JobState s);

struct PropagationJob {
    uint64_t dev = 0;
    uint64_t ino = 0;
    uint64_t seq = 0;          // queue order: smaller runs first
    std::string path;          // the top folder as judged (for display and to open it again)
    JobState state = JobState::kQueued;
    uint64_t visited = 0;      // entries looked at
    uint64_t rewritten = 0;    // projections written
    uint64_t failed = 0;       // entries that could not be read or written
    uint64_t beyondDepth = 0;  // folders left because the tree is deeper than the walk goes
    std::string current;       // a folder being walked now
    int64_t resume = 0;        // position in the top folder; 0 from the start
    int64_t pid = 0;           // the runner working on it
    uint64_t startTime = 0;
    // Released by a task whose own walk set much of the tree already: the
    // runner reads each entry's kernel ACLs and writes only what differs.
    bool checkFirst = false;

    std::string Key() const;   // the record's name
};

class JobDir {
public:
    // Opens (creating) the folder; false with the last error set.
    bool Open();
    int fd() const { return fd_.get(); }

    bool Write(const PropagationJob &job) const;
    // 1 read, 0 no such record, -1 unreadable (last error set).
    int Read(const std::string &key, PropagationJob &job) const;
    bool Remove(const std::string &key) const;
    // Every readable job record.
    bool List(std::vector<PropagationJob> &jobs) const;

    // The runner record: 1 read, 0 none.
    int ReadRunner(pid_t &pid, unsigned long long &startTime) const;
    bool WriteRunner(pid_t pid, unsigned long long startTime) const;
    bool RemoveRunner() const;

private:
    bool WriteText(const std::string &name, const std::string &text) const;
    int ReadText(const std::string &name, std::string &text) const;
    kova_internal::OwnedFd fd_;
};

// A write lock on <dir>/.lock for the other processes and a mutex for this
// one's threads (fcntl locks belong to the process).
class JobLock {
public:
    explicit JobLock(const JobDir &dir);
    ~JobLock();
    JobLock(const JobLock &) = delete;
    JobLock &operator=(const JobLock &) = delete;
    bool ok() const { return ok_; }

    // In a process just forked (it has one thread): the mutex may have been
    // held by another thread of the parent at the fork, and nobody here
    // would ever release it.
    static void ResetAfterFork();

private:
    std::unique_lock<std::mutex> threads_;
    kova_internal::OwnedFd file_;
    bool ok_ = false;
};

// Every job record; false with the last error set.
bool ListPropagations(std::vector<PropagationJob> &jobs);

} // namespace kova_acl

#endif
