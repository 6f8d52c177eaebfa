// Background tasks end to end: detached processes, records, owners, stops and bounds.
#include "as-identity.h"
#include "temp-root.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/fault.h"
#include "kova/klibc.h"
#include "kova/webapi.h"
#include "kova-internal/sys-calls.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

using KOVA::APIPolling;
using KOVA::APIRequest;
using KOVA::APIResponse;

using kova_test::Eventually;
using kova_test::ReadFile;
using kova_test::ScopedEnv;

namespace {

bool Exists(const std::string &path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Task bodies run in the task process and are observed through the record; their waits are bounded so that a
// failing test leaves no task behind. This one finishes once the file `data` names exists.
void ProgressThenFinish(APIRequest *req, APIResponse *resp, void *data) {
    const std::string &goFile = *static_cast<std::string *>(data);
    Json::Value progress(Json::objectValue);
    progress["applypath"] = req->GetParam("file_path", "").asString();
    progress["finished"] = false;
    resp->SetSuccess(progress);
    for (int i = 0; i < 24000 && !Exists(goFile); ++i) usleep(5000);
    Json::Value done(Json::objectValue);
    done["finished"] = true;
    resp->SetSuccess(done);
}

volatile sig_atomic_t gTerm = 0;
void OnTerm(int) { gTerm = 1; }

void WaitForTerm(APIRequest *, APIResponse *resp, void *) {
    signal(SIGTERM, OnTerm);
    resp->SetSuccess("waiting");
    // Bounded, so a failing test cannot leave the task behind for good.
    for (int i = 0; i < 60000 && !gTerm; ++i) usleep(2000);
    resp->SetError(4242);
}

void SleepLong(APIRequest *, APIResponse *resp, void *) {
    resp->SetSuccess("sleeping");
    sleep(120);
}

void Rewrite(APIRequest *, APIResponse *resp, void *) {
    // Records of very different sizes, so a torn read would show.
    for (int i = 0; i < 400; ++i) {
        Json::Value d(Json::objectValue);
        d["i"] = i;
        d["pad"] = std::string(static_cast<size_t>((i % 7) * 3000), 'x');
        resp->SetSuccess(d);
    }
}

void Quick(APIRequest *, APIResponse *resp, void *) { resp->SetError(6201); }

// Start time of a process as /proc/<pid>/stat field 22 tells it.
unsigned long long StartTimeOf(pid_t pid) {
    std::string stat = ReadFile("/proc/" + std::to_string(pid) + "/stat");
    size_t close = stat.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(stat.substr(close + 1));
    std::string field;
    for (int n = 3; n <= 22; ++n)
        if (!(rest >> field)) return 0;
    return std::strtoull(field.c_str(), nullptr, 10);
}

bool WriteRecord(const std::string &path, const Json::Value &record) {
    Json::StreamWriterBuilder w;
    return kova_test::WriteFile(path, Json::writeString(w, record));
}

// Sets a file's modification time `age` seconds into the past.
bool Age(const std::string &path, time_t age) {
    struct timespec times[2];
    times[0].tv_sec = times[1].tv_sec = time(nullptr) - age;
    times[0].tv_nsec = times[1].tv_nsec = 0;
    return utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) == 0;
}

class Polling : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(KOVAUserAdd("alice", -1, "pw", nullptr, nullptr, 0), 0);
        ASSERT_EQ(KOVAUserAdd("bob", -1, "pw", nullptr, nullptr, 0), 0);
    }

    // Starts fn as user's task: its id, or "" with the polling error in *err.
    std::string StartAs(const std::string &user, APIPolling::TaskFunc fn, void *data, const char *prefix = "setacl",
                        int *err = nullptr) {
        APIRequest req(params_, user, "sid-" + user);
        APIPolling poll(&req);
        poll.SetPrefixAttr(prefix);
        APIResponse resp;
        const bool ok = poll.Start(&resp, fn, data);
        if (err) *err = poll.GetError();
        if (!ok) return resp.IsSet() ? "<response set>" : "";
        if (!resp.IsSuccess()) return "";
        return resp.GetData()["task_id"].asString();
    }

    // StartAs for a start that must succeed: a failure is reported here.
    std::string Started(const std::string &user, APIPolling::TaskFunc fn, void *data,
                        const char *prefix = "setacl") {
        int err = 0;
        const std::string id = StartAs(user, fn, data, prefix, &err);
        if (id.empty() || id[0] == '<') ADD_FAILURE() << user << "'s start failed: " << id << " error " << err;
        return id;
    }

    bool StopAs(const std::string &user, const std::string &id, int *err = nullptr) {
        APIRequest req(params_, user, "s");
        APIPolling poll(&req);
        bool ok = poll.Stop(id, true);
        if (err) *err = poll.GetError();
        return ok;
    }

    // Task records in the folder (the lock and temporaries left out).
    std::vector<std::string> Records() const {
        std::vector<std::string> out;
        for (const std::string &n : kova_test::ListDir(root_.At("var/run/tasks")))
            if (n[0] != '.' && n.find(".tmp.") == std::string::npos) out.push_back(n);
        return out;
    }

    bool StatusAs(const std::string &user, const std::string &id, Json::Value &out, int *err = nullptr,
                  bool remove = false) {
        APIRequest req(params_, user, "s");
        APIPolling poll(&req);
        poll.SetRemoveAttr(remove);
        bool ok = poll.Status(id, out);
        if (err) *err = poll.GetError();
        return ok;
    }

    // The polling error of a status read and of a stop, "ok" when it succeeded.
    std::string StatusError(const std::string &user, const std::string &id) {
        Json::Value st;
        int err = 0;
        return StatusAs(user, id, st, &err) ? "ok" : std::to_string(err);
    }
    std::string StopError(const std::string &user, const std::string &id) {
        int err = 0;
        return StopAs(user, id, &err) ? "ok" : std::to_string(err);
    }
    const std::string noTask_ = std::to_string(KOVA_POLLING_ERR_NOTASK);

    Json::Value WaitFinished(const std::string &user, const std::string &id) {
        Json::Value st;
        bool ok = Eventually([&] { return StatusAs(user, id, st) && st["finished"].asBool(); });
        return ok ? st : Json::Value("<never finished>");
    }

    std::string RecordPath(const std::string &id) const { return root_.At("var/run/tasks/" + id); }

    kova_test::TempRoot root_;
    Json::Value params_ = [] {
        Json::Value p(Json::objectValue);
        p["file_path"] = "/volume1/s/dir";
        return p;
    }();
};

} // namespace

