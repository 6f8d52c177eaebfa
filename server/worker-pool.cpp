#include "worker-pool.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "frame.h"

extern char **environ;

namespace webd {

namespace {

// How often a thread waiting for a reply checks that its worker still lives
// (a forked task could keep the channel open after the worker died).
constexpr int kAlivePollMs = 200;

std::string DescribeStatus(int status) {
    if (WIFSIGNALED(status)) return std::string("killed by signal ") + strsignal(WTERMSIG(status));
    if (WIFEXITED(status)) return "exited with status " + std::to_string(WEXITSTATUS(status));
    return "ended";
}

} // namespace

WorkerPool::WorkerPool(std::vector<std::string> argv, size_t size, int timeoutSeconds, Logs &logs)
    : argv_(std::move(argv)), size_(size ? size : 1), timeoutSeconds_(timeoutSeconds), logs_(logs) {
    argv_.push_back("--worker-fd");
    argv_.push_back("3");
}

WorkerPool::~WorkerPool() {
    std::unique_lock<std::mutex> lock(mu_);
    // Busy workers belong to threads still running; the server stops those
    // first. Closing the channel ends an idle worker's loop.
    for (Worker &w : idle_) {
        close(w.fd);
        int status;
        while (waitpid(w.pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    idle_.clear();
}

bool WorkerPool::Spawn(Worker &w) {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0) return false;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    // dup2 onto 3 clears close-on-exec for the child's end only; every other
    // descriptor of the front (listening socket, clients) is closed.
    posix_spawn_file_actions_adddup2(&fa, sv[1], 3);
    posix_spawn_file_actions_addclosefrom_np(&fa, 4);
    std::vector<char *> args;
    for (std::string &a : argv_) args.push_back(&a[0]);
    args.push_back(nullptr);
    pid_t pid;
    int rc = posix_spawn(&pid, args[0], &fa, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&fa);
    close(sv[1]);
    if (rc != 0) {
        close(sv[0]);
        logs_.Error(std::string("cannot start a worker: ") + strerror(rc));
        return false;
    }
    w.pid = pid;
    w.fd = sv[0];
    return true;
}

void WorkerPool::Discard(Worker &w, const std::string &why) {
    close(w.fd);
    kill(w.pid, SIGKILL);
    int status = 0;
    pid_t r;
    while ((r = waitpid(w.pid, &status, 0)) < 0 && errno == EINTR) {
    }
    logs_.Error("worker " + std::to_string(w.pid) + " " + why + (r == w.pid ? ": " + DescribeStatus(status) : ""));
    w = Worker();
}

bool WorkerPool::Start() {
    std::lock_guard<std::mutex> lock(mu_);
    for (size_t i = 0; i < size_; ++i) {
        Worker w;
        if (!Spawn(w)) break;
        idle_.push_back(w);
        ++live_;
    }
    return live_ > 0;
}

void WorkerPool::Replenish() {
    Worker fresh;
    bool ok = Spawn(fresh);
    std::lock_guard<std::mutex> lock(mu_);
    if (ok) idle_.push_back(fresh);
    else --live_;
    cv_.notify_all();
}

WorkerPool::Outcome WorkerPool::Call(const Json::Value &request, Json::Value &reply) {
    Worker w;
    {
        std::unique_lock<std::mutex> lock(mu_);
        if (live_ < size_) {
            // A replacement failed earlier; try again now.
            Worker fresh;
            if (Spawn(fresh)) {
                idle_.push_back(fresh);
                ++live_;
            }
        }
        cv_.wait(lock, [this] { return !idle_.empty() || live_ == 0; });
        if (idle_.empty()) return Outcome::kNoWorker;
        w = idle_.back();
        idle_.pop_back();
    }

    const std::string what = request["api"].asString() + "." + request["method"].asString();
    int status;
    if (waitpid(w.pid, &status, WNOHANG) == w.pid) {
        // Died while idle: nothing was lost, use a fresh one for this request.
        logs_.Error("worker " + std::to_string(w.pid) + " found dead while idle: " + DescribeStatus(status));
        close(w.fd);
        if (!Spawn(w)) {
            std::lock_guard<std::mutex> lock(mu_);
            --live_;
            cv_.notify_all();
            return Outcome::kNoWorker;
        }
    }

    if (!WriteFrame(w.fd, request)) {
        Discard(w, "did not take the request " + what);
        Replenish();
        return Outcome::kCrashed;
    }
    const long maxPolls = static_cast<long>(timeoutSeconds_) * 1000 / kAlivePollMs;
    for (long polls = 0;; ++polls) {
        bool timedOut = false;
        if (ReadFrame(w.fd, reply, kAlivePollMs, &timedOut)) break;
        if (timedOut && polls >= maxPolls) {
            // A handler that never returns would hold the slot for ever.
            Discard(w, "killed: no answer to " + what + " within " + std::to_string(timeoutSeconds_) + " s");
            Replenish();
            return Outcome::kCrashed;
        }
        if (!timedOut) {
            Discard(w, "failed during " + what);
            Replenish();
            return Outcome::kCrashed;
        }
        if (waitpid(w.pid, &status, WNOHANG) == w.pid) {
            logs_.Error("worker " + std::to_string(w.pid) + " died during " + what + ": " + DescribeStatus(status));
            close(w.fd);
            Replenish();
            return Outcome::kCrashed;
        }
    }
    if (!reply.isObject() || !reply["response"].isObject()) {
        Discard(w, "answered " + what + " with a malformed reply");
        Replenish();
        return Outcome::kCrashed;
    }
    if (reply["retire"].asBool()) {
        // It could not return to root and ends itself: replace it now so
        // no later request is handed to a channel about to close.
        Discard(w, "retired after " + what);
        Replenish();
    } else {
        std::lock_guard<std::mutex> lock(mu_);
        idle_.push_back(w);
        cv_.notify_one();
    }
    Json::Value response = reply["response"];
    reply = response;
    return Outcome::kOk;
}

} // namespace webd
