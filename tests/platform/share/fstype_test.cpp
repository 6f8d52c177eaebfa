// File-system types of paths.
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "temp-root.h"

#include <gtest/gtest.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

bool IsTmpfs(const char *p) {
    struct statfs s;
    return statfs(p, &s) == 0 && s.f_type == 0x01021994;
}

// Kernel file systems are pseudo, tmpfs is its own, a final link is not followed.
TEST(FsType, PseudoTmpfsLinksAndMissingPaths) {
    EXPECT_EQ(KOVAGetFSType("/proc", 0), FSTYPE_PSEUDO);
    EXPECT_EQ(KOVAGetFSType("/proc/self/status", 0), FSTYPE_PSEUDO);
    if (access("/sys/kernel", F_OK) == 0) {
        EXPECT_EQ(KOVAGetFSType("/sys/kernel", 0), FSTYPE_PSEUDO);
    }
    if (IsTmpfs("/dev/shm")) {
        EXPECT_EQ(KOVAGetFSType("/dev/shm", 0), FSTYPE_TMPFS);
    }
    EXPECT_LT(KOVAGetFSType("/no/such/path", 0), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOENT);
    EXPECT_LT(KOVAGetFSType(nullptr, 0), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_BADARG);
    kova_test::TempRoot root;
    std::string link = root.At("to-proc");
    ASSERT_EQ(symlink("/proc/self", link.c_str()), 0);
    int own = KOVAGetFSType(root.path().c_str(), 0);
    ASSERT_GE(own, 0);
    ASSERT_NE(own, FSTYPE_PSEUDO);
    EXPECT_EQ(KOVAGetFSType(link.c_str(), 0), own);
}

} // namespace
