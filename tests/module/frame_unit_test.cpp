// The request frame's shared checks and owner mapping, run in-process as
// root against a real platform root.
#include "acl.h"
#include "module-host.h"
#include "platform-fixture.h"

#include "kova/fault.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <syslog.h>

#include <cstdio>

namespace {

class Frame : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        root_ = new kova_host::PlatformRoot();
        ASSERT_TRUE(root_->AddUser("alice")) << root_->lastError();
        ASSERT_TRUE(root_->AddGroup("staff")) << root_->lastError();
        share_ = root_->AddShare("docs");
        ASSERT_FALSE(share_.empty()) << root_->lastError();
    }
    static void TearDownTestSuite() {
        delete root_;
        root_ = nullptr;
    }
    void SetUp() override {
        KLIBCFaultClearAll();
        kova_host::StartLogCapture();
    }
    void TearDown() override {
        KLIBCFaultClearAll();
        kova_host::StopLogCapture();
    }
    // The expected host-failure suffix, from the last error as it stands.
    static std::string LastErrorSuffix() {
        char buf[512];
        std::snprintf(buf, sizeof buf, "[0x%04X %s:%d]", KLIBCErrGet(), KLIBCErrorGetFile(), KLIBCErrorGetLine());
        return buf;
    }
    static kova_host::PlatformRoot *root_;
    static std::string share_;
};
kova_host::PlatformRoot *Frame::root_ = nullptr;
std::string Frame::share_;

TEST_F(Frame, OwnersMapToAclIdentities) {
    const struct {
        const char *type;
        const char *name;
        int idType;
        int id;
    } cases[] = {
        {"user", "alice", KOVA_ACL_ID_USER, root_->Uid("alice")},
        {"group", "staff", KOVA_ACL_ID_GROUP, root_->Gid("staff")},
        {"everyone", "", KOVA_ACL_ID_EVERYONE, -1},
        {"authenticated_user", "x", KOVA_ACL_ID_AUTHUSER, -1},
        {"system", "x", KOVA_ACL_ID_SYSTEM, -1},
    };
    KOVA_ACL_ID id = {0, 0};
    for (const auto &c : cases) {
        id = {0, 0};
        ASSERT_TRUE(Owner2AclId(c.type, c.name, id)) << c.type;
        EXPECT_EQ(c.idType, id.idType) << c.type;
        EXPECT_EQ(c.id, id.id) << c.type;
    }

    // "owner" is a valid rule type but not an owner identity; types are
    // case-sensitive. None of these log.
    id = {42, 42};
    for (const char *type : {"owner", "User", "GROUP", "Everyone", "", "users"}) EXPECT_FALSE(Owner2AclId(type, "alice", id)) << type;
    EXPECT_EQ(42, id.idType);
    EXPECT_TRUE(kova_host::StopLogCapture().empty());
}

TEST_F(Frame, UnknownOwnersAreLoggedWithTheHostError) {
    KOVA_ACL_ID id = {0, 0};
    EXPECT_FALSE(Owner2AclId("user", "ghost", id));
    const std::string userSuffix = LastErrorSuffix();
    EXPECT_NE(0, KLIBCErrGet());
    EXPECT_FALSE(Owner2AclId("group", "ghosts", id));
    const std::string groupSuffix = LastErrorSuffix();
    std::vector<kova_host::LogLine> logs = kova_host::StopLogCapture();
    ASSERT_EQ(2u, logs.size());
    EXPECT_EQ(LOG_ERR, logs[0].priority);
    EXPECT_EQ("acl:130 Failed to get user 'ghost' " + userSuffix, logs[0].text);
    EXPECT_EQ(LOG_ERR, logs[1].priority);
    EXPECT_EQ("acl:140 Failed to load group 'ghosts' " + groupSuffix, logs[1].text);
}

