// What inspect answers for a user must be what the platform enforces for
// that user. On randomly generated trees (fixed seed) with random owners,
// mode bits, stored ACLs and inheritance, every sampled (path, user) pair
// is asked both ways: the module's inspect, and KOVAACLPermGet run under
// the user's own identity. The two masks must agree bit by bit.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include "as-identity.h"

#include "kova/account.h"
#include "kova/acl.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

using kova_host::CallResult;
using kova_host::ModuleHost;
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
const int kPairsPerTree = 10;

class InspectAgreementTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(ModuleHost::Shared().ok()) << ModuleHost::Shared().error();
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

    // KOVAACLPermGet as the user; negative when the call failed.
    long Enforced(const std::string &path, const kova_test::Identity &who) {
        int fds[2];
        if (pipe(fds) != 0) return -2;
        const int rc = kova_test::RunAs(who, [&]() {
            close(fds[0]);
            unsigned int mask = 0;
            long out = KOVAACLPermGet(path.c_str(), &mask) < 0 ? -1 : static_cast<long>(mask);
            const bool written = write(fds[1], &out, sizeof out) == static_cast<ssize_t>(sizeof out);
            close(fds[1]);
            return written ? 0 : 1;
        });
        close(fds[1]);
        long out = -3;
        if (rc != 0 || read(fds[0], &out, sizeof out) != static_cast<ssize_t>(sizeof out)) out = -3;
        close(fds[0]);
        return out;
    }

    // inspect for the user, asked by an administrator; negative on failure.
    long Inspected(const std::string &path, const std::string &user, std::string &dump) {
        Json::Value params(Json::objectValue);
        params["file_path"] = path;
        params["owner_type"] = "user";
        params["owner_name"] = user;
        CallResult r = ModuleHost::Shared().Call("inspect", params);
        dump = r.Dump();
        if (!r.success()) return -1;
        return kova_module_test::PermissionMask(r.data()["permission"]);
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

TEST_F(InspectAgreementTest, InspectEqualsWhatThePlatformEnforces) {
    std::mt19937 rng(20261121u);
    auto chance = [&](int percent) { return static_cast<int>(rng() % 100) < percent; };
    auto pick = [&](size_t n) { return static_cast<size_t>(rng() % n); };
    const size_t nUsers = sizeof kUsers / sizeof kUsers[0];
    const size_t nGroups = sizeof kGroups / sizeof kGroups[0];
    const size_t nPaths = sizeof kTree / sizeof kTree[0];

    std::vector<kova_test::Identity> identities;
    for (const User &u : kUsers) identities.push_back(IdentityOf(u.name));

    int compared = 0, mismatches = 0, inAclMode = 0, groupOwned = 0, administrators = 0;
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

        for (int q = 0; q < kPairsPerTree && mismatches < 5; ++q) {
            const size_t p = pick(nPaths);
            const size_t u = pick(nUsers);
            std::string dump;
            const long inspected = Inspected(paths[p], kUsers[u].name, dump);
            const long enforced = Enforced(paths[p], identities[u]);
            ASSERT_GE(inspected, 0) << dump;
            ASSERT_GE(enforced, 0) << "KOVAACLPermGet failed for " << kUsers[u].name << " on " << paths[p];
            ++compared;
            if (kUsers[u].uid == KOVA_UID_FIRST_USER || std::string(kUsers[u].name) == "erin") ++administrators;
            if (inspected != enforced) {
                ++mismatches;
                ADD_FAILURE() << "user " << kUsers[u].name << " on /" << kTree[p].rel << ": inspect 0x" << std::hex
                              << inspected << ", enforced 0x" << enforced << std::dec << "\n"
                              << layout.str();
            }
        }
    }
    EXPECT_GE(compared, 300);
    // The sample must actually reach stored ACLs, group owners and
    // administrators, or the agreement says little.
    EXPECT_GT(inAclMode, 100);
    EXPECT_GT(groupOwned, 10);
    EXPECT_GT(administrators, 40);
}

// Root is no principal of an ACL: the platform lets it pass every check,
// while inspect can only speak for accounts and built-in principals. The
// nearest principal, "system", gets exactly what the entries give it.
TEST_F(InspectAgreementTest, RootDiffersByDesign) {
    const std::string share = root_.AddShare("r");
    ASSERT_FALSE(share.empty()) << root_.lastError();
    const std::string f = share + "/f";
    ASSERT_TRUE(root_.MakeFile(f)) << root_.lastError();
    ASSERT_TRUE(root_.SetAcl(f, {"everyone:-:deny:rwxpdDaARWcCo:----"})) << root_.lastError();

    EXPECT_EQ(static_cast<long>(KOVA_ACL_PERM_ALL), Enforced(f, kova_test::Identity{0, 0, {}}));
    Json::Value params(Json::objectValue);
    params["file_path"] = f;
    params["owner_type"] = "system";
    params["owner_name"] = "SYSTEM";
    CallResult r = ModuleHost::Shared().Call("inspect", params);
    ASSERT_TRUE(r.success()) << r.Dump();
    EXPECT_EQ(0u, kova_module_test::PermissionMask(r.data()["permission"])) << r.Dump();
}

} // namespace
