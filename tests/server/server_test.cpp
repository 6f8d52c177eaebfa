// kova-webd as a running process with the probe and the malformed module: sessions, the request-forgery
// token, identities in the workers, worker failures, the Files API and the HTTP side's limits.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <map>
#include <set>
#include <thread>
#include <vector>

#include "kova/account.h"
#include "kova/acl.h"
#include "kova/share.h"
#include "share-fixture.h"
#include "temp-root.h"
#include "text-check.h"
#include "webd-process.h"

using kova_test::Reply;
using kova_test::WebClient;
using kova_test::LoginBody;
using kova_test::ModulesDir;
using kova_test::WebdProcess;

namespace {

struct Account {
    std::string name, passwd;
    int uid = -1, gid = -1;
    std::set<unsigned> groups;
};

Account MakeUser(const std::string &name, const std::string &group) {
    Account a;
    a.name = name;
    a.passwd = name + "-Secret1";
    EXPECT_EQ(0, KOVAUserAdd(name.c_str(), -1, a.passwd.c_str(), "", "", 0)) << name;
    KOVAGroupAdd(group.c_str(), -1, "");
    EXPECT_EQ(0, KOVAGroupMemberAdd(group.c_str(), name.c_str())) << group;
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
bool Ok(const Reply &r) { return r.body["success"].asBool(); }

// The reply is the server's JSON error envelope with this status and code, in well-formed UTF-8.
void ExpectEnvelope(const Reply &r, int status, int code, const std::string &what) {
    EXPECT_EQ(status, r.status) << what << ": " << r.raw;
    EXPECT_TRUE(r.json) << what << ": " << r.raw;
    EXPECT_EQ(0u, r.contentType.find("application/json")) << what << ": " << r.contentType;
    EXPECT_TRUE(webd::IsCleanText(r.raw)) << what;
    EXPECT_FALSE(Ok(r)) << what;
    EXPECT_EQ(code, Code(r)) << what << ": " << r.raw;
}

// One request made by hand, from a chosen address; the first reply to it.
Reply SendRaw(int port, const std::string &bytes, const std::string &from = "127.0.0.1") {
    kova_test::RawConnection c(port, from);
    if (!c.ok()) return Reply();
    c.Send(bytes);  // may be cut short by the refusal; the reply is still there to read
    return c.ReadReply(5000);
}

Json::Value Param(const std::string &key, const Json::Value &value) {
    Json::Value p(Json::objectValue);
    p[key] = value;
    return p;
}

class Server : public ::testing::Test {
protected:
    void SetUp() override {
        alice = MakeUser("alice", "staff");
        bob = MakeUser("bob", "lab");
        drop = root.At("drop");
        ASSERT_TRUE(kova_test::MakeDirs(drop));
        chmod(drop.c_str(), 01777);
        // A short request time-out lets the hang test end quickly.
        webd.reset(new WebdProcess(root.path(), ModulesDir(), 2, {"--request-timeout", "2"}));
        ASSERT_TRUE(webd->ok()) << webd->ErrorLog();
    }

    WebClient SignedIn(const Account &who) {
        WebClient c(webd->port());
        Reply r = c.Login(who.name, who.passwd);
        EXPECT_TRUE(Ok(r)) << who.name << ": " << r.raw;
        return c;
    }
    Reply Touch(WebClient &c, const std::string &name, bool sendToken = true) {
        return c.Call("Test.Probe", 1, "touch", Param("path", drop + "/" + name), sendToken);
    }
    bool Exists(const std::string &name) { return access((drop + "/" + name).c_str(), F_OK) == 0; }

    kova_test::TempRoot root;
    Account alice, bob;
    std::string drop;
    std::unique_ptr<WebdProcess> webd;
};

TEST_F(Server, WrongPasswordsAndBadTextBlockTheAccountFromThatAddressOnly) {
    WebClient c(webd->port());
    const std::string nul(1, '\0');
    // The password check reads C strings: these would be alice and bob. The client's JSON writer would mend
    // bad UTF-8, so those bodies go by hand.
    auto rawLogin = [&c](const std::string &account, const std::string &passwd) {
        return c.Raw("POST", "/webapi", LoginBody(account, passwd), "application/json", {});
    };
    for (const Reply &r : {c.Login(alice.name + nul + "1", alice.passwd), c.Login(bob.name, bob.passwd + nul + "x"),
                           rawLogin("ali\xff", "x"), rawLogin(bob.name, "\\udc80")}) {
        ExpectEnvelope(r, 400, 101, "bad text in a sign-in");
        EXPECT_EQ("", r.setCookie);
    }
    EXPECT_EQ(150, Code(c.Login("nobody", "x")));
    for (int i = 0; i < 5; ++i) EXPECT_EQ(150, Code(c.Login(bob.name, "wrong")));
    // Now even the right password is refused, with the wait to observe, and a NUL variant of the name does
    // not slip past the block.
    Reply blocked = c.Login(bob.name, bob.passwd);
    ExpectEnvelope(blocked, 429, 151, "blocked");
    EXPECT_GT(blocked.body["error"]["data"]["retry_after"].asInt(), 0) << blocked.body;
    EXPECT_EQ("", blocked.setCookie);
    for (int i = 0; i < 3; ++i) {
        Reply r = c.Login(bob.name + nul + std::to_string(i), bob.passwd);
        EXPECT_FALSE(Ok(r)) << "NUL variant " << i << " bypassed the block: " << r.body;
        EXPECT_EQ("", r.setCookie);
    }
    // Other accounts from the same address are not held up.
    EXPECT_TRUE(Ok(c.Login(alice.name, alice.passwd)));
}

// Each sign-in hashes with a buffer of many MiB, in whichever handler thread took it; none may keep its
// buffer afterwards.
TEST_F(Server, SignInsFromManyThreadsLeaveTheFrontsMemoryBounded) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer's allocator keeps freed memory and shadow memory by design";
#endif
    std::vector<std::thread> threads;
    std::atomic<int> ok{0};
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 6; ++i) ok += Ok(WebClient(webd->port()).Login(alice.name, alice.passwd)) ? 1 : 0;
        });
    }
    for (std::thread &t : threads) t.join();
    EXPECT_EQ(48, ok.load());
    const long kib = webd->ResidentKiB();
    EXPECT_GT(kib, 0);
    EXPECT_LT(kib, 64 * 1024) << "front resident after 48 sign-ins: " << kib / 1024 << " MiB";
}

