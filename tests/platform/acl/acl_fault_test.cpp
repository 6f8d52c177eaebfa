// A failure at any call inside an ACL or owner change leaves the old state or the new.
#include "acl-fixture.h"

#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include <string>
#include <vector>

namespace {

using kova_acl_test::AclFixture;
using V = std::vector<std::string>;

class AclFault : public AclFixture {
protected:
    void TearDown() override { KLIBCFaultClearAll(); }
};

TEST_F(AclFault, SetFailingAtEachCallLeavesOldOrNew) {
    Dir(In("d"));
    File(In("d/f"));
    ASSERT_EQ(SetAcl(In("d"), {"group:2000:allow:r------------:fd--"}), 0);
    const V oldOwn = {"user:1030:allow:r------------:----:0", "everyone:-1:deny:-w-----------:----:0"};
    ASSERT_EQ(SetAcl(In("d/f"), {"user:1030:allow:r------------:----", "everyone:-1:deny:-w-----------:----"}, false), 0);
    const V newOwn = {"user:1031:allow:rwxpdDaARWcCo:----:0", "group:2001:deny:r------------:----:0",
                      "system:-1:allow:r------------:----:0"};

    // Built before any fault is armed: only the set itself may fail.
    PKOVA_ACL next = kova_acl_test::MakeAcl({"user:1031:allow:rwxpdDaARWcCo:----", "group:2001:deny:r------------:----",
                                             "system:-1:allow:r------------:----"},
                                            true);
    ASSERT_NE(next, nullptr);

    int failures = 0;
    bool succeeded = false;
    for (int n = 1; n < 200 && !succeeded; ++n) {
        KLIBCFaultClearAll();
        ASSERT_EQ(KLIBCFaultSet("*", n, -1, KOVA_ERR_FAULT), 0);
        int rc = KOVAACLSet(In("d/f").c_str(), -1, next);
        KLIBCFaultClearAll();
        V own;
        bool inherits = false;
        ASSERT_TRUE(GetAcl(In("d/f"), KOVA_ACL_GET_OWN, own, &inherits)) << "call " << n;
        if (rc == 0) {
            EXPECT_EQ(own, newOwn) << "call " << n;
            EXPECT_TRUE(inherits);
            succeeded = true;
        } else {
            ++failures;
            EXPECT_EQ(own, oldOwn) << "call " << n;
            EXPECT_FALSE(inherits) << "call " << n;
        }
    }
    KOVAACLFree(next);
    EXPECT_TRUE(succeeded);
    EXPECT_GE(failures, 2);  // the set itself and at least one call inside it
    V all;
    ASSERT_TRUE(GetAcl(In("d/f"), KOVA_ACL_GET_ALL, all));
    EXPECT_EQ(all.back(), "group:2000:allow:r------------:fd--:1");
}

TEST_F(AclFault, OwnerChangeFailingAtEachCallLeavesOldOrNew) {
    File(In("f"));
    ASSERT_EQ(SetAcl(In("f"), {"everyone:-1:allow:r------------:----"}), 0);
    KOVA_ACL_ID group{KOVA_ACL_ID_GROUP, 2000};
    ASSERT_EQ(KOVAACLOwnerIdSet(In("f").c_str(), &group), 0);
    bool succeeded = false;
    for (int n = 1; n < 200 && !succeeded; ++n) {
        KLIBCFaultClearAll();
        ASSERT_EQ(KLIBCFaultSet("*", n, -1, KOVA_ERR_FAULT), 0);
        KOVA_ACL_ID user{KOVA_ACL_ID_USER, 1030};
        int rc = KOVAACLOwnerIdSet(In("f").c_str(), &user);
        KLIBCFaultClearAll();
        struct stat st;
        ASSERT_EQ(lstat(In("f").c_str(), &st), 0);
        if (rc == 0) {
            succeeded = true;
        } else {
            EXPECT_EQ(st.st_uid, 0u) << "call " << n;
        }
        // The user asked for, or the group as it was.
        EXPECT_EQ(kova_acl_test::OwnerOf(In("f")), rc == 0 ? "user:1030" : "group:2000") << "call " << n;
    }
    EXPECT_TRUE(succeeded);
}

// System calls seen by the owner change below.
int gChowns = 0;
int gChownFlags = 0;
int CountingFchownat(int dirFd, const char *name, uid_t uid, gid_t gid, int flags) {
    ++gChowns;
    gChownFlags |= flags;
    return kova_internal::RealSysCalls().fchownat(dirFd, name, uid, gid, flags);
}
int FailingSetxattrat(int, const char *, int, const char *, const void *, size_t, int) {
    errno = EIO;
    return -1;
}
int FailingSetxattr(const char *, const char *, const void *, size_t, int) {
    errno = EIO;
    return -1;
}

// A user owner replacing a group owner whose record write fails puts the uid back, through the judged folder.
TEST_F(AclFault, OwnerChangeWhoseRecordWriteFailsPutsTheUidBack) {
    File(In("f"));
    const KOVA_ACL_ID group{KOVA_ACL_ID_GROUP, 2000};
    ASSERT_EQ(KOVAACLOwnerIdSet(In("f").c_str(), &group), 0);
    const std::string record = kova_acl_test::RawRecord(In("f"));
    using kova_internal::ScopedSysCall;
    using kova_internal::SysCalls;
    gChowns = 0;
    gChownFlags = 0;
    {
        ScopedSysCall<decltype(SysCalls::fchownat)> chown(&SysCalls::fchownat, CountingFchownat);
        ScopedSysCall<decltype(SysCalls::setxattrat)> setAt(&SysCalls::setxattrat, FailingSetxattrat);
        ScopedSysCall<decltype(SysCalls::setxattr)> set(&SysCalls::setxattr, FailingSetxattr);
        const KOVA_ACL_ID user{KOVA_ACL_ID_USER, 1030};
        EXPECT_LT(KOVAACLOwnerIdSet(In("f").c_str(), &user), 0);
        EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
    }
    EXPECT_EQ(gChowns, 2);  // the change and its undoing
    EXPECT_TRUE(gChownFlags & AT_SYMLINK_NOFOLLOW);
    struct stat st;
    ASSERT_EQ(lstat(In("f").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(kova_acl_test::RawRecord(In("f")), record);
    EXPECT_EQ(kova_acl_test::OwnerOf(In("f")), "group:2000");
}

} // namespace
