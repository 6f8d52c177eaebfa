// Recursive set on real trees through the test host (set, status, stop);
// every entry is then inspected through the platform.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include "kova/acl.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>


#include <algorithm>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_module_test::ReadStored;
using kova_module_test::StoredAcl;
using kova_module_test::WaitTask;

bool IsEmptyInheriting(const std::string &path) {
    StoredAcl acl = ReadStored(path);
    return acl.readable && acl.stored && acl.inherited == 1 && acl.entries.empty();
}

// Every path was reset to an empty inheriting ACL; names the first few
// that were not (by their ends: some are thousands of bytes long).
void ExpectAllReset(const std::vector<std::string> &paths) {
    size_t wrong = 0;
    for (const std::string &p : paths)
        if (!IsEmptyInheriting(p) && ++wrong <= 5)
            ADD_FAILURE() << "not reset: " << p.size() << " bytes ending " << p.substr(p.size() - std::min<size_t>(p.size(), 80));
    EXPECT_EQ(0u, wrong);
}

// The marker ACL given to entries that the walk must leave alone.
const std::vector<std::string> kMarker = {"everyone::allow:r------------:----"};

bool HasMarker(const std::string &path) {
    StoredAcl acl = ReadStored(path);
    return acl.readable && acl.stored && acl.inherited == 0 && acl.entries.size() == 1 &&
           acl.entries[0].idType == KOVA_ACL_ID_EVERYONE && acl.entries[0].permission == KOVA_ACL_PERM_READ_DATA;
}

// Every right, inherited by files and folders.
Json::Value AllFor(const std::string &type, const std::string &name) {
    return kova_module_test::Array({kova_module_test::RuleJson(type, name, "allow", "rwxpdDaARWcCo")});
}

// An entry as "<id type>:<id>:<access>:<permission>:<inherit>", numbers in hex.
std::string EntryText(int idType, int id, unsigned access, unsigned permission, unsigned inherit) {
    std::ostringstream out;
    out << std::hex << idType << ':' << id << ':' << access << ':' << permission << ':' << inherit;
    return out.str();
}

// The entries below `dir` in the walk's pre-order over readdir (stable while
// the tree is unchanged), skipping what the walk skips.
void WalkOrder(const std::string &dir, std::vector<std::string> &out) {
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    while (struct dirent *e = readdir(d)) {
        const std::string name = e->d_name;
        if (name == "." || name == ".." || name == "#recycle" || KOVAEAIsHiddenDir(name.c_str()) != 0) continue;
        if (e->d_type == DT_LNK) continue;  // links are neither counted nor followed
        out.push_back(dir + "/" + name);
        if (e->d_type == DT_DIR) WalkOrder(dir + "/" + name, out);
    }
    closedir(d);
}

// Progress names the top, then only every 500th entry of the walk from the
// first; the walk has `count` entries. Returns the walk order.
std::vector<std::string> ExpectProgressEvery500th(const std::string &top, size_t count,
                                                  const std::vector<std::string> &progress) {
    std::vector<std::string> order;
    WalkOrder(top, order);
    EXPECT_EQ(count, order.size());
    for (const std::string &p : progress) {
        const auto at = std::find(order.begin(), order.end(), p);
        EXPECT_TRUE(p == top || (at != order.end() && (at - order.begin()) % 500 == 0))
            << p << " reported at entry " << (at - order.begin()) << " of " << order.size();
    }
    return order;
}

// Detaches its mount points when the test ends, however it ends.
struct Unmount {
    std::vector<std::string> points;
    ~Unmount() {
        for (const std::string &p : points) umount2(p.c_str(), MNT_DETACH);
    }
};

class SetTreeTest : public kova_module_test::ShareFixture {
protected:
    // Starts a set: its task id, or "" and a test failure.
    std::string StartSet(const Json::Value &params, const CallOptions &options) {
        CallResult started = host_.Call("set", params, options);
        EXPECT_TRUE(started.success()) << started.Dump();
        std::string id = started.data()["task_id"].asString();
        EXPECT_EQ(0u, id.rfind("setacl", 0)) << started.Dump();
        return id;
    }

    // A recursive ACL change of "pub/<rel>", with `toAlice` also giving
    // every entry to alice.
    Json::Value RecursiveAcl(const std::string &rel, bool inherited, const Json::Value &rules,
                             bool toAlice = false) const {
        Json::Value params = SetOn(rel, rules, inherited);
        params["acl_recur"] = true;
        return toAlice ? kova_module_test::WithOwner(params, "user", "alice", true) : params;
    }
};