TEST_F(Server, OnlyASessionWithItsOwnTokenRunsAnything) {
    WebClient c(webd->port());
    Reply ok = c.Login(alice.name, alice.passwd);
    ASSERT_TRUE(Ok(ok)) << ok.body;
    EXPECT_NE(std::string::npos, ok.setCookie.find("HttpOnly"));
    EXPECT_NE(std::string::npos, ok.setCookie.find("SameSite=Strict"));
    EXPECT_EQ(64u, c.token.size());
    EXPECT_EQ(std::string::npos, ok.setCookie.find(c.token)) << "the token must not travel in the cookie";

    // The cookie alone is what a forged cross-site request carries.
    ExpectEnvelope(Touch(c, "forged", false), 403, 120, "no token");
    const std::string realToken = c.token;
    c.token = std::string(64, '0');
    ExpectEnvelope(Touch(c, "guessed"), 403, 120, "a guessed token");
    c.token = realToken + "0";
    ExpectEnvelope(Touch(c, "longer"), 403, 120, "the token with more after it");
    c.token = SignedIn(bob).token;
    ExpectEnvelope(Touch(c, "mixed"), 403, 120, "another user's token");
    c.token = realToken;
    EXPECT_TRUE(Ok(Touch(c, "real")));

    WebClient anon(webd->port());
    ExpectEnvelope(Touch(anon, "anon"), 401, 119, "no session");
    anon.cookie = "kova_sid=" + std::string(64, 'a');
    anon.token = std::string(64, 'b');
    ExpectEnvelope(Touch(anon, "made-up"), 401, 119, "a made-up session");
    EXPECT_EQ(119, Code(anon.Call("KOVA.Server.Info", 1, "query")));
    EXPECT_EQ(119, Code(anon.Call("KOVA.Server.Files", 1, "list_shares")));

    Reply out = c.Call("KOVA.Server.Session", 1, "logout");
    EXPECT_TRUE(Ok(out));
    EXPECT_NE(std::string::npos, out.setCookie.find("Max-Age=0"));
    ExpectEnvelope(Touch(c, "after-logout"), 401, 119, "after logout");
    for (const char *name : {"forged", "guessed", "longer", "mixed", "anon", "made-up", "after-logout"})
        EXPECT_FALSE(Exists(name)) << name;
    EXPECT_TRUE(Exists("real"));
}

