// The kernel never allows what the platform denies (random trees, ACLs and users, each
// user's kernel answers against KOVAACLPermGet), and agrees exactly on allow-only named ACLs.
#include "acl-fixture.h"

#include "as-identity.h"
#include "run-admin.h"
#include "kova/account.h"
#include "kova/acl.h"
#include "kova/fileshare.h"
#include "kova/share.h"
#include "kova-internal/identity.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kova_acl_test::AclFixture;
using kova_acl_test::RawRecord;
using kova_test::Identity;
using kova_test::RunAdmin;

using kova_acl_test::KernelBits;
using kova_acl_test::KernelBitsAs;
using kova_acl_test::kR;
using kova_acl_test::kW;
using kova_acl_test::kX;

// The platform's rights as the kernel's bits (docs/platform/enforcement.md).
unsigned Mapped(unsigned rights, bool isDir) {
    unsigned b = 0;
    if (rights & KOVA_ACL_PERM_READ_DATA) b |= kR;
    const unsigned w = KOVA_ACL_PERM_WRITE_DATA | KOVA_ACL_PERM_APPEND_DATA | (isDir ? KOVA_ACL_PERM_DELETE_CHILD : 0);
    if ((rights & w) == w) b |= kW;
    if (rights & KOVA_ACL_PERM_EXECUTE) b |= kX;
    return b;
}

// Creates a file as a program other than the platform would (no record).
bool CreateAsProgram(const std::string &path) {
    const int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0666);
    return fd >= 0 && close(fd) == 0;
}

struct Entry {
    std::string path;
    bool isDir = false;
    bool exactCase = false;        // allow-only named users and groups, judged by its record
    bool stored = false;           // has a record
    std::set<uid_t> namedUsers;    // of its complete ACL
    std::set<gid_t> namedGroups;
    std::vector<size_t> ancestors; // indexes of the folders above it in its tree
};

const std::vector<uid_t> kUids = {900, 1024, 1025, 1030, 1031, 1032, 1033, 1034};
const std::vector<gid_t> kGids = {3000, 3001, 3002, 3003};

class AclEnforce : public AclFixture {
protected:
    std::mt19937 rng{20261124};

    unsigned Pick(unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(rng); }

    // Allow-only ACLs draw whole kernel bits: POSIX cannot split a right over two groups.
    std::string RandomPerm(bool whole) {
        static const char *kBundles[] = {"r", "x", "rx", "wpD", "rwxpD", "rwxpdDaARWcCo", "raR", "wpDA",
                                         "w", "wp", "rw"};
        if (whole) return kBundles[Pick(8)];
        if (Pick(3) == 0) {
            std::string s;
            const char *letters = "rwxpdDaARWcCo";
            for (int i = 0; i < 13; ++i)
                if (Pick(2)) s.push_back(letters[i]);
            return s.empty() ? "-" : s;
        }
        return kBundles[Pick(sizeof kBundles / sizeof kBundles[0])];
    }

    std::string RandomInherit() {
        static const char *kFlags[] = {"fd", "fd", "f", "d", "-", "fdi", "fdn", "fi", "dn"};
        return kFlags[Pick(sizeof kFlags / sizeof kFlags[0])];
    }

    std::vector<std::string> RandomAcl(bool allowOnly) {
        std::vector<std::string> out;
        const unsigned n = Pick(5);
        for (unsigned i = 0; i < n; ++i) {
            static const char *kFixed[] = {"everyone:-1", "authenticated_user:-1", "owner:-1", "system:-1"};
            const unsigned kind = allowOnly ? Pick(2) : Pick(7);  // 2..5 fixed, 6 a user again
            const std::string who = kind == 1 ? "group:" + std::to_string(kGids[Pick(kGids.size())])
                                    : kind >= 2 && kind <= 5 ? kFixed[kind - 2]
                                    : "user:" + std::to_string(kUids[Pick(kUids.size())]);
            const bool deny = !allowOnly && Pick(3) == 0;
            out.push_back(who + (deny ? ":deny:" : ":allow:") + RandomPerm(allowOnly) + ":" + RandomInherit());
        }
        return out;
    }

