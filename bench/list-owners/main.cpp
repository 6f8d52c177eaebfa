// list_owners version 2, one page of 50 for a 3-letter keyword, each source
// alone, called through the shipped module the way the server calls it,
// beside a plain SQLite LIKE scan that computes the same total and page
// from the same rows. Goal for the LDAP source: ours at least 3x faster
// than the scan (ratio <= 0.333).
//
// Usage: bench-list-owners [local-users (100000)] [ldap-users (1000000)]
#include "fill-accounts.h"
#include "sqlite-baseline.h"
#include "timing.h"

#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"
#include "kova/accountdb.h"
#include "kova/klibc.h"
#include "kova/module.h"
#include "kova/webapi.h"

#include <dlfcn.h>
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

using namespace kova_bench;

const char kKeyword[] = "123";
const int kOffset = 100;
const int kLimit = 50;

class Module {
public:
    Module() {
        handle_ = dlopen(KOVA_BENCH_MODULE, RTLD_NOW | RTLD_LOCAL);
        if (!handle_) return;
        auto get = reinterpret_cast<KOVA_GET_API_TABLE>(dlsym(handle_, KOVA_GET_API_TABLE_SYMBOL));
        for (const KOVA_API_ENTRY *e = get ? get() : nullptr; e && e->szAPI; ++e)
            if (e->version == 2 && std::strcmp(e->szMethod, "list_owners") == 0) handler_ = e->handler;
    }
    ~Module() {
        if (handle_) dlclose(handle_);
    }
    bool ok() const { return handler_ != nullptr; }

    Json::Value ListOwners(const std::string &type) const {
        Json::Value params(Json::objectValue);
        params["keyword"] = kKeyword;
        params["offset"] = kOffset;
        params["limit"] = kLimit;
        params["keywordFields"] = Json::Value(Json::objectValue);
        Json::Value scope(Json::objectValue);
        scope["type"] = type;
        params["searchScope"].append(scope);
        KOVA::APIRequest request(params, "admin", "bench");
        KOVA::APIResponse response;
        handler_(&request, &response);
        return response.ToJson();
    }

private:
    void *handle_ = nullptr;
    KOVA_API_HANDLER handler_ = nullptr;
};

std::vector<std::string> Names(const Json::Value &reply, const std::string &suffix) {
    std::vector<std::string> out;
    for (const Json::Value &o : reply["data"]["owners"]) {
        std::string n = o["name"].asString();
        if (!suffix.empty() && n.size() >= suffix.size()) n.resize(n.size() - suffix.size());
        out.push_back(n);
    }
    return out;
}

void Report(const char *what, double ours, double base, bool agree, const char *goal) {
    std::printf("%-34s ours %9.1f ms   plain LIKE scan %9.1f ms   ratio %.3f%s%s\n", what, ours, base, ours / base, goal,
                agree ? "" : "   (RESULTS DIFFER)");
}

bool FillLdap(int users) {
    Words words;
    auto builder = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_LDAP, "");
    if (!builder || !AddLdapUsers(*builder, users, words)) return false;
    for (int i = 0; i < users / 100; ++i) {
        KovaCacheEntry e;
        e.group = true;
        e.name = "group" + std::to_string(i);
        e.desc = "Team " + words.Word(2);
        if (builder->Add(e) != 0) return false;
    }
    if (builder->Commit() != 0) return false;
    KovaLdapConfig cfg;
    cfg.bound = true;
    cfg.uri = "ldap://127.0.0.1:1/";
    cfg.base = "dc=example,dc=com";
    cfg.suffix = "example.com";
    return KovaDirsvc::LdapBind(cfg) == 0;
}

