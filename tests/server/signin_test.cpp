// Sign-ins against a directory that does not answer: they hold up neither other sign-ins nor other calls, and
// no more than kMaxSignIns of them are in progress at once (a further one is refused at once with 503, 152).
#include <gtest/gtest.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "http-front.h"
#include "kova-internal/owned-fd.h"
#include "kova/account.h"
#include "run-admin.h"
#include "slapd.h"
#include "temp-root.h"
#include "webd-process.h"

using kova_test::Reply;
using kova_test::WebClient;

namespace {

constexpr int kSlots = webd::kMaxSignIns;

// Established IPv4 connections whose far end is a local port (the client ends), counted from the kernel's
// socket-diagnostics dump, filtered by port in the kernel. /proc/net/tcp would not do: it is read a page at a
// time, and while other tests open and close connections a read can see a socket twice or miss it. -1 when
// the dump cannot be had.
int ConnectionsTo(int port) {
    const kova_internal::OwnedFd fd(socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    struct {
        nlmsghdr head;
        inet_diag_req_v2 req;
    } ask{};
    ask.head.nlmsg_len = sizeof ask;
    ask.head.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    ask.head.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    ask.req.sdiag_family = AF_INET;
    ask.req.sdiag_protocol = IPPROTO_TCP;
    ask.req.idiag_states = 1u << TCP_ESTABLISHED;
    ask.req.id.idiag_dport = htons(static_cast<uint16_t>(port));
    if (fd.get() < 0 || send(fd.get(), &ask, sizeof ask, 0) != static_cast<ssize_t>(sizeof ask)) return -1;
    alignas(nlmsghdr) char buf[32768];
    for (int count = 0;;) {
        int len = static_cast<int>(recv(fd.get(), buf, sizeof buf, 0));
        if (len <= 0) return -1;
        for (auto *h = reinterpret_cast<nlmsghdr *>(buf); NLMSG_OK(h, len); h = NLMSG_NEXT(h, len)) {
            if (h->nlmsg_type == NLMSG_DONE) return count;
            if (h->nlmsg_type == NLMSG_ERROR) return -1;
            ++count;
        }
    }
}

// The reply to fn(), which must come well before the directory's own time-out (10 s) would have ended a wait
// for it.
template <typename F> Reply Prompt(F fn, const std::string &what) {
    const auto t0 = std::chrono::steady_clock::now();
    Reply r = fn();
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(5)) << what << " waited for the directory";
    return r;
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
        webd_ = std::make_unique<kova_test::WebdProcess>(root_.path(), kova_test::ModulesDir());
        ASSERT_TRUE(webd_->ok()) << webd_->ErrorLog();
    }

    void TearDown() override {
        Resume();
        for (std::thread &t : hanging_) t.join();
    }

    void Stop() { ASSERT_EQ(0, kill(slapd_->pid(), SIGSTOP)); }
    void Resume() {
        if (slapd_ && slapd_->running()) kill(slapd_->pid(), SIGCONT);
    }

    // The sign-in of directory user n ("user000n"), left waiting on the stopped directory; returns once its
    // bind has reached the directory.
    void StartHanging(int n) {
        char user[32];
        snprintf(user, sizeof user, "user%04d@example.com", n);
        const int before = ConnectionsTo(slapd_->port());
        ASSERT_GE(before, 0) << "the kernel's socket dump cannot be read";
        hanging_.emplace_back([this, user] { WebClient(webd_->port()).Login(user, "any pw 1"); });
        for (int i = 0; i < 500 && ConnectionsTo(slapd_->port()) <= before; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_GT(ConnectionsTo(slapd_->port()), before) << user << "'s sign-in never reached the directory";
    }

    static constexpr const char *kAlicePw = "alice-Secret1";
    static constexpr const char *kBobPw = "bob-Secret1";
    kova_test::TempRoot root_;
    std::unique_ptr<kova_test::Slapd> slapd_;
    std::unique_ptr<kova_test::WebdProcess> webd_;
    std::vector<std::thread> hanging_;
};

TEST_F(SignIn, AHangingDirectoryHoldsUpNoOneElseAndSignInsInProgressAreBounded) {
    WebClient alice(webd_->port());
    ASSERT_TRUE(alice.Login("alice", kAlicePw).body["success"].asBool());
    Stop();

    // One directory sign-in waiting: a local sign-in and a call go ahead.
    StartHanging(0);
    WebClient bob(webd_->port());
    Reply signedIn = Prompt([&] { return bob.Login("bob", kBobPw); }, "a local sign-in");
    EXPECT_TRUE(signedIn.body["success"].asBool()) << signedIn.raw;
    Reply info = Prompt([&] { return bob.Call("KOVA.Server.Info", 1, "query"); }, "a call");
    EXPECT_TRUE(info.body["success"].asBool()) << info.raw;

    // Every place taken: a further sign-in is refused at once, before its password is checked, and refusals
    // are no failed sign-ins (more of them than the throttle allows failures leave alice free to sign in).
    for (int i = 1; i < kSlots; ++i) StartHanging(i);
    WebClient raw(webd_->port(), 15);
    for (int i = 0; i < 8; ++i) {
        Reply r = Prompt([&] { return raw.Login("alice", "wrong"); }, "refusal " + std::to_string(i));
        EXPECT_EQ(503, r.status) << r.raw;
        EXPECT_EQ("1", r.retryAfter);
        EXPECT_TRUE(r.json) << r.raw;
        EXPECT_FALSE(r.body["success"].asBool());
        EXPECT_EQ(152, r.body["error"]["code"].asInt()) << r.raw;
        EXPECT_EQ(0u, r.contentType.find("application/json"));
    }
    info = Prompt([&] { return alice.Call("KOVA.Server.Info", 1, "query"); }, "a call with every place taken");
    EXPECT_TRUE(info.body["success"].asBool()) << info.raw;

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
    // Five wrong passwords block an account; the domain account's sign-ins were never checked, so none of
    // them counts.
    for (int i = 0; i < 7; ++i) {
        Reply r = c.Login("CORP\\jdoe", "whatever-1");
        EXPECT_EQ(200, r.status) << r.raw;
        EXPECT_EQ(153, r.body["error"]["code"].asInt()) << r.raw;
    }
    // A local account's wrong password is still the plain refusal.
    EXPECT_EQ(150, WebClient(webd_->port()).Login("bob", "wrong").body["error"]["code"].asInt());
}

} // namespace
