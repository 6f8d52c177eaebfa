// The module's rights evaluation (what inspect answers) must be what the
// platform enforces: on random trees (fixed seed), every (path, user) pair's
// EffectiveRights over the platform's owner and entries must equal, bit by
// bit, KOVAACLPermGet run under the user's identity.
#include "platform-fixture.h"
#include "request-fixture.h"

#include "as-identity.h"
#include "acl/rights.h"

#include "kova/account.h"
#include "kova/acl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using kova_host::PlatformRoot;

namespace {

using kova_module_test::kPermLetters;  // print order of the 13 bits
const char kInheritLetters[] = "fdin";

struct User {
    const char *name;
    int uid;
    std::vector<const char *> groups;  // besides the primary group
};

// Ordinary users, a member of two groups, a system account, the guest
// (excluded from authenticated users), and two administrators.
const User kUsers[] = {
    {"alice", 2001, {"staff"}},
    {"bob", 2002, {"staff", "other"}},
    {"carol", 2003, {}},
    {"dave", 2004, {"other"}},
    {"svc", 300, {}},
    {"guest", KOVA_UID_GUEST, {}},
    {"admin", KOVA_UID_FIRST_USER, {}},
    {"erin", 2005, {"administrators", "staff"}},
};

const char *const kGroups[] = {"staff", "other", "users", "administrators"};

// The paths of one tree, relative to the share root ("" is the root).
const struct {
    const char *rel;
    bool dir;
} kTree[] = {
    {"", true},      {"a", true},       {"a/b", true},      {"c", true},      {"f0", false},
    {"a/f1", false}, {"a/b/f2", false}, {"a/b/f3", false},  {"c/f4", false},
};

const int kTrees = 36;

class InspectAgreementTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(root_.AddGroup("staff", 3001)) << root_.lastError();
        ASSERT_TRUE(root_.AddGroup("other", 3002)) << root_.lastError();
        for (const User &u : kUsers) {
            if (root_.Uid(u.name) < 0) {
                ASSERT_TRUE(root_.AddUser(u.name, u.uid, u.uid < KOVA_UID_FIRST_USER)) << root_.lastError();
            }
            ASSERT_EQ(u.uid, root_.Uid(u.name)) << u.name;
            for (const char *g : u.groups) ASSERT_TRUE(root_.AddMember(g, u.name)) << root_.lastError();
        }
    }

    // The identity the server would give the user: uid, primary gid and
    // every group of the account.
    kova_test::Identity IdentityOf(const std::string &name) {
        kova_test::Identity id{0, 0, {}};
        PKOVA_USER user = nullptr;
        EXPECT_EQ(0, KOVAUserGet(name.c_str(), &user)) << name;
        if (user) {
            id.uid = user->uid;
            id.gid = user->gid;
        }
        KOVAUserFree(user);
        PKLIBC_SZLIST list = KLIBGroupInfoListGet(name.c_str(), 0);
        EXPECT_NE(nullptr, list) << name;
        for (int i = 0; list && i < list->nItem; ++i) {
            const char *item = KLIBCSzListGet(list, i);
            id.groups.push_back(static_cast<gid_t>(std::strtoul(item ? item : "0", nullptr, 10)));
        }
        KLIBCSzListFree(list);
        return id;
    }

    // KOVAACLPermGet as the user for each path, in one child process; an
    // element is negative when its call (or the child) failed.
    std::vector<long> Enforced(const std::vector<std::string> &paths, const kova_test::Identity &who) {
        std::vector<long> out(paths.size(), -3);
        int fds[2];
        if (pipe(fds) != 0) return out;
        const size_t bytes = out.size() * sizeof(long);
        const int rc = kova_test::RunAs(who, [&]() {
            close(fds[0]);
            std::vector<long> masks;
            for (const std::string &path : paths) {
                unsigned int mask = 0;
                masks.push_back(KOVAACLPermGet(path.c_str(), &mask) < 0 ? -1 : static_cast<long>(mask));
            }
            const bool written = write(fds[1], masks.data(), bytes) == static_cast<ssize_t>(bytes);
            close(fds[1]);
            return written ? 0 : 1;
        });
        close(fds[1]);
        if (rc != 0 || read(fds[0], out.data(), bytes) != static_cast<ssize_t>(bytes)) out.assign(paths.size(), -3);
        close(fds[0]);
        return out;
    }

    // The module's evaluation for `who` from the owner and complete entries
    // (or the mode bits' entries) read as root; negative when unreadable.
    long Evaluated(const std::string &path, const std::string &share, RightsPrincipal who) {
        KOVA_ACL_ID owner = {0, 0};
        if (KOVAACLOwnerIdGet(path.c_str(), &owner) != 0) return -1;
        PKOVA_ACL acl = nullptr;
        const int rc = KOVAACLIsSupport(path.c_str(), -1, KOVA_ACL_SUPPORT_MODE) == 1
                           ? KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_ALL, &acl)
                           : KOVAACLDumpFromMode(path.c_str(), -1, &acl);
        if (rc < 0 || !acl) return -2;
        who.isOwner = EntryMatchesPrincipal(owner, who.id, who.gids, false);
        const long rights = EffectiveRights(who, FixedRights(who, path != share), *acl);
        KOVAACLFree(acl);
        return rights;
    }

    // A user as inspect describes it: its groups and administrator status
    // as the account reports them.
    RightsPrincipal Principal(const User &u, const kova_test::Identity &id) {
        RightsPrincipal who;
        who.id = {KOVA_ACL_ID_USER, u.uid};
        who.gids.assign(id.groups.begin(), id.groups.end());
        who.isAdmin = KLIBGroupIsAdminGroupMemByUid(static_cast<unsigned int>(u.uid), 0) == 1;
        return who;
    }

    PlatformRoot root_;
};

