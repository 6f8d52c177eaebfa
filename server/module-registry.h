// The table of callable methods, the one place a call is looked up: rows of
// the modules loaded from the modules folder plus the server's built-in APIs.
// A row runs either in a worker as the caller (handler) or in the front
// process itself (front: the sign-in, sign-out and the list of APIs, which
// need the front's sessions and registry). A module is accepted whole or
// refused whole: a malformed table (see sdk/kova/module.h), a missing
// GetAPITable, or a row that repeats an (api, version, method) already
// served refuses it and leaves the registry as it was.
#ifndef KOVA_WEBD_MODULE_REGISTRY_H
#define KOVA_WEBD_MODULE_REGISTRY_H

#include <json/json.h>

#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "kova/module.h"

namespace webd {

// Defined by the front (http-front.h): the call with its request, session
// and reply under way.
struct FrontCall;
using FrontHandler = std::function<Json::Value(FrontCall &)>;

struct Route {
    Route() = default;
    // A row run in a worker, as a module table gives it.
    Route(std::string a, int v, std::string m, KOVA_API_HANDLER h, std::string o)
        : api(std::move(a)), version(v), method(std::move(m)), handler(h), origin(std::move(o)) {}

    std::string api;
    int version = 0;
    std::string method;
    KOVA_API_HANDLER handler = nullptr;  // run in a worker; nullptr for a row run in the front
    std::string origin;                  // module file name, or "built-in"
    FrontHandler front;                  // set: runs in the front process, never in a worker
    bool needsSession = true;            // false only for the sign-in itself

    bool RunsInFront() const { return static_cast<bool>(front); }
};

// Longest table accepted; a table without an end row inside it is refused.
constexpr size_t kMaxTableRows = 4096;

// Checks a module table and copies its rows. Returns "" when valid, else a
// reason a person can read ("row 3: handler is NULL").
std::string ValidateTable(const KOVA_API_ENTRY *table, std::vector<Route> &rows);

class ModuleRegistry {
public:
    using LogFn = std::function<void(const std::string &)>;

    ModuleRegistry() = default;
    ~ModuleRegistry();
    ModuleRegistry(const ModuleRegistry &) = delete;
    ModuleRegistry &operator=(const ModuleRegistry &) = delete;

    // Adds rows under origin; false (and nothing added) when one is taken.
    // Call before the registry is shared between threads.
    bool Add(const std::vector<Route> &rows, std::string *why = nullptr);
    // Takes out the rows of these (api, version, method) keys; an owner of
    // front rows drops them before the objects they call go away.
    void Drop(const std::vector<Route> &rows);
    // Loads one module file; false when refused (reason through log).
    bool LoadModule(const std::string &file, const LogFn &log);
    // Loads every "*.so" of dir in name order; returns how many were accepted.
    int LoadDir(const std::string &dir, const LogFn &log);

    enum class Lookup { kFound, kNoAPI, kNoVersion, kNoMethod };
    Lookup Find(const std::string &api, int version, const std::string &method, const Route **route) const;

    // [{"api":..., "version":N, "methods":[...], "origin":...}], sorted.
    Json::Value Describe() const;

private:
    using Key = std::tuple<std::string, int, std::string>;
    std::map<Key, Route> routes_;
    std::vector<void *> handles_;
};

} // namespace webd

#endif