// Owners compare exactly (an administrator excepted): neither another user nor a
// name's prefix reaches a task; a refused stop leaves it running.
TEST_F(Polling, TaskPublishesProgressToItsOwnerAndFinishes) {
    ASSERT_EQ(KOVAUserAdd("bobby", -1, "pw", nullptr, nullptr, 0), 0);
    std::string go = root_.At("go");
    std::string id = Started("alice", ProgressThenFinish, &go);
    EXPECT_EQ(id.rfind("setacl", 0), 0u);
    std::string bobs = Started("bob", ProgressThenFinish, &go);
    std::string bobbys = Started("bobby", ProgressThenFinish, &go);

    Json::Value st;
    ASSERT_TRUE(Eventually([&] { return StatusAs("alice", id, st) && st["data"].isObject(); }));
    EXPECT_TRUE(st["success"].asBool());
    EXPECT_FALSE(st["finished"].asBool());
    EXPECT_EQ(st["data"]["applypath"].asString(), "/volume1/s/dir");
    EXPECT_GT(st["pid"].asInt(), 0);
    EXPECT_NE(st["pid"].asInt(), getpid());

    // The record sits in a directory only root can read.
    struct stat ds;
    ASSERT_EQ(stat(root_.At("var/run/tasks").c_str(), &ds), 0);
    EXPECT_EQ(ds.st_mode & 07777, 0700u);
    EXPECT_EQ(ds.st_uid, 0u);

    EXPECT_EQ(StatusError("bob", id), noTask_);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_NOTASK);
    EXPECT_EQ(StatusError("admin", id), "ok");  // "admin" is an administrator on a new root
    using Pair = std::pair<std::string, std::string>;  // a user and a task that is not theirs, or theirs
    for (const Pair &pair : {Pair{"bob", id}, Pair{"bob", bobbys}, Pair{"bobby", bobs}}) {
        EXPECT_EQ(StatusError(pair.first, pair.second), noTask_) << pair.first << " " << pair.second;
        EXPECT_EQ(StopError(pair.first, pair.second), noTask_) << pair.first << " " << pair.second;
    }
    for (const Pair &pair : {Pair{"alice", id}, Pair{"bob", bobs}, Pair{"bobby", bobbys}}) {
        ASSERT_TRUE(StatusAs(pair.first, pair.second, st)) << pair.first;
        EXPECT_FALSE(st["finished"].asBool()) << pair.first;
    }

    ASSERT_TRUE(kova_test::WriteFile(go, "go"));
    st = WaitFinished("alice", id);
    EXPECT_TRUE(st["success"].asBool());
    EXPECT_TRUE(st["data"]["finished"].asBool());
    // Kept after the end unless removal was asked for.
    EXPECT_TRUE(Exists(RecordPath(id)));
    EXPECT_TRUE(WaitFinished("bob", bobs)["success"].asBool());
    EXPECT_TRUE(WaitFinished("bobby", bobbys)["success"].asBool());
}

