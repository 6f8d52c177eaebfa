// The identity component with each id call refused in turn: ids stay as they were, and a
// refused give-back of root ends the process.
#include "as-identity.h"
#include "sys-fault.h"

#include "kova-internal/identity.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

namespace {

using kova_test::FailedRun;
using kova_test::IdsNow;
using kova_test::Lines;

const std::vector<std::string> kIdCalls = {"setresuid", "setresgid", "setgroups", "capget", "capset"};

// A forked child's exit status, or 1000 + the signal that ended it.
int ChildEnd(const std::function<int()> &body) {
    pid_t pid = fork();
    if (pid == 0) _exit(body() & 0xFF);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) return -1;
    return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
}

} // namespace

TEST(Identity, SwitchToUserFailsCleanlyAtEveryIdCall) {
    // From root (a worker) and from a user with saved uid 0 (a task).
    for (uid_t start : {0u, 4100u}) {
        std::string before;
        int savedErrno = 0;
        std::vector<std::string> refused;
        const auto problems = kova_test::FailEachCall(
            kIdCalls,
            [&] {
                if (start != 0 && setresuid(static_cast<uid_t>(-1), start, static_cast<uid_t>(-1)) != 0) return -2;
                before = IdsNow();
                errno = 0;
                const bool ok = kova_internal::SwitchToUser(4000, 4001, {4002, 4003});
                savedErrno = errno;
                if (!ok) return 0;
                return IdsNow() == "uid 0/4000/0 gid 0/4001/0 groups 4002 4003" ? 1 : 2;
            },
            1,
            [&](const FailedRun &run) -> std::string {
                if (run.result != 0) return "not reported as failed (" + std::to_string(run.result) + ")";
                if (savedErrno != EIO) return "errno " + std::to_string(savedErrno) + " instead of the refusal's";
                const std::string after = IdsNow();
                return after == before ? "" : "ids " + before + " became " + after;
            },
            &refused);
        EXPECT_TRUE(problems.empty()) << "from uid " << start << "\n" << Lines(problems);
        // Raise (a user only), groups, gid, uid.
        std::vector<std::string> calls = {"setgroups", "setresgid", "setresuid"};
        if (start != 0) calls.insert(calls.begin(), "setresuid");
        EXPECT_EQ(refused, calls) << start;
    }
}

TEST(Identity, RootScopeRefusedOnTheWayUpChangesNothing) {
    const kova_test::Identity user{4000, 4001, {4002}};
    // Call 1 raises the uid, call 2 the gid; refused, nothing changes.
    for (const char *entry : {"setresuid", "setresgid", ""}) {
        const int rc = kova_test::RunAs(user, [&] {
            const std::string before = IdsNow();
            {
                kova_test::SysCallFault fault(1, {std::string(entry)});
                kova_internal::RootScope root;
                if (*entry) {
                    if (root.ok()) return 1;
                    return IdsNow() == before ? 0 : 2;
                }
                if (!root.ok() || geteuid() != 0 || getegid() != 0) return 3;
            }
            return IdsNow() == before ? 0 : 4;
        });
        EXPECT_EQ(rc, 0) << entry;
    }
}

TEST(Identity, RootThatCannotBeGivenBackEndsTheProcess) {
    const kova_test::Identity user{4000, 4001, {4002}};
    // The second call of each kind is the give-back.
    for (const char *entry : {"setresuid", "setresgid"}) {
        const int end = ChildEnd([&] {
            if (!kova_internal::SwitchToUser(user.uid, user.gid, user.groups)) return 10;
            kova_test::SysCallFault fault(2, {std::string(entry)});
            {
                kova_internal::RootScope root;
                if (!root.ok()) return 11;
            }
            return geteuid() == 0 ? 12 : 13;  // either way: it went on
        });
        EXPECT_EQ(end, 1000 + SIGABRT) << entry;
    }
}

TEST(Identity, RestoreRootReportsWhatItCouldNotPutBack) {
    const kova_test::Identity user{4000, 4001, {4002}};
    for (const char *entry : {"setresuid", "setresgid", "setgroups", ""}) {
        const int rc = kova_test::RunAs(user, [&] {
            const std::vector<gid_t> rootGroups = {0, 7};
            kova_test::SysCallFault fault(1, {std::string(entry)});
            const bool restored = kova_internal::RestoreRoot(rootGroups);
            if (*entry) return restored ? 1 : 0;
            return restored && IdsNow() == "uid 0/0/0 gid 0/0/0 groups 0 7" ? 0 : 2;
        });
        EXPECT_EQ(rc, 0) << entry;
    }
    // A saved uid dropped by a handler cannot be undone: reported.
    const int rc = kova_test::RunAs(user, [] {
        if (setresuid(4000, 4000, 4000) != 0) return 3;
        return kova_internal::RestoreRoot({}) ? 4 : 0;
    });
    EXPECT_EQ(rc, 0);
}

TEST(Identity, KeepOnlyCapabilityLeavesOneAndARaiseGivesTheRestBack) {
    const int rc = kova_test::RunAs({4000, 4001, {}}, [] {
        if (!kova_internal::KeepOnlyCapability(CAP_SYS_ADMIN)) return 1;
        if (kova_test::EffectiveCapabilities() != (uint64_t{1} << CAP_SYS_ADMIN)) return 2;
        {
            kova_internal::UidScope raised;
            if (!raised.ok() || !kova_internal::HoldsCapability(CAP_CHOWN)) return 3;
        }
        // Back to the user, holding what it held before the raise.
        if (geteuid() != 4000 || kova_test::EffectiveCapabilities() != (uint64_t{1} << CAP_SYS_ADMIN)) return 4;
        // Refused by the kernel's table: reported, nothing changed.
        kova_test::SysCallFault fault(1, {"capset"});
        return kova_internal::KeepOnlyCapability(CAP_CHOWN) ? 5 : 0;
    });
    EXPECT_EQ(rc, 0);
}