TEST_F(Frame, UserLookupSucceedsOnlyOnZero) {
    // A user lookup that answers 1 is a failure even for an existing user.
    KLIBCFaultSet("KOVAUserGet", 0, 1, 0x0800);
    KOVA_ACL_ID id = {0, 0};
    EXPECT_FALSE(Owner2AclId("user", "alice", id));
    std::vector<kova_host::LogLine> logs = kova_host::StopLogCapture();
    ASSERT_EQ(1u, logs.size());
    const std::string prefix = "acl:130 Failed to get user 'alice' [0x0800 ";
    EXPECT_EQ(prefix, logs[0].text.substr(0, prefix.size()));
}

TEST_F(Frame, FileSystemTypesAreJudgedInOrder) {
    KOVA::APIRequest request(Json::Value(Json::objectValue), "admin", "s");
    KOVA::APIResponse response;
    const std::string path = share_;

    struct Case {
        int fsType;
        bool checkSupport;
        long supportAnswer;  // armed for KOVAACLIsSupport; -2: not armed
        bool ok;
        int code;
    } cases[] = {
        {14, true, 0, false, 6212},   // refused before any support check
        {8, true, 0, false, 6212},    {9, true, 1, false, 6212}, {6, false, -2, false, 6212},
        {5, true, 0, false, 6201},    // support is checked before the outright refusal
        {5, false, -2, false, 6202},  {0, true, 1, false, 6202}, {18, false, -2, false, 6202},
        {10, false, -2, false, 6203}, {11, true, 1, false, 6203}, {12, false, -2, false, 6204},
        {13, false, -2, false, 6204}, {15, false, -2, false, 6204},
        {2, true, 0, false, 6201},    {2, true, -1, true, 6200},  // an error answer is not a "no"
        {2, true, -2, true, 6200},    {7, false, -2, true, 6200}, {3, true, -2, true, 6200},
    };
    for (const Case &c : cases) {
        KLIBCFaultClearAll();
        if (c.supportAnswer != -2) KLIBCFaultSet("KOVAACLIsSupport", 0, c.supportAnswer, 0x0D00);
        ACLHandler handler(&request, &response);
        EXPECT_EQ(c.ok, handler.CheckFsType(c.fsType, path, c.checkSupport)) << "type " << c.fsType;
        EXPECT_EQ(c.code, handler.errorCode()) << "type " << c.fsType;
    }
    EXPECT_FALSE(response.IsSet()) << "the checks never answer the request";
}

TEST_F(Frame, SharedFolderLookup) {
    KOVA::APIRequest request(Json::Value(Json::objectValue), "admin", "s");
    KOVA::APIResponse response;
    ACLHandler handler(&request, &response);
    ASSERT_TRUE(root_->MakeDir(share_ + "/sub"));

    std::string out = "before";
    EXPECT_FALSE(handler.IsPathUnderSharedFolder("", out));
    EXPECT_EQ("before", out);
    EXPECT_TRUE(kova_host::StopLogCapture().empty()) << "an empty path is a silent no";

    kova_host::StartLogCapture();
    ASSERT_TRUE(handler.IsPathUnderSharedFolder(share_ + "/sub", out));
    char *real = realpath(share_.c_str(), nullptr);
    ASSERT_NE(nullptr, real);
    EXPECT_EQ(std::string(real), out);
    free(real);
    EXPECT_TRUE(handler.IsPathUnderSharedFolder(share_ + "/sub/not-yet"));

    out = "before";
    EXPECT_FALSE(handler.IsPathUnderSharedFolder(root_->At("etc"), out));
    EXPECT_FALSE(handler.IsPathUnderSharedFolder(share_ + "/../../../etc"));
    EXPECT_EQ("before", out);
    std::vector<kova_host::LogLine> logs = kova_host::StopLogCapture();
    ASSERT_EQ(2u, logs.size());
    for (const auto &line : logs) {
        EXPECT_EQ(LOG_ERR, line.priority);
        EXPECT_EQ("acl:1943 failed to get share name from path", line.text);
    }
}

} // namespace
