// The front process's pool of worker processes. Each worker is this program
// started again (posix_spawn) with "--worker-fd 3" and a socket pair as its
// channel; one request at a time goes to an idle worker. A worker that dies
// while it holds a request fails that request (Outcome::kCrashed) and is
// replaced; one found dead while idle is replaced before it is used.
#ifndef KOVA_WEBD_WORKER_POOL_H
#define KOVA_WEBD_WORKER_POOL_H

#include <json/json.h>
#include <sys/types.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "logs.h"

namespace webd {

class WorkerPool {
public:
    // argv: the program and its arguments; "--worker-fd 3" is appended.
    // A request still unanswered after timeoutSeconds kills its worker.
    WorkerPool(std::vector<std::string> argv, size_t size, int timeoutSeconds, Logs &logs);
    ~WorkerPool();  // closes every channel and waits for the workers
    WorkerPool(const WorkerPool &) = delete;
    WorkerPool &operator=(const WorkerPool &) = delete;

    // Starts every worker; false when none could be started.
    bool Start();

    enum class Outcome { kOk, kCrashed, kNoWorker };
    // Sends the request to an idle worker (waiting for one) and returns its reply.
    Outcome Call(const Json::Value &request, Json::Value &reply);

    size_t Size() const { return size_; }

private:
    struct Worker {
        pid_t pid = -1;
        int fd = -1;
    };
    bool Spawn(Worker &w);
    void Discard(Worker &w, const std::string &why);
    // Starts a worker in place of one that ended (or forgets the slot).
    void Replenish();

    std::vector<std::string> argv_;
    size_t size_;
    int timeoutSeconds_;
    Logs &logs_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<Worker> idle_;
    size_t live_ = 0;   // idle + busy
};

} // namespace webd

#endif