bool LocalBench(const Module &module, int users) {
    Json::Value reply;
    double ours = Median(5, [&] { reply = module.ListOwners("local"); });
    // The same rows the local source searches: users that are not internal,
    // then groups, matched on the upper-cased name.
    Db d;
    std::string path = std::string(KLIBCRootGet()) + "/etc/accounts.db";
    if (sqlite3_open_v2(path.c_str(), &d.db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) return false;
    const std::string rows = "SELECT name FROM users WHERE internal = 0 AND upper(name) LIKE ?1 UNION ALL "
                             "SELECT name FROM groups WHERE upper(name) LIKE ?1";
    Scan scan;
    double base = Median(5, [&] {
        scan = LikeScan(d.db, "SELECT count(*) FROM (" + rows + ")",
                        "SELECT name FROM (" + rows + ") LIMIT " + std::to_string(kLimit) + " OFFSET " +
                            std::to_string(kOffset),
                        std::string("%") + kKeyword + "%");
    });
    const bool agree = reply["data"]["total"].asInt64() == scan.total && Names(reply, "").size() == scan.page.size();
    char what[128];
    std::snprintf(what, sizeof(what), "local, %d users (%lld match):", users, scan.total);
    Report(what, ours, base, agree, "");
    return agree;
}

bool LdapBench(const Module &module, int users) {
    Json::Value reply;
    double ours = Median(5, [&] { reply = module.ListOwners("ldap"); });
    char path[4096];
    if (KOVAACCOUNTDBGetPath(KOVA_ACCOUNTDB_LDAP, 0, KOVA_ACCOUNTDB_TYPE_ENUM, nullptr, path, sizeof(path)) != 0)
        return false;
    Db d;
    if (sqlite3_open_v2(path, &d.db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) return false;
    // Users then groups, each with its own count and the page carried over,
    // as the two LDAP sources run.
    Scan usersScan, groupsScan;
    const std::string pattern = std::string("%") + kKeyword + "%";
    double base = Median(3, [&] {
        usersScan = LikeScan(d.db, "SELECT count(*) FROM users WHERE name_upper LIKE ?1 ESCAPE '\\'",
                             "SELECT name, mail, fullname, desc FROM users WHERE name_upper LIKE ?1 ESCAPE '\\' "
                             "ORDER BY rowid LIMIT " + std::to_string(kLimit) + " OFFSET " + std::to_string(kOffset),
                             pattern);
        long long offset = std::max<long long>(0, kOffset - usersScan.total);
        long long limit = kLimit - static_cast<long long>(usersScan.page.size());
        groupsScan = LikeScan(d.db, "SELECT count(*) FROM groups WHERE name_upper LIKE ?1 ESCAPE '\\'",
                              "SELECT name, desc FROM groups WHERE name_upper LIKE ?1 ESCAPE '\\' ORDER BY rowid LIMIT " +
                                  std::to_string(limit) + " OFFSET " + std::to_string(offset),
                              pattern);
    });
    std::vector<std::string> expected = usersScan.page;
    expected.insert(expected.end(), groupsScan.page.begin(), groupsScan.page.end());
    const bool agree = reply["data"]["total"].asInt64() == usersScan.total + groupsScan.total &&
                       Names(reply, "@example.com") == expected;
    char what[128];
    std::snprintf(what, sizeof(what), "ldap, %d users (%lld match):", users, usersScan.total + groupsScan.total);
    Report(what, ours, base, agree, "   (goal <= 0.333)");
    return agree;
}

} // namespace

int main(int argc, char **argv) {
    const int localUsers = argc > 1 ? std::atoi(argv[1]) : 100000;
    const int ldapUsers = argc > 2 ? std::atoi(argv[2]) : 1000000;
    if (localUsers < 1 || ldapUsers < 1) {
        std::fprintf(stderr, "usage: bench-list-owners [local-users] [ldap-users]\n");
        return 2;
    }
    char root[] = "/tmp/kova-bench-list-owners-XXXXXX";
    if (!mkdtemp(root)) return 1;
    setenv("KOVA_ROOT", root, 1);
    int rc = 1;
    {
        Module module;
        auto t0 = Clock::now();
        if (!module.ok()) {
            std::fprintf(stderr, "cannot load %s: %s\n", KOVA_BENCH_MODULE, dlerror());
        } else if (!FillLocalUsers(localUsers) || !FillLdap(ldapUsers)) {
            std::fprintf(stderr, "cannot fill the platform root (last error 0x%04X)\n", KLIBCErrGet());
        } else {
            std::printf("list_owners v2, keyword \"%s\", offset %d, limit %d; root filled in %.1f s\n", kKeyword, kOffset,
                        kLimit, Ms(t0, Clock::now()) / 1000);
            const bool local = LocalBench(module, localUsers);
            const bool ldap = LdapBench(module, ldapUsers);
            rc = local && ldap ? 0 : 1;
        }
    }
    std::string rm = std::string("rm -rf ") + root;
    (void)std::system(rm.c_str());
    return rc;
}
