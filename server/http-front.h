// The HTTP side of kova-webd: the endpoint /webapi (POST, and GET for
// reads), sessions and their request-forgery token, the built-in APIs
// answered in this process (KOVA.Server.Session, KOVA.Server.Info), the
// hand-off of every other call to the worker pool, the access log, and the
// browser UI as static files.
//
// HTTP status: 200 for every answered call (success or a method's error),
// 400 for a body that is not an API call, 401 without a session (code 119),
// 403 with a wrong or missing token (code 120), 429 with Retry-After for a
// sign-in refused after too many failures (code 151, login-throttle.h),
// 500 when the worker died (code 160), 503 when no worker runs (161).
#ifndef KOVA_WEBD_HTTP_FRONT_H
#define KOVA_WEBD_HTTP_FRONT_H

#include <httplib.h>

#include <mutex>
#include <string>

#include "api-call.h"
#include "login-throttle.h"
#include "logs.h"
#include "module-registry.h"
#include "session-store.h"
#include "worker-pool.h"

namespace webd {

constexpr const char *kSessionCookie = "kova_sid";
constexpr const char *kTokenHeader = "X-Kova-Token";

class Front {
public:
    Front(ModuleRegistry &registry, SessionStore &sessions, WorkerPool &pool, Logs &logs, std::string uiDir);
    void Install(httplib::Server &server);

private:
    void HandleApi(const httplib::Request &req, httplib::Response &res);
    // Each returns the response object and may set HTTP status and headers.
    Json::Value Login(const ApiCall &call, const std::string &remote, httplib::Response &res, std::string &user);
    Json::Value Dispatch(const ApiCall &call, const Session &s, const std::string &remote, httplib::Response &res);

    ModuleRegistry &registry_;
    SessionStore &sessions_;
    WorkerPool &pool_;
    Logs &logs_;
    std::string uiDir_;
    std::mutex platformMu_;   // account lookups of the front, one at a time
    LoginThrottle throttle_;
};

// The value of one cookie in a Cookie header, "" when absent.
std::string CookieValue(const std::string &header, const std::string &name);

} // namespace webd

#endif
