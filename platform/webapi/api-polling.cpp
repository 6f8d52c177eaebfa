// Background tasks: a detached process per task, its progress in a task
// record that status readers and the task's own response share.
#include "kova/webapi.h"
#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"
#include "kova-internal/task-end.h"

#include "task-bounds.h"
#include "kova-internal/task-process.h"
#include "task-record.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>

namespace KOVA {

namespace {

// The code a task reads as when its process ended without marking its
// record finished (killed, crashed).
constexpr int kTaskDiedCode = 6200;

std::string RandomHex() {
    unsigned char bytes[6] = {0};
    if (getrandom(bytes, sizeof(bytes), 0) != static_cast<ssize_t>(sizeof(bytes))) {
        // Pid and time keep ids unique per process; this only spreads them.
        unsigned long long t = static_cast<unsigned long long>(clock());
        for (size_t i = 0; i < sizeof(bytes); ++i) bytes[i] = static_cast<unsigned char>(t >> (i * 8));
    }
    char out[sizeof(bytes) * 2 + 1];
    for (size_t i = 0; i < sizeof(bytes); ++i) std::snprintf(out + i * 2, 3, "%02x", bytes[i]);
    return out;
}

long long IntField(const Json::Value &record, const char *key) {
    const Json::Value &v = record[key];
    if (v.isInt64()) return v.asInt64();
    if (v.isUInt64()) return static_cast<long long>(v.asUInt64());
    return 0;
}

bool BoolField(const Json::Value &record, const char *key, bool dflt) {
    const Json::Value &v = record[key];
    return v.isBool() ? v.asBool() : dflt;
}

// The record as a task writes it: owner fields plus the response's state.
Json::Value RecordFrom(const Json::Value &owner, const APIResponse &response, bool finished) {
    Json::Value record = owner;
    bool success = !response.IsSet() || response.IsSuccess();
    record["success"] = success;
    record["data"] = success ? response.GetData() : Json::Value();
    if (!success) {
        Json::Value err(Json::objectValue);
        err["code"] = response.GetErrorCode();
        if (!response.GetErrorData().isNull()) err["data"] = response.GetErrorData();
        record["error"] = err;
    }
    record["finished"] = finished;
    return record;
}

void WriteByte(int fd) {
    char c = 1;
    while (write(fd, &c, 1) < 0 && errno == EINTR) {
    }
}

// A task starts clean: signals the caller blocked or handled (a server's
// own SIGTERM or SIGCHLD handling) must not shape how the task ends.
void ResetSignals() {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    const int sigs[] = {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGCHLD, SIGPIPE, SIGUSR1, SIGUSR2, SIGALRM};
    for (int s : sigs) signal(s, SIG_DFL);
}

// A detached task must not hold the caller's terminal or pipes open: whoever
// waits for the caller's output to end would otherwise wait for the task.
// Tasks report through their record and the system log.
void DetachStdio() {
    int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null < 0) return;
    dup2(null, STDIN_FILENO);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    if (null > STDERR_FILENO) close(null);
}

// The task process itself; never returns.
[[noreturn]] void RunTask(const kova_webapi::RecordDir &records, const std::string &id, const Json::Value &ownerBase,
                          int readyFd, APIPolling::TaskFunc fn, APIRequest *request, void *data) {
    ResetSignals();
    DetachStdio();
    int rc = 0;
    try {
        Json::Value owner = ownerBase;
        pid_t self = getpid();
        owner["pid"] = static_cast<Json::Int64>(self);
        owner["starttime"] = static_cast<Json::UInt64>(kova_internal::ProcessStartTime(self));
        APIResponse response;
        response.BindTaskRecord(id, owner);
        if (!records.Write(id, RecordFrom(owner, response, false))) rc = 1;
        WriteByte(readyFd);
        close(readyFd);
        if (rc == 0) {
            kova_internal::MarkTaskProcess();
            fn(request, &response, data);
            // The final record follows the publication rule too
            // (kova-internal/task-end.h): what the calls left for later is
            // done before "finished" is written.
            kova_internal::RunTaskEndHooks(response.IsSuccess() || !response.IsSet());
            if (!records.Write(id, RecordFrom(owner, response, true))) rc = 1;
        }
    } catch (...) {
        rc = 1;
    }
    _exit(rc);
}

} // namespace

struct APIPolling::Impl {
    APIRequest *request = nullptr;
    bool remove = false;
    std::string prefix = "task";
    int error = KOVA_POLLING_ERR_NONE;

    bool Fail(int pollingError, int code, const char *file, int line) {
        error = pollingError;
        KLIBCErrSetEx(code, file, line);
        return false;
    }

    // The owner must be the caller exactly: "bob" never reaches "bobby"'s
    // task, nor the other way round.
    bool MayAccess(const Json::Value &record) const {
        const std::string user = request->GetLoginUserName();
        if (user.empty()) return false;
        const Json::Value &owner = record["owner"];
        if (owner.isString() && owner.asString() == user) return true;
        return KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
    }

    // Finds the caller's task in `records`, filling record; false with the
    // polling and last errors set otherwise.
    bool Lookup(const std::string &taskId, kova_webapi::RecordDir &records, Json::Value &record);
};