    // Fills entries from the complete ACL that the platform now reports.
    void Describe(Entry &e, bool allowOnly) {
        std::vector<std::string> acl;
        if (!GetAcl(e.path, KOVA_ACL_GET_ALL, acl)) return;
        e.stored = KOVAACLIsSupport(e.path.c_str(), -1, KOVA_ACL_SUPPORT_MODE) == 1;
        e.exactCase = allowOnly && e.stored;
        for (const auto &text : acl) {
            unsigned id = 0;
            char type[32] = {};
            if (std::sscanf(text.c_str(), "%31[a-z_]:%u", type, &id) == 2) {
                if (std::string(type) == "user") e.namedUsers.insert(id);
                if (std::string(type) == "group") e.namedGroups.insert(id);
            }
        }
    }
};

TEST_F(AclEnforce, KernelNeverGrantsMoreThanThePlatformAndAgreesOnAllowOnlyNamedAcls) {
    OpenAncestors();
    std::vector<Entry> entries;
    constexpr int kTrees = 240;
    for (int t = 0; t < kTrees; ++t) {
        const bool allowOnly = t % 3 == 0;
        const std::string top = In("t" + std::to_string(t));
        const std::vector<std::string> dirs = {top + "/a", top + "/a/b", top + "/a/b/c"};
        Dir(dirs[2]);
        for (const std::string &d : {top, dirs[0], dirs[1]}) chmod(d.c_str(), 0777);
        std::vector<std::string> files;
        for (const auto &d : dirs) {
            files.push_back(d + "/f1");
            files.push_back(d + "/f2");
        }
        for (const auto &f : files) File(f);
        // Top-down, so each entry's projection sees its ancestors' records.
        std::vector<std::pair<std::string, bool>> order;
        for (size_t level = 0; level < dirs.size(); ++level) {
            order.push_back({dirs[level], true});
            order.push_back({files[2 * level], false});
            order.push_back({files[2 * level + 1], false});
        }
        const size_t base = entries.size();
        for (size_t i = 0; i < order.size(); ++i) {
            Entry e;
            e.path = order[i].first;
            e.isDir = order[i].second;
            const size_t level = i / 3;
            for (size_t k = 0; k < level; ++k) e.ancestors.push_back(base + 3 * k);
            if (!e.isDir) e.ancestors.push_back(base + 3 * level);
            // A few entries stay in mode-bit form.
            if (Pick(8) != 0) {
                ASSERT_EQ(SetAcl(e.path, RandomAcl(allowOnly), Pick(6) != 0), 0) << e.path;
                if (!allowOnly && Pick(4) == 0) {
                    KOVA_ACL_ID o{Pick(2) ? KOVA_ACL_ID_USER : KOVA_ACL_ID_GROUP, 0};
                    o.id = o.idType == KOVA_ACL_ID_USER ? static_cast<int>(kUids[Pick(kUids.size())])
                                                        : static_cast<int>(kGids[Pick(kGids.size())]);
                    ASSERT_EQ(KOVAACLOwnerIdSet(e.path.c_str(), &o), 0) << e.path;
                }
            }
            entries.push_back(e);
        }
        // A file made later by another program: the folder's default ACL, no record.
        for (const auto &d : dirs) {
            ASSERT_TRUE(CreateAsProgram(d + "/late"));
            Entry e;
            e.path = d + "/late";
            const size_t level = static_cast<size_t>(&d - &dirs[0]);
            for (size_t k = 0; k <= level; ++k) e.ancestors.push_back(base + 3 * k);
            entries.push_back(e);
        }
        for (size_t i = base; i < entries.size(); ++i) Describe(entries[i], allowOnly);
    }

    // Random users: each has some of the groups, and a primary group.
    std::vector<Identity> users;
    for (uid_t uid : kUids) {
        for (int variant = 0; variant < 2; ++variant) {
            Identity id{uid, 100, {}};
            for (gid_t g : kGids)
                if (Pick(2)) id.groups.push_back(g);
            if (!id.groups.empty() && Pick(2)) id.gid = id.groups[0];
            users.push_back(id);
        }
    }

    long violations = 0, exactChecked = 0, mismatches = 0, checked = 0;
    std::ostringstream report;
    for (const Identity &who : users) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            close(fds[0]);
            FILE *out = fdopen(fds[1], "w");
            if (!kova_internal::SwitchToUser(who.uid, who.gid, who.groups)) _exit(3);
            std::vector<int> platform(entries.size(), -1);
            for (size_t i = 0; i < entries.size(); ++i) {
                unsigned rights = 0;
                if (KOVAACLPermGet(entries[i].path.c_str(), &rights) == 0)
                    platform[i] = static_cast<int>(Mapped(rights, entries[i].isDir));
            }
            // From here on the real ids too are the user's.
            if (setresgid(who.gid, who.gid, who.gid) != 0 || setresuid(who.uid, who.uid, who.uid) != 0) _exit(4);
            // POSIX lets a named user's own entry shadow his named groups': not expressible.
            std::vector<char> expressible(entries.size(), 0);
            for (size_t i = 0; i < entries.size(); ++i) {
                const Entry &e = entries[i];
                bool inNamedGroup = e.namedGroups.count(who.gid) != 0;
                for (gid_t g : who.groups) inNamedGroup = inNamedGroup || e.namedGroups.count(g) != 0;
                expressible[i] = !(e.namedUsers.count(who.uid) && inNamedGroup);
                for (size_t a : e.ancestors) expressible[i] = expressible[i] && expressible[a];
            }
            for (size_t i = 0; i < entries.size(); ++i) {
                const Entry &e = entries[i];
                if (platform[i] < 0) {
                    std::fprintf(out, "E %s platform evaluation failed\n", e.path.c_str());
                    continue;
                }
                const unsigned k = KernelBits(e.path);
                const unsigned p = static_cast<unsigned>(platform[i]);
                std::fprintf(out, "C\n");
                if (k & ~p) std::fprintf(out, "V %s kernel %o platform %o\n", e.path.c_str(), k, p);
                // Exact where POSIX can express the ACL and the whole path may be traversed.
                bool traverse = true;
                for (size_t a : e.ancestors) traverse = traverse && platform[a] >= 0 && (platform[a] & kX);
                if (e.exactCase && traverse && expressible[i]) {
                    std::fprintf(out, "X\n");
                    if (k != p) std::fprintf(out, "M %s kernel %o platform %o\n", e.path.c_str(), k, p);
                }
            }
            std::fclose(out);
            _exit(0);
        }
        close(fds[1]);
        FILE *in = fdopen(fds[0], "r");
        char line[1024];
        while (std::fgets(line, sizeof line, in)) {
            switch (line[0]) {
            case 'C': ++checked; break;
            case 'X': ++exactChecked; break;
            case 'V': ++violations; if (violations < 10) report << "uid " << who.uid << ": " << line; break;
            case 'M': ++mismatches; if (mismatches < 10) report << "inexact uid " << who.uid << ": " << line; break;
            default: ADD_FAILURE() << line;
            }
        }
        std::fclose(in);
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "uid " << who.uid;
    }
    std::printf("%zu entries, %zu users: %ld checks, %ld of them exact\n", entries.size(), users.size(), checked,
                exactChecked);
    EXPECT_EQ(violations, 0) << report.str();
    EXPECT_EQ(mismatches, 0) << report.str();
    // The run covered what it claims to.
    EXPECT_EQ(checked, static_cast<long>(entries.size() * users.size()));
    EXPECT_GT(exactChecked, 2000);
}

