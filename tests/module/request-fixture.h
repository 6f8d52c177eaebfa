// Helpers shared by the module test programs: request parameters from JSON
// text, rule objects from permission letters, call options, the log lines
// of a privileged section, running a set task to its end, and what a path
// stores for itself. Nothing here throws; a malformed input fails the
// calling test.
#ifndef KOVA_TEST_REQUEST_FIXTURE_H
#define KOVA_TEST_REQUEST_FIXTURE_H

#include "module-host.h"
#include "platform-fixture.h"

#include "kova/acl.h"

#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <syslog.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace kova_module_test {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;
using kova_host::LogLine;

// The 13 permission keys in the order the ACL text prints their letters
// ("rwxpdDaARWcCo").
constexpr const char kPermLetters[] = "rwxpdDaARWcCo";
const char *const kPermKeys[] = {"read_data",  "write_data", "exe_file",   "append_data",   "delete",
                                 "delete_sub", "read_attr",  "write_attr", "read_ext_attr", "write_ext_attr",
                                 "read_perm",  "change_perm", "take_ownership"};
// The platform's bit for each of kPermKeys.
const unsigned int kPermBits[] = {
    KOVA_ACL_PERM_READ_DATA, KOVA_ACL_PERM_WRITE_DATA,  KOVA_ACL_PERM_EXECUTE,    KOVA_ACL_PERM_APPEND_DATA,
    KOVA_ACL_PERM_DELETE,    KOVA_ACL_PERM_DELETE_CHILD, KOVA_ACL_PERM_READ_ATTR, KOVA_ACL_PERM_WRITE_ATTR,
    KOVA_ACL_PERM_READ_XATTR, KOVA_ACL_PERM_WRITE_XATTR, KOVA_ACL_PERM_READ_ACL,  KOVA_ACL_PERM_WRITE_ACL,
    KOVA_ACL_PERM_TAKE_OWNERSHIP};
const int kWarn = LOG_AUTH | LOG_DEBUG;  // what the privileged section logs its id changes with

// The platform mask of a permission object; every one of the 13 keys must
// be a boolean and no other key may be present, else the test fails.
inline unsigned int PermissionMask(const Json::Value &perm) {
    EXPECT_TRUE(perm.isObject()) << perm;
    if (!perm.isObject()) return 0;
    EXPECT_EQ(13u, perm.size()) << perm;
    unsigned int mask = 0;
    for (size_t i = 0; i < 13; ++i) {
        EXPECT_TRUE(perm[kPermKeys[i]].isBool()) << kPermKeys[i] << " in " << perm;
        if (perm[kPermKeys[i]].asBool()) mask |= kPermBits[i];
    }
    return mask;
}

// JSON text to a value; a typo in a test's JSON fails the test.
inline Json::Value Parse(const std::string &text) {
    Json::Value value;
    std::string error;
    EXPECT_TRUE(kova_host::ParseJson(text, value, &error)) << error << ": " << text;
    return value;
}

// A rule object. `perm` names the granted letters, either as the 13-letter
// text form ("r---------c--") or just the letters ("rc"); `inherit` is the
// 4-letter inherit text: 'f' child files, 'd' child folders, 'i' not this
// folder, 'n' no further than the children.
inline Json::Value RuleJson(const std::string &type, const std::string &name, const std::string &access,
                            const std::string &perm, const std::string &inherit = "fd--") {
    Json::Value r(Json::objectValue);
    r["owner_type"] = type;
    r["owner_name"] = name;
    r["permission_type"] = access;
    for (size_t i = 0; i < 13; ++i) r["permission"][kPermKeys[i]] = perm.find(kPermLetters[i]) != std::string::npos;
    r["inherit"]["child_files"] = inherit.find('f') != std::string::npos;
    r["inherit"]["child_folders"] = inherit.find('d') != std::string::npos;
    r["inherit"]["this_folder"] = inherit.find('i') == std::string::npos;
    r["inherit"]["all_descendants"] = inherit.find('n') == std::string::npos;
    return r;
}

// A parameter object from name/value pairs.
inline Json::Value Params(std::initializer_list<std::pair<const char *, Json::Value>> members) {
    Json::Value p(Json::objectValue);
    for (const auto &m : members) p[m.first] = m.second;
    return p;
}

inline Json::Value Array(std::initializer_list<Json::Value> items) {
    Json::Value list(Json::arrayValue);
    for (const Json::Value &v : items) list.append(v);
    return list;
}

