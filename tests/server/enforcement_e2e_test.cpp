// Through kova-webd: what the ACL module's set stores binds the kernel, files made later and the server's
// listing. Folders and files are root's with mode 0777 / 0666: the mode bits alone would allow everything.
#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "as-identity.h"
#include "kova/account.h"
#include "kova/share.h"
#include "kova/acladmin.h"
#include "share-fixture.h"
#include "temp-root.h"
#include "webd-process.h"

namespace {

using kova_test::Identity;
using kova_test::Reply;
using kova_test::WebClient;

const char kAll[] = "rwxpdDaARWcCo";
const char *const kPermKeys[] = {"read_data",  "write_data", "exe_file",   "append_data",   "delete",
                                 "delete_sub", "read_attr",  "write_attr", "read_ext_attr", "write_ext_attr",
                                 "read_perm",  "change_perm", "take_ownership"};

// A rule as the editor sends it, inheritable to files and folders; `letters` are the granted (or denied)
// rights in the ACL text's letters.
Json::Value Rule(const std::string &type, const std::string &name, const std::string &access,
                 const std::string &letters) {
    Json::Value r(Json::objectValue);
    r["owner_type"] = type;
    r["owner_name"] = name;
    r["permission_type"] = access;
    for (size_t i = 0; i < 13; ++i) r["permission"][kPermKeys[i]] = letters.find(kAll[i]) != std::string::npos;
    r["inherit"]["child_files"] = true;
    r["inherit"]["child_folders"] = true;
    r["inherit"]["this_folder"] = true;
    r["inherit"]["all_descendants"] = true;
    return r;
}

enum class Op { kRead, kWrite, kList, kCreate, kDelete, kStat };
const char *const kOpNames[] = {"read", "write", "list", "create", "delete", "stat"};

// What the kernel answers a child with the user's real ids: 0 or the errno.
int Try(const Identity &who, Op op, const std::string &path) {
    return kova_test::RunAs(who, [&] {
        if (setresgid(who.gid, who.gid, who.gid) != 0 || setresuid(who.uid, who.uid, who.uid) != 0) return 200;
        struct stat st;
        if (op == Op::kStat) return lstat(path.c_str(), &st) == 0 ? 0 : errno;
        if (op == Op::kDelete) return unlink(path.c_str()) == 0 ? 0 : errno;
        if (op == Op::kList) {
            DIR *d = opendir(path.c_str());
            if (!d) return errno;
            closedir(d);
            return 0;
        }
        // A new file is readable by everybody as far as its mode goes: only the folder's default ACL can keep
        // bob out.
        const int fd = op == Op::kCreate ? open(path.c_str(), O_CREAT | O_EXCL | O_WRONLY, 0666)
                                         : open(path.c_str(), (op == Op::kRead ? O_RDONLY : O_WRONLY) | O_NOFOLLOW);
        if (fd < 0) return errno;
        char c;
        const bool ok = op == Op::kRead ? read(fd, &c, 1) >= 0 : write(fd, "x", 1) == 1;
        close(fd);
        return ok ? 0 : 201;
    });
}

struct Case {
    const Identity *who;
    Op op;
    std::string path;
    int error;  // 0: allowed
};

class EnforcementE2E : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char *u : {"alice", "bob", "boss"})
            ASSERT_EQ(0, KOVAUserAdd(u, -1, (std::string(u) + "-Secret1").c_str(), "", "", 0)) << u;
        ASSERT_EQ(0, KOVAGroupAdd("lab", -1, ""));
        ASSERT_EQ(0, KOVAGroupMemberAdd("lab", "bob"));
        ASSERT_EQ(0, KOVAGroupMemberAdd("administrators", "boss"));
        alice_ = IdOf("alice");
        bob_ = IdOf("bob");

        share_ = root_.At("volumes/volume1/proj");
        folder_ = share_ + "/parent/folder";
        for (const std::string &d : {share_, share_ + "/parent", folder_, folder_ + "/sub"}) {
            ASSERT_TRUE(kova_test::MakeDirs(d));
            chmod(d.c_str(), 0777);
        }
        for (const std::string &f : {folder_ + "/secret.txt", folder_ + "/victim", folder_ + "/sub/deep.txt"}) {
            ASSERT_TRUE(kova_test::WriteFile(f, "data"));
            chmod(f.c_str(), 0666);
        }
        ASSERT_EQ(0, kova_share_test::AddAclShare("proj", share_, KOVA_SHARE_PRIV_RW));

        // However small the tree, a change of what a folder passes down goes to the platform's background
        // propagation, which the server's set task starts and waits for; its runner leaves when it is done.
        setenv("KOVA_PROPAGATION_IN_PLACE", "0", 1);
        setenv("KOVA_PROPAGATION_LINGER_MS", "0", 1);
        webd_.reset(new kova_test::WebdProcess(root_.path(), kova_test::BuildDir() + "/modules", 2));
        unsetenv("KOVA_PROPAGATION_IN_PLACE");
        unsetenv("KOVA_PROPAGATION_LINGER_MS");
        ASSERT_TRUE(webd_->ok()) << webd_->ErrorLog();
        admin_.reset(new WebClient(webd_->port()));
        ASSERT_TRUE(admin_->Login("boss", "boss-Secret1").body["success"].asBool());
        // Everyone may do everything below the parent, except that bob may only pass through the folder
        // (traverse is all he keeps, so what refuses him inside is each entry's own kernel ACL).
        ASSERT_NO_FATAL_FAILURE(Set("parent", {Rule("everyone", "everyone", "allow", kAll)}, false));
        ASSERT_NO_FATAL_FAILURE(Set("parent/folder", {Rule("user", "bob", "deny", "rwpdDaARWcCo")}, true));
    }

    Identity IdOf(const std::string &name) {
        int uid = -1, gid = -1;
        EXPECT_EQ(0, KOVAUserGetUGID(name.c_str(), &uid, &gid));
        Identity id{static_cast<uid_t>(uid), static_cast<gid_t>(gid), {}};
        PKLIBC_SZLIST list = KLIBGroupInfoListGet(name.c_str(), 0);
        for (int i = 0; list && i < list->nItem; ++i)
            if (const char *g = KLIBCSzListGet(list, i)) id.groups.push_back(static_cast<gid_t>(strtoul(g, nullptr, 10)));
        KLIBCSzListFree(list);
        return id;
    }

    // The editor's apply: the module's set as the administrator, its task followed to "finished".
    void Set(const std::string &rel, const std::vector<Json::Value> &rules, bool recursive) {
        Json::Value p(Json::objectValue);
        p["file_path"] = share_ + "/" + rel;
        p["dirPaths"] = "/proj/" + rel;
        p["change_acl"] = true;
        p["inherited"] = true;
        p["acl_recur"] = recursive;
        for (const Json::Value &r : rules) p["rules"].append(r);
        const Reply started = admin_->Call("KOVA.Core.ACL", 1, "set", p);
        ASSERT_TRUE(started.body["success"].asBool()) << rel << ": " << started.raw << webd_->ErrorLog();
        const std::string task = started.body["data"]["task_id"].asString();
        if (task.empty()) return;
        Json::Value q(Json::objectValue);
        q["task_id"] = task;
        for (int i = 0; i < 600; ++i) {
            const Reply st = admin_->Call("KOVA.Core.ACL", 1, "status", q);
            ASSERT_TRUE(st.body["success"].asBool()) << rel << ": " << st.raw;
            if (st.body["data"]["finished"].asBool()) return;
            usleep(50000);
        }
        FAIL() << "the set of " << rel << " did not finish";
    }

    void Expect(const std::vector<Case> &cases) {
        for (const Case &c : cases)
            EXPECT_EQ(c.error, Try(*c.who, c.op, c.path))
                << (c.who == &bob_ ? "bob " : "alice ") << kOpNames[static_cast<int>(c.op)] << " " << c.path;
    }

    Reply ListDir(WebClient &c, const std::string &path) {
        Json::Value p(Json::objectValue);
        p["path"] = path;
        return c.Call("KOVA.Server.Files", 1, "list_dir", p);
    }

    kova_test::TempRoot root_;
    Identity alice_{0, 0, {}}, bob_{0, 0, {}};
    std::string share_, folder_;
    std::unique_ptr<kova_test::WebdProcess> webd_;
    std::unique_ptr<WebClient> admin_;
};

