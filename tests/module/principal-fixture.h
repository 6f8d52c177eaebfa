// The platform root the effective-permission tests (inspect and
// check_self_denied) start from: group "staff" (gid 3001) holding "alice"
// (uid 2001), the user "bob" (uid 2002, not in staff) and the ACL-enabled
// share "docs" (share_). A derived fixture adds its own accounts and files
// after calling this SetUp.
#ifndef KOVA_TEST_PRINCIPAL_FIXTURE_H
#define KOVA_TEST_PRINCIPAL_FIXTURE_H

#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include <gtest/gtest.h>

#include <string>

class PrincipalFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(host().ok()) << host().error();
        ASSERT_TRUE(root_.AddGroup("staff", 3001)) << root_.lastError();
        ASSERT_TRUE(root_.AddUser("alice", 2001)) << root_.lastError();
        ASSERT_TRUE(root_.AddUser("bob", 2002)) << root_.lastError();
        ASSERT_TRUE(root_.AddMember("staff", "alice")) << root_.lastError();
        share_ = root_.AddShare("docs");
        ASSERT_FALSE(share_.empty()) << root_.lastError();
    }

    static const kova_host::ModuleHost &host() { return kova_host::ModuleHost::Shared(); }

    // inspect of `name` on `path`, asked by the administrator by default.
    static kova_host::CallResult Inspect(const std::string &path, const std::string &type, const std::string &name,
                                         const kova_host::CallOptions &options = kova_host::CallOptions()) {
        return host().Call(
            "inspect", kova_module_test::Params({{"file_path", path}, {"owner_type", type}, {"owner_name", name}}),
            options);
    }

    // The permission mask of a successful answer; fails the test otherwise.
    static unsigned int Mask(const kova_host::CallResult &result) {
        EXPECT_TRUE(result.success()) << result.Dump();
        if (!result.success()) return 0xDEAD0000u;
        EXPECT_EQ(1u, result.data().size()) << result.Dump();
        return kova_module_test::PermissionMask(result.data()["permission"]);
    }

    kova_host::PlatformRoot root_;
    std::string share_;
};

#endif