std::string Letters(unsigned int bits, const char *letters) {
    std::string out;
    for (int i = 0; letters[i]; ++i) {
        if (bits & (1u << i)) out += letters[i];
    }
    return out.empty() ? "-" : out;
}

// Inherit letters "fdin" map to the platform's bits f 0x2, d 0x4, i 0x1,
// n 0x8; a random subset of the four letters covers every combination.
std::string InheritText(unsigned int subset) {
    std::string out;
    for (int i = 0; i < 4; ++i) out += (subset & (1u << i)) ? kInheritLetters[i] : '-';
    return out;
}

TEST_F(InspectAgreementTest, TheModulesEvaluationIsWhatThePlatformEnforces) {
    std::mt19937 rng(20261121u);
    auto chance = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    const size_t nUsers = sizeof kUsers / sizeof kUsers[0];
    const size_t nGroups = sizeof kGroups / sizeof kGroups[0];

    std::vector<kova_test::Identity> identities;
    std::vector<RightsPrincipal> principals;
    int admins = 0;
    for (const User &u : kUsers) {
        identities.push_back(IdentityOf(u.name));
        principals.push_back(Principal(u, identities.back()));
        if (principals.back().isAdmin) ++admins;
    }
    ASSERT_EQ(2, admins) << "admin and erin are the administrators";

    int compared = 0, mismatches = 0, inAclMode = 0, groupOwned = 0, inherited = 0;
    for (int tree = 0; tree < kTrees && mismatches < 5; ++tree) {
        const std::string share = root_.AddShare("t" + std::to_string(tree));
        ASSERT_FALSE(share.empty()) << root_.lastError();
        std::ostringstream layout;
        layout << "tree " << tree << ":\n";

        std::vector<std::string> paths;
        for (const auto &node : kTree) {
            const std::string path = node.rel[0] ? share + "/" + node.rel : share;
            paths.push_back(path);
            const User &owner = kUsers[pick(nUsers)];
            const gid_t gid = identities[&owner - kUsers].gid;
            // Folders stay searchable for everyone: the kernel's own check on
            // the way to a path is not what is compared here.
            const mode_t mode = node.dir ? ((rng() % 01000) | 0111) : (rng() % 01000);
            if (node.rel[0]) {
                const bool made = node.dir ? root_.MakeDir(path, mode, owner.uid, gid)
                                           : root_.MakeFile(path, "x", mode, owner.uid, gid);
                ASSERT_TRUE(made) << root_.lastError();
            } else {
                ASSERT_EQ(0, lchown(path.c_str(), owner.uid, gid));
            }
            layout << "  /" << node.rel << " owner " << owner.name << " mode " << std::oct << mode << std::dec;

            if (!chance(70)) {
                layout << " (mode bits)\n";
                continue;
            }
            ++inAclMode;
            std::vector<std::string> entries;
            const int count = static_cast<int>(pick(6));
            for (int e = 0; e < count; ++e) {
                static const char *const kTypes[] = {"user", "group", "owner", "everyone", "authenticated_user", "system"};
                const std::string type = kTypes[pick(6)];
                std::string name = "-";
                if (type == "user") name = kUsers[pick(nUsers)].name;
                if (type == "group") name = kGroups[pick(nGroups)];
                unsigned int perm = 0;
                for (int b = 0; b < 13; ++b) {
                    if (chance(35)) perm |= 1u << b;
                }
                entries.push_back(type + ":" + name + ":" + (chance(35) ? "deny" : "allow") + ":" +
                                  Letters(perm, kPermLetters) + ":" + InheritText(static_cast<unsigned int>(pick(16))));
            }
            const bool inherit = chance(65);
            ASSERT_TRUE(root_.SetAcl(path, entries, inherit)) << root_.lastError();
            layout << (inherit ? " inherits" : " does not inherit");
            if (chance(15)) {
                const char *group = kGroups[pick(nGroups)];
                KOVA_ACL_ID id = {KOVA_ACL_ID_GROUP, root_.Gid(group)};
                ASSERT_EQ(0, KOVAACLOwnerIdSet(path.c_str(), &id)) << path;
                layout << ", group owner " << group;
                ++groupOwned;
            }
            layout << "\n";
            for (const auto &e : entries) layout << "    " << e << "\n";
        }

        // Levels above 0 reach the evaluation only through inheritance.
        for (const std::string &path : paths) {
            PKOVA_ACL acl = nullptr;
            ASSERT_GE(KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_INHERITED, &acl), 0) << path;
            if (acl && acl->pHead) ++inherited;
            KOVAACLFree(acl);
        }

        for (size_t u = 0; u < nUsers && mismatches < 5; ++u) {
            const std::vector<long> enforced = Enforced(paths, identities[u]);
            for (size_t p = 0; p < paths.size(); ++p) {
                const long evaluated = Evaluated(paths[p], share, principals[u]);
                ASSERT_GE(evaluated, 0) << "inputs of " << paths[p] << " unreadable";
                ASSERT_GE(enforced[p], 0) << "KOVAACLPermGet failed for " << kUsers[u].name << " on " << paths[p];
                ++compared;
                if (evaluated != enforced[p]) {
                    ++mismatches;
                    ADD_FAILURE() << "user " << kUsers[u].name << " on /" << kTree[p].rel << ": module 0x" << std::hex
                                  << evaluated << ", platform 0x" << enforced[p] << std::dec << "\n"
                                  << layout.str();
                }
            }
        }
    }
    EXPECT_EQ(kTrees * static_cast<int>(nUsers * (sizeof kTree / sizeof kTree[0])), compared);
    // The sample must actually reach stored ACLs, inherited entries and
    // group owners, or the agreement says little.
    EXPECT_GT(inAclMode, 100);
    EXPECT_GT(inherited, 60);
    EXPECT_GT(groupOwned, 10);
}

// Root passes every platform check but is no ACL principal; the nearest,
// SYSTEM, gets exactly what the entries give it.
TEST_F(InspectAgreementTest, RootDiffersByDesign) {
    const std::string share = root_.AddShare("r");
    ASSERT_FALSE(share.empty()) << root_.lastError();
    const std::string f = share + "/f";
    ASSERT_TRUE(root_.MakeFile(f)) << root_.lastError();
    ASSERT_TRUE(root_.SetAcl(f, {"everyone:-:deny:rwxpdDaARWcCo:----"})) << root_.lastError();

    EXPECT_EQ(std::vector<long>{KOVA_ACL_PERM_ALL}, Enforced({f}, kova_test::Identity{0, 0, {}}));
    RightsPrincipal systemPrincipal;
    systemPrincipal.id = {KOVA_ACL_ID_SYSTEM, -1};
    EXPECT_EQ(0, Evaluated(f, share, systemPrincipal));
}

} // namespace
