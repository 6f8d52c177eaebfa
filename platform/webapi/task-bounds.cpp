// Task admission and the sweep of old task records.
#include "task-bounds.h"

#include "kova-internal/task-process.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"

#include <errno.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <vector>

namespace kova_webapi {

namespace {

using kova_internal::Sys;

// A temporary record file lives for one write; one this old belongs to a
// writer that died between creating and renaming it.
constexpr time_t kAbandonedTempAge = 60;

std::mutex gStartMutex;

void FromEnv(const char *name, long long &out) {
    const char *text = std::getenv(name);
    if (!text || !*text) return;
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(text, &end, 10);
    if (errno == 0 && end && *end == '\0' && v > 0 && v <= (1LL << 40)) out = v;
}

void FromEnv(const char *name, unsigned &out) {
    long long v = out;
    FromEnv(name, v);
    if (v <= 1000000) out = static_cast<unsigned>(v);
}

struct Finished {
    std::string name;
    struct timespec mtime;
};

bool Newer(const Finished &a, const Finished &b) {
    if (a.mtime.tv_sec != b.mtime.tv_sec) return a.mtime.tv_sec > b.mtime.tv_sec;
    if (a.mtime.tv_nsec != b.mtime.tv_nsec) return a.mtime.tv_nsec > b.mtime.tv_nsec;
    return a.name > b.name;
}

long long JsonInt(const Json::Value &v) {
    if (v.isInt64()) return v.asInt64();
    if (v.isUInt64()) return static_cast<long long>(v.asUInt64());
    return 0;
}

} // namespace

TaskLimits TaskLimits::FromEnvironment() {
    TaskLimits l;
    FromEnv("KOVA_TASKS_PER_USER", l.perUser);
    FromEnv("KOVA_TASKS_TOTAL", l.total);
    FromEnv("KOVA_TASK_RECORDS_PER_USER", l.keepPerUser);
    FromEnv("KOVA_TASK_RETENTION_SECONDS", l.retention);
    return l;
}

bool StartLock::Acquire(const RecordDir &dir) {
    Release();
    std::unique_lock<std::mutex> threads(gStartMutex);
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    // A leading dot: never a valid task id, so no request can name it.
    kova_internal::OwnedFd fd(
        Sys().openat(dir.fd(), ".lock", O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    struct flock lk = {};
    lk.l_type = F_WRLCK;
    lk.l_whence = SEEK_SET;
    int rc;
    do {
        rc = Sys().fcntl_lock(fd.get(), F_SETLKW, &lk);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    threads_ = std::move(threads);
    file_ = std::move(fd);
    return true;
}

void StartLock::Release() {
    // Closing the file drops this process's lock on it.
    file_.Reset();
    if (threads_.owns_lock()) threads_.unlock();
}

void StartLock::ForgetInChild() {
    // The child holds no fcntl lock; closing its copy of the descriptor
    // leaves the parent's lock alone. The mutex was copied locked by the
    // thread that is now the child's only one.
    file_.Reset();
    if (threads_.owns_lock()) threads_.unlock();
}

Admission SweepAndAdmit(const RecordDir &dir, const std::string &user, const TaskLimits &limits, time_t now) {
    std::vector<std::string> names;
    if (!dir.List(names)) return Admission::kError;
    // Records that vanish or do not parse while we look are expected here;
    // they must not show as the caller's last error after a good start.
    const int savedCode = KLIBCErrGet();
    const char *fileNow = KLIBCErrorGetFile();
    const std::string savedFile = fileNow ? fileNow : "";
    const int savedLine = KLIBCErrorGetLine();

    std::map<std::string, std::vector<Finished>> finished;
    std::map<std::string, unsigned> running;
    unsigned runningAll = 0;
    for (const std::string &name : names) {
        if (name[0] == '.') continue;
        if (name.find(".tmp.") != std::string::npos) {
            struct stat st;
            if (Sys().fstatat(dir.fd(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                st.st_mtim.tv_sec + kAbandonedTempAge < now)
                dir.Remove(name);
            continue;
        }
        // Anything else that is not a record is not ours to judge.
        if (!IsValidTaskId(name)) continue;
        Json::Value record;
        struct stat st = {};
        const int rc = dir.Read(name, record, &st);
        if (rc == 0) continue;
        std::string owner;
        bool done = true;
        if (rc > 0) {
            if (record["owner"].isString()) owner = record["owner"].asString();
            const bool marked = record["finished"].isBool() && record["finished"].asBool();
            done = marked || !kova_internal::TaskAlive(static_cast<pid_t>(JsonInt(record["pid"])),
                                        static_cast<unsigned long long>(JsonInt(record["starttime"])));
        }
        // An unreadable record is swept like a finished one of nobody's.
        if (done) {
            finished[owner].push_back({name, st.st_mtim});
        } else {
            ++running[owner];
            ++runningAll;
        }
    }
    for (auto &entry : finished) {
        std::vector<Finished> &list = entry.second;
        std::sort(list.begin(), list.end(), Newer);
        for (size_t i = 0; i < list.size(); ++i) {
            // A record is never written again once its task has ended, so
            // its modification time is when the task finished.
            const bool expired = list[i].mtime.tv_sec + limits.retention < now;
            if (i >= limits.keepPerUser || expired) dir.Remove(list[i].name);
        }
    }
    KLIBCErrSetEx(savedCode, savedFile.c_str(), savedLine);
    if (running[user] >= limits.perUser) return Admission::kUserBusy;
    if (runningAll >= limits.total) return Admission::kAllBusy;
    return Admission::kAdmitted;
}

} // namespace kova_webapi
