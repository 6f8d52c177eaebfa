#include "worker.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <exception>
#include <utility>

#include "error-codes.h"
#include "files-api.h"
#include "frame.h"
#include "identity-switch.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/webapi.h"

namespace webd {

namespace {

int gChannelFd = -1;

// Background tasks fork from the worker (APIPolling). The task must not keep
// the worker's channel open: the server tells a dead worker by its channel
// closing, and a task holding a copy would hide that.
void CloseChannelInChild() {
    if (gChannelFd >= 0) {
        close(gChannelFd);
        gChannelFd = -1;
    }
}

Json::Value ErrorResponse(int code) {
    Json::Value r(Json::objectValue);
    r["success"] = false;
    r["error"]["code"] = code;
    return r;
}

} // namespace

Json::Value RunRequest(const ModuleRegistry &registry, const Json::Value &request, Logs &logs) {
    const Route *route = nullptr;
    std::string api = request["api"].asString();
    std::string method = request["method"].asString();
    int version = request["version"].asInt();
    if (registry.Find(api, version, method, &route) != ModuleRegistry::Lookup::kFound || !route->handler)
        return ErrorResponse(kErrNoSuchMethod);

    std::vector<gid_t> groups;
    for (const Json::Value &g : request["groups"]) groups.push_back(static_cast<gid_t>(g.asUInt()));
    uid_t uid = static_cast<uid_t>(request["uid"].asUInt());
    gid_t gid = static_cast<gid_t>(request["gid"].asUInt());

    std::string remote = request["remote"].asString();
    setenv("REMOTE_ADDR", remote.c_str(), 1);

    Json::Value params = request["params"].isObject() ? request["params"] : Json::Value(Json::objectValue);
    bool sharePaths = false;
    if (const int bad = SharePathsIn(api, params, request["user"].asString(), sharePaths)) return ErrorResponse(bad);
    KOVA::APIRequest req(params, request["user"].asString(), request["session"].asString());
    req.SetMethod(api, version, method);
    KOVA::APIResponse resp;

    if (!BecomeUser(uid, gid, groups)) {
        logs.Error("worker " + std::to_string(getpid()) + ": cannot switch to uid " + std::to_string(uid));
        return ErrorResponse(kErrWorkerFailed);
    }
    // The last error is per thread and the worker's one thread serves every
    // user in turn: a handler must never read the one a previous request left.
    KLIBCErrSet(KOVA_ERR_NONE);
    try {
        route->handler(&req, &resp);
    } catch (const std::exception &e) {
        logs.Error("handler " + api + "." + method + " threw: " + LogSafe(e.what()));
        resp.SetError(kErrUnknown);
    } catch (...) {
        logs.Error("handler " + api + "." + method + " threw an unknown exception");
        resp.SetError(kErrUnknown);
    }
    if (!resp.IsSet()) {
        logs.Error("handler " + api + "." + method + " returned without a response");
        resp.SetError(kErrUnknown);
    }
    Json::Value reply = resp.ToJson();
    if (sharePaths) SharePathsOut(reply);
    return reply;
}

int WorkerMain(int fd, const ModuleRegistry &registry, Logs &logs) {
    gChannelFd = fd;
    pthread_atfork(nullptr, nullptr, CloseChannelInChild);
    signal(SIGPIPE, SIG_IGN);
    if (chdir("/") != 0) return 1;
    std::vector<gid_t> rootGroups = CurrentGroups();
    for (;;) {
        Json::Value request;
        if (!ReadFrame(fd, request)) return 0;  // the server closed the channel
        Json::Value reply = RunRequest(registry, request, logs);
        bool restored = RestoreRoot(rootGroups);
        if (!restored) {
            logs.Error("worker " + std::to_string(getpid()) + ": cannot return to root after " +
                       request["api"].asString() + "." + request["method"].asString() + "; exiting");
        }
        Json::Value frame(Json::objectValue);
        frame["response"] = std::move(reply);
        frame["retire"] = !restored;
        if (!WriteFrame(fd, frame)) return 1;
        if (!restored) return 2;
    }
}

} // namespace webd
