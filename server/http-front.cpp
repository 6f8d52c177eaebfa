#include "http-front.h"

#include <atomic>
#include <chrono>

#include "error-codes.h"
#include "frame.h"
#include "http-message.h"
#include "identity-switch.h"
#include "text-check.h"
#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

namespace webd {

namespace {

Json::Value Error(int code) {
    Json::Value r(Json::objectValue);
    r["success"] = false;
    r["error"]["code"] = code;
    return r;
}

Json::Value Success(const Json::Value &data) {
    Json::Value r(Json::objectValue);
    r["success"] = true;
    r["data"] = data;
    return r;
}

// One of the kMaxSignIns places for a sign-in in flight, held while it
// lives; ok() false when all were taken.
class SignInSlot {
public:
    explicit SignInSlot(std::atomic<int> &inFlight) : inFlight_(inFlight) {
        int n = inFlight_.load();
        while (n < kMaxSignIns && !inFlight_.compare_exchange_weak(n, n + 1)) {
        }
        ok_ = n < kMaxSignIns;
    }
    ~SignInSlot() {
        if (ok_) inFlight_.fetch_sub(1);
    }
    SignInSlot(const SignInSlot &) = delete;
    SignInSlot &operator=(const SignInSlot &) = delete;
    bool ok() const { return ok_; }

private:
    std::atomic<int> &inFlight_;
    bool ok_ = false;
};

std::string SessionCookie(const std::string &value, bool expire) {
    std::string c = std::string(kSessionCookie) + "=" + value + "; Path=/; HttpOnly; SameSite=Strict";
    if (expire) c += "; Max-Age=0";
    return c;
}

} // namespace

std::string CookieValue(const std::string &header, const std::string &name) {
    size_t pos = 0;
    while (pos < header.size()) {
        size_t end = header.find(';', pos);
        if (end == std::string::npos) end = header.size();
        std::string part = header.substr(pos, end - pos);
        size_t b = part.find_first_not_of(' ');
        if (b != std::string::npos) part = part.substr(b);
        size_t eq = part.find('=');
        if (eq != std::string::npos && part.compare(0, eq, name) == 0 && eq == name.size()) return part.substr(eq + 1);
        pos = end + 1;
    }
    return "";
}

Front::Front(ModuleRegistry &registry, SessionStore &sessions, WorkerPool &pool, Logs &logs, const std::string &uiDir)
    : registry_(registry), sessions_(sessions), pool_(pool), logs_(logs), ui_(uiDir) {
    if (!uiDir.empty() && !ui_.ok()) logs_.Error("UI folder " + uiDir + " cannot be served");
    auto row = [this](const char *api, const char *method, bool needsSession, Json::Value (Front::*fn)(FrontCall &)) {
        Route r;
        r.api = api;
        r.version = 1;
        r.method = method;
        r.origin = "built-in";
        r.front = [this, fn](FrontCall &c) { return (this->*fn)(c); };
        r.needsSession = needsSession;
        return r;
    };
    std::vector<Route> rows = {row("KOVA.Server.Session", "login", false, &Front::Login),
                               row("KOVA.Server.Session", "logout", true, &Front::Logout),
                               row("KOVA.Server.Info", "query", true, &Front::Query)};
    std::string why;
    if (registry_.Add(rows, &why))
        ownRows_ = std::move(rows);
    else
        logs_.Error("the server's own APIs cannot be served: " + why);
}

Front::~Front() { registry_.Drop(ownRows_); }

Json::Value Front::Login(FrontCall &c) {
    const ApiCall &call = c.call;
    const std::string &remote = c.req.remote;
    HttpReply &res = c.res;
    std::string &user = c.user;
    const Json::Value &account = call.params["account"];
    const Json::Value &passwd = call.params["passwd"];
    // Checked before anything else: the password check reads both as C
    // strings, so "alice\u0000x" would sign in as alice while the throttle
    // counted a different account. The throttle keys on exactly the text
    // that is checked.
    if (!account.isString() || !passwd.isString() || account.asString().empty() ||
        !IsCleanText(account.asString()) || !IsCleanText(passwd.asString())) {
        res.status = 400;
        Json::Value reply = Error(kErrBadRequest);
        reply["error"]["data"]["reason"] = "\"account\" and \"passwd\" must be UTF-8 text without NUL";
        return reply;
    }
    user = account.asString();
    // Refused before the password is looked at: a guess made while blocked
    // learns nothing and costs no password hash.
    const std::chrono::seconds wait = throttle_.RetryAfter(remote, user, LoginThrottle::Clock::now());
    if (wait.count() > 0) {
        logs_.Error("login of " + LogSafe(user) + " from " + LogSafe(remote) +
                    " refused: too many failed sign-ins, retry in " + std::to_string(wait.count()) + " s");
        res.status = 429;
        res.Set("Retry-After", std::to_string(wait.count()));
        Json::Value reply = Error(kErrLoginThrottled);
        reply["error"]["data"]["retry_after"] = static_cast<Json::Int64>(wait.count());
        return reply;
    }
    // A password check may wait up to the directory's time-out; bounding how
    // many run at once keeps the handler threads free for every other call.
    // The refusal is answered before the password is looked at and is no
    // failed sign-in: nothing was guessed.
    SignInSlot slot(signInsInFlight_);
    if (!slot.ok()) {
        logs_.Error("login of " + LogSafe(user) + " from " + LogSafe(remote) + " refused: " +
                    std::to_string(kMaxSignIns) + " sign-ins already in progress");
        res.status = 503;
        res.Set("Retry-After", "1");
        return Error(kErrLoginBusy);
    }
    Session s;
    s.user = user;
    // No lock around the platform: each thread has its own account database
    // connection and last error, the directory state is read per call, and a
    // directory password check binds on a connection of its own, so sign-ins
    // run side by side and a slow directory holds up only its own.
    {
        if (KOVAUserPasswordCheck(user.c_str(), passwd.asString().c_str()) != 0) {
            // A directory account whose directory cannot be reached (a
            // domain known from its cache only) was never checked: say so,
            // and do not count it as a wrong password.
            if (KLIBCErrGet() == KOVA_ERR_DIRSVC) {
                logs_.Error("login of " + LogSafe(user) + " refused: its directory cannot be reached");
                return Error(kErrLoginNoDirectory);
            }
            throttle_.Failed(remote, user, LoginThrottle::Clock::now());
            logs_.Error("login refused for " + LogSafe(user));
            return Error(kErrLoginFailed);
        }
        throttle_.Succeeded(remote, user);
        UserIds ids;
        if (!LookupUserIds(user, ids)) {
            logs_.Error("login of " + LogSafe(user) + ": identity lookup failed, last error " +
                        std::to_string(KLIBCErrGet()));
            return Error(kErrLoginFailed);
        }
        s.uid = ids.uid;
        s.gid = ids.gid;
        s.groups = std::move(ids.groups);
        s.admin = KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
    }
    // A sign-in in another tab adds a session beside this browser's others.
    if (!sessions_.Create(s, CookieValue(c.req.Header("Cookie"), kSessionCookie))) return Error(kErrUnknown);
    res.Set("Set-Cookie", SessionCookie(s.cookie, false));
    Json::Value data(Json::objectValue);
    data["account"] = user;
    data["token"] = s.token;
    data["is_admin"] = s.admin;
    return Success(data);
}

Json::Value Front::Logout(FrontCall &c) {
    // Other tabs of this browser may still be signed in on the cookie.
    if (sessions_.Remove(c.session->id)) c.res.Set("Set-Cookie", SessionCookie("", true));
    return Success(Json::Value());
}

Json::Value Front::Query(FrontCall &) {
    Json::Value data(Json::objectValue);
    data["apis"] = registry_.Describe();
    return Success(data);
}

Json::Value Front::Call(const ApiCall &call, const HttpRequest &req, HttpReply &res, std::string &user) {
    const Route *route = nullptr;
    const ModuleRegistry::Lookup found = registry_.Find(call.api, call.version, call.method, &route);
    if (found == ModuleRegistry::Lookup::kFound && !route->needsSession) {
        FrontCall c{call, req, nullptr, res, user};
        return route->front(c);
    }
    // Without a session nothing is told about the call, not even whether
    // it names an API that exists.
    Session s;
    const SessionStore::Found live =
        sessions_.Find(CookieValue(req.Header("Cookie"), kSessionCookie), req.Header(kTokenHeader), s);
    if (live == SessionStore::Found::kNone) {
        res.status = 401;
        return Error(kErrNotAuthenticated);
    }
    user = s.user;
    if (live == SessionStore::Found::kWrongToken) {
        res.status = 403;
        return Error(kErrBadToken);
    }
    switch (found) {
    case ModuleRegistry::Lookup::kNoAPI: return Error(kErrNoSuchAPI);
    case ModuleRegistry::Lookup::kNoVersion: return Error(kErrBadVersion);
    case ModuleRegistry::Lookup::kNoMethod: return Error(kErrNoSuchMethod);
    case ModuleRegistry::Lookup::kFound: break;
    }
    if (route->RunsInFront()) {
        FrontCall c{call, req, &s, res, user};
        return route->front(c);
    }
    return RunInWorker(call, s, req.remote, res);
}

Json::Value Front::RunInWorker(const ApiCall &call, const Session &s, const std::string &remote, HttpReply &res) {
    Json::Value request(Json::objectValue);
    request["api"] = call.api;
    request["version"] = call.version;
    request["method"] = call.method;
    request["params"] = call.params;
    request["user"] = s.user;
    request["session"] = s.id;
    request["remote"] = remote;
    request["uid"] = static_cast<Json::UInt>(s.uid);
    request["gid"] = static_cast<Json::UInt>(s.gid);
    Json::Value groups(Json::arrayValue);
    for (gid_t g : s.groups) groups.append(static_cast<Json::UInt>(g));
    request["groups"] = groups;
    Json::Value reply;
    switch (pool_.Call(request, reply)) {
    case WorkerPool::Outcome::kOk: return reply;
    case WorkerPool::Outcome::kCrashed: res.status = 500; return Error(kErrWorkerFailed);
    case WorkerPool::Outcome::kNoWorker: res.status = 503; return Error(kErrServerBusy);
    }
    return Error(kErrUnknown);
}

void Front::Finish(HttpReply &res, Json::Value &reply) const {
    // Module replies and file names may hold bytes that are not UTF-8; the
    // client always gets valid JSON text.
    MakeWellFormed(reply);
    res.Set("Cache-Control", "no-store");
    res.Set("Content-Type", "application/json; charset=utf-8");
    res.body = ToJsonText(reply);
}

HttpReply Front::HandleApi(const HttpRequest &req) {
    auto started = std::chrono::steady_clock::now();
    HttpReply res;
    res.status = 200;
    ApiCall call;
    std::string bad;
    int badCode = kErrBadRequest;
    std::string path, query;
    SplitTarget(req.target, path, query);
    const std::string type = req.Header("Content-Type");
    const bool isPost = req.method == "POST";
    if (!isPost && req.method != "GET") {
        res.status = 405;
        res.Set("Allow", "GET, POST");
        bad = "/webapi takes GET and POST";
        badCode = kErrHttpMethod;
    } else if (isPost && type.compare(0, 16, "application/json") == 0) {
        bad = ParseJsonCall(req.body, call, &badCode);
    } else {
        std::multimap<std::string, std::string> fields = ParseFormText(query);
        if (isPost && type.compare(0, 33, "application/x-www-form-urlencoded") == 0) {
            for (auto &f : ParseFormText(req.body)) fields.insert(std::move(f));
        }
        bad = ParseFieldCall(fields, call, &badCode);
    }

    std::string user = "-";
    Json::Value reply;
    if (!bad.empty()) {
        if (res.status == 200) res.status = 400;
        reply = Error(badCode);
        reply["error"]["data"]["reason"] = bad;
    } else {
        reply = Call(call, req, res, user);
    }
    Finish(res, reply);

    long ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
    std::string outcome = reply["success"].asBool() ? "ok" : "error " + std::to_string(reply["error"]["code"].asInt());
    logs_.Access(LogSafe(req.remote) + " " + LogSafe(user) + " \"" + LogSafe(req.method) + " /webapi\" " +
                 LogSafe(call.api.empty() ? "-" : call.api + " v" + std::to_string(call.version) + " " + call.method) +
                 " " + std::to_string(res.status) + " " + outcome + " " + std::to_string(ms) + "ms");
    return res;
}

namespace {

void SecurityHeaders(HttpReply &res) {
    res.Set("X-Content-Type-Options", "nosniff");
    res.Set("X-Frame-Options", "DENY");
    res.Set("Referrer-Policy", "no-referrer");
    res.Set("Content-Security-Policy",
            "default-src 'self'; script-src 'self'; style-src 'self'; img-src 'self' data:; frame-ancestors 'none'");
}

} // namespace

HttpReply Front::Handle(const HttpRequest &req) {
    std::string path, query;
    SplitTarget(req.target, path, query);
    HttpReply res;
    if (path == "/webapi") {
        res = HandleApi(req);
    } else {
        ui_.Serve(req.method, path, res);
        logs_.Access(LogSafe(req.remote) + " - \"" + LogSafe(req.method) + " " + LogSafe(path) + "\" " +
                     std::to_string(res.status));
    }
    SecurityHeaders(res);
    return res;
}

HttpReply Front::Refuse(Refusal why, const HttpRequest &req) {
    HttpReply res;
    int code = kErrUnknown;
    switch (why) {
    case Refusal::kMalformed: res.status = 400; code = kErrHttpMalformed; break;
    case Refusal::kRequestLineTooLong: res.status = 414; code = kErrHttpTooLarge; break;
    case Refusal::kHeaderTooLarge: res.status = 431; code = kErrHttpTooLarge; break;
    case Refusal::kBodyTooLarge: res.status = 413; code = kErrHttpTooLarge; break;
    case Refusal::kTooSlow: res.status = 408; code = kErrHttpTooSlow; break;
    case Refusal::kTooManyConnections: res.status = 503; code = kErrHttpTooMany; break;
    case Refusal::kBusy: res.status = 503; code = kErrServerBusy; break;
    case Refusal::kInternal: res.status = 500; code = kErrUnknown; break;
    }
    Json::Value reply = Error(code);
    Finish(res, reply);
    res.Set("Connection", "close");
    SecurityHeaders(res);
    std::string path, query;
    SplitTarget(req.target, path, query);
    logs_.Access(LogSafe(req.remote) + " - \"" + LogSafe(req.method.empty() ? "-" : req.method) + " " +
                 LogSafe(path.empty() ? "-" : path) + "\" " + std::to_string(res.status) + " error " +
                 std::to_string(code) + " refused");
    return res;
}

} // namespace webd