// A stop delivers SIGTERM to the task's own handling; a task killed outright reads as failed.
TEST_F(Polling, StopDeliversSigtermAndAKilledTaskReadsAsFailed) {
    std::string id = Started("alice", WaitForTerm, nullptr), killed = Started("alice", SleepLong, nullptr);
    Json::Value st;
    // The handler is installed before the task reports "waiting".
    ASSERT_TRUE(Eventually([&] { return StatusAs("alice", id, st) && st["data"].asString() == "waiting"; }));
    ASSERT_TRUE(StopAs("alice", id));
    st = WaitFinished("alice", id);
    EXPECT_FALSE(st["success"].asBool());
    EXPECT_EQ(st["error"]["code"].asInt(), 4242);
    EXPECT_TRUE(StopAs("alice", id)) << "stopping a finished task is harmless";

    ASSERT_TRUE(Eventually([&] { return StatusAs("alice", killed, st) && st["data"].asString() == "sleeping"; }));
    EXPECT_FALSE(st["finished"].asBool());
    ASSERT_EQ(kill(static_cast<pid_t>(st["pid"].asInt()), SIGKILL), 0);
    st = WaitFinished("alice", killed);
    EXPECT_FALSE(st["success"].asBool());
    EXPECT_EQ(st["error"]["code"].asInt(), 6200);
}

TEST_F(Polling, RecordsAreNeverTorn) {
    std::string id = Started("alice", Rewrite, nullptr, "rw");
    std::string path = RecordPath(id);
    Json::CharReaderBuilder b;
    std::unique_ptr<Json::CharReader> reader(b.newCharReader());
    int reads = 0, bad = 0;
    bool finished = false;
    for (int i = 0; i < 200000 && !finished; ++i) {
        std::string text = ReadFile(path);
        Json::Value v;
        std::string errs;
        ++reads;
        if (!reader->parse(text.data(), text.data() + text.size(), &v, &errs) || !v.isObject()) {
            ++bad;
            continue;
        }
        finished = v["finished"].asBool();
    }
    EXPECT_TRUE(finished);
    EXPECT_EQ(bad, 0) << "of " << reads << " reads";
    Json::Value st = WaitFinished("alice", id);
    EXPECT_EQ(st["data"]["i"].asInt(), 399);
}