#define POLL_FAIL(pollErr, code) d_->Fail((pollErr), (code), kova_internal::BaseName(__FILE__), __LINE__)

bool APIPolling::Impl::Lookup(const std::string &taskId, kova_webapi::RecordDir &records, Json::Value &record) {
    const char *file = kova_internal::BaseName(__FILE__);
    if (!request || taskId.empty()) return Fail(KOVA_POLLING_ERR_BADARG, KOVA_ERR_BADARG, file, __LINE__);
    // The id is checked before it reaches the file system: only a plain
    // name of the task folder can be looked up, never a path or a byte the
    // folder cannot hold.
    if (!kova_webapi::IsValidTaskId(taskId)) return Fail(KOVA_POLLING_ERR_NOTASK, KOVA_ERR_NOTASK, file, __LINE__);
    if (!records.IsOpen() && !records.Open()) return Fail(KOVA_POLLING_ERR_IO, KLIBCErrGet(), file, __LINE__);
    int rc = records.Read(taskId, record);
    if (rc == 0) return Fail(KOVA_POLLING_ERR_NOTASK, KOVA_ERR_NOTASK, file, __LINE__);
    if (rc < 0) return Fail(KOVA_POLLING_ERR_IO, KLIBCErrGet(), file, __LINE__);
    // Someone else's task is reported exactly like a missing one, so ids
    // cannot be probed.
    if (!MayAccess(record)) return Fail(KOVA_POLLING_ERR_NOTASK, KOVA_ERR_NOTASK, file, __LINE__);
    return true;
}

APIPolling::APIPolling(APIRequest *request) : d_(new Impl) { d_->request = request; }
APIPolling::~APIPolling() { delete d_; }

void APIPolling::SetRequest(APIRequest *request) {
    KOVA_FAULT_POINT_VOID("APIPolling::SetRequest");
    d_->request = request;
}

void APIPolling::SetRemoveAttr(bool remove) {
    KOVA_FAULT_POINT_VOID("APIPolling::SetRemoveAttr");
    d_->remove = remove;
}

void APIPolling::SetPrefixAttr(const std::string &prefix) {
    KOVA_FAULT_POINT_VOID("APIPolling::SetPrefixAttr");
    d_->prefix = prefix;
}

int APIPolling::GetError() const {
    KOVA_FAULT_POINT("APIPolling::GetError", int);
    return d_->error;
}

bool APIPolling::Start(APIResponse *response, TaskFunc fn, void *data) {
    KOVA_FAULT_POINT_BOOL("APIPolling::Start");
    try {
        if (!response || !fn || !d_->request) return POLL_FAIL(KOVA_POLLING_ERR_BADARG, KOVA_ERR_BADARG);
        std::string prefix = d_->prefix.empty() ? std::string("task") : d_->prefix;
        if (!kova_webapi::IsValidTaskId(prefix)) return POLL_FAIL(KOVA_POLLING_ERR_BADARG, KOVA_ERR_BADARG);
        std::string user = d_->request->GetLoginUserName();
        if (user.empty()) return POLL_FAIL(KOVA_POLLING_ERR_BADARG, KOVA_ERR_BADARG);

        // The id must stay a valid one whatever the pid, time and random part.
        if (prefix.size() > 64) return POLL_FAIL(KOVA_POLLING_ERR_BADARG, KOVA_ERR_BADARG);

        kova_webapi::RecordDir records;
        if (!records.Open()) return POLL_FAIL(KOVA_POLLING_ERR_IO, KLIBCErrGet());
        // Held until the task's record names its process: the next start
        // then counts this task as running.
        kova_webapi::StartLock lock;
        if (!lock.Acquire(records)) return POLL_FAIL(KOVA_POLLING_ERR_IO, KLIBCErrGet());
        switch (kova_webapi::SweepAndAdmit(records, user, kova_webapi::TaskLimits::FromEnvironment(),
                                           time(nullptr))) {
        case kova_webapi::Admission::kAdmitted:
            break;
        case kova_webapi::Admission::kUserBusy:
        case kova_webapi::Admission::kAllBusy:
            return POLL_FAIL(KOVA_POLLING_ERR_BUSY, KOVA_ERR_TASK_LIMIT);
        case kova_webapi::Admission::kError:
            return POLL_FAIL(KOVA_POLLING_ERR_IO, KLIBCErrGet());
        }

        std::string id = prefix + "-" + std::to_string(getpid()) + "-" +
                         std::to_string(static_cast<long long>(time(nullptr))) + "-" + RandomHex();

        Json::Value owner(Json::objectValue);
        owner["owner"] = user;
        owner["session"] = d_->request->GetSessionID();
        owner["pid"] = 0;
        owner["starttime"] = 0;
        APIResponse initial;
        if (!records.Write(id, RecordFrom(owner, initial, false))) return POLL_FAIL(KOVA_POLLING_ERR_IO, KOVA_ERR_IO);

        // The task tells through this pipe that its record names its pid; a
        // status read after Start returns can therefore judge liveness.
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0) {
            records.Remove(id);
            return POLL_FAIL(KOVA_POLLING_ERR_FORK, KOVA_ERR_NOMEM);
        }
        pid_t middle = fork();
        if (middle < 0) {
            close(ready[0]);
            close(ready[1]);
            records.Remove(id);
            return POLL_FAIL(KOVA_POLLING_ERR_FORK, KOVA_ERR_NOMEM);
        }
        if (middle == 0) {
            // Double fork: the task leaves the caller's session and is
            // reparented to init, so the caller never has to reap it.
            lock.ForgetInChild();
            close(ready[0]);
            setsid();
            pid_t task = fork();
            if (task < 0) _exit(1);
            if (task > 0) _exit(0);
            RunTask(records, id, owner, ready[1], fn, d_->request, data);
        }
        close(ready[1]);
        int status = 0;
        pid_t waited;
        do {
            waited = waitpid(middle, &status, 0);
        } while (waited < 0 && errno == EINTR);
        // A caller that reaps children itself (ECHILD here) still learns
        // the outcome from the pipe below.
        bool middleOk = waited < 0 ? errno == ECHILD : (WIFEXITED(status) && WEXITSTATUS(status) == 0);
        char byte = 0;
        ssize_t n;
        do {
            n = read(ready[0], &byte, 1);
        } while (n < 0 && errno == EINTR);
        close(ready[0]);
        if (!middleOk || n != 1) {
            records.Remove(id);
            return POLL_FAIL(KOVA_POLLING_ERR_FORK, KOVA_ERR_IO);
        }
        Json::Value answer(Json::objectValue);
        answer["task_id"] = id;
        response->SetSuccess(answer);
        d_->error = KOVA_POLLING_ERR_NONE;
        return true;
    } catch (...) {
        return POLL_FAIL(KOVA_POLLING_ERR_IO, KOVA_ERR_NOMEM);
    }
}