// Tabs of one browser share the cookie but each keeps its own token: a sign-in in the second tab leaves the
// first one signed in as it was, and signing out of one leaves the other.
TEST_F(Server, SigningInInASecondTabKeepsTheFirstTabsSession) {
    WebClient c = SignedIn(alice);
    WebClient first(webd->port());
    first.cookie = c.cookie;
    first.token = c.token;
    ASSERT_TRUE(Ok(c.Login(bob.name, bob.passwd)));
    EXPECT_EQ(first.cookie, c.cookie);
    EXPECT_NE(first.token, c.token);
    EXPECT_EQ(alice.uid, first.Call("Test.Probe", 1, "whoami").body["data"]["euid"].asInt());
    EXPECT_EQ(bob.uid, c.Call("Test.Probe", 1, "whoami").body["data"]["euid"].asInt());
    EXPECT_TRUE(Ok(c.Call("KOVA.Server.Session", 1, "logout")));
    EXPECT_EQ(alice.uid, first.Call("Test.Probe", 1, "whoami").body["data"]["euid"].asInt());
    c.cookie = first.cookie;  // the browser kept it for the other tab
    EXPECT_EQ(120, Code(c.Call("Test.Probe", 1, "whoami")));
}

TEST_F(Server, InfoListsLoadedApisAndTheMalformedModuleIsRefused) {
    WebClient c = SignedIn(alice);
    Reply r = c.Call("KOVA.Server.Info", 1, "query");
    ASSERT_TRUE(Ok(r)) << r.body;
    std::map<std::string, std::set<std::string>> seen;
    for (const Json::Value &a : r.body["data"]["apis"]) {
        std::string key = a["api"].asString() + "/" + std::to_string(a["version"].asInt());
        for (const Json::Value &m : a["methods"]) seen[key].insert(m.asString());
    }
    EXPECT_EQ((std::set<std::string>{"whoami", "touch", "crash", "noreply", "throw", "drop_root", "hang", "fork_probe"}),
              seen["Test.Probe/1"]);
    EXPECT_EQ(std::set<std::string>{"whoami"}, seen["Test.Probe/2"]);
    EXPECT_EQ((std::set<std::string>{"list_shares", "list_dir", "account", "remove_acl"}), seen["KOVA.Server.Files/1"]);
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
    WebClient c = SignedIn(alice);
    Reply r = c.Call("Test.Probe", 1, "whoami", Param("echo", "hi"));
    ASSERT_TRUE(Ok(r)) << r.body;
    const Json::Value &d = r.body["data"];
    EXPECT_EQ(alice.uid, d["euid"].asInt());
    EXPECT_EQ(alice.gid, d["egid"].asInt());
    EXPECT_EQ(0, d["ruid"].asInt());
    EXPECT_EQ(0, d["suid"].asInt());
    EXPECT_EQ(0, d["rgid"].asInt());
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
        if (!Ok(c.Login(who.name, who.passwd))) {
            ++wrong;
            return;
        }
        for (int i = 0; i < 12; ++i) {
            const Json::Value d = c.Call("Test.Probe", 1, "whoami", Param("pause_ms", 3)).body["data"];
            if (d["euid"].asInt() != who.uid || d["egid"].asInt() != who.gid || d["user"].asString() != who.name ||
                GroupSet(d["groups"]) != who.groups)
                ++wrong;
            Reply t = Touch(c, who.name + "-" + std::to_string(thread) + "-" + std::to_string(i));
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

    // Alternating calls one after another go to the same idle worker, so one process serves both users in
    // turn.
    WebClient a = SignedIn(alice), b = SignedIn(bob);
    for (int i = 0; i < 6; ++i) {
        const Account &who = i % 2 ? bob : alice;
        Reply r = (i % 2 ? b : a).Call("Test.Probe", 1, "whoami");
        EXPECT_EQ(who.uid, r.body["data"]["euid"].asInt());
        EXPECT_EQ(who.groups, GroupSet(r.body["data"]["groups"]));
        usersByWorker[r.body["data"]["pid"].asInt()].insert(who.name);
    }
    bool shared = false;
    for (auto &w : usersByWorker) shared = shared || w.second.size() == 2;
    EXPECT_TRUE(shared) << "no worker served both users";
}

TEST_F(Server, AWorkerCrashOrHangAnswers500AndThePoolRecovers) {
    WebClient c = SignedIn(alice);
    ExpectEnvelope(c.Call("Test.Probe", 1, "crash"), 500, 160, "crash");
    Reply next = c.Call("Test.Probe", 1, "whoami");
    EXPECT_EQ(alice.uid, next.body["data"]["euid"].asInt()) << next.body;
    EXPECT_NE(std::string::npos, webd->ErrorLog().find("Test.Probe.crash")) << webd->ErrorLog();
    // A handler that never answers is killed when the request time runs out.
    ExpectEnvelope(c.Call("Test.Probe", 1, "hang"), 500, 160, "hang");
    EXPECT_NE(std::string::npos, webd->ErrorLog().find("no answer to Test.Probe.hang")) << webd->ErrorLog();

    // Both slots of the pool work again: two overlapping calls both succeed and run in two different
    // processes.
    std::vector<int> pids(2, 0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&, i] {
            WebClient t(webd->port());
            t.cookie = c.cookie;
            t.token = c.token;
            pids[i] = t.Call("Test.Probe", 1, "whoami", Param("pause_ms", 300)).body["data"]["pid"].asInt();
        });
    }
    for (std::thread &t : threads) t.join();
    EXPECT_NE(0, pids[0]);
    EXPECT_NE(0, pids[1]);
    EXPECT_NE(pids[0], pids[1]);
}