// Running tasks are bounded per user and in total; a refused start does nothing.
TEST_F(Polling, RunningTasksAreBoundedPerUserAndInTotal) {
    ASSERT_EQ(KOVAUserAdd("carol", -1, "pw", nullptr, nullptr, 0), 0);
    ScopedEnv perUser("KOVA_TASKS_PER_USER", "2");
    ScopedEnv total("KOVA_TASKS_TOTAL", "3");
    std::string go = root_.At("go");
    std::vector<std::string> running;
    for (int i = 0; i < 2; ++i) running.push_back(Started("alice", ProgressThenFinish, &go));

    int err = 0;
    KLIBCErrSetEx(0, "", 0);
    EXPECT_EQ(StartAs("alice", ProgressThenFinish, &go, "setacl", &err), "");
    EXPECT_EQ(err, KOVA_POLLING_ERR_BUSY);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_TASK_LIMIT);
    EXPECT_EQ(Records().size(), 2u);

    // Another user still gets a place, until everyone's bound is reached.
    running.push_back(Started("bob", ProgressThenFinish, &go));
    EXPECT_EQ(StartAs("carol", ProgressThenFinish, &go, "setacl", &err), "");
    EXPECT_EQ(err, KOVA_POLLING_ERR_BUSY);
    EXPECT_EQ(Records().size(), 3u);

    // Ended tasks free their places.
    ASSERT_TRUE(kova_test::WriteFile(go, "go"));
    EXPECT_TRUE(WaitFinished("alice", running[0])["success"].asBool());
    EXPECT_TRUE(WaitFinished("alice", running[1])["success"].asBool());
    EXPECT_TRUE(WaitFinished("bob", running[2])["success"].asBool());
    std::string later = StartAs("carol", Quick, nullptr);
    EXPECT_FALSE(later.empty());
    if (!later.empty()) WaitFinished("carol", later);
}

// Starts from many processes at once: the bound holds across them.
TEST_F(Polling, ConcurrentStartsFromManyProcessesKeepTheBound) {
    ScopedEnv perUser("KOVA_TASKS_PER_USER", "2");
    std::string go = root_.At("go");
    std::vector<pid_t> children;
    for (int i = 0; i < 8; ++i) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) _exit(StartAs("alice", ProgressThenFinish, &go).empty() ? 1 : 0);
        children.push_back(pid);
    }
    int started = 0;
    for (pid_t pid : children) {
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status));
        if (WEXITSTATUS(status) == 0) ++started;
    }
    EXPECT_EQ(started, 2);
    std::vector<std::string> ids = Records();
    EXPECT_EQ(ids.size(), 2u);
    ASSERT_TRUE(kova_test::WriteFile(go, "go"));
    for (const std::string &id : ids) EXPECT_TRUE(WaitFinished("alice", id)["success"].asBool());
}

// Finished records are kept per user up to a count, newest first, swept at a start.
TEST_F(Polling, FinishedRecordsBeyondTheCapAreRemovedNewestKept) {
    ScopedEnv keep("KOVA_TASK_RECORDS_PER_USER", "3");
    std::string bobs = Started("bob", Quick, nullptr);
    WaitFinished("bob", bobs);
    std::vector<std::string> alices;
    for (int i = 0; i < 5; ++i) {
        alices.push_back(Started("alice", Quick, nullptr));
        WaitFinished("alice", alices.back());
        // Distinct finishing times on any file system's clock.
        ASSERT_TRUE(Age(RecordPath(alices.back()), 50 - i * 10));
    }
    // Each start swept: the two oldest went when the fourth and fifth started.
    std::string next = Started("alice", Quick, nullptr);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(StatusError("alice", alices[i]), i < 2 ? noTask_ : "ok") << i;
    EXPECT_EQ(StatusError("bob", bobs), "ok");
    EXPECT_EQ(StatusError("alice", next), "ok");
    EXPECT_EQ(Records().size(), 5u);  // bob's, alice's newest three and the one just started
    WaitFinished("alice", next);
}

