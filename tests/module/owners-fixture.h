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

#include <memory>
#include <string>

namespace kova_owners_test {

using kova_module_test::Parse;

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