// A set request changing the ACL of `path`, reached through the folder
// `dir` ("/share/rel").
inline Json::Value SetParams(const std::string &path, const std::string &dir,
                             const Json::Value &rules = Json::Value(Json::arrayValue), bool inherited = true) {
    Json::Value p(Json::objectValue);
    p["file_path"] = path;
    p["dirPaths"] = dir;
    p["change_acl"] = true;
    p["inherited"] = inherited;
    p["rules"] = rules;
    return p;
}

// The same request also giving the path (with `recur`, every entry below
// it too) to an owner.
inline Json::Value WithOwner(Json::Value params, const std::string &type, const std::string &name,
                             bool recur = false) {
    params["change_acl_owner"] = true;
    params["acl_owner_type"] = type;
    params["acl_owner"] = name;
    if (recur) params["acl_owner_recur"] = true;
    return params;
}

// Call options for a request made by `user` (with its own ids), with the
// given faults armed.
inline CallOptions As(const std::string &user, std::vector<Fault> faults = {}) {
    CallOptions options;
    options.user = user;
    options.faults = std::move(faults);
    return options;
}

// The same, staying at euid/egid 0.
inline CallOptions AsRoot(const std::string &user = "admin", std::vector<Fault> faults = {}) {
    CallOptions options = As(user, std::move(faults));
    options.ids = kova_host::Ids::Root;
    return options;
}

// The three lines one privileged section writes in a process whose uid and
// gid are both not 0: raise the group and the user at `enter`, drop the
// user at `leave`.
inline std::vector<LogLine> Bracket(int enter, int leave) {
    return {{kWarn, "acl:" + std::to_string(enter) + " WARNING: setresgid(-1, 0, -1)"},
            {kWarn, "acl:" + std::to_string(enter) + " WARNING: setresuid(-1, 0, -1)"},
            {kWarn, "acl:" + std::to_string(leave) + " WARNING: setresuid(-1, 0, -1)"}};
}

