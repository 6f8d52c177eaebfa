// The request handling of kova-webd, with no socket behind it: the endpoint
// /webapi (POST, and GET for reads), sessions and their request-forgery
// token, the built-in APIs answered in this process (KOVA.Server.Session,
// KOVA.Server.Info: rows of the registry that run in the front), the
// hand-off of every other row to the worker pool, the access log, and the
// browser UI as static files. The listener
// (http-listener.h) feeds it whole requests; tests and fuzzers may call
// Handle directly with any request.
//
// Every answer on /webapi, refusals of the HTTP side included, is the JSON
// envelope {"success", "data"|"error": {"code"[, "data"]}} in well-formed
// UTF-8. HTTP status: 200 for every answered call (success or a method's
// error), 400 for a request that is not an API call (101) or nests JSON
// too deep (110), 401 without a session (119), 403 with a wrong or missing
// token (120), 405 for a method other than GET or POST (109), 429 with
// Retry-After for a sign-in refused after too many failures (151), 503 with
// Retry-After: 1 for a sign-in while kMaxSignIns others are in progress
// (152), 500 when the worker died (160), 503 when no worker runs (161);
// Refuse gives the statuses of the HTTP side's refusals (error-codes.h).
#ifndef KOVA_WEBD_HTTP_FRONT_H
#define KOVA_WEBD_HTTP_FRONT_H

#include <json/json.h>

#include <atomic>
#include <string>
#include <vector>

#include "api-call.h"
#include "http-message.h"
#include "login-throttle.h"
#include "logs.h"
#include "module-registry.h"
#include "session-store.h"
#include "static-files.h"
#include "worker-pool.h"

namespace webd {

constexpr const char *kSessionCookie = "kova_sid";
constexpr const char *kTokenHeader = "X-Kova-Token";
// Sign-ins checking a password at once. A directory user's check may wait
// on the directory for its whole time-out; half of the default 16 handler
// threads (--http-threads) stay free for other calls, which never wait for
// a sign-in. Local checks queue further on the platform's own bound on
// concurrent hashes.
constexpr int kMaxSignIns = 8;

// One call to a row that runs in the front, with what it may answer through.
struct FrontCall {
    const ApiCall &call;
    const HttpRequest &req;
    const Session *session;  // nullptr for a row that needs none (the sign-in)
    HttpReply &res;          // status and headers the row sets
    std::string &user;       // the account the access log names
};

class Front {
public:
    // uiDir "" serves no static files. Adds the front's own rows to
    // registry (before it is shared) and drops them again when destroyed.
    Front(ModuleRegistry &registry, SessionStore &sessions, WorkerPool &pool, Logs &logs, const std::string &uiDir);
    ~Front();
    Front(const Front &) = delete;
    Front &operator=(const Front &) = delete;

    // One whole request in, its whole reply out, with the access-log line
    // written. Thread-safe; blocks while a sign-in checks its password or a
    // worker runs the call (up to the pool's request time-out). In-process
    // callers without workers pass a pool that is never started: calls
    // that need a worker then answer 503 (error 161) at once, as long as
    // the pool's program cannot be started (server_unit_test does this).
    HttpReply Handle(const HttpRequest &req);
    // The reply to a request the HTTP side refused; req holds what was read
    // of it (method and target may be empty). Cheap and never blocks.
    HttpReply Refuse(Refusal why, const HttpRequest &req);

private:
    HttpReply HandleApi(const HttpRequest &req);
    // Each returns the response object and may set HTTP status and headers.
    Json::Value Call(const ApiCall &call, const HttpRequest &req, HttpReply &res, std::string &user);
    Json::Value Login(FrontCall &c);
    Json::Value Logout(FrontCall &c);
    Json::Value Query(FrontCall &c);
    Json::Value RunInWorker(const ApiCall &call, const Session &s, const std::string &remote, HttpReply &res);
    void Finish(HttpReply &res, Json::Value &reply) const;

    ModuleRegistry &registry_;
    SessionStore &sessions_;
    WorkerPool &pool_;
    Logs &logs_;
    StaticFiles ui_;
    LoginThrottle throttle_;
    std::atomic<int> signInsInFlight_{0};
    std::vector<Route> ownRows_;
};

// The value of one cookie in a Cookie header, "" when absent.
std::string CookieValue(const std::string &header, const std::string &name);

} // namespace webd

#endif
