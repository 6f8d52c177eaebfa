// status and stop of the set task: who reaches a task, unreadable or refused
// tasks (the task's own failure handed through is checked by set_checks_test).
#include "module-host.h"
#include "platform-fixture.h"
#include "request-fixture.h"

#include "kova/webapi.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace {

using kova_host::CallOptions;
using kova_host::CallResult;
using kova_host::Fault;
using kova_module_test::As;
using kova_module_test::WaitTask;

Json::Value TaskId(const std::string &id) { return kova_module_test::Params({{"task_id", id}}); }

class TaskTest : public kova_module_test::ShareFixture {
protected:
    // Asks for a set of an empty ACL on a new folder of the caller's.
    CallResult Start(const std::string &rel, const CallOptions &as) {
        EXPECT_TRUE(root_.MakeDir(share_ + "/" + rel, 0755, static_cast<uid_t>(root_.Uid(as.user))));
        return host_.Call("set", SetOn(rel), as);
    }

    // The same, started: the task id.
    std::string StartOn(const std::string &rel, const CallOptions &as) {
        CallResult started = Start(rel, as);
        EXPECT_TRUE(started.success()) << started.Dump();
        return started.data()["task_id"].asString();
    }
};

// An empty task id is a bad request; an unknown one is unreadable and
// cannot be stopped.
TEST_F(TaskTest, EmptyOrUnknownTaskIds) {
    for (const char *method : {"status", "stop"}) {
        CallResult r = host_.Call(method, TaskId(""), alice_);
        EXPECT_EQ(403, r.errorCode()) << method << ": " << r.Dump();
        EXPECT_TRUE(r.response["error"]["data"].isNull() || !r.response["error"].isMember("data")) << r.Dump();
        EXPECT_TRUE(r.logs.empty()) << r.LogDump();
    }
    CallResult status = host_.Call("status", TaskId("setacl-nope"), alice_);
    EXPECT_EQ(117, status.errorCode()) << status.Dump();
    EXPECT_EQ(KOVA_POLLING_ERR_NOTASK, status.response["error"]["data"].asInt()) << status.Dump();
    EXPECT_TRUE(status.HasLog(LOG_ERR, "acl:940 Internal error task_id=setacl-nope")) << status.LogDump();

    CallResult stop = host_.Call("stop", TaskId("setacl-nope"), alice_);
    EXPECT_EQ(6200, stop.errorCode()) << stop.Dump();
    EXPECT_NE(std::string::npos, stop.LogDump().find("3 acl:970 Failed to stop 'setacl-nope' [0x")) << stop.LogDump();
    // The stop ran inside the privileged section: alice is not root, so
    // both ids were raised; leaving logs only the step back through root.
    std::vector<kova_host::LogLine> bracket = kova_module_test::Bracket(965, 967);
    for (const auto &line : bracket) EXPECT_TRUE(stop.HasLog(line.priority, line.text)) << stop.LogDump();
    EXPECT_EQ(bracket.size() + 1, stop.logs.size()) << stop.LogDump();
}

TEST_F(TaskTest, OnlyTheOwnerOrAnAdministratorReachesATask) {
    const std::string id = StartOn("bobs", bob_);
    ASSERT_FALSE(id.empty());
    CallResult end = WaitTask(id, bob_);
    EXPECT_TRUE(end.success()) << end.Dump();
    EXPECT_TRUE(end.data()["finished"].asBool()) << end.Dump();
    // The record is kept after the end: it can be read again.
    EXPECT_TRUE(host_.Call("status", TaskId(id), bob_).success());

    CallResult foreign = host_.Call("status", TaskId(id), alice_);
    EXPECT_EQ(117, foreign.errorCode()) << foreign.Dump();
    EXPECT_EQ(6200, host_.Call("stop", TaskId(id), alice_).errorCode());

    CallResult byAdmin = host_.Call("status", TaskId(id), admin_);
    EXPECT_TRUE(byAdmin.success()) << byAdmin.Dump();
}

TEST_F(TaskTest, StatusFailureOfTheFrameworkCarriesItsErrorNumber) {
    const std::string id = StartOn("own", alice_);
    ASSERT_FALSE(id.empty());
    WaitTask(id, alice_);
    CallResult r = host_.Call("status", TaskId(id), As("alice", {Fault{"APIPolling::Status", 0, 0, 0x0800}}));
    EXPECT_EQ(117, r.errorCode()) << r.Dump();
    EXPECT_TRUE(r.response["error"]["data"].isInt()) << r.Dump();

    CallResult stop = host_.Call("stop", TaskId(id), As("alice", {Fault{"APIPolling::Stop", 0, 0, 0x0800}}));
    EXPECT_EQ(6200, stop.errorCode()) << stop.Dump();
    EXPECT_NE(std::string::npos, stop.LogDump().find("acl:970 Failed to stop '" + id + "' [0x0800 ")) << stop.LogDump();
}

// With one task per user, alice (a live task recorded) gets 6200 from set;
// bob still gets a task.
TEST_F(TaskTest, AStartBeyondTheUsersTaskBoundAnswersTheGenericFailure) {
    setenv("KOVA_TASKS_PER_USER", "1", 1);
    struct Unset {
        ~Unset() { unsetenv("KOVA_TASKS_PER_USER"); }
    } unset;
    const pid_t busy = fork();
    ASSERT_GE(busy, 0);
    if (busy == 0) {
        for (int i = 0; i < 600; ++i) sleep(1);
        _exit(0);
    }
    struct Reap {
        pid_t pid;
        ~Reap() {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    } reap{busy};
    std::ifstream statFile("/proc/" + std::to_string(busy) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(statFile)), std::istreambuf_iterator<char>());
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string field;
    for (int n = 3; n <= 22; ++n) ASSERT_TRUE(fields >> field);
    ASSERT_TRUE(kova_test::WriteFile(root_.path() + "/var/run/tasks/setacl-held",
                                     R"({"owner": "alice", "pid": )" + std::to_string(busy) + R"(, "starttime": )" +
                                         field + R"(, "success": true, "data": null, "finished": false})"));

    CallResult refused = Start("refused", alice_);
    EXPECT_EQ(6200, refused.errorCode()) << refused.Dump();

    const std::string id = StartOn("bobs", bob_);
    ASSERT_FALSE(id.empty());
    EXPECT_TRUE(WaitTask(id, bob_).success());
}

} // namespace
