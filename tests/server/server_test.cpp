// kova-webd as a running process: sessions and the request-forgery token,
// refusal of unauthenticated calls, the Info API, refusal of a malformed
// module, per-user identities in the workers, worker crashes, and the
// built-in listing API.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <thread>

#include "kova/account.h"
#include "kova/share.h"
#include "temp-root.h"
#include "webd-process.h"

using kova_test::Reply;
using kova_test::WebClient;
using kova_test::WebdProcess;

namespace {

std::string ModulesDir() { return kova_test::BuildDir() + "/tests/server/modules"; }

struct Account {
    std::string name, passwd;
    int uid = -1, gid = -1;
    std::set<unsigned> groups;
};

Account MakeUser(const std::string &name, const std::vector<std::string> &groups) {
    Account a;
    a.name = name;
    a.passwd = name + "-Secret1";
    EXPECT_EQ(0, KOVAUserAdd(name.c_str(), -1, a.passwd.c_str(), "", "", 0)) << name;
    for (const std::string &g : groups) {
        KOVAGroupAdd(g.c_str(), -1, "");  // may exist already
        EXPECT_EQ(0, KOVAGroupMemberAdd(g.c_str(), name.c_str())) << g;
    }
    EXPECT_EQ(0, KOVAUserGetUGID(name.c_str(), &a.uid, &a.gid));
    PKLIBC_SZLIST list = KLIBGroupInfoListGet(name.c_str(), 0);
    EXPECT_NE(nullptr, list);
    for (int i = 0; list && i < list->nItem; ++i)
        if (const char *s = KLIBCSzListGet(list, i)) a.groups.insert(static_cast<unsigned>(strtoul(s, nullptr, 10)));
    KLIBCSzListFree(list);
    return a;
}

std::set<unsigned> GroupSet(const Json::Value &v) {
    std::set<unsigned> s;
    for (const Json::Value &g : v) s.insert(g.asUInt());
    return s;
}

int Code(const Reply &r) { return r.body["error"]["code"].asInt(); }

class Server : public ::testing::Test {
protected:
    void SetUp() override {
        alice = MakeUser("alice", {"staff"});
        bob = MakeUser("bob", {"lab"});
        drop = root.At("drop");
        ASSERT_TRUE(kova_test::MakeDirs(drop));
        chmod(drop.c_str(), 01777);
        // A short request time-out lets the hang test end quickly.
        webd.reset(new WebdProcess(root.path(), ModulesDir(), 2, {"--request-timeout", "2"}));
        ASSERT_TRUE(webd->ok()) << webd->ErrorLog();
    }

    Json::Value Touch(const std::string &name) {
        Json::Value p(Json::objectValue);
        p["path"] = drop + "/" + name;
        return p;
    }
    bool Exists(const std::string &name) { return access((drop + "/" + name).c_str(), F_OK) == 0; }