// A few thousand entries, with every kind the walk treats specially.
TEST_F(SetTreeTest, RecursiveAclReachesEveryWalkedEntryAndNothingElse) {
    // Whatever name the platform hides, the tree below uses one it reports.
    std::string hiddenName;
    for (const char *candidate : {"@kova_attr", "@eaDir", ".kova_attr", "@kova_ea", ".@__thumb"})
        if (KOVAEAIsHiddenDir(candidate) != 0) hiddenName = candidate;
    ASSERT_FALSE(hiddenName.empty()) << "no hidden attribute directory name known to the platform";

    const std::string top = share_ + "/top";
    const std::string other = share_ + "/other";
    const std::string outside = root_.At("outside");
    std::vector<std::string> walked;
    ASSERT_NO_FATAL_FAILURE(Tree(top, 10, 5, 60, &walked));
    // Names that only begin like the recycle bin are ordinary entries.
    for (const char *name : {"#recycle2", "#recycle.old"}) {
        ASSERT_TRUE(root_.MakeDir(top + "/" + name));
        ASSERT_TRUE(root_.MakeFile(top + "/" + name + "/inner", "y"));
        walked.push_back(top + "/" + name);
        walked.push_back(top + "/" + name + "/inner");
    }
    // Skipped at the top and deeper down, with everything below them.
    std::vector<std::string> skipped;
    for (const std::string &dir : {top + "/#recycle", top + "/d3/s1/#recycle", top + "/" + hiddenName,
                                   top + "/d7/" + hiddenName}) {
        ASSERT_TRUE(root_.MakeDir(dir));
        ASSERT_TRUE(root_.MakeDir(dir + "/deep"));
        ASSERT_TRUE(root_.MakeFile(dir + "/deep/file", "z"));
        for (const std::string &p : {dir, dir + "/deep", dir + "/deep/file"}) {
            ASSERT_TRUE(root_.SetAcl(p, kMarker, false)) << root_.lastError();
            skipped.push_back(p);
        }
    }
    // Link targets in the share (outside the walked folder) and outside it.
    ASSERT_TRUE(root_.MakeDir(other));
    ASSERT_TRUE(root_.MakeFile(other + "/target", "t"));
    ASSERT_TRUE(root_.MakeDir(outside));
    ASSERT_TRUE(root_.MakeFile(outside + "/secret", "s"));
    std::vector<std::string> targets = {other, other + "/target", outside, outside + "/secret"};
    std::vector<std::string> links = {top + "/to_other", top + "/d1/to_other_file", top + "/d2/s0/to_outside",
                                      top + "/to_outside_file", top + "/d4/to_sibling"};
    ASSERT_EQ(0, symlink(other.c_str(), links[0].c_str()));
    ASSERT_EQ(0, symlink((other + "/target").c_str(), links[1].c_str()));
    ASSERT_EQ(0, symlink(outside.c_str(), links[2].c_str()));
    ASSERT_EQ(0, symlink((outside + "/secret").c_str(), links[3].c_str()));
    ASSERT_EQ(0, symlink("../d5", links[4].c_str()));
    ASSERT_GT(walked.size(), 3000u);

    const Json::Value params = RecursiveAcl("top", false, kova_module_test::Array({
        kova_module_test::RuleJson("user", "alice", "allow", "rwxpdDaARWcCo"),
        kova_module_test::RuleJson("everyone", "Everyone", "deny", "r", "----")}));

    std::vector<std::string> progress;
    CallResult end = WaitTask(StartSet(params, admin_), admin_,
                              [&](const Json::Value &data) { progress.push_back(data["applypath"].asString()); });
    ASSERT_TRUE(end.success()) << end.Dump();
    EXPECT_TRUE(end.data()["finished"].asBool());

    StoredAcl topAcl = ReadStored(top);
    ASSERT_TRUE(topAcl.readable);
    EXPECT_EQ(0, topAcl.inherited);
    std::vector<std::string> entries;
    for (const KOVA_ACL_ENTRY &e : topAcl.entries)
        entries.push_back(EntryText(e.idType, e.id, e.accessType, e.permission, e.inherit));
    EXPECT_EQ((std::vector<std::string>{EntryText(KOVA_ACL_ID_USER, root_.Uid("alice"), KOVA_ACL_ALLOW, KOVA_ACL_PERM_ALL,
                                                  KOVA_ACL_INHERIT_FILE | KOVA_ACL_INHERIT_DIR),
                                        EntryText(KOVA_ACL_ID_EVERYONE, -1, KOVA_ACL_DENY, KOVA_ACL_PERM_READ_DATA, 0)}),
              entries);

    ExpectAllReset(walked);
    for (const std::string &p : skipped) EXPECT_TRUE(HasMarker(p)) << "skipped entry changed: " << p;
    for (const std::string &p : targets) EXPECT_FALSE(ReadStored(p).stored) << "link target changed: " << p;
    for (const std::string &p : links) EXPECT_FALSE(ReadStored(p).stored) << "link changed: " << p;

    ExpectProgressEvery500th(top, walked.size(), progress);  // never a skipped entry
}

