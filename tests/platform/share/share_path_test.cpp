// Which share holds a path, after links and ".." are resolved.
#include "share-fixture.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/share.h"
#include "kova-internal/sys-calls.h"
#include "temp-root.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

namespace {

using namespace kova_share_test;

class SharePath : public ::testing::Test {
protected:
    void SetUp() override {
        vol_ = root_.At("volumes/volume1");
        ASSERT_TRUE(kova_test::MakeDirs(vol_ + "/data/sub/deep"));
        ASSERT_TRUE(kova_test::MakeDirs(vol_ + "/datax"));
        ASSERT_TRUE(kova_test::MakeDirs(root_.At("outside")));
        ASSERT_EQ(Add("data", vol_ + "/data"), 0);
        ASSERT_EQ(Add("nested", vol_ + "/data/sub"), 0);
        ASSERT_EQ(Add("homes", vol_ + "/homes"), 0);
        ASSERT_TRUE(kova_test::MakeDirs(vol_ + "/homes/alice"));
    }
    kova_test::TempRoot root_;
    std::string vol_;
};

TEST_F(SharePath, LongestRootOnAComponentBoundaryAndMissingFinalComponents) {
    EXPECT_EQ(Lookup(vol_ + "/data"), "data|" + vol_ + "/data");
    EXPECT_EQ(Lookup(vol_ + "/data/"), "data|" + vol_ + "/data");
    EXPECT_EQ(Lookup(vol_ + "/data/sub/deep"), "nested|" + vol_ + "/data/sub");
    EXPECT_EQ(Lookup(vol_ + "/datax"), "err:0x2500");
    EXPECT_EQ(Lookup(vol_ + "/homes/alice"), "homes|" + vol_ + "/homes");
    EXPECT_EQ(Lookup("/"), "err:0x2500");
    EXPECT_EQ(Lookup("relative/path"), "err:0xBE00");
    // A missing final component is resolved through its parent.
    EXPECT_EQ(Lookup(vol_ + "/data/new-file"), "data|" + vol_ + "/data");
    EXPECT_EQ(Lookup(vol_ + "/data/./sub/new"), "nested|" + vol_ + "/data/sub");
    EXPECT_EQ(Lookup(vol_ + "/data/no/such"), "err:0x0600");
}

TEST_F(SharePath, LinksAndDotDotCannotLeaveTheShare) {
    ASSERT_EQ(symlink(root_.At("outside").c_str(), (vol_ + "/data/escape").c_str()), 0);
    EXPECT_EQ(Lookup(vol_ + "/data/escape"), "err:0xBE00");
    EXPECT_EQ(Lookup(vol_ + "/data/escape/file"), "err:0xBE00");
    EXPECT_EQ(Lookup(vol_ + "/data/../datax"), "err:0xBE00");
    EXPECT_EQ(Lookup(vol_ + "/data/sub/../../../outside"), "err:0xBE00");
    // Leaving one share for another by a link is leaving it too.
    ASSERT_EQ(symlink((vol_ + "/homes/alice").c_str(), (vol_ + "/data/to-home").c_str()), 0);
    EXPECT_EQ(Lookup(vol_ + "/data/to-home"), "err:0xBE00");
    // ".." and links that stay inside are fine.
    ASSERT_EQ(symlink((vol_ + "/data/sub").c_str(), (vol_ + "/data/inner").c_str()), 0);
    EXPECT_EQ(Lookup(vol_ + "/data/sub/deep/../new"), "nested|" + vol_ + "/data/sub");
    // ".." out of the nested share is refused, though the place lies in the outer one.
    EXPECT_EQ(Lookup(vol_ + "/data/sub/../new"), "err:0xBE00");
    EXPECT_EQ(Lookup(vol_ + "/data/inner/deep"), "nested|" + vol_ + "/data/sub");
    // A path written outside every share is judged where it really is.
    ASSERT_EQ(symlink((vol_ + "/data").c_str(), root_.At("shortcut").c_str()), 0);
    EXPECT_EQ(Lookup(root_.At("shortcut")), "data|" + vol_ + "/data");
}

TEST_F(SharePath, SmallBuffersAreRefused) {
    char name[3], path[4096];
    EXPECT_LT(KOVAShareNamePathGet((vol_ + "/data").c_str(), name, sizeof name, path, sizeof path), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_RANGE);
    char name2[16], small[8];
    EXPECT_LT(KOVAShareNamePathGet((vol_ + "/data").c_str(), name2, sizeof name2, small, sizeof small), 0);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_RANGE);
}

// Swaps a folder for a link at the first open of `root` after one of
// `after` (when set), so after the path was named.
struct SwapOnRootOpen {
    static std::string root, folder, target, after;
    static bool swapped;
    static int Openat2(int dirFd, const char *name, const struct open_how *how, size_t size) {
        if (!after.empty() && after == name) after.clear();
        if (!swapped && after.empty() && root == name) {
            swapped = true;
            if (rename(folder.c_str(), (folder + ".old").c_str()) != 0 || symlink(target.c_str(), folder.c_str()) != 0)
                std::abort();
        }
        return kova_internal::RealSysCalls().openat2(dirFd, name, how, size);
    }
};
std::string SwapOnRootOpen::root, SwapOnRootOpen::folder, SwapOnRootOpen::target, SwapOnRootOpen::after;
bool SwapOnRootOpen::swapped = false;

// The swap comes before the path is resolved, or once it was reached
// (its last name opened) while it is checked to lie beneath its root.
TEST_F(SharePath, AFolderSwappedForALinkAfterNamingIsNotInTheShare) {
    ASSERT_TRUE(kova_test::MakeDirs(root_.At("outside/deep")));
    SwapOnRootOpen::folder = vol_ + "/data/sub";
    SwapOnRootOpen::target = root_.At("outside");
    for (const char *when : {"resolving", "reached"}) {
        SCOPED_TRACE(when);
        const bool reached = std::string(when) == "reached";
        SwapOnRootOpen::root = reached ? vol_ + "/data/sub" : vol_ + "/data";
        SwapOnRootOpen::after = reached ? "deep" : "";
        SwapOnRootOpen::swapped = false;
        {
            kova_internal::ScopedSysCall<decltype(kova_internal::SysCalls::openat2)> hook(
                &kova_internal::SysCalls::openat2, SwapOnRootOpen::Openat2);
            // Named as the share's folder, judged after it now leads outside.
            EXPECT_EQ(Lookup(vol_ + "/data/sub/deep"), "err:0xBE00");
        }
        EXPECT_TRUE(SwapOnRootOpen::swapped);
        // Now the nested root is a link holding nothing; its folder moved aside is data's.
        EXPECT_EQ(Lookup(vol_ + "/data/sub/deep"), "err:0xBE00");
        EXPECT_EQ(Lookup(vol_ + "/data/sub.old/deep"), "data|" + vol_ + "/data");
        ASSERT_EQ(unlink((vol_ + "/data/sub").c_str()), 0);
        ASSERT_EQ(rename((vol_ + "/data/sub.old").c_str(), (vol_ + "/data/sub").c_str()), 0);
    }
}

} // namespace