// Traverse is the platform's to judge: a user who may list but not traverse a folder
// reaches a file in it through the platform, while the kernel refuses it.
TEST_F(AclEnforce, PlatformLookupsDoNotHangOnTheKernelsTraverseCheck) {
    OpenAncestors();
    const Identity alice{1030, 1030, {}};
    const std::string folder = In("top/listonly");
    Dir(folder);
    File(folder + "/f");
    ASSERT_EQ(SetAcl(In("top"), {"user:1030:allow:rx:-"}, false), 0);
    ASSERT_EQ(SetAcl(folder, {"user:1030:allow:r:-"}, false), 0);
    ASSERT_EQ(SetAcl(folder + "/f", {"user:1030:allow:rc:-"}, false), 0);
    ASSERT_EQ(symlink(root_.At("").c_str(), (folder + "/out").c_str()), 0);
    const std::string file = folder + "/f";
    const int rc = kova_test::RunAs(alice, [&] {
        char name[64] = {}, root[PATH_MAX] = {};
        if (KOVAShareNamePathGet(file.c_str(), name, sizeof name, root, sizeof root) != 0) return 1;
        if (std::string(name) != "data" || std::string(root) != Share()) return 2;
        PKOVA_ACL acl = nullptr;
        if (KOVAACLGet(file.c_str(), -1, KOVA_ACL_GET_ALL, &acl) != 0 || !acl || acl->aceCount != 1) return 3;
        KOVAACLFree(acl);
        PanoraFileShare fs;
        std::string real, share, shareRoot, allowed;
        if (fs.WfmFullPathGet("/data/top/listonly/f", real, share, shareRoot, allowed, "alice") != 0) return 4;
        if (real != file) return 5;
        // The raised lookup stays in the share.
        if (KOVAShareNamePathGet((folder + "/out/etc").c_str(), name, sizeof name, root, sizeof root) == 0) return 6;
        // The kernel's own answer for this user is unchanged.
        return open(file.c_str(), O_RDONLY) < 0 && errno == EACCES ? 0 : 7;
    });
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(KernelBitsAs(alice, file), 0u);
}