// The task's own record in the platform's task folder; null when unreadable.
Json::Value TaskRecord(const std::string &rootPath, const std::string &taskId) {
    std::ifstream in(rootPath + "/var/run/tasks/" + taskId);
    Json::Value record;
    Json::CharReaderBuilder reader;
    std::string errors;
    if (!in || !Json::parseFromStream(reader, in, &record, &errors)) return Json::Value();
    return record;
}

// Progress comes through status and a stop ends the walk with 6200, each
// entry untouched or fully reset. The task runs in SIGSTOP/SIGCONT slices so
// that the stop lands mid-walk however fast the machine is.
TEST_F(SetTreeTest, ProgressAndStopDuringALargeWalk) {
    const std::string top = share_ + "/big";
    std::vector<std::string> entries;
    ASSERT_NO_FATAL_FAILURE(Tree(top, 20, 1, 600, &entries));

    const std::string taskId = StartSet(RecursiveAcl("big", false, AllFor("user", "alice")), admin_);
    ASSERT_FALSE(taskId.empty());
    const pid_t pid = static_cast<pid_t>(TaskRecord(root_.path(), taskId)["pid"].asInt64());
    ASSERT_GT(pid, 0);
    ASSERT_EQ(0, kill(pid, SIGSTOP));
    // Whatever fails below, the task is not left stopped.
    struct Resume {
        pid_t pid;
        ~Resume() { kill(pid, SIGCONT); }
    } resume{pid};

    // Slices until a progress record below the top shows; stop while held.
    Json::Value idParam(Json::objectValue);
    idParam["task_id"] = taskId;
    std::vector<std::string> seen;
    // A task seen before its first progress record has no path yet.
    const auto note = [&](const Json::Value &data) {
        EXPECT_FALSE(data["finished"].asBool());
        const std::string path = data["applypath"].asString();
        if (!path.empty() && (seen.empty() || seen.back() != path)) seen.push_back(path);
    };
    bool below = false;
    for (int slice = 0; slice < 5000 && !below; ++slice) {
        ASSERT_EQ(0, kill(pid, SIGCONT));
        usleep(100);
        ASSERT_EQ(0, kill(pid, SIGSTOP));
        CallResult status = host_.Call("status", idParam, admin_);
        ASSERT_TRUE(status.success()) << status.Dump();
        ASSERT_FALSE(status.data()["finished"].asBool()) << "the walk ended before a stop could be asked";
        note(status.data());
        below = !seen.empty() && seen.back() != top;
    }
    ASSERT_TRUE(below) << "no progress below the top was seen";
    CallResult stop = host_.Call("stop", idParam, admin_);
    EXPECT_TRUE(stop.success()) << stop.Dump();
    ASSERT_EQ(0, kill(pid, SIGCONT));

    CallResult end = WaitTask(taskId, admin_, note);
    EXPECT_FALSE(end.success()) << end.Dump();
    EXPECT_EQ(6200, end.errorCode()) << end.Dump();

    ASSERT_FALSE(seen.empty());
    const std::vector<std::string> order = ExpectProgressEvery500th(top, entries.size(), seen);
    ASSERT_EQ(entries.size(), order.size());

    // What changed is a prefix of the walk, every entry of it fully reset.
    size_t reset = 0;
    bool cut = false;
    for (const std::string &p : order) {
        StoredAcl acl = ReadStored(p);
        ASSERT_TRUE(acl.readable) << "unreadable ACL after stop: " << p;
        if (!acl.stored) {
            cut = true;
            continue;
        }
        ASSERT_FALSE(cut) << "changed after an untouched entry: " << p;
        ASSERT_TRUE(acl.inherited == 1 && acl.entries.empty()) << "half-changed entry: " << p;
        ++reset;
    }
    EXPECT_GT(reset, 0u);
    EXPECT_TRUE(cut) << "the stop did not end the walk early";
    EXPECT_EQ(1u, ReadStored(top).entries.size());
}

