// The real-path lookup agrees with realpath on every kind of path: plain,
// through links (absolute, relative, chained, to "/"), with "." and "..",
// repeated and trailing slashes, and fails the same way on missing parts,
// files used as folders and link loops.
#include "real-path.h"
#include "temp-root.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

namespace {

// realpath's answer: the path, or "errno:N".
std::string Expected(const std::string &p) {
    char buf[PATH_MAX];
    if (!realpath(p.c_str(), buf)) return "errno:" + std::to_string(errno);
    return buf;
}

std::string Actual(const std::string &p) {
    std::string out;
    int err = kova_share::RealPathOf(p, out);
    return err ? "errno:" + std::to_string(err) : out;
}

TEST(RealPath, AgreesWithRealpath) {
    kova_test::TempRoot root;
    const std::string b = root.path();
    ASSERT_TRUE(kova_test::MakeDirs(b + "/a/b/c"));
    ASSERT_TRUE(kova_test::WriteFile(b + "/a/file", "x"));
    ASSERT_EQ(symlink((b + "/a/b").c_str(), (b + "/abs").c_str()), 0);
    ASSERT_EQ(symlink("a/b", (b + "/rel").c_str()), 0);
    ASSERT_EQ(symlink("../abs", (b + "/a/chain").c_str()), 0);
    ASSERT_EQ(symlink("/", (b + "/top").c_str()), 0);
    ASSERT_EQ(symlink("loop2", (b + "/loop1").c_str()), 0);
    ASSERT_EQ(symlink("loop1", (b + "/loop2").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (b + "/dangling").c_str()), 0);

    for (const char *rel :
         {"/a/b/c", "/a/file", "/abs", "/abs/c", "/rel/c", "/a/chain/c", "/top", "/top/tmp", "/a/./b//c/",
          "/a/b/../b/c", "/abs/../file", "/a/b/c/../../..", "/a/missing", "/a/missing/x", "/a/file/x", "/loop1",
          "/loop1/x", "/dangling", "/dangling/x", "/a/b/c/."}) {
        EXPECT_EQ(Actual(b + rel), Expected(b + rel)) << rel;
    }
    EXPECT_EQ(Actual("/"), "/");
    EXPECT_EQ(Actual("//"), Expected("//"));
}

TEST(RealPath, HandsBackADescriptorOfWhatItResolved) {
    kova_test::TempRoot root;
    const std::string b = root.path();
    ASSERT_TRUE(kova_test::MakeDirs(b + "/a/b"));
    ASSERT_EQ(symlink((b + "/a").c_str(), (b + "/link").c_str()), 0);
    for (const char *rel : {"/a/b", "/link/b"}) {
        std::string out;
        int fd = -1;
        ASSERT_EQ(kova_share::RealPathOf(b + rel, out, &fd), 0) << rel;
        ASSERT_GE(fd, 0) << rel;
        struct stat viaFd, viaPath;
        ASSERT_EQ(fstat(fd, &viaFd), 0);
        ASSERT_EQ(stat((b + "/a/b").c_str(), &viaPath), 0);
        EXPECT_EQ(viaFd.st_ino, viaPath.st_ino) << rel;
        EXPECT_EQ(out, b + "/a/b") << rel;
        close(fd);
    }
    int fd = 7;
    std::string out;
    EXPECT_EQ(kova_share::RealPathOf(b + "/none/b", out, &fd), ENOENT);
    EXPECT_EQ(fd, -1);
}

} // namespace