// Drift behind the platform's back (chmod, setfacl, a removed default ACL) is reported
// and repaired; entries without a record are judged by the kernel and never reported.
TEST_F(AclEnforce, VerifyReportsAndRepairsDrift) {
    OpenAncestors();
    const Identity alice{1030, 1030, {}}, carol{1032, 1032, {}};
    const std::string top = In("v");
    Dir(top + "/a");
    File(top + "/a/f");
    File(top + "/g");
    ASSERT_EQ(SetAcl(top, {"user:1030:allow:rx:fd", "everyone:-1:allow:x:d"}, false), 0);
    ASSERT_EQ(SetAcl(top + "/a", {}, true), 0);
    ASSERT_EQ(SetAcl(top + "/a/f", {}, true), 0);
    ASSERT_EQ(SetAcl(top + "/g", {"user:1031:allow:r:-"}, false), 0);
    File(top + "/plain");

    std::string out;
    EXPECT_EQ(RunAdmin({"acl", "verify", top}, &out), 0) << out;
    EXPECT_NE(out.find("checked 4, differing 0"), std::string::npos) << out;

    ASSERT_EQ(chmod((top + "/a/f").c_str(), 0777), 0);
    ASSERT_EQ(std::system(("setfacl -m u:1032:rw " + top + "/g").c_str()), 0);
    ASSERT_EQ(removexattr(top.c_str(), "system.posix_acl_default"), 0);
    ASSERT_EQ(chmod((top + "/plain").c_str(), 0600), 0);
    EXPECT_EQ(KernelBitsAs(carol, top + "/g"), kR | kW);
    EXPECT_EQ(KernelBitsAs(carol, top + "/a/f"), kR | kW | kX);

    EXPECT_EQ(RunAdmin({"acl", "verify", top}, &out), 1) << out;
    for (const std::string &differs : {top, top + "/a/f", top + "/g"})
        EXPECT_NE(out.find("differs " + differs + "\n"), std::string::npos) << out;
    EXPECT_EQ(out.find("plain"), std::string::npos) << out;
    EXPECT_NE(out.find("checked 4, differing 3, repaired 0"), std::string::npos) << out;
    // Reporting alone changes nothing.
    EXPECT_EQ(KernelBitsAs(carol, top + "/g"), kR | kW);

    EXPECT_EQ(RunAdmin({"acl", "verify", "--repair", top}, &out), 0) << out;
    EXPECT_NE(out.find("differing 3, repaired 3"), std::string::npos) << out;
    EXPECT_EQ(KernelBitsAs(carol, top + "/g"), 0u);
    EXPECT_EQ(KernelBitsAs(carol, top + "/a/f"), 0u);
    EXPECT_EQ(KernelBitsAs(alice, top + "/a/f"), kR | kX);
    // A file a program creates now starts from the restored default ACL.
    ASSERT_TRUE(CreateAsProgram(top + "/new"));
    EXPECT_EQ(KernelBitsAs(alice, top + "/new") & kR, kR);
    EXPECT_EQ(KernelBitsAs(carol, top + "/new"), 0u);

    EXPECT_EQ(RunAdmin({"acl", "verify", top}, &out), 0) << out;
    EXPECT_EQ(RunAdmin("acl verify", &out), 1) << out;
}

