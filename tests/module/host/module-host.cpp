#include "module-host.h"

#include "frame.h"
#include "identity-switch.h"

#include "kova/account.h"
#include "kova/fault.h"
#include "kova/klibc.h"
#include "kova/webapi.h"

#include <dlfcn.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sstream>

// Present only in sanitizer builds: a leak check that the forked call can run
// before it exits with _exit (which skips the check made at normal exit).
extern "C" int __lsan_do_recoverable_leak_check(void) __attribute__((weak));

namespace kova_host {

const char *const kApi = "KOVA.Core.ACL";

namespace {

const Json::Value kNullValue;

// A child that hangs would hang the whole test run; this bounds it. It is a
// safety net, not a timing assertion.
constexpr unsigned kChildAlarmSeconds = 600;

// The child's side of one call; returns the report.
Json::Value RunInChild(KOVA_API_HANDLER handler, const std::string &api, int version, const std::string &method,
                       const Json::Value &params, const CallOptions &options) {
    Json::Value report(Json::objectValue);
    report["delivered"] = false;
    for (const auto &kv : options.env) setenv(kv.first.c_str(), kv.second.c_str(), 1);

    // The ids as the server's worker takes them on.
    if (options.ids != Ids::Root) {
        webd::UserIds ids;
        ids.uid = options.uid;
        ids.gid = options.gid;
        ids.groups = options.groups;
        if (options.ids == Ids::LoginUser && !webd::LookupUserIds(options.user, ids)) {
            report["hostError"] = "ids of login user '" + options.user + "' unavailable, last error " +
                                  std::to_string(KLIBCErrGet());
            return report;
        }
        if (!webd::BecomeUser(ids.uid, ids.gid, ids.groups)) {
            report["hostError"] = "cannot switch to uid " + std::to_string(ids.uid) + " gid " + std::to_string(ids.gid);
            return report;
        }
    }

    try {
        KOVA::APIRequest request(params, options.user, options.session);
        request.SetMethod(api, version, method);
        KOVA::APIResponse response;
        // The child inherits the test process's last error; a request starts
        // with none, as in the server's worker (beforeHandler may plant one).
        KLIBCErrSetEx(0, nullptr, 0);
        if (options.beforeHandler) options.beforeHandler();
        KLIBCFaultClearAll();
        for (const auto &f : options.faults) {
            if (KLIBCFaultSet(f.call.c_str(), f.nth, f.result, f.error) < 0) {
                KLIBCFaultClearAll();
                report["hostError"] = "cannot arm fault for " + f.call;
                return report;
            }
        }
        report["euidBefore"] = static_cast<Json::UInt>(geteuid());
        report["egidBefore"] = static_cast<Json::UInt>(getegid());
        StartLogCapture();
        handler(&request, &response);
        std::vector<LogLine> logs = StopLogCapture();
        report["euidAfter"] = static_cast<Json::UInt>(geteuid());
        report["egidAfter"] = static_cast<Json::UInt>(getegid());
        KLIBCFaultClearAll();
        report["logs"] = LogsToJson(logs);
        if (!response.IsSet()) {
            report["hostError"] = "the handler returned without setting the response";
            report["response"] = Json::Value();
            return report;
        }
        report["response"] = response.ToJson();
        report["delivered"] = true;
    } catch (const std::exception &e) {
        StopLogCapture();
        report["hostError"] = std::string("exception crossed the module boundary: ") + e.what();
    } catch (...) {
        StopLogCapture();
        report["hostError"] = "exception crossed the module boundary";
    }
    return report;
}

} // namespace

// ---- CallResult ---------------------------------------------------------

bool CallResult::success() const { return delivered && response.isObject() && response["success"].asBool(); }

int CallResult::errorCode() const {
    if (!delivered || success()) return 0;
    const Json::Value &err = response["error"];
    return err.isObject() && err["code"].isInt() ? err["code"].asInt() : 0;
}

const Json::Value &CallResult::data() const {
    if (!success() || !response.isMember("data")) return kNullValue;
    return response["data"];
}

bool CallResult::HasLog(int priority, const std::string &text) const {
    for (const auto &line : logs)
        if (line.priority == priority && line.text == text) return true;
    return false;
}

std::string CallResult::LogDump() const {
    std::ostringstream out;
    for (const auto &line : logs) out << line.priority << ' ' << line.text << '\n';
    return out.str();
}

std::string CallResult::Dump() const {
    std::ostringstream out;
    if (!delivered) out << "not delivered: " << hostError << '\n';
    out << "response: " << webd::ToJsonText(response) << '\n' << "logs:\n" << LogDump();
    return out.str();
}

// ---- ModuleHost ---------------------------------------------------------

bool LeakCheckActive() { return __lsan_do_recoverable_leak_check != nullptr; }

std::string DefaultModulePath() {
    const char *dir = std::getenv("KOVA_BUILD_DIR");
    return std::string(dir ? dir : ".") + "/modules/libwebapi-KOVA.Core.ACL.so";
}

ModuleHost::ModuleHost() { Load(DefaultModulePath()); }

ModuleHost::ModuleHost(const std::string &libraryPath) { Load(libraryPath); }

ModuleHost::~ModuleHost() {
    if (handle_) dlclose(handle_);
}

ModuleHost &ModuleHost::Shared() {
    static ModuleHost host;
    return host;
}

void ModuleHost::Load(const std::string &libraryPath) {
    handle_ = dlopen(libraryPath.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char *why = dlerror();
        error_ = "cannot load " + libraryPath + ": " + (why ? why : "unknown");
        return;
    }
    void *sym = dlsym(handle_, KOVA_GET_API_TABLE_SYMBOL);
    if (!sym) {
        error_ = "no GetAPITable in " + libraryPath;
        return;
    }
    const KOVA_API_ENTRY *table = reinterpret_cast<KOVA_GET_API_TABLE>(sym)();
    // The server's own check and lookup: a table it would refuse is refused here.
    std::vector<webd::Route> rows;
    std::string why = webd::ValidateTable(table, rows);
    if (why.empty()) registry_.Add(rows, &why);
    if (!why.empty()) {
        error_ = "malformed API table: " + why;
        return;
    }
    table_ = table;
}

KOVA_API_HANDLER ModuleHost::Find(const std::string &api, int version, const std::string &method) const {
    const webd::Route *route = nullptr;
    if (registry_.Find(api, version, method, &route) != webd::ModuleRegistry::Lookup::kFound) return nullptr;
    return route->handler;
}

CallResult ModuleHost::Call(const std::string &method, const Json::Value &params, const CallOptions &options) const {
    return Call(kApi, 1, method, params, options);
}

CallResult ModuleHost::Call(const std::string &api, int version, const std::string &method, const Json::Value &params,
                            const CallOptions &options) const {
    CallResult result;
    if (!ok()) {
        result.hostError = error_;
        return result;
    }
    KOVA_API_HANDLER handler = Find(api, version, method);
    if (!handler) {
        result.hostError = "no handler for " + api + " v" + std::to_string(version) + " " + method;
        return result;
    }
    int fds[2];
    if (pipe(fds) != 0) {
        result.hostError = std::string("pipe: ") + std::strerror(errno);
        return result;
    }
    pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        result.hostError = std::string("fork: ") + std::strerror(errno);
        return result;
    }
    if (pid == 0) {
        close(fds[0]);
        alarm(kChildAlarmSeconds);
        Json::Value report = RunInChild(handler, api, version, method, params, options);
        // The leak checker stops the process with ptrace, which needs root
        // and a dumpable process again.
        if (__lsan_do_recoverable_leak_check && setresuid(-1, 0, -1) == 0 && setresgid(-1, 0, -1) == 0 &&
            prctl(PR_SET_DUMPABLE, 1) == 0 && __lsan_do_recoverable_leak_check() != 0) {
            report["delivered"] = false;
            report["hostError"] = "memory leaked during the call (see the leak report on stderr)";
        }
        // Framed: the parent stops reading at the report's end, not at EOF,
        // which matters because background tasks a handler starts inherit
        // the pipe.
        webd::WriteFrame(fds[1], report);
        close(fds[1]);
        _exit(0);
    }
    close(fds[1]);
    Json::Value report;
    bool got = webd::ReadFrame(fds[0], report);
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (!got) {
        if (WIFSIGNALED(status))
            result.hostError = "the call's process died by signal " + std::to_string(WTERMSIG(status));
        else
            result.hostError = "the call's process ended without a readable report";
        return result;
    }
    result.delivered = report["delivered"].asBool();
    result.hostError = report["hostError"].asString();
    result.response = report["response"];
    result.euidBefore = report["euidBefore"].asUInt();
    result.egidBefore = report["egidBefore"].asUInt();
    result.euidAfter = report["euidAfter"].asUInt();
    result.egidAfter = report["egidAfter"].asUInt();
    for (const auto &pair : report["logs"]) result.logs.push_back(LogLine{pair[0].asInt(), pair[1].asString()});
    return result;
}

// ---- JSON ---------------------------------------------------------------

Json::Value LogsToJson(const std::vector<LogLine> &logs) {
    Json::Value out(Json::arrayValue);
    for (const auto &line : logs) {
        Json::Value pair(Json::arrayValue);
        pair.append(line.priority);
        pair.append(line.text);
        out.append(pair);
    }
    return out;
}

bool ParseJson(const std::string &text, Json::Value &out, std::string *error) {
    if (webd::ParseJsonText(text, out)) return true;
    if (error) *error = "not JSON text, or nested deeper than " + std::to_string(webd::kMaxFrameDepth);
    return false;
}

} // namespace kova_host
