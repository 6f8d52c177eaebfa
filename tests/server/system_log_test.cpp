// The server's system-log lines: without a socket that takes messages (a stale one or a plain file counts as
// none) they reach standard error whole, where the C library would drop them after a failed connect each.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "kova/account.h"
#include "system-log.h"
#include "temp-root.h"

namespace {

// Everything written to standard error while fn runs.
template <class Fn>
std::string StderrOf(const std::string &file, Fn fn) {
    fflush(stderr);
    int saved = dup(STDERR_FILENO);
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    dup2(fd, STDERR_FILENO);
    close(fd);
    fn();
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::ifstream in(file);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

// A datagram socket bound at path; closed (leaving a stale socket file) when the object goes.
struct BoundSocket {
    explicit BoundSocket(const std::string &path) {
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        struct sockaddr_un a {};
        a.sun_family = AF_UNIX;
        snprintf(a.sun_path, sizeof a.sun_path, "%s", path.c_str());
        EXPECT_EQ(0, bind(fd, reinterpret_cast<struct sockaddr *>(&a), sizeof a));
    }
    ~BoundSocket() { close(fd); }
    int fd = -1;
};

TEST(SystemLog, WithoutASocketThePlatformsLinesReachStandardError) {
    kova_test::TempRoot root;
    ASSERT_EQ(0, KOVAUserAdd("alice", -1, "Alice-Secret1", "", "", 0));
    // A row the platform refuses, and says so in the system log.
    const std::string db = root.At("etc/accounts.db");
    ASSERT_EQ(0, system(("sqlite3 " + db + " \"UPDATE users SET email = CAST(X'FF' AS TEXT) WHERE name = 'alice'\"").c_str()));

    ASSERT_EQ(webd::SystemLogSink::kStderr, webd::InitSystemLog("kova-test", root.At("no-such-socket")));
    const std::string out = StderrOf(root.At("stderr"), [] {
        int uid = -1, gid = -1;
        EXPECT_NE(0, KOVAUserGetUGID("alice", &uid, &gid));
        syslog(LOG_DEBUG, "second %s", "line");
    });
    const std::string expected =
        "kova-test[" + std::to_string(getpid()) + "]: <err> accounts.db: users row ";
    EXPECT_EQ(0u, out.find(expected)) << out;
    EXPECT_NE(std::string::npos, out.find("has an invalid email; it is not used\n")) << out;
    EXPECT_NE(std::string::npos, out.find("]: <debug> second line\n")) << out;
}

TEST(SystemLog, OnlyASocketThatTakesMessagesIsUsed) {
    kova_test::TempRoot root;
    {
        BoundSocket live(root.At("live.sock"));
        EXPECT_EQ(webd::SystemLogSink::kSyslog, webd::InitSystemLog("kova-test", root.At("live.sock")));
        EXPECT_EQ(webd::SystemLogSink::kSyslog, webd::CurrentSystemLogSink());
    }
    EXPECT_EQ(webd::SystemLogSink::kStderr, webd::InitSystemLog("kova-test", root.At("live.sock"))) << "stale socket";
    ASSERT_TRUE(kova_test::WriteFile(root.At("plain"), "x"));
    EXPECT_EQ(webd::SystemLogSink::kStderr, webd::InitSystemLog("kova-test", root.At("plain")));
}

} // namespace
