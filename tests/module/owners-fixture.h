// The platform root a list_owners test program searches, built once for the
// whole program by the program's own Build function and removed (slapd
// stopped first) when the suite ends. A test whose world could not be built
// stops in SetUp with the reason.
#ifndef KOVA_TEST_OWNERS_FIXTURE_H
#define KOVA_TEST_OWNERS_FIXTURE_H

#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"
#include "slapd.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <functional>
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

// Starts the configured slapd, binds the root to it as the LDAP source
// (suffix "example.com") and fills the LDAP cache. "" or the reason.
inline std::string StartLdapSource(World &w) {
    std::string error;
    if (!w.slapd->Start(&error)) return "slapd: " + error;
    kova_host::PlatformRoot &root = *w.root;
    if (root.Admin({"ldap", "bind", "--uri", w.slapd->uri(), "--base", w.slapd->base(), "--binddn", w.slapd->rootDn(),
                    "--password", w.slapd->rootPassword(), "--suffix", "example.com"}) != 0 ||
        root.Admin({"ldap", "sync"}) != 0)
        return root.lastError();
    return "";
}

// Build returns "" or why the world could not be built.
template <std::string (*Build)(World &)>
class OwnersSuite : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        if (world_) return;
        world_ = new World();
        world_->error = Build(*world_);
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