    kova_test::TempRoot root;
    Account alice, bob;
    std::string drop;
    std::unique_ptr<WebdProcess> webd;
};

TEST_F(Server, RepeatedWrongPasswordsBlockTheAccountFromThatAddress) {
    WebClient c(webd->port());
    for (int i = 0; i < 5; ++i) EXPECT_EQ(150, Code(c.Login(bob.name, "wrong")));
    // Now even the right password is refused, with the wait to observe.
    Reply blocked = c.Login(bob.name, bob.passwd);
    EXPECT_EQ(429, blocked.status);
    EXPECT_EQ(151, Code(blocked));
    EXPECT_GT(blocked.body["error"]["data"]["retry_after"].asInt(), 0) << blocked.body;
    EXPECT_EQ("", blocked.setCookie);
    // Other accounts from the same address are not held up.
    EXPECT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
}

TEST_F(Server, ATextWithANulOrBadUtf8NeverSignsInNorSlipsPastTheThrottle) {
    WebClient c(webd->port());
    const std::string nul(1, '\0');
    // The password check reads C strings: these would be alice and bob.
    // The client's JSON writer would mend bad UTF-8, so those bodies are written by hand.
    auto rawLogin = [&c](const std::string &account, const std::string &passwd) {
        return c.Raw("POST", "/webapi",
                     "{\"api\":\"KOVA.Server.Session\",\"version\":1,\"method\":\"login\",\"params\":{\"account\":\"" +
                         account + "\",\"passwd\":\"" + passwd + "\"}}",
                     "application/json", {});
    };
    for (const Reply &r : {c.Login(alice.name + nul + "1", alice.passwd), c.Login(bob.name, bob.passwd + nul + "x"),
                           rawLogin("ali\xff", "x"), rawLogin(bob.name, "\\udc80")}) {
        EXPECT_EQ(400, r.status) << r.body;
        EXPECT_EQ(101, Code(r));
        EXPECT_EQ("", r.setCookie);
    }
    for (int i = 0; i < 5; ++i) EXPECT_EQ(150, Code(c.Login(alice.name, "wrong")));
    for (int i = 0; i < 3; ++i) {
        Reply r = c.Login(alice.name + nul + std::to_string(i), alice.passwd);
        EXPECT_FALSE(r.body["success"].asBool()) << "NUL variant " << i << " bypassed the block: " << r.body;
        EXPECT_EQ("", r.setCookie);
    }
    EXPECT_EQ(429, c.Login(alice.name, alice.passwd).status);
}

TEST_F(Server, LoginTokenAndLogout) {
    WebClient c(webd->port());
    Reply bad = c.Login("alice", "wrong");
    EXPECT_EQ(150, Code(bad));
    EXPECT_EQ("", bad.setCookie);
    EXPECT_EQ(150, Code(c.Login("nobody", "x")));

    Reply ok = c.Login(alice.name, alice.passwd);
    ASSERT_TRUE(ok.body["success"].asBool()) << ok.body;
    EXPECT_NE(std::string::npos, ok.setCookie.find("HttpOnly"));
    EXPECT_NE(std::string::npos, ok.setCookie.find("SameSite=Strict"));
    EXPECT_EQ(64u, c.token.size());
    EXPECT_EQ(std::string::npos, ok.setCookie.find(c.token)) << "the token must not travel in the cookie";

    // The cookie alone is what a forged cross-site request carries: refused,
    // and the method does not run.
    Reply forged = c.Call("Test.Probe", 1, "touch", Touch("forged"), false);
    EXPECT_EQ(403, forged.status);
    EXPECT_EQ(120, Code(forged));
    EXPECT_FALSE(Exists("forged"));

    std::string realToken = c.token;
    c.token = std::string(64, '0');
    EXPECT_EQ(120, Code(c.Call("Test.Probe", 1, "touch", Touch("guessed"))));
    EXPECT_FALSE(Exists("guessed"));
    c.token = realToken;

    Reply done = c.Call("Test.Probe", 1, "touch", Touch("real"));
    EXPECT_TRUE(done.body["success"].asBool()) << done.body;
    EXPECT_TRUE(Exists("real"));

    Reply out = c.Call("KOVA.Server.Session", 1, "logout");
    EXPECT_TRUE(out.body["success"].asBool());
    EXPECT_NE(std::string::npos, out.setCookie.find("Max-Age=0"));
    Reply after = c.Call("Test.Probe", 1, "touch", Touch("after-logout"));
    EXPECT_EQ(401, after.status);
    EXPECT_EQ(119, Code(after));
    EXPECT_FALSE(Exists("after-logout"));
}

TEST_F(Server, UnauthenticatedCallsRunNothing) {
    WebClient anon(webd->port());
    Reply r = anon.Call("Test.Probe", 1, "touch", Touch("anon"));
    EXPECT_EQ(401, r.status);
    EXPECT_EQ(119, Code(r));
    EXPECT_FALSE(Exists("anon"));

    anon.cookie = "kova_sid=" + std::string(64, 'a');
    anon.token = std::string(64, 'b');
    EXPECT_EQ(119, Code(anon.Call("Test.Probe", 1, "touch", Touch("made-up"))));
    EXPECT_EQ(119, Code(anon.Call("KOVA.Server.Info", 1, "query")));
    EXPECT_EQ(119, Code(anon.Call("KOVA.Server.Files", 1, "list_shares")));
    EXPECT_FALSE(Exists("made-up"));

    // One user's cookie with another user's token is a forgery too.
    WebClient a(webd->port()), b(webd->port());
    ASSERT_TRUE(a.Login(alice.name, alice.passwd).body["success"].asBool());
    ASSERT_TRUE(b.Login(bob.name, bob.passwd).body["success"].asBool());
    a.token = b.token;
    EXPECT_EQ(120, Code(a.Call("Test.Probe", 1, "touch", Touch("mixed"))));
    EXPECT_FALSE(Exists("mixed"));
}

TEST_F(Server, InfoListsLoadedApisAndTheMalformedModuleIsRefused) {
    WebClient c(webd->port());
    ASSERT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
    Reply r = c.Call("KOVA.Server.Info", 1, "query");
    ASSERT_TRUE(r.body["success"].asBool()) << r.body;
    std::map<std::string, std::set<std::string>> seen;
    for (const Json::Value &a : r.body["data"]["apis"]) {
        std::string key = a["api"].asString() + "/" + std::to_string(a["version"].asInt());
        for (const Json::Value &m : a["methods"]) seen[key].insert(m.asString());
    }
    EXPECT_EQ((std::set<std::string>{"whoami", "touch", "crash", "noreply", "throw", "drop_root", "hang", "fork_probe"}),
              seen["Test.Probe/1"]);
    EXPECT_EQ(std::set<std::string>{"whoami"}, seen["Test.Probe/2"]);
    EXPECT_EQ((std::set<std::string>{"list_shares", "list_dir"}), seen["KOVA.Server.Files/1"]);
    EXPECT_EQ((std::set<std::string>{"login", "logout"}), seen["KOVA.Server.Session/1"]);
    EXPECT_EQ(0u, seen.count("Test.Bad/1"));

    const std::string log = webd->ErrorLog();
    EXPECT_NE(std::string::npos, log.find("bad-module.so refused: malformed API table: row 2: handler is NULL")) << log;
    // Its well-formed first row was refused with it.
    EXPECT_EQ(102, Code(c.Call("Test.Bad", 1, "fine")));
    EXPECT_EQ(103, Code(c.Call("Test.Probe", 1, "nothing")));
    EXPECT_EQ(104, Code(c.Call("Test.Probe", 3, "whoami")));
}

TEST_F(Server, RequestsRunWithTheCallersIdentityAndEnvironment) {
    WebClient c(webd->port());
    ASSERT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
    Json::Value p(Json::objectValue);
    p["echo"] = "hi";
    Reply r = c.Call("Test.Probe", 1, "whoami", p);
    ASSERT_TRUE(r.body["success"].asBool()) << r.body;
    const Json::Value &d = r.body["data"];
    EXPECT_EQ(alice.uid, d["euid"].asInt());
    EXPECT_EQ(alice.gid, d["egid"].asInt());
    EXPECT_EQ(0, d["ruid"].asInt());
    EXPECT_EQ(0, d["suid"].asInt());
    EXPECT_EQ(0, d["sgid"].asInt());
    EXPECT_EQ(alice.groups, GroupSet(d["groups"]));
    EXPECT_EQ("alice", d["user"].asString());
    EXPECT_EQ(c.cookie.substr(c.cookie.find('=') + 1), d["session"].asString());
    EXPECT_EQ("127.0.0.1", d["remote"].asString());
    EXPECT_EQ("hi", d["echo"].asString());

    // Form fields through GET: JSON values where the text is JSON.
    httplib::Headers h = {{"Cookie", c.cookie}, {"X-Kova-Token", c.token}};
    Reply g = c.Raw("GET", "/webapi?api=Test.Probe&version=1&method=whoami&echo=%5B1%2C2%5D", "", "", h);
    EXPECT_TRUE(g.body["data"]["echo"].isArray()) << g.body;
    Reply f = c.Raw("POST", "/webapi", "api=Test.Probe&version=2&method=whoami&echo=plain%20text",
                    "application/x-www-form-urlencoded", h);
    EXPECT_EQ("plain text", f.body["data"]["echo"].asString()) << f.body;

    Reply badBody = c.Raw("POST", "/webapi", "{oops", "application/json", h);
    EXPECT_EQ(400, badBody.status);
    EXPECT_EQ(101, Code(badBody));

    EXPECT_EQ(100, Code(c.Call("Test.Probe", 1, "noreply")));
    EXPECT_EQ(100, Code(c.Call("Test.Probe", 1, "throw")));

    const std::string access = webd->AccessLog();
    EXPECT_NE(std::string::npos, access.find("127.0.0.1 alice \"POST /webapi\" Test.Probe v1 whoami 200 ok")) << access;
}

TEST_F(Server, TwoUsersInterleavedNeverSeeEachOthersIdentity) {
    std::mutex mu;
    std::map<int, std::set<std::string>> usersByWorker;
    std::atomic<int> wrong{0}, done{0};
    auto run = [&](const Account &who, int thread) {
        WebClient c(webd->port());
        if (!c.Login(who.name, who.passwd).body["success"].asBool()) {
            ++wrong;
            return;
        }
        for (int i = 0; i < 12; ++i) {
            Json::Value p(Json::objectValue);
            p["pause_ms"] = 3;
            Reply r = c.Call("Test.Probe", 1, "whoami", p);
            const Json::Value &d = r.body["data"];
            if (d["euid"].asInt() != who.uid || d["egid"].asInt() != who.gid || d["user"].asString() != who.name ||
                GroupSet(d["groups"]) != who.groups)
                ++wrong;
            std::string file = who.name + "-" + std::to_string(thread) + "-" + std::to_string(i);
            Reply t = c.Call("Test.Probe", 1, "touch", Touch(file));
            if (t.body["data"]["uid"].asInt() != who.uid || t.body["data"]["gid"].asInt() != who.gid) ++wrong;
            std::lock_guard<std::mutex> lock(mu);
            usersByWorker[d["pid"].asInt()].insert(who.name);
            ++done;
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) threads.emplace_back(run, t % 2 ? bob : alice, t);
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(0, wrong.load());
    EXPECT_EQ(48, done.load());

    // Alternating calls one after another go to the same idle worker, so one
    // process serves both users in turn.
    WebClient a(webd->port()), b(webd->port());
    ASSERT_TRUE(a.Login(alice.name, alice.passwd).body["success"].asBool());
    ASSERT_TRUE(b.Login(bob.name, bob.passwd).body["success"].asBool());
    for (int i = 0; i < 6; ++i) {
        WebClient &c = i % 2 ? b : a;
        const Account &who = i % 2 ? bob : alice;
        Reply r = c.Call("Test.Probe", 1, "whoami");
        EXPECT_EQ(who.uid, r.body["data"]["euid"].asInt());
        EXPECT_EQ(who.groups, GroupSet(r.body["data"]["groups"]));
        usersByWorker[r.body["data"]["pid"].asInt()].insert(who.name);
    }
    bool shared = false;
    for (auto &w : usersByWorker) shared = shared || w.second.size() == 2;
    EXPECT_TRUE(shared) << "no worker served both users";
}

TEST_F(Server, AWorkerCrashAnswers500AndThePoolRecovers) {
    WebClient c(webd->port());
    ASSERT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
    Reply crash = c.Call("Test.Probe", 1, "crash");
    EXPECT_EQ(500, crash.status);
    EXPECT_EQ(160, Code(crash));
    Reply next = c.Call("Test.Probe", 1, "whoami");
    EXPECT_TRUE(next.body["success"].asBool()) << next.body;
    EXPECT_EQ(alice.uid, next.body["data"]["euid"].asInt());
    EXPECT_NE(std::string::npos, webd->ErrorLog().find("Test.Probe.crash")) << webd->ErrorLog();

    // Both slots of the pool work again: two overlapping calls both succeed
    // and run in two different processes.
    std::vector<int> pids(2, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            WebClient t(webd->port());
            t.cookie = c.cookie;
            t.token = c.token;
            Json::Value p(Json::objectValue);
            p["pause_ms"] = 300;
            pids[i] = t.Call("Test.Probe", 1, "whoami", p).body["data"]["pid"].asInt();
        });
    }
    for (std::thread &t : threads) t.join();
    EXPECT_NE(0, pids[0]);
    EXPECT_NE(0, pids[1]);
    EXPECT_NE(pids[0], pids[1]);
}