// A chain of 5,000 folders (files at some depths) walked with 256
// descriptors: the walk finishes and every entry the platform can name (path
// under PATH_MAX; long names make that the first few hundred) is reset.
TEST_F(SetTreeTest, DeepTreeFinishesWithFewDescriptors) {
    // On its own tmpfs: 5,000 levels are slow on a busy disk, and the
    // fixture's clean-up, walking paths, stops at PATH_MAX.
    const std::string top = share_ + "/deep";
    ASSERT_TRUE(root_.MakeDir(top, 0777));
    ASSERT_EQ(0, mount("tmpfs", top.c_str(), "tmpfs", 0, "size=64m,nr_inodes=20000,mode=0777")) << strerror(errno);
    Unmount unmount{{top}};
    const std::set<int> withFiles = {1, 2, 3, 49, 50, 51, 97, 150, 300, 1000, 4999};
    std::vector<std::string> nameable;
    std::string path = top;
    int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const std::string longName(250, 'L');
    for (int level = 1; level <= 5000; ++level) {
        const std::string name = level <= 13 ? longName : "d";
        ASSERT_EQ(0, mkdirat(fd, name.c_str(), 0755)) << level;
        const int next = openat(fd, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        ASSERT_GE(next, 0) << level;
        close(fd);
        fd = next;
        path += "/" + name;
        if (path.size() + 2 < PATH_MAX) nameable.push_back(path);
        if (!withFiles.count(level)) continue;
        for (const char *fileName : {"a", "z"}) {
            const int file = openat(fd, fileName, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
            ASSERT_GE(file, 0);
            close(file);
            if (path.size() + 2 < PATH_MAX) nameable.push_back(path + "/" + fileName);
        }
    }
    close(fd);
    ASSERT_GT(nameable.size(), 250u);

    CallOptions limited = admin_;
    limited.beforeHandler = [] {
        struct rlimit limit;
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(3);
        limit.rlim_cur = 256;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(3);
    };
    CallResult end = WaitTask(StartSet(RecursiveAcl("deep", false, AllFor("user", "alice")), limited), admin_);
    ASSERT_TRUE(end.success()) << end.Dump();
    EXPECT_TRUE(end.data()["finished"].asBool());
    ExpectAllReset(nameable);
}

// Every walked entry gets the new owner and the inheriting ACL; the recycle
// bin, a file system mounted inside the tree and a bind mount of a folder
// outside the share are neither changed nor entered.
TEST_F(SetTreeTest, RecursiveOwnerChangeLeavesRecycleBinAndMountsAlone) {
    const std::string top = share_ + "/mnt";
    const std::string tmp = top + "/sub/tmp", bound = top + "/bound", elsewhere = root_.At("elsewhere");
    for (const std::string &dir : {top, top + "/sub", tmp, bound, elsewhere, top + "/#recycle"})
        ASSERT_TRUE(root_.MakeDir(dir, 0777));
    for (const std::string &file : {top + "/sub/plain", elsewhere + "/secret", top + "/#recycle/old"})
        ASSERT_TRUE(root_.MakeFile(file));
    ASSERT_EQ(0, mount("tmpfs", tmp.c_str(), "tmpfs", 0, "size=1m,mode=0777")) << strerror(errno);
    Unmount unmount{{tmp}};
    ASSERT_TRUE(root_.MakeDir(tmp + "/inner", 0777));
    ASSERT_TRUE(root_.MakeFile(tmp + "/inner/file"));
    ASSERT_EQ(0, mount(elsewhere.c_str(), bound.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
    unmount.points.push_back(bound);

    CallResult end = WaitTask(StartSet(RecursiveAcl("mnt", true, AllFor("group", "administrators"), true), admin_), admin_);
    ASSERT_TRUE(end.success()) << end.Dump();

    EXPECT_EQ(1, ReadStored(top).inherited);
    for (const std::string &p : {top, top + "/sub", top + "/sub/plain"}) {
        KOVA_ACL_ID owner = {0, 0};
        ASSERT_EQ(0, KOVAACLOwnerIdGet(p.c_str(), &owner)) << p;
        EXPECT_EQ(KOVA_ACL_ID_USER, owner.idType) << p;
        EXPECT_EQ(root_.Uid("alice"), owner.id) << p;
        EXPECT_TRUE(p == top || IsEmptyInheriting(p)) << p;
    }
    for (const std::string &p : {tmp, tmp + "/inner", tmp + "/inner/file", bound, bound + "/secret", elsewhere,
                                 elsewhere + "/secret", top + "/#recycle", top + "/#recycle/old"}) {
        EXPECT_TRUE(kova_module_test::TrustedXattrs(p).empty()) << "changed: " << p;
        struct stat st;
        ASSERT_EQ(0, lstat(p.c_str(), &st)) << p;
        EXPECT_EQ(0u, st.st_uid) << "owner changed: " << p;
    }
}

} // namespace
