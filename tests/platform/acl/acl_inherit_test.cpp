// Dynamic inheritance: what ancestors pass down, levels, chain ends, and f, d, i, n.
#include "acl-fixture.h"

#include "kova/acl.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "as-identity.h"
#include "kova-internal/sys-calls.h"

#include <stdio.h>
#include <sys/stat.h>

#include <string>
#include <vector>

namespace {

using kova_acl_test::AclFixture;
using V = std::vector<std::string>;

class AclInherit : public AclFixture {
protected:
    // share root -> a -> b -> f (file); each stores an ACL, the three below the root inherit.
    void BuildTree() {
        Dir(In("a/b"));
        File(In("a/b/f"));
        ASSERT_EQ(SetAcl(Share(), {"group:2000:allow:r------------:fd--"}), 0);
        ASSERT_EQ(SetAcl(In("a"), {"user:1030:allow:-w-----------:fd--"}), 0);
        ASSERT_EQ(SetAcl(In("a/b"), {"user:1031:allow:--x----------:f---"}), 0);
        ASSERT_EQ(SetAcl(In("a/b/f"), {"everyone:-1:allow:------a------:----"}), 0);
    }
    V Get(const std::string &path, int selector) {
        V out;
        EXPECT_TRUE(GetAcl(path, selector, out)) << path << std::hex << " 0x" << KLIBCErrGet();
        return out;
    }
};

TEST_F(AclInherit, SelectorsListOwnAndInheritedEntriesWithLevels) {
    BuildTree();
    const V own = {"everyone:-1:allow:------a------:----:0"};
    const V inherited = {"user:1031:allow:--x----------:f---:1", "user:1030:allow:-w-----------:fd--:2",
                         "group:2000:allow:r------------:fd--:3"};
    V all = own;
    all.insert(all.end(), inherited.begin(), inherited.end());
    EXPECT_EQ(Get(In("a/b/f"), KOVA_ACL_GET_ALL), all);
    EXPECT_EQ(Get(In("a/b/f"), KOVA_ACL_GET_OWN), own);
    EXPECT_EQ(Get(In("a/b/f"), KOVA_ACL_GET_INHERITED), inherited);
    // The share root is where the chain ends, whatever its own flag says.
    EXPECT_EQ(Get(Share(), KOVA_ACL_GET_INHERITED), V());

    // A path that does not inherit gets nothing.
    ASSERT_EQ(SetAcl(In("a/b/f"), {"everyone:-1:allow:------a------:----"}, false), 0);
    EXPECT_EQ(Get(In("a/b/f"), KOVA_ACL_GET_INHERITED), V());
    ASSERT_EQ(SetAcl(In("a/b/f"), {"everyone:-1:allow:------a------:----"}, true), 0);
    // An ancestor that does not inherit contributes and cuts the chain.
    ASSERT_EQ(SetAcl(In("a"), {"user:1030:allow:-w-----------:fd--"}, false), 0);
    EXPECT_EQ(Get(In("a/b/f"), KOVA_ACL_GET_INHERITED),
              V({"user:1031:allow:--x----------:f---:1", "user:1030:allow:-w-----------:fd--:2"}));
    // An ancestor without a stored ACL ends the chain.
    ASSERT_EQ(KOVAACLRemove(In("a/b").c_str(), -1), 0);
    EXPECT_EQ(Get(In("a/b/f"), KOVA_ACL_GET_INHERITED), V());
}

// Renames one folder at the library's first fstatat (the judged entry's own).
std::string gFrom, gTo;
bool gMoved = false;
int MovingFstatat(int dirFd, const char *name, struct stat *st, int flags) {
    if (!gMoved) gMoved = rename(gFrom.c_str(), gTo.c_str()) == 0;
    return kova_internal::RealSysCalls().fstatat(dirFd, name, st, flags);
}

// The walk up ends at the share root wherever it meets it, and fails when the folder the path named as root
// is not it: nothing above the share is passed down.
TEST_F(AclInherit, AWalkUpATreeThatMovedEndsAtTheShareRootOrFails) {
    BuildTree();
    ASSERT_EQ(SetAcl(Share() + "/..", {"user:4242:allow:rwxpdDaARWcCo:fd--"}, false), 0);
    using kova_internal::ScopedSysCall;
    using kova_internal::SysCalls;
    auto getMoving = [&](const std::string &path, const std::string &from, const std::string &to, V &out) {
        gFrom = from;
        gTo = to;
        gMoved = false;
        ScopedSysCall<decltype(SysCalls::fstatat)> hook(&SysCalls::fstatat, MovingFstatat);
        const bool ok = GetAcl(path, KOVA_ACL_GET_INHERITED, out);
        EXPECT_TRUE(gMoved);
        return ok ? 0 : KLIBCErrGet();
    };
    // b moves up beside a: the root is met one step early and the walk ends there.
    V got;
    EXPECT_EQ(getMoving(In("a/b/f"), In("a/b"), In("b"), got), 0);
    EXPECT_EQ(got, V({"user:1031:allow:--x----------:f---:1", "group:2000:allow:r------------:fd--:2"}));
    // b moves below a new inheriting folder x: the named root step reaches a, and fails.
    Dir(In("a/x"));
    ASSERT_EQ(SetAcl(In("a/x"), {"user:1032:allow:r------------:fd--"}), 0);
    EXPECT_EQ(getMoving(In("b/f"), In("b"), In("a/x/b"), got), KOVA_ERR_NOENT);
}

class AclPassDown : public AclFixture {
protected:
    // Share root with D (holding folder E, file G) and file F, all inheriting, no entries.
    void SetUp() override {
        AclFixture::SetUp();
        Dir(In("D/E"));
        File(In("D/G"));
        File(In("F"));
        for (const char *p : {"D", "D/E", "D/G", "F"}) ASSERT_EQ(SetAcl(In(p), {}), 0);
    }
    // Sets one root entry with these inherit letters; "inherit:level" of what reaches D, E, G and F ("" for
    // nothing).
    V Reach(const std::string &inherit) {
        EXPECT_EQ(SetAcl(Share(), {"user:1030:allow:r------------:" + inherit}), 0);
        V out;
        for (const char *p : {"D", "D/E", "D/G", "F"}) {
            V got;
            EXPECT_TRUE(GetAcl(In(p), KOVA_ACL_GET_INHERITED, got));
            std::string s;
            for (const auto &e : got) s += (s.empty() ? "" : ",") + e.substr(e.size() - 6);
            out.push_back(s);
        }
        return out;
    }
};

TEST_F(AclPassDown, FileFolderNoPropagateAndInheritOnlyFlags) {
    //                      D            E            G            F
    EXPECT_EQ(Reach("f---"), V({"f-i-:1", "f-i-:2", "f---:2", "f---:1"}));
    EXPECT_EQ(Reach("-d--"), V({"-d--:1", "-d--:2", "", ""}));
    EXPECT_EQ(Reach("fd--"), V({"fd--:1", "fd--:2", "fd--:2", "fd--:1"}));
    EXPECT_EQ(Reach("----"), V({"", "", "", ""}));
    EXPECT_EQ(Reach("fdi-"), V({"fd--:1", "fd--:2", "fd--:2", "fd--:1"}));
    // No-propagate stops after one level.
    EXPECT_EQ(Reach("fd-n"), V({"---n:1", "", "", "---n:1"}));
    EXPECT_EQ(Reach("-d-n"), V({"---n:1", "", "", ""}));
    EXPECT_EQ(Reach("f--n"), V({"", "", "", "---n:1"}));
    // Inherit-only passes down without applying to its holder: the root's inherit-only entry grants nothing
    // at the root; the copies below do.
    kova_test::Identity user{1030, 1030, {}};
    auto has = [&](const std::string &p) {
        return kova_test::RunAs(user, [&] { return KOVAACLPermCheck(p.c_str(), KOVA_ACL_PERM_READ_DATA); });
    };
    ASSERT_EQ(SetAcl(Share(), {"user:1030:allow:r------------:fdi-"}), 0);
    EXPECT_EQ(has(Share()), 0);
    EXPECT_EQ(has(In("D")), 1);
    EXPECT_EQ(has(In("D/G")), 1);
    // A folder's inherit-only copy (f without d) does not apply to the folder.
    ASSERT_EQ(SetAcl(Share(), {"user:1030:allow:r------------:f---"}), 0);
    EXPECT_EQ(has(In("D")), 0);
    EXPECT_EQ(has(In("D/G")), 1);
}

} // namespace