// The module's recursive set as an administrator's task projects every entry, on a
// fresh tree and again when the top changes.
TEST_F(AclEnforce, RecursiveWalkAsATaskProjectsEveryEntry) {
    OpenAncestors();
    const Identity admin{1040, 1040, {KOVA_ADMIN_GID}};
    const Identity alice{1030, 1030, {}}, bob{1031, 1031, {}};
    const std::string top = In("walk");
    const std::vector<std::string> below = {"a", "a/f", "a/b", "a/b/f", "g"};
    Dir(top + "/a/b");
    for (const char *f : {"a/f", "a/b/f", "g"}) File(top + "/" + f);
    auto walk = [&](const std::string &who) {
        return kova_test::RunAs(admin, [&] {
            if (!kova_test::KeepOnlyCapability(CAP_SYS_ADMIN)) return 90;
            if (SetAcl(top, {"user:" + who + ":allow:rwxpD:fd"}, false) != 0) return 91;
            for (const auto &rel : below)
                if (SetAcl(top + "/" + rel, {}, true) != 0) return 92;
            return 0;
        });
    };
    for (const Identity &granted : {alice, bob}) {
        ASSERT_EQ(walk(std::to_string(granted.uid)), 0);
        for (const auto &rel : below)
            for (const Identity &who : {alice, bob})
                EXPECT_EQ(KernelBitsAs(who, top + "/" + rel), who.uid == granted.uid ? kR | kW | kX : 0u)
                    << rel << " granted " << granted.uid << " asked " << who.uid;
    }
}

// A task keeping CAP_FOWNER reuses what a folder passes down over a run of entries,
// but sees the folder's record rewritten behind its back and each file's own owner.
TEST_F(AclEnforce, ARunOfEntriesInOneFolderIsProjectedFromWhatHoldsNow) {
    OpenAncestors();
    const Identity admin{1040, 1040, {KOVA_ADMIN_GID}};
    const Identity alice{1030, 1030, {}}, bob{1031, 1031, {}};
    const std::string top = In("run"), run = top + "/in";
    Dir(run);
    Dir(In("model"));
    for (const char *f : {"f1", "f2", "f3"}) File(run + "/" + f);
    ASSERT_EQ(chown((run + "/f2").c_str(), alice.uid, static_cast<gid_t>(-1)), 0);
    ASSERT_EQ(chown((run + "/f3").c_str(), bob.uid, static_cast<gid_t>(-1)), 0);
    // Bob may pass through both folders.
    ASSERT_EQ(SetAcl(top, {"user:1030:allow:rx:fd", "user:1031:allow:x:-"}, false), 0);
    ASSERT_EQ(SetAcl(run, {"user:1031:allow:r:f", "user:1031:allow:x:-"}, true), 0);
    // The record the folder is given meanwhile: bob gets everything.
    ASSERT_EQ(SetAcl(In("model"), {"user:1031:allow:rwxpD:f", "user:1031:allow:x:-"}, true), 0);
    const std::string changed = RawRecord(In("model"));
    ASSERT_EQ(changed.size(), RawRecord(run).size());
    const int rc = kova_test::RunAs(admin, [&] {
        const uint64_t task = (uint64_t{1} << CAP_SYS_ADMIN) | (uint64_t{1} << CAP_FOWNER);
        if (!kova_internal::KeepOnlyCapabilities(task)) return 90;
        if (SetAcl(run + "/f1", {}, true) != 0) return 91;
        {
            kova_internal::RootScope root;
            if (!root.ok() || !kova_acl_test::WriteRawRecord(run, changed)) return 92;
        }
        if (SetAcl(run + "/f2", {}, true) != 0 || SetAcl(run + "/f3", {}, true) != 0) return 93;
        return 0;
    });
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(KernelBitsAs(bob, run + "/f1"), kR) << "set before the change";
    for (const char *f : {"f2", "f3"}) {
        EXPECT_EQ(KernelBitsAs(bob, run + "/" + f), kR | kW | kX) << f;
        EXPECT_EQ(KernelBitsAs(alice, run + "/" + f), kR | kX) << f;
    }
}

} // namespace
