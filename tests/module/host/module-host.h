// The test host: runs the shipped module's handlers the way the server does,
// so module tests exercise exactly what ships.
// - ModuleHost dlopen()s $KOVA_BUILD_DIR/modules/libwebapi-KOVA.Core.ACL.so and
//   checks its table with the server's own validation.
// - Call() dispatches through the server's registry in a forked child that
//   takes the login user's ids as the server's worker does (real and saved
//   ids stay 0) or the ids the options give, arms the faults, calls the
//   handler and reports the response and its system-log lines in a frame.
// - This library defines syslog for the test executable (linked with
//   ENABLE_EXPORTS); lines are kept only while a capture is active.
// - Nothing here throws; host-side problems are reported in CallResult.
#ifndef KOVA_TEST_MODULE_HOST_H
#define KOVA_TEST_MODULE_HOST_H

#include "kova/module.h"
#include "module-registry.h"

#include <json/json.h>
#include <sys/types.h>

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace kova_host {

extern const char *const kApi;  // "KOVA.Core.ACL"

struct LogLine {
    int priority;      // as passed to syslog, facility included (LOG_AUTH | LOG_DEBUG = 39)
    std::string text;  // the formatted message
};

// One fault armed in the child just before the handler runs (KLIBCFaultSet).
struct Fault {
    std::string call;  // exported platform name, "Class::Method", or "*"
    int nth;           // 0: every call; N: only the Nth call from arming
    long result;       // what the call returns (pointers: NULL)
    int error;         // the last error it sets
};

enum class Ids {
    LoginUser,  // the login user's uid, primary gid and groups from the accounts
    Root,       // stay at euid 0 / egid 0, no supplementary groups change
    Explicit,   // the uid, gid and groups below
};

struct CallOptions {
    std::string user = "admin";        // GetLoginUserName()
    std::string session = "test-session";
    Ids ids = Ids::LoginUser;
    uid_t uid = 0;                     // Ids::Explicit only
    gid_t gid = 0;
    std::vector<gid_t> groups;
    std::vector<Fault> faults;
    std::vector<std::pair<std::string, std::string>> env;  // set in the child
    // Runs in the child with the request's ids, before the faults are armed
    // and the handler is called.
    std::function<void()> beforeHandler;
};

struct CallResult {
    bool delivered = false;  // false: the call never reached a handler (see hostError)
    std::string hostError;
    Json::Value response;    // APIResponse::ToJson()
    std::vector<LogLine> logs;
    // The child's effective ids right before and right after the handler.
    uid_t euidBefore = 0, euidAfter = 0;
    gid_t egidBefore = 0, egidAfter = 0;

    bool success() const;
    int errorCode() const;   // 0 after success or when not delivered
    const Json::Value &data() const;  // success data (null otherwise)
    bool HasLog(int priority, const std::string &text) const;
    // Every line as "<priority> <text>", one per line (for failure messages).
    std::string LogDump() const;
    std::string Dump() const;  // response + logs, for failure messages
};

class ModuleHost {
public:
    ModuleHost();                               // the shipped module of $KOVA_BUILD_DIR
    explicit ModuleHost(const std::string &libraryPath);
    ~ModuleHost();
    ModuleHost(const ModuleHost &) = delete;
    ModuleHost &operator=(const ModuleHost &) = delete;

    // One host per test process; tests share it.
    static ModuleHost &Shared();

    bool ok() const { return error_.empty(); }
    const std::string &error() const { return error_; }
    const KOVA_API_ENTRY *table() const { return table_; }
    // The handler for a triple, or nullptr.
    KOVA_API_HANDLER Find(const std::string &api, int version, const std::string &method) const;

    CallResult Call(const std::string &api, int version, const std::string &method,
                    const Json::Value &params, const CallOptions &options = CallOptions()) const;
    // "KOVA.Core.ACL", version 1.
    CallResult Call(const std::string &method, const Json::Value &params,
                    const CallOptions &options = CallOptions()) const;

private:
    void Load(const std::string &libraryPath);

    void *handle_ = nullptr;
    const KOVA_API_ENTRY *table_ = nullptr;
    webd::ModuleRegistry registry_;
    std::string error_;
};

// True in sanitizer builds, where every call ends with a leak check in the
// child (a leak makes the call undelivered).
bool LeakCheckActive();

// Default module path: $KOVA_BUILD_DIR/modules/libwebapi-KOVA.Core.ACL.so.
std::string DefaultModulePath();

// Capture control, for tests that call platform code in-process.
void StartLogCapture();
std::vector<LogLine> StopLogCapture();

// Log lines as [[priority, text], ...].
Json::Value LogsToJson(const std::vector<LogLine> &logs);

// Parses JSON text as the server's frames do; false (and a message) on
// malformed input.
bool ParseJson(const std::string &text, Json::Value &out, std::string *error = nullptr);

} // namespace kova_host

#endif
