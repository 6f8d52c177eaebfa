// A user's share privilege: its own entry, then its groups', then the share default.
#include "share-fixture.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "temp-root.h"

#include <gtest/gtest.h>

namespace {

class SharePriv : public ::testing::Test {
protected:
    void SetUp() override {
        KOVA_SHARE s = kova_share_test::Make("data", root_.At("volumes/volume1/data"));
        s.defaultPriv = KOVA_SHARE_PRIV_RO;
        ASSERT_EQ(KOVAShareSet(&s), 0);
        ASSERT_GE(KOVAUserAdd("alice", -1, "Passw0rd!", nullptr, nullptr, 0), 0);
        ASSERT_GE(KOVAUserAdd("bob", -1, "Passw0rd!", nullptr, nullptr, 0), 0);
        ASSERT_GE(KOVAGroupAdd("staff", -1, nullptr), 0);
        ASSERT_GE(KOVAGroupAdd("interns", -1, nullptr), 0);
        ASSERT_GE(KOVAGroupMemberAdd("staff", "alice"), 0);
        ASSERT_GE(KOVAGroupMemberAdd("interns", "alice"), 0);
    }
    int Priv(const char *user) {
        int p = -1;
        return KOVASharePrivGet("data", user, &p) < 0 ? -1 : p;
    }
    kova_test::TempRoot root_;
};

TEST_F(SharePriv, UserThenGroupsThenDefaultAndNoneDenies) {
    EXPECT_EQ(Priv("alice"), KOVA_SHARE_PRIV_RO);  // the share default
    ASSERT_EQ(KOVASharePrivSet("data", 4, "staff", KOVA_SHARE_PRIV_RW), 0);
    EXPECT_EQ(Priv("alice"), KOVA_SHARE_PRIV_RW);
    EXPECT_EQ(Priv("bob"), KOVA_SHARE_PRIV_RO);
    // The user's own entry outranks its groups.
    ASSERT_EQ(KOVASharePrivSet("data", 1, "alice", KOVA_SHARE_PRIV_RO), 0);
    EXPECT_EQ(Priv("alice"), KOVA_SHARE_PRIV_RO);
    ASSERT_EQ(KOVASharePrivSet("data", 1, "alice", KOVA_SHARE_PRIV_RW), 0);
    EXPECT_EQ(Priv("alice"), KOVA_SHARE_PRIV_RW);
    // "none" on any of the user's groups denies, whatever else applies.
    ASSERT_EQ(KOVASharePrivSet("data", 4, "interns", KOVA_SHARE_PRIV_NONE), 0);
    EXPECT_EQ(Priv("alice"), KOVA_SHARE_PRIV_NONE);
    EXPECT_EQ(Priv("bob"), KOVA_SHARE_PRIV_RO);
    ASSERT_EQ(KOVASharePrivSet("data", 1, "bob", KOVA_SHARE_PRIV_NONE), 0);
    EXPECT_EQ(Priv("bob"), KOVA_SHARE_PRIV_NONE);
}

TEST_F(SharePriv, UnknownUserShareOrValue) {
    EXPECT_EQ(Priv("nobody-here"), -1);
    int p;
    EXPECT_LT(KOVASharePrivGet("nope", "alice", &p), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOSHARE);
    EXPECT_LT(KOVASharePrivSet("data", 1, "alice", 3), 0);
    EXPECT_LT(KOVASharePrivSet("data", 2, "alice", KOVA_SHARE_PRIV_RO), 0);
    EXPECT_EQ(Priv("alice"), KOVA_SHARE_PRIV_RO);
}

TEST_F(SharePriv, DeletingAShareDropsItsPrivileges) {
    ASSERT_EQ(KOVASharePrivSet("data", 1, "alice", KOVA_SHARE_PRIV_NONE), 0);
    ASSERT_EQ(KOVAShareDelete("data"), 0);
    KOVA_SHARE s = kova_share_test::Make("data", "/srv/data");
    s.defaultPriv = KOVA_SHARE_PRIV_RW;
    ASSERT_EQ(KOVAShareSet(&s), 0);
    EXPECT_EQ(Priv("alice"), KOVA_SHARE_PRIV_RW);
}

} // namespace