// Finished records go at the first start after their retention; running ones never;
// old temporaries of dead writers go too.
TEST_F(Polling, RecordsOutliveTheirRetentionOnlyWhileRunning) {
    ScopedEnv retention("KOVA_TASK_RETENTION_SECONDS", "600");
    std::string go = root_.At("go");
    std::string quiet = Started("alice", ProgressThenFinish, &go);
    std::string old = Started("alice", Quick, nullptr);
    std::string recent = Started("alice", Quick, nullptr);
    WaitFinished("alice", old);
    WaitFinished("alice", recent);
    Json::Value st;
    ASSERT_TRUE(Eventually([&] { return StatusAs("alice", quiet, st) && st["data"].isObject(); }));
    ASSERT_TRUE(Age(RecordPath(old), 700));
    ASSERT_TRUE(Age(RecordPath(recent), 500));
    ASSERT_TRUE(Age(RecordPath(quiet), 7000));
    const std::string deadTemp = RecordPath(recent) + ".tmp.99999.0";
    const std::string liveTemp = RecordPath(recent) + ".tmp.99999.1";
    ASSERT_TRUE(kova_test::WriteFile(deadTemp, "{"));
    ASSERT_TRUE(kova_test::WriteFile(liveTemp, "{"));
    ASSERT_TRUE(Age(deadTemp, 120));
    // Status alone removes nothing: an expired record reads until the next start.
    EXPECT_TRUE(StatusAs("alice", old, st));

    std::string next = Started("bob", Quick, nullptr);
    EXPECT_EQ(StatusError("alice", old), noTask_);
    ASSERT_TRUE(StatusAs("alice", recent, st));
    EXPECT_EQ(st["error"]["code"].asInt(), 6201);
    ASSERT_TRUE(StatusAs("alice", quiet, st));
    EXPECT_FALSE(st["finished"].asBool());
    EXPECT_FALSE(Exists(deadTemp));
    EXPECT_TRUE(Exists(liveTemp));

    ASSERT_TRUE(kova_test::WriteFile(go, "go"));
    EXPECT_TRUE(WaitFinished("alice", quiet)["success"].asBool());
    WaitFinished("bob", next);
}