inline std::vector<LogLine> Join(std::initializer_list<std::vector<LogLine>> parts) {
    std::vector<LogLine> out;
    for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// Exactly these lines, in this order.
inline ::testing::AssertionResult LogsAre(const std::vector<LogLine> &want, const CallResult &r) {
    bool same = want.size() == r.logs.size();
    for (size_t i = 0; same && i < want.size(); ++i)
        same = want[i].priority == r.logs[i].priority && want[i].text == r.logs[i].text;
    if (same) return ::testing::AssertionSuccess();
    std::string w;
    for (const auto &l : want) w += std::to_string(l.priority) + " " + l.text + "\n";
    return ::testing::AssertionFailure() << "expected logs:\n" << w << "got:\n" << r.LogDump();
}

// Some line of this priority starts with `prefix`.
inline bool LogStartsWith(const CallResult &r, int priority, const std::string &prefix) {
    for (const auto &line : r.logs)
        if (line.priority == priority && line.text.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
}

// Polls status until the task reports an end (or status fails); every
// unfinished status answer is handed to `seen`. The bound only guards
// against a task that never ends.
inline CallResult WaitTask(const std::string &taskId, const CallOptions &options,
                           const std::function<void(const Json::Value &)> &seen = nullptr) {
    CallResult last;
    for (int i = 0; i < 30000; ++i) {
        last = kova_host::ModuleHost::Shared().Call("status", Params({{"task_id", taskId}}), options);
        if (!last.success() || last.data()["finished"].asBool()) return last;
        if (seen && last.data().isObject()) seen(last.data());
        usleep(2000);
    }
    ADD_FAILURE() << "the task did not end: " << last.Dump();
    return last;
}

// Starts a set and runs it to its end: the refusal of set itself or the
// task's final status.
inline CallResult RunSet(const Json::Value &params, const CallOptions &options) {
    CallResult started = kova_host::ModuleHost::Shared().Call("set", params, options);
    if (!started.success()) return started;
    return WaitTask(started.data()["task_id"].asString(), options);
}

// The ACL a path stores for itself (not resolved through its ancestors).
struct StoredAcl {
    bool readable = false;
    bool stored = false;  // the path is in ACL mode
    int inherited = -1;
    int count = -1;  // the entry count the ACL states
    std::vector<KOVA_ACL_ENTRY> entries;
};

inline StoredAcl ReadStored(const std::string &path) {
    StoredAcl out;
    out.stored = KOVAACLIsSupport(path.c_str(), -1, KOVA_ACL_SUPPORT_MODE) == 1;
    PKOVA_ACL acl = nullptr;
    if (KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_OWN, &acl) != 0 || !acl) return out;
    out.readable = true;
    out.inherited = acl->isInherited;
    out.count = acl->aceCount;
    for (PKOVA_ACL_ENTRY e = acl->pHead; e; e = e->pNext) out.entries.push_back(*e);
    KOVAACLFree(acl);
    return out;
}

// The names and values of a path's trusted.* attributes, read without
// following a link.
inline std::map<std::string, std::string> TrustedXattrs(const std::string &path) {
    std::map<std::string, std::string> out;
    char names[8192];
    const ssize_t size = llistxattr(path.c_str(), names, sizeof names);
    for (ssize_t at = 0; size > 0 && at < size; at += static_cast<ssize_t>(strlen(names + at)) + 1) {
        const std::string name = names + at;
        if (name.compare(0, 8, "trusted.") != 0) continue;
        char value[65536];
        const ssize_t n = lgetxattr(path.c_str(), name.c_str(), value, sizeof value);
        out[name] = n < 0 ? "<unreadable>" : std::string(value, static_cast<size_t>(n));
    }
    return out;
}

// Own entries of a path: -1 when it has no stored ACL, -2 when unreadable.
inline int StoredCount(const std::string &path) {
    const StoredAcl acl = ReadStored(path);
    if (!acl.stored) return -1;
    return acl.readable ? acl.count : -2;
}

// A platform root with the administrator "boss", the users "alice" and
// "bob" and the ACL-enabled share "pub" (share_), made for each test.
class ShareFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(host_.ok()) << host_.error();
        for (const char *user : {"boss", "alice", "bob"}) ASSERT_TRUE(root_.AddUser(user)) << root_.lastError();
        ASSERT_TRUE(root_.MakeAdmin("boss")) << root_.lastError();
        share_ = root_.AddShare("pub");
        ASSERT_FALSE(share_.empty()) << root_.lastError();
    }

    // A set of `rules` on "pub/<rel>".
    Json::Value SetOn(const std::string &rel, const Json::Value &rules = Json::Value(Json::arrayValue),
                      bool inherited = true) const {
        return SetParams(share_ + "/" + rel, "/pub/" + rel, rules, inherited);
    }

    // `top` with `dirs` folders "d<N>", each holding `subs` folders "s<N>" of
    // `files` empty files "f<N>"; folders 0777, files 0666. Every entry below
    // top is added to *made, parents first.
    void Tree(const std::string &top, int dirs, int subs, int files, std::vector<std::string> *made = nullptr) {
        ASSERT_TRUE(root_.MakeDir(top, 0777));
        std::vector<std::string> all;
        for (int d = 0; d < dirs; ++d) {
            all.push_back(top + "/d" + std::to_string(d));
            ASSERT_TRUE(root_.MakeDir(all.back(), 0777));
            for (int s = 0; s < subs; ++s) {
                const std::string sub = top + "/d" + std::to_string(d) + "/s" + std::to_string(s);
                ASSERT_TRUE(root_.MakeDir(sub, 0777));
                all.push_back(sub);
                for (int f = 0; f < files; ++f) {
                    all.push_back(sub + "/f" + std::to_string(f));
                    ASSERT_TRUE(root_.MakeFile(all.back(), "", 0666));
                }
            }
        }
        if (made) made->insert(made->end(), all.begin(), all.end());
    }

    kova_host::ModuleHost &host_ = kova_host::ModuleHost::Shared();
    kova_host::PlatformRoot root_;
    std::string share_;
    const CallOptions admin_ = As("boss"), alice_ = As("alice"), bob_ = As("bob");
};

// Tests sharing one platform root: the suite's SetUpTestSuite fills the
// root NewRoot() makes; it is dropped when the suite ends.
class SharedRootTest : public ::testing::Test {
protected:
    static kova_host::PlatformRoot &NewRoot() {
        root_.reset(new kova_host::PlatformRoot());
        return *root_;
    }
    // NewRoot() with `users` and the ACL-enabled share "docs" (share_).
    static void NewRootWithDocs(std::initializer_list<const char *> users) {
        kova_host::PlatformRoot &root = NewRoot();
        for (const char *user : users) ASSERT_TRUE(root.AddUser(user)) << root.lastError();
        share_ = root.AddShare("docs");
        ASSERT_FALSE(share_.empty()) << root.lastError();
    }
    static void TearDownTestSuite() { root_.reset(); }
    void SetUp() override { ASSERT_TRUE(host().ok()) << host().error(); }
    static kova_host::ModuleHost &host() { return kova_host::ModuleHost::Shared(); }

    static inline std::unique_ptr<kova_host::PlatformRoot> root_;
    static inline std::string share_;
};

} // namespace kova_module_test

#endif