TEST_F(EnforcementE2E, ADeniedFolderIsClosedToTheKernelToNewFilesAndToTheListing) {
    const std::string made = folder_ + "/by-alice";
    // Bob first: alice's create and delete must not be what stops him.
    Expect({{&bob_, Op::kRead, folder_ + "/secret.txt", EACCES},
            {&bob_, Op::kRead, folder_ + "/sub/deep.txt", EACCES},
            {&bob_, Op::kList, folder_, EACCES},
            {&bob_, Op::kCreate, folder_ + "/by-bob", EACCES},
            {&bob_, Op::kDelete, folder_ + "/victim", EACCES},
            {&bob_, Op::kStat, folder_ + "/secret.txt", 0},
            {&alice_, Op::kRead, folder_ + "/secret.txt", 0},
            {&alice_, Op::kList, folder_, 0},
            {&alice_, Op::kCreate, made, 0},
            {&alice_, Op::kDelete, folder_ + "/victim", 0}});
    // Alice's new file has no record: the folder's default ACL alone keeps bob out of it and lets its creator
    // in. The module shows it in mode form, read from what the kernel holds.
    Expect({{&bob_, Op::kStat, made, 0}, {&bob_, Op::kRead, made, EACCES}, {&alice_, Op::kRead, made, 0}});
    Json::Value g(Json::objectValue);
    g["file_path"] = made;
    g["type"] = "all";
    const Reply got = admin_->Call("KOVA.Core.ACL", 1, "get", g);
    ASSERT_TRUE(got.body["success"].asBool()) << got.raw;
    std::map<std::string, bool> reads;
    for (const Json::Value &r : got.body["data"]["acl"])
        reads[r["owner_type"].asString() + ":" + r["owner_name"].asString()] =
            r["permission_type"].asString() == "allow" && r["permission"]["read_data"].asBool();
    const std::map<std::string, bool> expected = {{"owner:Owner", true}, {"user:bob", false}, {"group:users", true},
                                                  {"group:administrators", true}, {"everyone:Everyone", true}};
    EXPECT_EQ(expected, reads) << got.raw;

    // The server's own listing judges the folder by its rules for each user.
    WebClient a(webd_->port()), b(webd_->port());
    ASSERT_TRUE(a.Login("alice", "alice-Secret1").body["success"].asBool());
    ASSERT_TRUE(b.Login("bob", "bob-Secret1").body["success"].asBool());
    const Reply refused = ListDir(b, "/proj/parent/folder");
    EXPECT_EQ(606, refused.body["error"]["code"].asInt()) << refused.raw;
    const Reply listed = ListDir(a, "/proj/parent/folder");
    ASSERT_TRUE(listed.body["success"].asBool()) << listed.raw;
    std::vector<std::string> names;
    for (const Json::Value &e : listed.body["data"]["entries"]) names.push_back(e["name"].asString());
    EXPECT_EQ((std::vector<std::string>{"sub", "by-alice", "secret.txt"}), names) << listed.raw;
    EXPECT_TRUE(ListDir(b, "/proj/parent").body["success"].asBool());
}

