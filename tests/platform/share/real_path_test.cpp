// The real-path lookup agrees with realpath on every kind of path, and opens below a
// share root only as RESOLVE_BENEATH allows, with and without openat2.
#include "kova-internal/real-path.h"
#include "temp-root.h"

#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <functional>
#include <memory>
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
    int err = kova_internal::RealPathOf(p, out);
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

// A descriptor of what was resolved comes back; a failed lookup, or one refused for a NUL, leaves none.
TEST(RealPath, HandsBackADescriptorOfWhatItResolvedOrNone) {
    kova_test::TempRoot root;
    const std::string b = root.path();
    ASSERT_TRUE(kova_test::MakeDirs(b + "/a/b"));
    ASSERT_EQ(symlink((b + "/a").c_str(), (b + "/link").c_str()), 0);
    for (const char *rel : {"/a/b", "/link/b"}) {
        std::string out;
        int fd = -1;
        ASSERT_EQ(kova_internal::RealPathOf(b + rel, out, &fd), 0) << rel;
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
    EXPECT_EQ(kova_internal::RealPathOf(b + "/none/b", out, &fd), ENOENT);
    EXPECT_EQ(fd, -1);
    fd = 7;
    out = "untouched";
    EXPECT_EQ(kova_internal::RealPathOf(b + std::string("/a\0/../..", 9), out, &fd), EINVAL);
    EXPECT_EQ(out, "untouched");
    EXPECT_EQ(fd, -1);
}

// "ok:<kernel's name>" of what open() opened, or "errno:N".
std::string Opened(const std::function<int(int *)> &open) {
    int fd = -1;
    const int err = open(&fd);
    if (err) return "errno:" + std::to_string(err);
    std::string name;
    const int nameErr = kova_internal::NameOfFd(fd, name);
    close(fd);
    return nameErr ? "name errno:" + std::to_string(nameErr) : "ok:" + name;
}

struct NoOpenat2 {
    static int Call(int, const char *, const struct open_how *, size_t) {
        errno = ENOSYS;
        return -1;
    }
    kova_internal::ScopedSysCall<decltype(kova_internal::SysCalls::openat2)> scoped{&kova_internal::SysCalls::openat2,
                                                                                   Call};
};

} // namespace

TEST(RealPath, OpensBeneathAFolderAndWithoutLinksWithAndWithoutOpenat2) {
    kova_test::TempRoot root;
    const std::string b = root.path();
    ASSERT_TRUE(kova_test::MakeDirs(b + "/share/a/b"));
    ASSERT_TRUE(kova_test::MakeDirs(b + "/share2"));
    ASSERT_TRUE(kova_test::WriteFile(b + "/share/a/file", "x"));
    ASSERT_EQ(symlink("a/b", (b + "/share/rel").c_str()), 0);
    ASSERT_EQ(symlink((b + "/share/a").c_str(), (b + "/share/abs").c_str()), 0);
    ASSERT_EQ(symlink("../share2", (b + "/share/out").c_str()), 0);
    ASSERT_EQ(symlink("share", (b + "/linked").c_str()), 0);
    const std::string ex = "errno:" + std::to_string(EXDEV);
    const std::string loop = "errno:" + std::to_string(ELOOP);

    for (bool withOpenat2 : {true, false}) {
        std::unique_ptr<NoOpenat2> without(withOpenat2 ? nullptr : new NoOpenat2);
        int base = -1;
        ASSERT_EQ(kova_internal::OpenWithoutLinks(b + "/share", O_DIRECTORY, &base), 0);
        auto below = [&](const std::string &rel, int flags = 0) {
            return Opened([&](int *fd) { return kova_internal::OpenBeneath(base, rel, flags, fd); });
        };
        auto rootAt = [](const std::string &path) {
            return Opened([&](int *fd) { return kova_internal::OpenWithoutLinks(path, O_DIRECTORY, fd); });
        };
        EXPECT_EQ(below(""), "ok:" + b + "/share");
        EXPECT_EQ(below("a/b"), "ok:" + b + "/share/a/b");
        EXPECT_EQ(below("a/./b/../file"), "ok:" + b + "/share/a/file");
        EXPECT_EQ(below("a/file", O_DIRECTORY), "errno:" + std::to_string(ENOTDIR));
        EXPECT_EQ(below("a/missing"), "errno:" + std::to_string(ENOENT));
        // Out by "..", by an absolute name, by a link that leads out.
        EXPECT_EQ(below(".."), ex);
        EXPECT_EQ(below("a/../../share2"), ex);
        EXPECT_EQ(below(b + "/share/a"), ex);
        EXPECT_EQ(below(std::string("a\0/../..", 8)), "errno:" + std::to_string(EINVAL));
        // Links that stay inside are followed by openat2 only; others are refused.
        EXPECT_EQ(below("rel"), withOpenat2 ? "ok:" + b + "/share/a/b" : loop);
        EXPECT_EQ(below("abs"), withOpenat2 ? ex : loop);
        EXPECT_EQ(below("out"), withOpenat2 ? ex : loop);
        close(base);

        // A root is opened only when no component is a link.
        EXPECT_EQ(rootAt(b + "/share/a"), "ok:" + b + "/share/a");
        EXPECT_EQ(rootAt(b + "/linked"), loop);
        EXPECT_EQ(rootAt(b + "/linked/a"), loop);
        EXPECT_EQ(rootAt(b + "/share/rel"), loop);
        EXPECT_EQ(rootAt(b + "/share/../share"), "errno:" + std::to_string(EINVAL));
    }
}
