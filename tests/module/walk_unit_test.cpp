// The set task's tree walk, in-process on real trees: order, depth with few
// descriptors, mounts inside the tree, and folders swapped or moved while
// it runs.
#include "acl/tree-walk.h"

#include "temp-root.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace {

bool NoSkip(const char *name) {
    return std::string(name) == "." || std::string(name) == "..";
}

struct Seen {
    std::vector<std::string> paths;
    std::vector<TreeWalk::Kind> kinds;
    size_t mostOpen = 0;
    TreeWalk::Step last = TreeWalk::Step::kEntry;
};

// Walks `top` to its end, calling `onName` (which may change the tree) for
// every listed name before the walk looks at it.
template <typename OnName>
Seen Walk(const std::string &top, OnName onName) {
    Seen seen;
    std::string path = top;
    TreeWalk walk(path);
    EXPECT_TRUE(walk.Start()) << top;
    for (;;) {
        TreeWalk::Kind kind = TreeWalk::Kind::kPlain;
        seen.last = walk.Next([&](const char *name) { return NoSkip(name) || onName(path, name); }, kind);
        if (seen.last != TreeWalk::Step::kEntry) break;
        seen.paths.push_back(path);
        seen.kinds.push_back(kind);
        if (walk.openLevels() > seen.mostOpen) seen.mostOpen = walk.openLevels();
    }
    return seen;
}

Seen Walk(const std::string &top) {
    return Walk(top, [](const std::string &, const char *) { return false; });
}

int OpenDescriptors() {
    int n = 0;
    if (DIR *d = opendir("/proc/self/fd")) {
        while (readdir(d)) ++n;
        closedir(d);
    }
    return n - 3;  // ".", ".." and the listing's own
}

bool Touch(int dirFd, const char *name) {
    const int fd = openat(dirFd, name, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) return false;
    close(fd);
    return true;
}

class TreeWalkTest : public ::testing::Test {
protected:
    std::string Dir(const std::string &rel) {
        const std::string path = root_.At(rel);
        EXPECT_TRUE(kova_test::MakeDirs(path)) << path;
        return path;
    }
    void File(const std::string &rel) { EXPECT_TRUE(kova_test::WriteFile(root_.At(rel), "x")) << rel; }

    kova_test::TempRoot root_;
};

TEST_F(TreeWalkTest, ReportsEveryEntryOnceParentsFirstAndLinksAsLinks) {
    const std::string top = Dir("top");
    for (const char *rel : {"top/a/b/c", "top/a/e", "top/f"}) Dir(rel);
    for (const char *rel : {"top/a/b/c/1", "top/a/b/2", "top/a/e/3", "top/4"}) File(rel);
    ASSERT_EQ(0, symlink("a", root_.At("top/link").c_str()));
    ASSERT_EQ(0, symlink("/", root_.At("top/a/root").c_str()));

    const Seen seen = Walk(top);
    EXPECT_EQ(TreeWalk::Step::kEnd, seen.last);
    std::map<std::string, TreeWalk::Kind> byPath;
    for (size_t i = 0; i < seen.paths.size(); ++i) {
        const std::string &p = seen.paths[i];
        EXPECT_TRUE(byPath.emplace(p, seen.kinds[i]).second) << "reported twice: " << p;
        const std::string parent = p.substr(0, p.rfind('/'));
        if (parent != top) {
            EXPECT_EQ(TreeWalk::Kind::kDirectory, byPath[parent]) << p << " before its folder";
        }
    }
    const std::map<std::string, TreeWalk::Kind> want = {
        {top + "/a", TreeWalk::Kind::kDirectory},     {top + "/a/b", TreeWalk::Kind::kDirectory},
        {top + "/a/b/c", TreeWalk::Kind::kDirectory}, {top + "/a/e", TreeWalk::Kind::kDirectory},
        {top + "/f", TreeWalk::Kind::kDirectory},     {top + "/a/b/c/1", TreeWalk::Kind::kPlain},
        {top + "/a/b/2", TreeWalk::Kind::kPlain},     {top + "/a/e/3", TreeWalk::Kind::kPlain},
        {top + "/4", TreeWalk::Kind::kPlain},         {top + "/link", TreeWalk::Kind::kLink},
        {top + "/a/root", TreeWalk::Kind::kLink}};
    EXPECT_EQ(want, byPath);

    // The top itself must be a folder, not a link to one.
    std::string link = root_.At("top/link");
    TreeWalk viaLink(link);
    EXPECT_FALSE(viaLink.Start());
    EXPECT_TRUE(viaLink.openFailed());
    EXPECT_TRUE(viaLink.error() == ELOOP || viaLink.error() == ENOTDIR) << viaLink.error();
}