TEST_F(Server, AHandlerThatNeverReturnsIsKilledAndReplaced) {
    WebClient c(webd->port());
    ASSERT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
    Reply hung = c.Call("Test.Probe", 1, "hang");
    EXPECT_EQ(500, hung.status);
    EXPECT_EQ(160, Code(hung));
    EXPECT_NE(std::string::npos, webd->ErrorLog().find("no answer to Test.Probe.hang")) << webd->ErrorLog();
    EXPECT_TRUE(c.Call("Test.Probe", 1, "whoami").body["success"].asBool());
}

TEST_F(Server, ProcessesForkedByAHandlerDoNotHoldTheWorkersChannel) {
    WebClient c(webd->port());
    ASSERT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
    const std::string report = drop + "/fork-report";
    Json::Value p(Json::objectValue);
    p["path"] = report;
    Reply r = c.Call("Test.Probe", 1, "fork_probe", p);
    ASSERT_TRUE(r.body["success"].asBool()) << r.body;
    std::ifstream in(report);
    std::string state;
    in >> state;
    EXPECT_EQ("closed", state);
}

TEST_F(Server, SigningInAgainEndsTheBrowsersPreviousSession) {
    WebClient c(webd->port());
    ASSERT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
    WebClient old(webd->port());
    old.cookie = c.cookie;
    old.token = c.token;
    ASSERT_TRUE(c.Login(bob.name, bob.passwd).body["success"].asBool());
    EXPECT_NE(old.cookie, c.cookie);
    EXPECT_EQ(119, Code(old.Call("Test.Probe", 1, "whoami")));
    EXPECT_EQ(bob.uid, c.Call("Test.Probe", 1, "whoami").body["data"]["euid"].asInt());
}

