// The platform root both list_owners programs search, built once per program
// and removed (slapd stopped first) when the suite ends: local accounts
// "kx..." (two internal), names beginning one another, an LDAP cache filled
// from a real slapd and the caches of two Windows domains. A test whose world
// could not be built stops in SetUp with the reason.
#ifndef KOVA_TEST_OWNERS_FIXTURE_H
#define KOVA_TEST_OWNERS_FIXTURE_H

#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"
#include "slapd.h"
#include "temp-root.h"

#include "kova/account.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kova_owners_test {

using kova_host::CallResult;
using kova_module_test::Parse;

// list_owners of `version` with the JSON text `params`.
inline CallResult List(int version, const std::string &params,
                       const kova_host::CallOptions &options = kova_host::CallOptions()) {
    return kova_host::ModuleHost::Shared().Call(kova_host::kApi, version, "list_owners", Parse(params), options);
}

// The reply's entries as "type:name"; with `members`, each entry must have
// exactly that many.
inline std::vector<std::string> Names(const CallResult &r, unsigned members = 0) {
    std::vector<std::string> out;
    for (const Json::Value &o : r.data()["owners"]) {
        EXPECT_EQ(members ? members : o.size(), o.size()) << o;
        out.push_back(o["type"].asString() + ":" + o["name"].asString());
    }
    return out;
}

inline uint64_t Total(const CallResult &r) { return r.data()["total"].asUInt64(); }

// A source that failed costs only its own entries: the reply is a success
// listing `all` but `lost`, in order, and counts just those.
inline void ExpectAllBut(const CallResult &r, const std::vector<std::string> &all,
                         const std::vector<std::string> &lost, const std::string &what, unsigned members = 0) {
    ASSERT_TRUE(r.success()) << what << "\n" << r.Dump();
    std::vector<std::string> expected;
    for (const std::string &name : all)
        if (std::find(lost.begin(), lost.end(), name) == lost.end()) expected.push_back(name);
    EXPECT_EQ(expected, Names(r, members)) << what;
    EXPECT_EQ(expected.size(), Total(r)) << what;
}

// Each window {offset, limit} of `page` is the slice of `all`, counting all.
inline void ExpectPagesAreSlices(const std::vector<std::string> &all, const std::vector<std::pair<int, int>> &windows,
                                 const std::function<CallResult(const std::string &window)> &page) {
    for (const auto &w : windows) {
        const std::string window = "\"offset\": " + std::to_string(w.first) + ", \"limit\": " + std::to_string(w.second);
        CallResult r = page(window);
        ASSERT_TRUE(r.success()) << window << "\n" << r.Dump();
        const size_t begin = std::min<size_t>(w.first, all.size());
        const size_t end = std::min<size_t>(begin + w.second, all.size());
        EXPECT_EQ(std::vector<std::string>(all.begin() + begin, all.begin() + end), Names(r)) << window;
        EXPECT_EQ(all.size(), Total(r)) << window;
    }
}

// Local names beginning one another, in both worlds: the text is found
// anywhere in a name, in any letter case, and a longer text narrows.
struct TextCase {
    const char *text;
    std::vector<std::string> names;
};
inline const TextCase kNamesBeginningOneAnother[] = {
    {"zqpat", {"user:zqpat", "user:zqpatrick", "group:zqpatrol"}},
    {"zqpatr", {"user:zqpatrick", "group:zqpatrol"}},
    {"ZQPATR", {"user:zqpatrick", "group:zqpatrol"}},
    {"zqpatrick", {"user:zqpatrick"}},
    {"trick", {"user:zqpatrick"}},
    {"TROL", {"group:zqpatrol"}},
    {"patro", {"group:zqpatrol"}},
};

struct World {
    std::unique_ptr<kova_host::PlatformRoot> root;
    std::unique_ptr<kova_test::Slapd> slapd;
    std::string error;
};