TEST_F(Server, ForkedProcessesDoNotHoldTheChannelAndAWorkerThatLostRootIsRetired) {
    WebClient c = SignedIn(alice), b = SignedIn(bob);
    ASSERT_TRUE(Ok(c.Call("Test.Probe", 1, "fork_probe", Param("path", drop + "/fork-report"))));
    std::ifstream in(drop + "/fork-report");
    std::string state;
    in >> state;
    EXPECT_EQ("closed", state);

    Reply r = c.Call("Test.Probe", 1, "drop_root");
    ASSERT_TRUE(Ok(r)) << r.body;
    for (int i = 0; i < 4; ++i) {
        Reply w = b.Call("Test.Probe", 1, "whoami");
        ASSERT_TRUE(Ok(w)) << w.body;
        EXPECT_NE(r.body["data"].asInt(), w.body["data"]["pid"].asInt());
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
    ASSERT_EQ(0, kova_share_test::AddAclShare("docs", docs, KOVA_SHARE_PRIV_NONE));
    ASSERT_EQ(0, KOVASharePrivSet("docs", 1, "alice", KOVA_SHARE_PRIV_RW));
    WebClient a = SignedIn(alice), b = SignedIn(bob);
    auto files = [](WebClient &c, const std::string &method, const Json::Value &p = Json::Value(Json::objectValue)) {
        return c.Call("KOVA.Server.Files", 1, method, p);
    };

    Reply shares = files(a, "list_shares");
    ASSERT_TRUE(Ok(shares)) << shares.body;
    ASSERT_EQ(1u, shares.body["data"]["shares"].size());
    EXPECT_EQ("/docs", shares.body["data"]["shares"][0]["path"].asString());
    EXPECT_EQ("rw", shares.body["data"]["shares"][0]["privilege"].asString());
    EXPECT_EQ(0u, files(b, "list_shares").body["data"]["shares"].size());

    Json::Value p = Param("path", "/docs/");
    Reply dir = files(a, "list_dir", p);
    ASSERT_TRUE(Ok(dir)) << dir.body;
    const Json::Value &e = dir.body["data"]["entries"];
    ASSERT_EQ(4u, e.size());
    EXPECT_EQ("secret", e[0]["name"].asString());
    EXPECT_TRUE(e[0]["is_dir"].asBool());
    EXPECT_EQ("zdir", e[1]["name"].asString());
    EXPECT_EQ("a.txt", e[2]["name"].asString());
    EXPECT_FALSE(e[2]["is_dir"].asBool());
    EXPECT_EQ("/docs/a.txt", e[2]["path"].asString());
    // A plain user is never sent the server's absolute paths; the owning group and mode bits are listed for
    // items without rules.
    EXPECT_FALSE(e[2].isMember("real_path"));
    EXPECT_FALSE(dir.body["data"].isMember("real_path"));
    EXPECT_FALSE(shares.body["data"]["shares"][0].isMember("real_path"));
    struct stat st;
    ASSERT_EQ(0, stat((docs + "/a.txt").c_str(), &st));
    char mode[8];
    snprintf(mode, sizeof mode, "%03o", static_cast<unsigned>(st.st_mode & 0777));
    EXPECT_EQ(mode, e[2]["mode"].asString());
    EXPECT_EQ(static_cast<int>(st.st_gid), e[2]["group"]["id"].asInt());
    EXPECT_EQ("group", e[2]["group"]["type"].asString());

    p["offset"] = 1;
    p["limit"] = 2;
    Reply page = files(a, "list_dir", p);
    EXPECT_EQ(4u, page.body["data"]["total"].asUInt());
    ASSERT_EQ(2u, page.body["data"]["entries"].size());
    EXPECT_EQ("zdir", page.body["data"]["entries"][0]["name"].asString());

    // A file name that is not UTF-8 comes back mended, in valid JSON text.
    ASSERT_TRUE(kova_test::WriteFile(docs + "/zdir/n\xffme.txt", "x"));
    Reply odd = files(a, "list_dir", Param("path", "/docs/zdir"));
    EXPECT_TRUE(webd::IsCleanText(odd.raw)) << odd.raw;
    EXPECT_EQ("n\xEF\xBF\xBDme.txt", odd.body["data"]["entries"][0]["name"].asString()) << odd.raw;

    // Names in natural order, a filter that keeps its count, and the owner.
    for (const char *n : {"img-10", "img-2", "IMG-3", "img-1", "other"})
        ASSERT_TRUE(kova_test::WriteFile(docs + "/zdir/" + n, "x"));
    Json::Value f = Param("path", "/docs/zdir");
    f["filter"] = "img";
    Reply filtered = files(a, "list_dir", f);
    ASSERT_TRUE(Ok(filtered)) << filtered.raw;
    std::vector<std::string> names;
    for (const Json::Value &x : filtered.body["data"]["entries"]) names.push_back(x["name"].asString());
    EXPECT_EQ((std::vector<std::string>{"img-1", "img-2", "IMG-3", "img-10"}), names);
    EXPECT_EQ(4u, filtered.body["data"]["total"].asUInt());
    EXPECT_EQ(6u, filtered.body["data"]["unfiltered_total"].asUInt());
    EXPECT_EQ("user", filtered.body["data"]["owner"]["type"].asString()) << filtered.raw;
    f["filter"] = std::string(256, 'i');  // a filter is a name part, not a document

    // The folder's rules decide listing, not only its mode bits.
    ASSERT_TRUE(kova_test::MakeDirs(docs + "/closed"));
    chmod((docs + "/closed").c_str(), 0777);
    PKOVA_ACL acl = KOVAACLAlloc(0);
    PKOVA_ACL_ENTRY ace = KOVAACLAceAlloc();
    ASSERT_TRUE(acl && ace);
    ASSERT_GE(KOVAACLAceParse(("user:" + std::to_string(alice.uid) + ":deny:r------------:----:0").c_str(), ace), 0);
    ASSERT_EQ(0, KOVAACLAceAppend(acl, ace));
    ASSERT_EQ(0, KOVAACLSet((docs + "/closed").c_str(), -1, acl));
    KOVAACLFree(acl);

    // Removing rules takes the right to change them (the platform judges it as the user) and a privilege on
    // the share.
    struct Refusal {
        WebClient &who;
        const char *method;
        Json::Value params;
        int code;
    } refusals[] = {{a, "list_dir", Param("path", "/docs/secret"), 603},  // mode 0700, root's
                    {a, "list_dir", Param("path", "/docs/a.txt"), 604},
                    {a, "list_dir", Param("path", "/docs/../etc"), 600},
                    {b, "list_dir", Param("path", "/docs"), 602},
                    {a, "list_dir", Param("path", 5), 605},
                    {a, "list_dir", f, 605},
                    {a, "list_dir", Param("path", "/docs/closed"), 606},
                    {a, "remove_acl", Param("path", "/docs/closed"), 607},
                    {b, "remove_acl", Param("path", "/docs/closed"), 602},
                    {a, "account", Param("user", "nobody-of-that-name"), 605}};
    for (const Refusal &r : refusals) {
        Reply got = files(r.who, r.method, r.params);
        EXPECT_EQ(200, got.status) << r.params;
        EXPECT_EQ(r.code, Code(got)) << r.method << " " << r.params << got.raw;
    }
    EXPECT_EQ(1, KOVAACLIsSupport((docs + "/closed").c_str(), -1, KOVA_ACL_SUPPORT_MODE));
    // The owner holds the right.
    ASSERT_EQ(0, chown((docs + "/closed").c_str(), alice.uid, alice.gid));
    EXPECT_EQ(600, Code(files(a, "remove_acl", Param("path", "/docs/../closed"))));
    Reply removed = files(a, "remove_acl", Param("path", "/docs/closed"));
    EXPECT_TRUE(Ok(removed)) << removed.raw;
    EXPECT_EQ(0, KOVAACLIsSupport((docs + "/closed").c_str(), -1, KOVA_ACL_SUPPORT_MODE));

    // An account's groups, for explaining effective access.
    Reply account = files(a, "account", Param("user", bob.name));
    ASSERT_TRUE(Ok(account)) << account.raw;
    EXPECT_EQ(bob.name, account.body["data"]["name"].asString());
    EXPECT_FALSE(account.body["data"]["is_admin"].asBool());
    EXPECT_TRUE(account.body["data"]["groups"].isArray());
}

// Many connections that send a header line now and then, as a slow or hostile client does, hold no thread:
// sign-ins and calls from another address keep answering at once.
TEST_F(Server, SlowClientsDoNotHoldUpOtherRequests) {
    constexpr int kSlow = 200, kAddresses = 10;
    std::vector<std::unique_ptr<kova_test::RawConnection>> slow;
    for (int i = 0; i < kSlow; ++i) {
        // 127.0.0.2 to .11, 20 each: under the limit per address.
        slow.emplace_back(new kova_test::RawConnection(webd->port(), "127.0.0." + std::to_string(2 + i % kAddresses)));
        ASSERT_TRUE(slow.back()->ok()) << i;
        ASSERT_TRUE(slow.back()->Send("POST /webapi HTTP/1.1\r\nHost: localhost\r\n"));
    }
    WebClient c(webd->port(), 5);
    const auto started = std::chrono::steady_clock::now();
    for (int round = 0; round < 4; ++round) {
        for (auto &s : slow) s->Send("X-Slow: " + std::to_string(round) + "\r\n");
        auto t0 = std::chrono::steady_clock::now();
        Reply in = c.Login(alice.name, alice.passwd);
        Reply who = c.Call("Test.Probe", 1, "whoami");
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
        EXPECT_TRUE(Ok(in)) << "round " << round << ": " << in.raw;
        EXPECT_EQ(alice.uid, who.body["data"]["euid"].asInt()) << "round " << round << ": " << who.raw;
        EXPECT_LT(ms, 1000) << "round " << round;
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    // Well inside the header deadline every slow connection is still open and unanswered: they were held, not
    // dropped to make room.
    ASSERT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(8));
    int silent = 0;
    for (auto &s : slow) silent += s->Silent(0) ? 1 : 0;
    EXPECT_EQ(kSlow, silent);
}

TEST_F(Server, ConnectionsPerAddressAreCappedAndSlowRequestsRunOutOfTime) {
    // The 33rd connection from one address is answered at once and closed; other addresses are not affected.
    std::vector<std::unique_ptr<kova_test::RawConnection>> held;
    for (int i = 0; i < 32; ++i) {
        held.emplace_back(new kova_test::RawConnection(webd->port(), "127.0.0.20"));
        ASSERT_TRUE(held.back()->ok());
    }
    ASSERT_TRUE(held.back()->Silent(200));
    kova_test::RawConnection extra(webd->port(), "127.0.0.20");
    ExpectEnvelope(extra.ReadReply(5000), 503, 108, "33rd connection");
    EXPECT_TRUE(Ok(WebClient(webd->port(), 5).Login(alice.name, alice.passwd)));
    // The closes reach the server a little later; until then a new connection may still be refused.
    held.clear();
    bool released = false;
    for (int i = 0; i < 20 && !released; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        released = kova_test::RawConnection(webd->port(), "127.0.0.20").Silent(300);
    }
    EXPECT_TRUE(released) << "the count was not released when the connections closed";

    // A header or a body still coming after its time is answered 408 and closed; a kept-alive connection idle
    // that long is closed without a word.
    WebdProcess quick(root.path(), ModulesDir(), 1, {"--header-timeout", "1", "--body-timeout", "1"});
    ASSERT_TRUE(quick.ok()) << quick.ErrorLog();
    kova_test::RawConnection header(quick.port()), body(quick.port());
    ASSERT_TRUE(header.Send("POST /webapi HTTP/1.1\r\nHost: x\r\n"));
    ASSERT_TRUE(body.Send("POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: 100\r\n\r\n{"));
    for (int i = 0; i < 4; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        header.Send("X-Slow: 1\r\n");
        body.Send(" ");
    }
    ExpectEnvelope(header.ReadReply(5000), 408, 107, "slow header");
    ExpectEnvelope(body.ReadReply(5000), 408, 107, "slow body");
    kova_test::RawConnection idle(quick.port());
    ASSERT_TRUE(idle.Send("GET /webapi?api=KOVA.Server.Info&version=1&method=query HTTP/1.1\r\nHost: x\r\n\r\n"));
    std::string first = idle.Receive(2500);
    EXPECT_NE(std::string::npos, first.find("HTTP/1.1 401")) << first;
    EXPECT_EQ(std::string::npos, first.find("408")) << first;
}

// The bodies held at once are bounded: a request whose declared body does not fit beside those being read is
// refused until they are done.
TEST_F(Server, BodiesBeingReadShareABoundedBudget) {
    WebdProcess small(root.path(), ModulesDir(), 1, {"--body-budget", "1"});
    ASSERT_TRUE(small.ok()) << small.ErrorLog();
    auto head = [](size_t length) {
        return "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\nContent-Length: " +
               std::to_string(length) + "\r\n\r\n";
    };
    std::unique_ptr<kova_test::RawConnection> held(new kova_test::RawConnection(small.port()));
    ASSERT_TRUE(held->Send(head(700000) + "{"));
    ASSERT_TRUE(held->Silent(300));
    ExpectEnvelope(SendRaw(small.port(), head(400000)), 503, 161, "a body past the budget");
    // What fits beside it is read and answered (the body is no API call).
    ExpectEnvelope(SendRaw(small.port(), head(300000) + std::string(300000, ' ')), 400, 101, "a body that fits");
    // The held body's share comes back when its connection ends.
    held.reset();
    Reply after;
    for (int i = 0; i < 20 && after.status != 400; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        after = SendRaw(small.port(), head(400000) + std::string(400000, ' '));
    }
    ExpectEnvelope(after, 400, 101, "after the held body was given back");
}

TEST_F(Server, EveryAnswerOnWebapiIsAJsonEnvelopeWithADocumentedCode) {
    const int port = webd->port();
    const std::string post = "POST /webapi HTTP/1.1\r\nHost: x\r\nContent-Type: application/json\r\n";
    auto withBody = [&](const std::string &body) {
        return post + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
    };
    std::string chunks, fields;
    for (int i = 0; i < 33; ++i) chunks += "40000\r\n" + std::string(1 << 18, ' ') + "\r\n";
    for (int i = 0; i < 400; ++i) fields += "X-Filler-" + std::to_string(i) + ": " + std::string(60, 'f') + "\r\n";
    const std::string deep = std::string(1000, '[') + std::string(1000, ']');
    const struct {
        const char *what;
        std::string bytes;
        int status, code;
    } cases[] = {
        // Refused by the HTTP side.
        {"body over the limit", post + "Content-Length: " + std::to_string(9 << 20) + "\r\n\r\n", 413, 106},
        {"chunked body over the limit", post + "Transfer-Encoding: chunked\r\n\r\n" + chunks, 413, 106},
        {"request line too long", "GET /webapi?x=" + std::string(20000, 'a') + " HTTP/1.1\r\n\r\n", 414, 106},
        {"header too large", "GET /webapi HTTP/1.1\r\n" + fields + "\r\n", 431, 106},
        {"malformed header", "GET /webapi HTTP/1.1\r\nBad Field\r\n\r\n", 400, 105},
        {"PUT", "PUT /webapi HTTP/1.1\r\nContent-Length: 0\r\n\r\n", 405, 109},
        // Refused by the request handling: JSON nested deeper than 64 levels, in a body and in a field, and
        // bad text.
        {"deep JSON body",
         withBody("{\"api\":\"KOVA.Server.Info\",\"version\":1,\"method\":\"query\",\"params\":{\"x\":" + deep + "}}"), 400,
         110},
        {"deep JSON field", "GET /webapi?api=A&version=1&method=m&x=" + std::string(100, '[') + " HTTP/1.1\r\n\r\n", 400,
         110},
        {"bad UTF-8 in a parameter", withBody("{\"api\":\"A\",\"version\":1,\"method\":\"m\",\"params\":{\"x\":\"a\xff\"}}"),
         400, 101},
        {"not JSON", withBody("{oops"), 400, 101},
        {"empty account", withBody(LoginBody("", "x")), 400, 101},
    };
    for (const auto &c : cases) ExpectEnvelope(SendRaw(port, c.bytes), c.status, c.code, c.what);

    // Each was logged, refusals of the HTTP side too.
    const std::string log = webd->AccessLog();
    EXPECT_NE(std::string::npos, log.find("\"POST /webapi\" 413 error 106 refused")) << log;
    EXPECT_NE(std::string::npos, log.find("\"- -\" 414 error 106 refused")) << log;
    EXPECT_NE(std::string::npos, log.find("- \"POST /webapi\" - 400 error 110")) << log;

    // A client that waits for "100 Continue" before its body gets it.
    kova_test::RawConnection patient(port);
    const std::string info = "{\"api\":\"KOVA.Server.Info\",\"version\":1,\"method\":\"query\"}";
    ASSERT_TRUE(patient.Send(post + "Expect: 100-continue\r\nContent-Length: " + std::to_string(info.size()) +
                             "\r\n\r\n"));
    EXPECT_EQ(100, patient.ReadReply(5000).status);
    ASSERT_TRUE(patient.Send(info));
    ExpectEnvelope(patient.ReadReply(5000), 401, 119, "after 100 Continue");

    // A body nested just under the limit still works.
    WebClient c = SignedIn(alice);
    Json::Value nested(Json::arrayValue), *at = &nested;
    for (int i = 0; i < 60; ++i) at = &at->append(Json::Value(Json::arrayValue));
    EXPECT_TRUE(Ok(c.Call("Test.Probe", 1, "whoami", Param("echo", nested))));
}

} // namespace
