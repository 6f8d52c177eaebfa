// The set task's tree walk, in-process, with folders swapped or moved while
// it runs (order, depth and mounts are checked end to end by set_tree_test).
#include "acl/tree-walk.h"

#include "temp-root.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

bool NoSkip(const char *name) {
    return std::string(name) == "." || std::string(name) == "..";
}

struct Seen {
    std::vector<std::string> paths;
    std::vector<TreeWalk::Kind> kinds;
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
    }
    return seen;
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

// A folder whose descriptor was given up is taken back only if it is the
// same one: a subtree moved away meanwhile ends the walk.
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