// A record whose pid now has another start time is never signalled (with and without
// pidfds) and reads as dead; with the right start time it is signalled.
TEST_F(Polling, StopNeverSignalsAProcessThatReusedTheTasksPid) {
    std::string id = Started("alice", Quick, nullptr);
    WaitFinished("alice", id);
    Json::Value record;
    Json::CharReaderBuilder b;
    std::istringstream in(ReadFile(RecordPath(id)));
    ASSERT_TRUE(Json::parseFromStream(b, in, &record, nullptr));

    pid_t other = fork();
    ASSERT_GE(other, 0);
    if (other == 0) {
        for (int i = 0; i < 600; ++i) sleep(1);
        _exit(0);
    }
    struct Reap {
        pid_t pid;
        ~Reap() {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    } reap{other};
    const unsigned long long start = StartTimeOf(other);
    ASSERT_GT(start, 0u);
    record["pid"] = static_cast<Json::Int64>(other);
    record["finished"] = false;
    record["success"] = true;

    auto noPidfd = [](pid_t, unsigned int) -> int {
        errno = ENOSYS;
        return -1;
    };
    for (bool pidfds : {true, false}) {
        SCOPED_TRACE(pidfds ? "pidfd" : "kill");
        using kova_internal::SysCalls;
        kova_internal::ScopedSysCall<decltype(SysCalls::pidfd_open)> fallback(
            &SysCalls::pidfd_open, pidfds ? kova_internal::RealSysCalls().pidfd_open : +noPidfd);
        record["starttime"] = static_cast<Json::UInt64>(start + 1);
        ASSERT_TRUE(WriteRecord(RecordPath(id), record));
        EXPECT_TRUE(StopAs("alice", id));
        usleep(50000);
        EXPECT_EQ(waitpid(other, nullptr, WNOHANG), 0) << "the other process was signalled";
        Json::Value st;
        ASSERT_TRUE(StatusAs("alice", id, st));
        EXPECT_TRUE(st["finished"].asBool());
        EXPECT_EQ(st["error"]["code"].asInt(), 6200);
    }

    record["starttime"] = static_cast<Json::UInt64>(start);
    ASSERT_TRUE(WriteRecord(RecordPath(id), record));
    EXPECT_TRUE(StopAs("alice", id));
    int status = 0;
    ASSERT_EQ(waitpid(other, &status, 0), other);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
}

// A finished record reads as a user's identity does (the server's handlers), and goes when
// a read asks so. Only plain names of the task folder are task ids, whoever a file claims.
TEST_F(Polling, FinishedRecordsReadAsAUserAndOnlyPlainNamesAreTaskIds) {
    std::string id = Started("alice", Quick, nullptr), dropped = Started("alice", Quick, nullptr);
    ASSERT_EQ(WaitFinished("alice", id)["error"]["code"].asInt(), 6201);
    // As the server runs handlers: effective ids of alice, saved uid 0.
    EXPECT_EQ(kova_test::RunAs({1500, 1500, {}}, [&] {
        Json::Value st;
        if (!StatusAs("alice", id, st)) return 1;
        if (st["error"]["code"].asInt() != 6201) return 2;
        return geteuid() == 1500 ? 0 : 3;
    }), 0);
    Json::Value st;
    ASSERT_TRUE(Eventually([&] { return StatusAs("alice", dropped, st) && st["finished"].asBool(); }));
    EXPECT_TRUE(Exists(RecordPath(dropped)));
    ASSERT_TRUE(StatusAs("alice", dropped, st, nullptr, true));
    EXPECT_FALSE(Exists(RecordPath(dropped)));
    EXPECT_EQ(StatusError("alice", dropped), noTask_);

    const std::string text = ReadFile(RecordPath(id));
    const std::string longId(129, 'a');
    for (const std::string &name : {std::string("alice.rec"), std::string("x"), longId})
        ASSERT_TRUE(kova_test::WriteFile(root_.At("var/run/tasks/" + name), text));
    for (const std::string &bad : {std::string("alice.rec"), std::string("x\0y", 3), longId, std::string(".lock"),
                                   std::string("x\n"), std::string("\xc3\xa9"), std::string("../../etc/accounts.db"),
                                   std::string("setacl-1-2-abc")}) {
        EXPECT_EQ(StatusError("alice", bad), noTask_) << bad;
        EXPECT_EQ(StopError("alice", bad), noTask_) << bad;
    }
    EXPECT_EQ(StatusError("alice", "x"), "ok") << "the same record under a plain name";
    // No id, or no request, is a bad argument.
    EXPECT_EQ(StatusError("alice", ""), std::to_string(KOVA_POLLING_ERR_BADARG));
    APIPolling noRequest;
    EXPECT_FALSE(noRequest.Status("x", st));
    APIResponse resp;
    EXPECT_FALSE(noRequest.Start(&resp, Quick, nullptr));
    EXPECT_EQ(noRequest.GetError(), KOVA_POLLING_ERR_BADARG);
    EXPECT_FALSE(resp.IsSet());
}

// A failing record write starts nothing and leaves no record, temporary or folder.
TEST_F(Polling, AFailedRecordWriteStartsNothing) {
    using kova_internal::SysCalls;
    auto failRename = [](int, const char *, int, const char *) -> int {
        errno = EIO;
        return -1;
    };
    int err = 0;
    {
        kova_internal::ScopedSysCall<decltype(SysCalls::renameat)> fail(&SysCalls::renameat, +failRename);
        EXPECT_EQ(StartAs("alice", Quick, nullptr, "setacl", &err), "");
    }
    EXPECT_EQ(err, KOVA_POLLING_ERR_IO);
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
    // Nothing but the start lock is left in the folder.
    for (const std::string &name : kova_test::ListDir(root_.At("var/run/tasks"))) EXPECT_EQ(name, ".lock");
    // A start failing before the record folder is made leaves none.
    kova_test::TempRoot fresh;
    KLIBCFaultSet("APIPolling::Start", 1, 0, KOVA_ERR_IO);
    EXPECT_EQ(StartAs("alice", Quick, nullptr, "setacl", &err), "");
    KLIBCFaultClearAll();
    EXPECT_EQ(KLIBCErrGet(), KOVA_ERR_IO);
    EXPECT_FALSE(Exists(fresh.At("var/run/tasks")));
}
