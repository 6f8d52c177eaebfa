// The set task while a second shell swaps folders of the tree for links to a
// root-owned folder outside every share: nothing outside changes (owner,
// mode, trusted.* attributes). Entry paths reach the platform as text, so
// this also holds the platform to acting only on what it judged.
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_module_test::WaitTask;

// What may not change on a path: owner, mode and its trusted.* attributes.
std::string State(const std::string &path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return "<gone>";
    std::ostringstream out;
    out << st.st_uid << ':' << st.st_gid << ':' << std::oct << st.st_mode << std::dec;
    for (const auto &x : kova_module_test::TrustedXattrs(path)) out << ' ' << x.first << '=' << x.second;
    return out.str();
}

// The state of a tree, every entry by path.
void Snapshot(const std::string &path, std::map<std::string, std::string> &out) {
    out[path] = State(path);
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;
    DIR *dir = opendir(path.c_str());
    if (!dir) return;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(dir))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(dir);
    for (const std::string &name : names) Snapshot(path + "/" + name, out);
}

// Swaps each folder with its link (RENAME_EXCHANGE) until stopped, then
// undoes the last swaps. A process, not a thread: a fork taken while another
// thread runs hides that thread's memory from the sanitizer's leak check.
class Racer {
public:
    explicit Racer(const std::vector<std::pair<std::string, std::string>> &pairs) {
        int fds[2];
        if (pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            close(fds[0]);
            Run(pairs, fds[1]);
        }
        close(fds[1]);
        report_ = fds[0];
        if (pid_ < 0) ADD_FAILURE() << "fork: " << strerror(errno);
    }
    ~Racer() { Stop(); }
    void Stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGTERM);
        long count = 0;
        if (read(report_, &count, sizeof count) == static_cast<ssize_t>(sizeof count)) swaps_ = count;
        close(report_);
        int status = 0;
        while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
        }
        pid_ = -1;
    }
    long swaps() const { return swaps_; }

private:
    static volatile sig_atomic_t stop_;
    static void OnTerm(int) { stop_ = 1; }

    [[noreturn]] static void Run(const std::vector<std::pair<std::string, std::string>> &pairs, int report) {
        signal(SIGTERM, OnTerm);
        std::vector<char> swapped(pairs.size(), 0);
        long count = 0;
        while (!stop_) {
            for (size_t i = 0; i < pairs.size(); ++i) {
                if (renameat2(AT_FDCWD, pairs[i].first.c_str(), AT_FDCWD, pairs[i].second.c_str(), RENAME_EXCHANGE) ==
                    0) {
                    swapped[i] = !swapped[i];
                    ++count;
                }
            }
        }
        for (size_t i = 0; i < pairs.size(); ++i)
            if (swapped[i])
                renameat2(AT_FDCWD, pairs[i].first.c_str(), AT_FDCWD, pairs[i].second.c_str(), RENAME_EXCHANGE);
        (void)write(report, &count, sizeof count);
        _exit(0);
    }

    pid_t pid_ = -1;
    int report_ = -1;
    long swaps_ = 0;
};
volatile sig_atomic_t Racer::stop_ = 0;

class SetRaceTest : public kova_module_test::ShareFixture {
protected:
    static constexpr int kSubs = 4, kFiles = 25;
    void SetUp() override {
        ShareFixture::SetUp();
        if (HasFatalFailure()) return;
        // Root's folder outside, with entries named like the tree's (a path
        // through a swapped link names a real entry) and attributes of its own.
        outside_ = root_.At("outside");
        for (const std::string &dir : {outside_, outside_ + "/x", outside_ + "/target", outside_ + "/target/deeper"})
            ASSERT_TRUE(root_.MakeDir(dir, 0755));
        for (int s = 0; s < kSubs; ++s) {
            const std::string sub = outside_ + "/s" + std::to_string(s);
            ASSERT_TRUE(root_.MakeDir(sub, 0755));
            for (int f = 0; f < kFiles; ++f) {
                ASSERT_TRUE(root_.MakeFile(sub + "/f" + std::to_string(f), "s", 0600));
                ASSERT_TRUE(root_.MakeFile(outside_ + "/x/f" + std::to_string(f), "s", 0600));
            }
        }
        ASSERT_TRUE(root_.MakeFile(outside_ + "/target/deeper/secret", "s", 0600));
        for (const std::string &p : {outside_ + "/s0/f0", outside_ + "/x", outside_ + "/target/deeper/secret"})
            ASSERT_EQ(0, lsetxattr(p.c_str(), "trusted.keep", "root's", 6, 0)) << p;
        Snapshot(outside_, before_);
    }

