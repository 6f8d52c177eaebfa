// Sign-ins against a directory that does not answer: they hold up neither
// other sign-ins nor other calls, and no more than kMaxSignIns of them are
// in progress at once (a further one is refused at once with 503, 152).
#include <gtest/gtest.h>
#include <dirent.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "http-front.h"
#include "kova/account.h"
#include "run-admin.h"
#include "slapd.h"
#include "temp-root.h"
#include "webd-process.h"

using kova_test::Reply;
using kova_test::WebClient;

namespace {

constexpr int kSlots = webd::kMaxSignIns;
constexpr auto kPrompt = std::chrono::seconds(1);

// Slapd's generated users: "user0000"...
std::string DirectoryUser(int i) {
    char name[16];
    snprintf(name, sizeof name, "user%04d", i);
    return name;
}

// The slapd this process started (-d 0 keeps it a direct child).
pid_t ChildSlapd() {
    std::unique_ptr<DIR, int (*)(DIR *)> proc(opendir("/proc"), closedir);
    while (dirent *e = proc ? readdir(proc.get()) : nullptr) {
        const pid_t pid = static_cast<pid_t>(atoi(e->d_name));
        if (pid <= 0) continue;
        std::ifstream f("/proc/" + std::string(e->d_name) + "/stat");
        std::string line;
        std::getline(f, line);
        const size_t close = line.rfind(')');
        if (close == std::string::npos || line.find("(slapd)") == std::string::npos) continue;
        std::istringstream rest(line.substr(close + 2));
        char state;
        pid_t ppid = 0;
        rest >> state >> ppid;
        if (ppid == getpid()) return pid;
    }
    return -1;
}

// Established TCP connections to a local port (the client ends).
int ConnectionsTo(int port) {
    std::ifstream f("/proc/net/tcp");
    std::string line;
    std::getline(f, line);
    int n = 0;
    while (std::getline(f, line)) {
        std::istringstream in(line);
        std::string sl, local, remote, st;
        in >> sl >> local >> remote >> st;
        const size_t colon = remote.find(':');
        if (st == "01" && colon != std::string::npos && std::stoi(remote.substr(colon + 1), nullptr, 16) == port) ++n;
    }
    return n;
}

// Milliseconds fn took.
template <typename F> long Millis(F fn) {
    const auto t0 = std::chrono::steady_clock::now();
    fn();
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count());
}

class SignIn : public ::testing::Test {
protected:
    void SetUp() override {
        if (!kova_test::Slapd::Installed()) GTEST_SKIP() << "slapd is not installed";
        std::string out;
        ASSERT_EQ(kova_test::RunAdmin("init", &out), 0) << out;
        ASSERT_EQ(0, KOVAUserAdd("alice", -1, kAlicePw, "", "", 0));
        ASSERT_EQ(0, KOVAUserAdd("bob", -1, kBobPw, "", "", 0));
        slapd_ = std::make_unique<kova_test::Slapd>(kSlots + 2, 1);
        std::string why;
        ASSERT_TRUE(slapd_->Start(&why)) << why;
        ASSERT_EQ(kova_test::RunAdmin("ldap bind --uri " + slapd_->uri() + " --base " + slapd_->base() +
                                          " --suffix example.com",
                                      &out),
                  0)
            << out;
        ASSERT_EQ(kova_test::RunAdmin("ldap sync", &out), 0) << out;
        const std::string uri = slapd_->uri();
        port_ = std::stoi(uri.substr(uri.rfind(':') + 1));
        slapdPid_ = ChildSlapd();
        ASSERT_GT(slapdPid_, 0);
        webd_ = std::make_unique<kova_test::WebdProcess>(root_.path(), kova_test::ModulesDir());
        ASSERT_TRUE(webd_->ok()) << webd_->ErrorLog();
    }

    void TearDown() override {
        Resume();
        for (std::thread &t : hanging_) t.join();
    }

    void Stop() { ASSERT_EQ(0, kill(slapdPid_, SIGSTOP)); }
    void Resume() {
        if (slapdPid_ > 0) kill(slapdPid_, SIGCONT);
    }