// 5,000 levels, with files listed before and after the next level at some
// of them, walked under a descriptor limit far below the depth.
TEST_F(TreeWalkTest, DeepTreeWithFewDescriptors) {
    // On its own tmpfs: quick to build on a busy disk, and dropped whole.
    const std::string top = Dir("deep");
    ASSERT_EQ(0, mount("tmpfs", top.c_str(), "tmpfs", 0, "size=64m,nr_inodes=20000")) << "mount tmpfs";
    struct Unmount {
        std::string path;
        ~Unmount() { umount2(path.c_str(), MNT_DETACH); }
    } unmount{top};
    const int depth = 5000;
    const std::set<int> withFiles = {1, 2, 3, 47, 48, 49, 50, 97, 500, 2000, 4999, 5000};
    int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    size_t expected = 0;
    for (int level = 1; level <= depth; ++level) {
        ASSERT_EQ(0, mkdirat(fd, "d", 0755)) << level;
        const int next = openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(next, 0) << level;
        close(fd);
        fd = next;
        ++expected;
        if (withFiles.count(level)) {
            ASSERT_TRUE(Touch(fd, "a") && Touch(fd, "z"));
            expected += 2;
        }
    }
    close(fd);

    struct rlimit saved;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    struct rlimit low = saved;
    low.rlim_cur = 128;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &low));
    const int before = OpenDescriptors();
    int most = 0;
    size_t names = 0;
    Seen seen = Walk(top, [&](const std::string &, const char *) {
        if (++names % 16 == 0) {
            const int open = OpenDescriptors();
            if (open > most) most = open;
        }
        return false;
    });
    setrlimit(RLIMIT_NOFILE, &saved);

    EXPECT_EQ(TreeWalk::Step::kEnd, seen.last);
    EXPECT_EQ(expected, seen.paths.size());
    EXPECT_EQ(TreeWalk::kMaxOpenLevels, seen.mostOpen);
    EXPECT_LE(most - before, static_cast<int>(TreeWalk::kMaxOpenLevels) + 1);
    // Parents first: the chain comes in depth order, each file after its
    // folder.
    std::string chain = top;
    size_t level = 0;
    std::set<std::string> unique;
    for (const std::string &p : seen.paths) {
        unique.insert(p);
        if (p == chain + "/d") {
            chain = p;
            ++level;
        } else {
            const std::string parent = p.substr(0, p.rfind('/'));
            EXPECT_EQ(0u, chain.compare(0, parent.size(), parent)) << "a file before its folder at level " << level;
        }
    }
    EXPECT_EQ(static_cast<size_t>(depth), level);
    EXPECT_EQ(expected, unique.size());
}

// Nothing on another mount is reported or entered: neither another file
// system nor a bind mount of a folder of the same one.
TEST_F(TreeWalkTest, MountsInsideTheTreeAreNotEntered) {
    const std::string top = Dir("m");
    const std::string tmp = Dir("m/sub/tmp"), bound = Dir("m/bound"), source = Dir("elsewhere");
    File("m/sub/plain");
    File("elsewhere/secret");
    ASSERT_EQ(0, mount("tmpfs", tmp.c_str(), "tmpfs", 0, "size=1m")) << "mount tmpfs";
    struct Unmount {
        std::vector<std::string> points;
        ~Unmount() {
            for (const std::string &p : points) umount2(p.c_str(), MNT_DETACH);
        }
    } unmount{{tmp}};
    ASSERT_TRUE(kova_test::WriteFile(tmp + "/inside", "y"));
    ASSERT_EQ(0, mount(source.c_str(), bound.c_str(), nullptr, MS_BIND, nullptr)) << "bind mount";
    unmount.points.push_back(bound);

    const Seen seen = Walk(top);
    EXPECT_EQ(TreeWalk::Step::kEnd, seen.last);
    EXPECT_EQ((std::set<std::string>{top + "/sub", top + "/sub/plain"}),
              std::set<std::string>(seen.paths.begin(), seen.paths.end()));
    EXPECT_EQ(2u, seen.paths.size());
}

// A folder swapped for a link between its listing and its opening is met
// as the link: nothing of the link's target is listed.
TEST_F(TreeWalkTest, AFolderSwappedForALinkIsNotEntered) {
    const std::string top = Dir("s");
    Dir("s/victim");
    File("s/victim/own");
    Dir("outside");
    File("outside/secret");
    bool swapped = false;
    const Seen seen = Walk(top, [&](const std::string &, const char *name) {
        if (std::string(name) == "victim" && !swapped) {
            swapped = rename((top + "/victim").c_str(), root_.At("moved").c_str()) == 0 &&
                      symlink(root_.At("outside").c_str(), (top + "/victim").c_str()) == 0;
        }
        return false;
    });
    ASSERT_TRUE(swapped);
    EXPECT_EQ(TreeWalk::Step::kEnd, seen.last);
    ASSERT_EQ(1u, seen.paths.size());
    EXPECT_EQ(top + "/victim", seen.paths[0]);
    EXPECT_EQ(TreeWalk::Kind::kLink, seen.kinds[0]);
}

// A folder whose descriptor was given up (deeper than the open levels) is
// taken back only if it is the same folder: a subtree moved elsewhere
// meanwhile ends the walk instead of going on in the new place.
TEST_F(TreeWalkTest, AClosedFolderIsOnlyTakenBackIfItIsTheSameOne) {
    const std::string top = Dir("t");
    std::string rel = "t/x";
    const size_t deep = TreeWalk::kMaxOpenLevels + 10;
    for (size_t i = 0; i < deep; ++i) rel += "/d";
    Dir(rel);
    Dir("away");
    File("away/secret");
    bool moved = false;
    const Seen seen = Walk(top, [&](const std::string &path, const char *) {
        // At the bottom, move the first folder below the top out of the
        // tree: its parent is now "away", not the top.
        if (!moved && path.size() > top.size() + 2 * deep)
            moved = rename((top + "/x").c_str(), root_.At("away/x").c_str()) == 0;
        return false;
    });
    ASSERT_TRUE(moved);
    EXPECT_EQ(TreeWalk::Step::kFailed, seen.last);
    for (const std::string &p : seen.paths) EXPECT_EQ(std::string::npos, p.find("secret")) << p;
}

} // namespace
