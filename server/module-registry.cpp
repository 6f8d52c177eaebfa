#include "module-registry.h"

#include <dirent.h>
#include <dlfcn.h>

#include <algorithm>
#include <set>

namespace webd {

namespace {

std::string CheckRows(const KOVA_API_ENTRY *table, std::vector<Route> &rows) {
    if (table == nullptr) return "GetAPITable returned NULL";
    for (size_t i = 0; i < kMaxTableRows; ++i) {
        const KOVA_API_ENTRY &e = table[i];
        if (!e.szAPI && !e.szMethod && !e.handler && e.version == 0)
            return rows.empty() ? "the table has no rows" : "";
        std::string at = "row " + std::to_string(i + 1) + ": ";
        if (!e.szAPI) return at + "API name is NULL";
        if (!e.szMethod) return at + "method name is NULL";
        if (!e.handler) return at + "handler is NULL";
        if (e.version < 1) return at + "version " + std::to_string(e.version) + " is below 1";
        if (!*e.szAPI) return at + "API name is empty";
        if (!*e.szMethod) return at + "method name is empty";
        Route r;
        r.api = e.szAPI;
        r.version = e.version;
        r.method = e.szMethod;
        r.handler = e.handler;
        rows.push_back(std::move(r));
    }
    return "no end row within " + std::to_string(kMaxTableRows) + " rows";
}

} // namespace

std::string ValidateTable(const KOVA_API_ENTRY *table, std::vector<Route> &rows) {
    std::vector<Route> found;
    std::string why = CheckRows(table, found);
    rows.clear();
    if (why.empty()) rows.swap(found);
    return why;
}

ModuleRegistry::~ModuleRegistry() {
    // Modules stay mapped for the life of the process: forked tasks and
    // static objects of a module may still refer to its code at exit.
}

bool ModuleRegistry::Add(const std::vector<Route> &rows, std::string *why) {
    std::set<Key> fresh;
    for (const Route &r : rows) {
        Key k(r.api, r.version, r.method);
        if (routes_.count(k) || !fresh.insert(k).second) {
            if (why) *why = r.api + " v" + std::to_string(r.version) + " " + r.method + " is already served";
            return false;
        }
        if (r.api.compare(0, 12, "KOVA.Server.") == 0 && r.origin != "built-in") {
            if (why) *why = r.api + " is reserved for the server";
            return false;
        }
    }
    for (const Route &r : rows) routes_[Key(r.api, r.version, r.method)] = r;
    return true;
}

void ModuleRegistry::Drop(const std::vector<Route> &rows) {
    for (const Route &r : rows) routes_.erase(Key(r.api, r.version, r.method));
}

bool ModuleRegistry::LoadModule(const std::string &file, const LogFn &log) {
    std::string base = file.substr(file.find_last_of('/') + 1);
    void *h = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!h) {
        const char *e = dlerror();
        log("module " + base + " refused: cannot load: " + (e ? e : "unknown error"));
        return false;
    }
    auto fn = reinterpret_cast<KOVA_GET_API_TABLE>(dlsym(h, KOVA_GET_API_TABLE_SYMBOL));
    if (!fn) {
        log("module " + base + " refused: no " KOVA_GET_API_TABLE_SYMBOL " symbol");
        dlclose(h);
        return false;
    }
    std::vector<Route> rows;
    std::string why = ValidateTable(fn(), rows);
    if (why.empty()) {
        for (Route &r : rows) r.origin = base;
        Add(rows, &why);  // sets why only when a row is taken
    }
    if (!why.empty()) {
        log("module " + base + " refused: malformed API table: " + why);
        dlclose(h);
        return false;
    }
    handles_.push_back(h);
    log("module " + base + " loaded: " + std::to_string(rows.size()) + " methods");
    return true;
}

int ModuleRegistry::LoadDir(const std::string &dir, const LogFn &log) {
    DIR *d = opendir(dir.c_str());
    if (!d) {
        log("modules folder " + dir + " cannot be read");
        return 0;
    }
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d)) {
        std::string n = e->d_name;
        if (n.size() > 3 && n.compare(n.size() - 3, 3, ".so") == 0) names.push_back(n);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    int loaded = 0;
    for (const std::string &n : names) loaded += LoadModule(dir + "/" + n, log) ? 1 : 0;
    return loaded;
}

ModuleRegistry::Lookup ModuleRegistry::Find(const std::string &api, int version, const std::string &method,
                                            const Route **route) const {
    auto it = routes_.find(Key(api, version, method));
    if (it != routes_.end()) {
        if (route) *route = &it->second;
        return Lookup::kFound;
    }
    bool apiSeen = false, versionSeen = false;
    for (auto lo = routes_.lower_bound(Key(api, 0, "")); lo != routes_.end() && std::get<0>(lo->first) == api; ++lo) {
        apiSeen = true;
        if (std::get<1>(lo->first) == version) versionSeen = true;
    }
    if (!apiSeen) return Lookup::kNoAPI;
    return versionSeen ? Lookup::kNoMethod : Lookup::kNoVersion;
}

Json::Value ModuleRegistry::Describe() const {
    Json::Value out(Json::arrayValue);
    for (auto it = routes_.begin(); it != routes_.end();) {
        const std::string &api = std::get<0>(it->first);
        int version = std::get<1>(it->first);
        Json::Value item(Json::objectValue);
        item["api"] = api;
        item["version"] = version;
        item["origin"] = it->second.origin;
        Json::Value methods(Json::arrayValue);
        for (; it != routes_.end() && std::get<0>(it->first) == api && std::get<1>(it->first) == version; ++it)
            methods.append(std::get<2>(it->first));
        item["methods"] = methods;
        out.append(item);
    }
    return out;
}

} // namespace webd