    // Nothing below the outside folder differs from before the races.
    void ExpectOutsideUnchanged() {
        std::map<std::string, std::string> after;
        Snapshot(outside_, after);
        size_t changed = 0;
        for (const auto &entry : before_) {
            const auto now = after.find(entry.first);
            const std::string state = now == after.end() ? "<gone>" : now->second;
            if (state != entry.second && ++changed <= 10)
                ADD_FAILURE() << "outside the share changed: " << entry.first << "\n  before: " << entry.second
                              << "\n  after:  " << state;
        }
        EXPECT_EQ(0u, changed);
        EXPECT_EQ(before_.size(), after.size());
    }

    // Runs the set to its end. Its outcome is the race's business: a path
    // that resolved outside the share when set looked is refused (403).
    void RunSet(const Json::Value &params, const CallOptions &options) {
        CallResult started = kova_host::ModuleHost::Shared().Call("set", params, options);
        ASSERT_TRUE(started.success() || started.errorCode() == 403) << started.Dump();
        if (!started.success()) return;
        CallResult end = WaitTask(started.data()["task_id"].asString(), options);
        ASSERT_TRUE(end.delivered) << end.Dump();
    }

    // Rounds of an administrator's recursive set (with `owner`, of the owner
    // too) while folders at two depths and a file swap with outside links.
    void AdministratorRounds(bool owner, int rounds) {
        const std::string top = share_ + "/tree";
        ASSERT_NO_FATAL_FAILURE(Tree(top, 8, kSubs, kFiles));
        ASSERT_EQ(0, symlink(outside_.c_str(), (top + "/swap").c_str()));
        ASSERT_EQ(0, symlink((outside_ + "/x").c_str(), (top + "/d5/swap").c_str()));
        ASSERT_EQ(0, symlink((outside_ + "/x").c_str(), (top + "/d2/s1/swap").c_str()));
        Racer racer({{top + "/d3", top + "/swap"}, {top + "/d5/s2", top + "/d5/swap"},
                     {top + "/d2/s1/f3", top + "/d2/s1/swap"}});
        Json::Value params =
            SetOn("tree", kova_module_test::Array({kova_module_test::RuleJson("user", "alice", "allow", "rwxpdDaARWcCo")}));
        params["acl_recur"] = true;
        if (owner) params = kova_module_test::WithOwner(params, "user", "alice", true);
        for (int round = 0; round < rounds; ++round) {
            RunSet(params, admin_);
            if (HasFatalFailure()) return;
        }
        racer.Stop();
        EXPECT_GT(racer.swaps(), 100);
        ExpectOutsideUnchanged();
    }

    std::string outside_;
    std::map<std::string, std::string> before_;
};

TEST_F(SetRaceTest, AdministratorsRecursiveAclSetNeverReachesOutside) { AdministratorRounds(false, 12); }

TEST_F(SetRaceTest, AdministratorsRecursiveOwnerChangeNeverReachesOutside) { AdministratorRounds(true, 16); }

// A plain user's owner change in its own folder while the folder on the way
// swaps with a link to the outside (holding an entry of the same name).
TEST_F(SetRaceTest, APlainUsersOwnerChangeNeverReachesOutside) {
    const uid_t alice = static_cast<uid_t>(root_.Uid("alice"));
    const std::string mine = share_ + "/alice";
    ASSERT_TRUE(root_.MakeDir(mine, 0755, alice));
    ASSERT_TRUE(root_.MakeDir(mine + "/way", 0755, alice));
    ASSERT_TRUE(root_.MakeDir(mine + "/way/target", 0755, alice));
    ASSERT_TRUE(root_.MakeDir(mine + "/way/target/deeper", 0755, alice));
    ASSERT_TRUE(root_.MakeFile(mine + "/way/target/deeper/secret", "", 0644, alice));
    ASSERT_EQ(0, symlink(outside_.c_str(), (mine + "/link").c_str()));
    Racer racer({{mine + "/way", mine + "/link"}});

    Json::Value params = kova_module_test::WithOwner(kova_module_test::SetParams(mine + "/way/target", "/pub/alice"),
                                                     "user", "alice");
    params["change_acl"] = false;
    for (int round = 0; round < 150; ++round) {
        params["acl_owner_recur"] = round % 2 == 0;
        RunSet(params, alice_);
        if (HasFatalFailure()) return;
    }
    racer.Stop();
    EXPECT_GT(racer.swaps(), 100);
    ExpectOutsideUnchanged();
}

} // namespace