// Two domains, CORP and BRANCH, each with two users and a group named
// "kxd...", spread over Sales and IT units.
inline bool JoinDomains(kova_host::PlatformRoot &root) {
    const struct {
        const char *domain, *unit, *name, *desc, *mail, *fullname;  // no mail: a group
    } entries[] = {
        {"corp", "Sales", "kxd-dana", "Sales lead", "dana@corp.example", "Dana Sales"},
        {"corp", "IT", "kxd-erik", "Printer wrangler", "erik@corp.example", "Erik Ops"},
        {"corp", "Sales", "kxd-sales-corp", "Corp sellers", nullptr, nullptr},
        {"branch", "Sales", "kxd-fiona", "Branch sales", "fiona@branch.example", "Fiona Field"},
        {"branch", "IT", "kxd-gus", "Network", "gus@branch.example", "Gus Wire"},
        {"branch", "IT", "kxd-it-branch", "Branch IT", nullptr, nullptr},
    };
    std::map<std::string, std::string> ldif;
    for (const auto &e : entries) {
        const std::string name = e.name, rdn = (e.mail ? "uid=" : "cn=") + name;
        ldif[e.domain] += "dn: " + rdn + ",ou=" + e.unit + ",dc=" + e.domain + ",dc=example\n";
        ldif[e.domain] += e.mail ? "objectClass: inetOrgPerson\nuid: " + name + "\ncn: " + e.fullname + "\nsn: " + name +
                                       "\ndisplayName: " + e.fullname + "\nmail: " + e.mail + "\n"
                                 : "objectClass: posixGroup\ncn: " + name + "\ngidNumber: 7000\n";
        ldif[e.domain] += "description: " + std::string(e.desc) + "\n\n";
    }
    for (const auto &d : ldif) kova_test::WriteFile(root.At(d.first + ".ldif"), d.second);
    // Without trusted domains the host knows only the joined one (CORP).
    return root.Admin({"domain", "join", "CORP", "--from-ldif", root.At("corp.ldif")}) == 0 &&
           root.Admin({"domain", "join", "BRANCH", "--from-ldif", root.At("branch.ldif")}) == 0 &&
           root.SetDomainFlag("trusted", true);
}

inline bool AddUser(const char *name, const char *desc, const char *mail, bool internal) {
    return KOVAUserAdd(name, -1, "Passw0rd!", desc, mail, internal ? 1 : 0) >= 0;
}

inline std::string BuildWorld(World &w) {
    w.root.reset(new kova_host::PlatformRoot());
    kova_host::PlatformRoot &root = *w.root;
    // Local accounts named "kx..." so that a keyword isolates them.
    if (!AddUser("kxalice", "Head of Payroll", "alice@corp.example", false) ||
        !AddUser("kxbob", nullptr, nullptr, false) || !AddUser("kxcarol", "Courier", "carol@mail.example", false) ||
        !AddUser("kxdave", "Night shift", nullptr, false) || !AddUser("kxsvc-backup", "Backup agent", nullptr, true) ||
        !AddUser("kxsvc-index", nullptr, nullptr, true))
        return "local users";
    if (KOVAGroupAdd("kxstaff", -1, "Payroll team") < 0 || KOVAGroupAdd("kxsales", -1, nullptr) < 0)
        return "local groups";
    // Names that begin one another, outside the "kx" searches.
    if (!AddUser("zqpat", nullptr, nullptr, false) || !AddUser("zqpatrick", nullptr, nullptr, false) ||
        KOVAGroupAdd("zqpatrol", -1, nullptr) < 0)
        return "local accounts beginning one another";

    if (!kova_test::Slapd::Installed()) return "slapd is not installed";
    w.slapd.reset(new kova_test::Slapd(12, 3));
    w.slapd->Add({"kx_ldap", "Payroll archive", "archive@ldap.example", "Archive Keeper"});
    w.slapd->Add({"kxQldap", "", "", "Look Alike"});
    std::string error;
    if (!w.slapd->Start(&error)) return "slapd: " + error;
    // The LDAP source (suffix "example.com"), its cache filled.
    if (root.Admin({"ldap", "bind", "--uri", w.slapd->uri(), "--base", w.slapd->base(), "--binddn", w.slapd->rootDn(),
                    "--password", w.slapd->rootPassword(), "--suffix", "example.com"}) != 0 ||
        root.Admin({"ldap", "sync"}) != 0 || !JoinDomains(root))
        return root.lastError();
    return "";
}

class OwnersSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (world_) return;
        world_ = new World();
        world_->error = BuildWorld(*world_);
    }
    static void TearDownTestSuite() {
        delete world_;
        world_ = nullptr;
    }

    void SetUp() override {
        ASSERT_TRUE(kova_host::ModuleHost::Shared().ok()) << kova_host::ModuleHost::Shared().error();
        ASSERT_EQ("", world_->error);
    }

    static World &world() { return *world_; }

private:
    static inline World *world_ = nullptr;
};

} // namespace kova_owners_test

#endif