    // A directory user's sign-in, left waiting on the stopped directory;
    // returns once its bind has reached the directory.
    void StartHanging(const std::string &user) {
        const int before = ConnectionsTo(port_);
        hanging_.emplace_back([this, user] { WebClient(webd_->port()).Login(user + "@example.com", "any pw 1"); });
        for (int i = 0; i < 500 && ConnectionsTo(port_) <= before; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_GT(ConnectionsTo(port_), before) << user << "'s sign-in never reached the directory";
    }

    static constexpr const char *kAlicePw = "alice-Secret1";
    static constexpr const char *kBobPw = "bob-Secret1";
    kova_test::TempRoot root_;
    std::unique_ptr<kova_test::Slapd> slapd_;
    std::unique_ptr<kova_test::WebdProcess> webd_;
    pid_t slapdPid_ = -1;
    int port_ = 0;
    std::vector<std::thread> hanging_;
};

TEST_F(SignIn, AHangingDirectoryHoldsUpNoOneElseAndSignInsInProgressAreBounded) {
    WebClient alice(webd_->port());
    ASSERT_TRUE(alice.Login("alice", kAlicePw).body["success"].asBool());
    Stop();

    // One directory sign-in waiting: a local sign-in and a call go ahead.
    StartHanging(DirectoryUser(0));
    WebClient bob(webd_->port());
    Reply signedIn;
    const long signInMs = Millis([&] { signedIn = bob.Login("bob", kBobPw); });
    EXPECT_TRUE(signedIn.body["success"].asBool()) << signedIn.raw;
    EXPECT_LT(signInMs, std::chrono::milliseconds(kPrompt).count()) << "local sign-in waited for the directory's";
    Reply info;
    const long callMs = Millis([&] { info = bob.Call("KOVA.Server.Info", 1, "query"); });
    EXPECT_TRUE(info.body["success"].asBool()) << info.raw;
    EXPECT_LT(callMs, std::chrono::milliseconds(kPrompt).count());

    // Every place taken: a further sign-in is refused at once, before its
    // password is checked, and refusals are no failed sign-ins (more of
    // them than the throttle allows failures leave alice free to sign in).
    for (int i = 1; i < kSlots; ++i) StartHanging(DirectoryUser(i));
    httplib::Client raw("127.0.0.1", webd_->port());
    raw.set_read_timeout(10, 0);
    const std::string body = "{\"api\":\"KOVA.Server.Session\",\"version\":1,\"method\":\"login\","
                             "\"params\":{\"account\":\"alice\",\"passwd\":\"wrong\"}}";
    for (int i = 0; i < 8; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        httplib::Result r = raw.Post("/webapi", body, "application/json");
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
        ASSERT_TRUE(r) << "attempt " << i;
        EXPECT_LT(ms, std::chrono::milliseconds(kPrompt).count()) << "attempt " << i;
        EXPECT_EQ(503, r->status) << r->body;
        EXPECT_EQ("1", r->get_header_value("Retry-After"));
        Json::Value v;
        std::istringstream in(r->body);
        ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &v, nullptr)) << r->body;
        EXPECT_FALSE(v["success"].asBool());
        EXPECT_EQ(152, v["error"]["code"].asInt()) << r->body;
        EXPECT_EQ(0u, r->get_header_value("Content-Type").find("application/json"));
    }
    const long busyCallMs = Millis([&] { info = alice.Call("KOVA.Server.Info", 1, "query"); });
    EXPECT_TRUE(info.body["success"].asBool()) << info.raw;
    EXPECT_LT(busyCallMs, std::chrono::milliseconds(kPrompt).count());

    // The directory back: the waiting sign-ins end, and places free up.
    Resume();
    for (std::thread &t : hanging_) t.join();
    hanging_.clear();
    Reply again = WebClient(webd_->port()).Login("alice", kAlicePw);
    EXPECT_TRUE(again.body["success"].asBool()) << again.raw;
    EXPECT_NE(std::string::npos, webd_->ErrorLog().find("sign-ins already in progress")) << webd_->ErrorLog();
}

TEST_F(SignIn, ADomainKnownFromItsCacheOnlyIsRefusedWithItsOwnCodeAndNeverThrottled) {
    const char ldif[] = "dn: CN=jdoe,CN=Users,DC=corp\nobjectClass: inetOrgPerson\nuid: jdoe\ncn: jdoe\nsn: d\n"
                        "objectSid: S-1-5-21-1-2-3-1105\n\n";
    ASSERT_TRUE(kova_test::WriteFile(root_.At("corp.ldif"), ldif));
    std::string out;
    ASSERT_EQ(kova_test::RunAdmin("domain join CORP --from-ldif " + root_.At("corp.ldif"), &out), 0) << out;
    WebClient c(webd_->port());
    // Five wrong passwords block an account; the domain account's sign-ins
    // were never checked, so none of them counts.
    for (int i = 0; i < 7; ++i) {
        Reply r = c.Login("CORP\\jdoe", "whatever-1");
        EXPECT_EQ(200, r.status) << r.raw;
        EXPECT_EQ(153, r.body["error"]["code"].asInt()) << r.raw;
    }
    // A local account's wrong password is still the plain refusal.
    EXPECT_EQ(150, WebClient(webd_->port()).Login("bob", "wrong").body["error"]["code"].asInt());
}

} // namespace