bool APIPolling::Status(const std::string &taskId, Json::Value &result) {
    KOVA_FAULT_POINT_BOOL("APIPolling::Status");
    try {
        Json::Value record;
        kova_webapi::RecordDir records;
        if (!d_->Lookup(taskId, records, record)) return false;
        long long pid = IntField(record, "pid");
        bool finished = BoolField(record, "finished", false);
        bool alive = finished ||
                     kova_internal::TaskAlive(static_cast<pid_t>(pid), static_cast<unsigned long long>(IntField(record, "starttime")));
        if (!alive) {
            // The task may have written its final record and exited between
            // the read above and the liveness check. Once it is gone it can
            // write no more, so one more read is the last word.
            if (!d_->Lookup(taskId, records, record)) return false;
            finished = BoolField(record, "finished", false);
        }
        Json::Value out(Json::objectValue);
        if (!finished && !alive) {
            // The process is gone but never said it finished: it was killed
            // or crashed, and will not report again.
            out["success"] = false;
            out["data"] = Json::Value();
            Json::Value err(Json::objectValue);
            err["code"] = kTaskDiedCode;
            out["error"] = err;
            finished = true;
        } else {
            bool success = BoolField(record, "success", false);
            out["success"] = success;
            out["data"] = record["data"];
            if (!success) {
                const Json::Value &err = record["error"];
                if (err.isObject()) {
                    out["error"] = err;
                } else {
                    Json::Value e(Json::objectValue);
                    e["code"] = kTaskDiedCode;
                    out["error"] = e;
                }
            }
        }
        out["finished"] = finished;
        out["pid"] = static_cast<Json::Int64>(pid);
        if (finished && d_->remove && !records.Remove(taskId))
            return POLL_FAIL(KOVA_POLLING_ERR_IO, KOVA_ERR_IO);
        result.swap(out);
        d_->error = KOVA_POLLING_ERR_NONE;
        return true;
    } catch (...) {
        return POLL_FAIL(KOVA_POLLING_ERR_IO, KOVA_ERR_NOMEM);
    }
}

bool APIPolling::Stop(const std::string &taskId, bool signalTask) {
    KOVA_FAULT_POINT_BOOL("APIPolling::Stop");
    try {
        Json::Value record;
        kova_webapi::RecordDir records;
        if (!d_->Lookup(taskId, records, record)) return false;
        d_->error = KOVA_POLLING_ERR_NONE;
        if (!signalTask || BoolField(record, "finished", false)) return true;
        pid_t pid = static_cast<pid_t>(IntField(record, "pid"));
        unsigned long long start = static_cast<unsigned long long>(IntField(record, "starttime"));
        kova_internal::RootScope root;
        if (!root.ok()) return POLL_FAIL(KOVA_POLLING_ERR_SIGNAL, KOVA_ERR_PERM);
        // A task that already ended has nothing left to stop; its pid may
        // belong to another process by now, which is never signalled.
        if (kova_internal::SignalTask(pid, start, SIGTERM) < 0) return POLL_FAIL(KOVA_POLLING_ERR_SIGNAL, KOVA_ERR_PERM);
        return true;
    } catch (...) {
        return POLL_FAIL(KOVA_POLLING_ERR_IO, KOVA_ERR_NOMEM);
    }
}

} // namespace KOVA
