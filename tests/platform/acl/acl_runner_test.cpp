// The propagation runner started from a multi-threaded caller: another
// thread inside a platform call at the fork holds a lock that the copy of
// the caller would wait for forever, had the runner kept running the
// caller's code instead of its own program.
#include "acl-fixture.h"

#include "kova/acladmin.h"
#include "kova/fault.h"

#include "../../../platform/acl/propagation-job.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

namespace {

using kova_acl_test::AclFixture;

// The runner that the job folder names, killed; for a test that failed.
void KillRunner() {
    kova_acl::JobDir dir;
    pid_t pid = 0;
    unsigned long long start = 0;
    if (dir.Open() && dir.ReadRunner(pid, start) == 1 && pid > 0) kill(pid, SIGKILL);
}

class Runner : public AclFixture {};

TEST_F(Runner, StartedWhileAnotherThreadHoldsAPlatformLockFollowsEveryChange) {
    Dir(In("top/a"));
    File(In("top/a/f"));
    // Records that inherit, which a change of the top folder has to reach.
    ASSERT_EQ(0, SetAcl(In("top/a"), {}));
    ASSERT_EQ(0, SetAcl(In("top/a/f"), {}));
    const pid_t caller = fork();
    ASSERT_GE(caller, 0);
    if (caller == 0) {
        // Every change becomes a job, and each job a runner of its own.
        setenv("KOVA_PROPAGATION_IN_PLACE", "0", 1);
        std::atomic<bool> stop{false};
        // Each call takes and releases the fault table's lock.
        std::thread busy([&] {
            while (!stop) (void)KLIBCFaultCallCount();
        });
        int failed = 0;
        for (int i = 0; i < 8; ++i) {
            const std::string who = std::to_string(1030 + i % 2);
            failed += SetAcl(In("top"), {"user:" + who + ":allow:r------------:fd--"}) != 0;
        }
        stop = true;
        busy.join();
        _exit(failed);
    }
    int status = -1;
    for (int waited = 0; waited < 600 && waitpid(caller, &status, WNOHANG) == 0; ++waited) usleep(50000);
    if (status == -1) {
        kill(caller, SIGKILL);
        waitpid(caller, &status, 0);
        KillRunner();
        FAIL() << "the sets did not finish: a runner hung on a lock held at the fork";
    }
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status;
    if (!kova_acl_test::WaitForPropagations(10000)) {
        KillRunner();
        FAIL() << "a runner never finished its job";
    }
    KOVA_ACL_VERIFY_COUNTS counts = {};
    ASSERT_EQ(0, KOVAACLVerifyTree(In("top").c_str(), 0, nullptr, nullptr, &counts));
    EXPECT_EQ(3u, counts.checked);
    EXPECT_EQ(0u, counts.differing) << "kernel ACLs left behind the last change";
}

} // namespace