TEST_F(Server, AWorkerThatLostRootIsRetiredNotReused) {
    WebClient c(webd->port()), b(webd->port());
    ASSERT_TRUE(c.Login(alice.name, alice.passwd).body["success"].asBool());
    ASSERT_TRUE(b.Login(bob.name, bob.passwd).body["success"].asBool());
    Reply r = c.Call("Test.Probe", 1, "drop_root");
    ASSERT_TRUE(r.body["success"].asBool()) << r.body;
    int dropped = r.body["data"].asInt();
    for (int i = 0; i < 4; ++i) {
        Reply w = b.Call("Test.Probe", 1, "whoami");
        ASSERT_TRUE(w.body["success"].asBool()) << w.body;
        EXPECT_NE(dropped, w.body["data"]["pid"].asInt());
        EXPECT_EQ(bob.uid, w.body["data"]["euid"].asInt());
    }
    EXPECT_NE(std::string::npos, webd->ErrorLog().find("cannot return to root"));
}

TEST_F(Server, FilesApiHonoursSharePrivilegesAndFolderRights) {
    const std::string docs = root.At("volume1/docs");
    ASSERT_TRUE(kova_test::WriteFile(docs + "/b.txt", "b"));
    ASSERT_TRUE(kova_test::WriteFile(docs + "/a.txt", "a"));
    ASSERT_TRUE(kova_test::MakeDirs(docs + "/zdir"));
    ASSERT_TRUE(kova_test::MakeDirs(docs + "/secret"));
    chmod((docs + "/secret").c_str(), 0700);
    KOVA_SHARE s = {};
    snprintf(s.szName, sizeof s.szName, "docs");
    snprintf(s.szPath, sizeof s.szPath, "%s", docs.c_str());
    s.supportAcl = 1;
    s.aclStatus = 1;
    s.defaultPriv = KOVA_SHARE_PRIV_NONE;
    ASSERT_EQ(0, KOVAShareSet(&s));
    ASSERT_EQ(0, KOVASharePrivSet("docs", 1, "alice", KOVA_SHARE_PRIV_RW));

    WebClient a(webd->port()), b(webd->port());
    ASSERT_TRUE(a.Login(alice.name, alice.passwd).body["success"].asBool());
    ASSERT_TRUE(b.Login(bob.name, bob.passwd).body["success"].asBool());

    Reply shares = a.Call("KOVA.Server.Files", 1, "list_shares");
    ASSERT_TRUE(shares.body["success"].asBool()) << shares.body;
    ASSERT_EQ(1u, shares.body["data"]["shares"].size());
    EXPECT_EQ("/docs", shares.body["data"]["shares"][0]["path"].asString());
    EXPECT_EQ("rw", shares.body["data"]["shares"][0]["privilege"].asString());
    EXPECT_EQ(0u, b.Call("KOVA.Server.Files", 1, "list_shares").body["data"]["shares"].size());

    Json::Value p(Json::objectValue);
    p["path"] = "/docs/";
    Reply dir = a.Call("KOVA.Server.Files", 1, "list_dir", p);
    ASSERT_TRUE(dir.body["success"].asBool()) << dir.body;
    const Json::Value &e = dir.body["data"]["entries"];
    ASSERT_EQ(4u, e.size());
    EXPECT_EQ("secret", e[0]["name"].asString());
    EXPECT_TRUE(e[0]["is_dir"].asBool());
    EXPECT_EQ("zdir", e[1]["name"].asString());
    EXPECT_EQ("a.txt", e[2]["name"].asString());
    EXPECT_FALSE(e[2]["is_dir"].asBool());
    EXPECT_EQ("/docs/a.txt", e[2]["path"].asString());
    char real[PATH_MAX];
    ASSERT_NE(nullptr, realpath(docs.c_str(), real));
    EXPECT_EQ(std::string(real) + "/a.txt", e[2]["real_path"].asString());

    p["offset"] = 1;
    p["limit"] = 2;
    Reply page = a.Call("KOVA.Server.Files", 1, "list_dir", p);
    EXPECT_EQ(4u, page.body["data"]["total"].asUInt());
    ASSERT_EQ(2u, page.body["data"]["entries"].size());
    EXPECT_EQ("zdir", page.body["data"]["entries"][0]["name"].asString());

    Json::Value q(Json::objectValue);
    q["path"] = "/docs/secret";
    EXPECT_EQ(603, Code(a.Call("KOVA.Server.Files", 1, "list_dir", q)));  // mode 0700, root's
    q["path"] = "/docs/a.txt";
    EXPECT_EQ(604, Code(a.Call("KOVA.Server.Files", 1, "list_dir", q)));
    q["path"] = "/docs/../etc";
    EXPECT_EQ(600, Code(a.Call("KOVA.Server.Files", 1, "list_dir", q)));
    q["path"] = "/docs";
    EXPECT_EQ(602, Code(b.Call("KOVA.Server.Files", 1, "list_dir", q)));
}

} // namespace