// A non-recursive change of the parent's inheritable rules: everyone may now only read, and bob's group may
// do everything. Every entry below follows in the kernel once the set has finished; bob's own deny still
// wins.
TEST_F(EnforcementE2E, AParentsInheritableChangeReachesEveryDescendantsKernelAcl) {
    const std::string deep = folder_ + "/sub/deep.txt";
    Expect({{&alice_, Op::kWrite, deep, 0},
            {&alice_, Op::kWrite, folder_ + "/secret.txt", 0},
            {&alice_, Op::kCreate, folder_ + "/sub/before", 0}});
    ASSERT_NO_FATAL_FAILURE(
        Set("parent", {Rule("everyone", "everyone", "allow", "rxaRc"), Rule("group", "lab", "allow", kAll)}, false));
    KOVA_ACL_PROPAGATION *jobs = nullptr;
    size_t count = 0;
    ASSERT_EQ(0, KOVAACLPropagationList(&jobs, &count));
    std::string state;
    for (size_t i = 0; i < count; ++i)
        if (jobs[i].szPath == share_ + "/parent") state = jobs[i].szState;
    KOVAACLPropagationListFree(jobs, count);
    EXPECT_EQ("done", state) << "the change went to a job that is done";
    Expect({{&alice_, Op::kRead, deep, 0},
            {&alice_, Op::kWrite, deep, EACCES},
            {&alice_, Op::kWrite, folder_ + "/secret.txt", EACCES},
            {&alice_, Op::kCreate, folder_ + "/sub/after", EACCES},
            {&alice_, Op::kDelete, folder_ + "/sub/before", EACCES},
            {&alice_, Op::kList, folder_ + "/sub", 0},
            {&bob_, Op::kRead, deep, EACCES},
            {&bob_, Op::kWrite, deep, EACCES},
            {&bob_, Op::kList, folder_ + "/sub", EACCES},
            {&bob_, Op::kStat, deep, 0}});
}

} // namespace
