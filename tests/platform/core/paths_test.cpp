// The path toolkit every part shares: root boundaries, trailing slashes, MakeDirs and
// the descriptor a real-path lookup holds.
#include "kova-internal/paths.h"
#include "kova-internal/real-path.h"
#include "temp-root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>

namespace {

TEST(Paths, UnderRootOnlyOnAComponentBoundaryAndTrailingSlashes) {
    using kova_internal::UnderRoot;
    EXPECT_TRUE(UnderRoot("/vol/pub", "/vol/pub"));
    EXPECT_TRUE(UnderRoot("/vol/pub/a/b", "/vol/pub"));
    EXPECT_FALSE(UnderRoot("/vol/pub2/a", "/vol/pub"));
    EXPECT_FALSE(UnderRoot("/vol", "/vol/pub"));
    EXPECT_FALSE(UnderRoot("/other", "/vol/pub"));
    EXPECT_TRUE(UnderRoot("/anything", "/"));
    EXPECT_TRUE(UnderRoot("/", "/"));
    EXPECT_FALSE(UnderRoot("relative", "/"));
    EXPECT_FALSE(UnderRoot("", "/"));
    // Trailing slashes go but the root stays.
    using kova_internal::StripTrailingSlashes;
    EXPECT_EQ("/vol/pub", StripTrailingSlashes("/vol/pub//"));
    EXPECT_EQ("/vol/pub", StripTrailingSlashes("/vol/pub"));
    EXPECT_EQ("/", StripTrailingSlashes("///"));
    EXPECT_EQ("/", StripTrailingSlashes("/"));
    EXPECT_EQ("a", StripTrailingSlashes("a/"));
    EXPECT_EQ("", StripTrailingSlashes(""));
}

bool IsDir(const std::string &p) {
    struct stat st;
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(Paths, MakeDirsCreatesParentsAndRefusesAFileInTheWay) {
    kova_test::TempRoot root;
    ASSERT_TRUE(kova_internal::MakeDirs(root.At("a//b/c/")));
    EXPECT_TRUE(IsDir(root.At("a/b/c")));
    EXPECT_TRUE(kova_internal::MakeDirs(root.At("a/b/c")));  // there already
    ASSERT_TRUE(kova_test::WriteFile(root.At("f"), "x"));
    errno = 0;
    EXPECT_FALSE(kova_internal::MakeDirs(root.At("f")));
    EXPECT_EQ(ENOTDIR, errno);
    errno = 0;
    EXPECT_FALSE(kova_internal::MakeDirs(root.At("f/sub")));
    EXPECT_EQ(ENOTDIR, errno);
    EXPECT_FALSE(IsDir(root.At("f/sub")));
}

TEST(Paths, RealPathHoldsTheResolvedDescriptorOrNone) {
    kova_test::TempRoot root;
    ASSERT_TRUE(kova_internal::MakeDirs(root.At("real/dir")));
    ASSERT_EQ(0, symlink(root.At("real").c_str(), root.At("link").c_str()));
    kova_internal::OwnedFd fd;
    std::string out;
    ASSERT_EQ(0, kova_internal::RealPathOf(root.At("link/dir/"), out, fd));
    std::string want;
    ASSERT_EQ(0, kova_internal::RealPathOf(root.At("real/dir"), want));
    EXPECT_EQ(want, out);
    struct stat viaFd, viaPath;
    ASSERT_EQ(0, fstat(fd.get(), &viaFd));
    ASSERT_EQ(0, stat(want.c_str(), &viaPath));
    EXPECT_EQ(viaPath.st_ino, viaFd.st_ino);
    EXPECT_EQ(viaPath.st_dev, viaFd.st_dev);
    // A failed lookup gives up what fd held.
    EXPECT_EQ(ENOENT, kova_internal::RealPathOf(root.At("link/none/x"), out, fd));
    EXPECT_LT(fd.get(), 0);
}

} // namespace
