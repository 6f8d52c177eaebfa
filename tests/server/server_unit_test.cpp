// The server's parts that need no running server: request parsing, the worker channel's framing, module table
// validation and lookup, sessions, the sign-in throttle.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <set>

#include "api-call.h"
#include "files-api.h"
#include "frame.h"
#include "http-front.h"
#include "identity-switch.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/webapi.h"
#include "login-throttle.h"
#include "logs.h"
#include "module-registry.h"
#include "session-store.h"
#include "temp-root.h"
#include "text-check.h"
#include "worker.h"

namespace {

void H(KOVA::APIRequest *, KOVA::APIResponse *) {}

int gSeenError = -1;
// Reports the last error it starts with and leaves one behind.
void ReadsLastError(KOVA::APIRequest *, KOVA::APIResponse *resp) {
    gSeenError = KLIBCErrGet();
    KLIBCErrSet(KOVA_ERR_PERM);
    resp->SetSuccess(Json::Value(true));
}

TEST(ApiCall, JsonBodyAndItsErrors) {
    webd::ApiCall c;
    EXPECT_EQ("", webd::ParseJsonCall(R"({"api":"A.B","version":2,"method":"get","params":{"x":[1]}})", c));
    EXPECT_EQ("A.B", c.api);
    EXPECT_EQ(2, c.version);
    EXPECT_EQ("get", c.method);
    EXPECT_EQ(1, c.params["x"][0].asInt());

    EXPECT_EQ("", webd::ParseJsonCall(R"({"api":"A","version":"3","method":"m"})", c));
    EXPECT_EQ(3, c.version);
    EXPECT_TRUE(c.params.isObject() && c.params.empty());

    // 64 levels in all: the body object, params, and 62 arrays; one more is its own error. Bad text anywhere
    // in the call: a value, a member name, the method.
    const std::string nested = R"({"api":"A","version":1,"method":"m","params":{"x":)";
    const struct {
        std::string body;
        int code;
    } cases[] = {{"{not json", 101}, {"[1]", 101}, {R"({"api":"A","version":0,"method":"m"})", 101},
                 {R"({"api":"A","version":"1x","method":"m"})", 101}, {R"({"api":"","version":1,"method":"m"})", 101},
                 {R"({"api":"A","version":1})", 101}, {R"({"api":"A","version":1,"method":"m","params":[1]})", 101},
                 {nested + std::string(62, '[') + std::string(62, ']') + "}}", 0},
                 {nested + std::string(63, '[') + std::string(63, ']') + "}}", 110},
                 {R"({"api":"A","version":1,"method":"m","params":{"x":["a\u0000"]}})", 101},
                 {R"({"api":"A","version":1,"method":"m","params":{"\udc80":1}})", 101},
                 {"{\"api\":\"A\",\"version\":1,\"method\":\"m\xc0\xaf\"}", 101}};
    for (const auto &k : cases) {
        int code = 0;
        EXPECT_EQ(k.code == 0, webd::ParseJsonCall(k.body, c, &code).empty()) << k.body;
        EXPECT_EQ(k.code, code) << k.body;
    }
}

TEST(ApiCall, FieldsAreJsonWhenTheyParseAndTextOtherwise) {
    std::multimap<std::string, std::string> f = {
        {"api", "KOVA.Core.ACL"}, {"version", "1"}, {"method", "get"},
        {"file_path", "/vol/share/a b"}, {"limit", "20"}, {"flag", "true"},
        {"rules", R"([{"owner_type":"user"}])"}, {"name", "\"quoted\""}, {"params", R"({"extra":"x"})"}};
    webd::ApiCall c;
    ASSERT_EQ("", webd::ParseFieldCall(f, c));
    EXPECT_EQ("KOVA.Core.ACL", c.api);
    EXPECT_EQ(1, c.version);
    EXPECT_TRUE(c.params["file_path"].isString());
    EXPECT_EQ("/vol/share/a b", c.params["file_path"].asString());
    EXPECT_TRUE(c.params["limit"].isInt());
    EXPECT_TRUE(c.params["flag"].isBool());
    EXPECT_TRUE(c.params["rules"].isArray());
    EXPECT_EQ("quoted", c.params["name"].asString());
    EXPECT_EQ("x", c.params["extra"].asString());
    EXPECT_FALSE(c.params.isMember("api"));

    for (const auto &bad : std::vector<std::pair<std::pair<std::string, std::string>, int>>{
             {{"version", "one"}, 101}, {{"params", "[1,2]"}, 101}, {{"x", std::string(200, '[')}, 110}}) {
        std::multimap<std::string, std::string> fields = {{"api", "A"}, {"version", "1"}, {"method", "m"}};
        fields.erase(bad.first.first);
        fields.insert(bad.first);
        int code = 0;
        EXPECT_NE("", webd::ParseFieldCall(fields, c, &code)) << bad.first.first;
        EXPECT_EQ(bad.second, code) << bad.first.first;
    }

    // Query strings and form bodies decode to those fields.
    auto fields = webd::ParseFormText("api=A.B&version=1&method=get&path=%2Fa+b%2B&flag&=x&bad=%zz%4");
    EXPECT_EQ("A.B", fields.find("api")->second);
    EXPECT_EQ("/a b+", fields.find("path")->second);
    EXPECT_EQ("", fields.find("flag")->second);
    EXPECT_EQ("x", fields.find("")->second);
    EXPECT_EQ("%zz%4", fields.find("bad")->second);
    std::string path, query;
    webd::SplitTarget("/web%61pi?x=1?2", path, query);
    EXPECT_EQ("/webapi", path);
    EXPECT_EQ("x=1?2", query);
}

TEST(TextCheck, RequestTextIsCheckedAndReplyTextMended) {
    EXPECT_TRUE(webd::IsCleanText("plain \xc3\xa9 \xf0\x9f\x98\x80"));
    for (const std::string &bad : {std::string("a\0b", 3), std::string("\xff"), std::string("\xc0\xaf"),
                                  std::string("\xed\xa0\x80"), std::string("\xf4\x90\x80\x80"), std::string("\xe2\x82")})
        EXPECT_FALSE(webd::IsCleanText(bad)) << bad;
    Json::Value v(Json::objectValue);
    v["ok"]["list"].append("fine");
    EXPECT_TRUE(webd::IsCleanValue(v));
    v["ok"]["list"].append("x\xff");
    EXPECT_FALSE(webd::IsCleanValue(v));

    Json::Value reply(Json::objectValue);
    reply["name\xfe"] = "a\xff" "b\xe2\x82";
    reply["list"].append("\xed\xa0\x80");
    reply["keep"] = std::string("nul\0kept", 8);
    EXPECT_TRUE(webd::MakeWellFormed(reply));
    EXPECT_EQ("a\xEF\xBF\xBD" "b\xEF\xBF\xBD", reply["name\xEF\xBF\xBD"].asString());
    EXPECT_TRUE(webd::IsCleanText(reply["list"][0].asString()));
    EXPECT_EQ(8u, reply["keep"].asString().size());
    EXPECT_FALSE(webd::MakeWellFormed(reply));

    // Log lines: no control character and no byte that is not UTF-8.
    EXPECT_EQ("a\\x0ab\\xffc \xc3\xa9\\x7f", webd::LogSafe("a\nb\xff" "c \xc3\xa9\x7f"));
}

TEST(Frame, RoundTripAndBrokenPeers) {
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    Json::Value m(Json::objectValue);
    m["text"] = std::string(100000, 'x') + "\xc3\xa9";
    m["n"] = 7;
    ASSERT_TRUE(webd::WriteFrame(sv[0], m));
    Json::Value got;
    ASSERT_TRUE(webd::ReadFrame(sv[1], got));
    EXPECT_EQ(m, got);

    bool timedOut = false;
    EXPECT_FALSE(webd::ReadFrame(sv[1], got, 10, &timedOut));
    EXPECT_TRUE(timedOut);

    // A length larger than the limit is a broken peer, not a huge allocation.
    const unsigned char huge[4] = {0xff, 0xff, 0xff, 0xff};
    ASSERT_EQ(4, write(sv[0], huge, 4));
    EXPECT_FALSE(webd::ReadFrame(sv[1], got));

    // A body cut short by the peer closing fails, with no time-out reported.
    const unsigned char head[4] = {0, 0, 0, 10};
    ASSERT_EQ(4, write(sv[0], head, 4));
    ASSERT_EQ(3, write(sv[0], "{\"a", 3));
    close(sv[0]);
    EXPECT_FALSE(webd::ReadFrame(sv[1], got, 1000, &timedOut));
    EXPECT_FALSE(timedOut);
    close(sv[1]);
}

TEST(ModuleTable, MalformedTablesAreRefusedWithAReason) {
    std::vector<webd::Route> rows;
    const KOVA_API_ENTRY good[] = {{"A", 1, "m", H}, {"A", 2, "m", H}, {nullptr, 0, nullptr, nullptr}};
    EXPECT_EQ("", webd::ValidateTable(good, rows));
    EXPECT_EQ(2u, rows.size());

    const KOVA_API_ENTRY end = {nullptr, 0, nullptr, nullptr};
    const std::pair<std::vector<KOVA_API_ENTRY>, std::string> bad[] = {
        {{{"A", 1, "m", H}, {"A", 1, "n", nullptr}, end}, "row 2: handler is NULL"},
        {{{nullptr, 1, "m", H}, end}, "row 1: API name is NULL"},
        {{{"A", 1, nullptr, H}, end}, "row 1: method name is NULL"},
        {{{"A", 0, "m", H}, end}, "row 1: version 0 is below 1"}};
    for (const auto &t : bad) {
        rows.assign(1, webd::Route{"A", 1, "m", H, "a.so"});
        EXPECT_EQ(t.second, webd::ValidateTable(t.first.data(), rows));
        EXPECT_TRUE(rows.empty()) << t.second;
    }
    EXPECT_NE("", webd::ValidateTable(&end, rows));
    EXPECT_NE("", webd::ValidateTable(nullptr, rows));

    std::vector<KOVA_API_ENTRY> endless(webd::kMaxTableRows + 1, KOVA_API_ENTRY{"A", 1, "m", H});
    EXPECT_NE("", webd::ValidateTable(endless.data(), rows));
}

TEST(ModuleTable, RegistryRefusesTakenRowsWholeAndTellsWhatIsMissing) {
    webd::ModuleRegistry reg;
    std::vector<webd::Route> first = {{"A", 1, "get", H, "a.so"}, {"A", 2, "list", H, "a.so"}};
    ASSERT_TRUE(reg.Add(first));
    std::vector<webd::Route> clash = {{"B", 1, "x", H, "b.so"}, {"A", 1, "get", H, "b.so"}};
    std::string why;
    EXPECT_FALSE(reg.Add(clash, &why));
    EXPECT_NE(std::string::npos, why.find("already served"));
    const webd::Route *r = nullptr;
    // Nothing of the refused module was kept, not even its free row.
    EXPECT_EQ(webd::ModuleRegistry::Lookup::kNoAPI, reg.Find("B", 1, "x", &r));
    std::vector<webd::Route> reserved = {{"KOVA.Server.Files", 1, "steal", H, "c.so"}};
    EXPECT_FALSE(reg.Add(reserved));

    // The lookups' answers and the listing are checked through the server.
    EXPECT_EQ(webd::ModuleRegistry::Lookup::kFound, reg.Find("A", 2, "list", &r));
    EXPECT_EQ("a.so", r->origin);
}

// Sign-in, tokens and logout are checked through the server. Here: a browser cannot pile up sessions, and a
// cookie the server never gave out is not adopted.
TEST(Sessions, IdsTokensAndCookiesAreFreshAndChecked) {
    webd::SessionStore store(3600);
    webd::Session a, b;
    ASSERT_TRUE(store.Create(a));
    ASSERT_TRUE(store.Create(b));
    EXPECT_EQ(64u, a.id.size());
    EXPECT_NE(a.id, b.id);
    EXPECT_NE(a.id, a.token);
    webd::Session got;
    store.Remove(a.id);
    EXPECT_FALSE(store.Get(a.id, got));
    EXPECT_FALSE(store.Get("", got));
    webd::Session tab2, tab3, stranger;
    ASSERT_TRUE(store.Create(tab2, b.cookie));
    EXPECT_EQ(b.cookie, tab2.cookie);
    EXPECT_NE(b.id, tab2.id);
    EXPECT_EQ(webd::SessionStore::Found::kLive, store.Find(b.cookie, b.token, got));
    EXPECT_EQ(b.id, got.id);
    EXPECT_EQ(webd::SessionStore::Found::kLive, store.Find(b.cookie, tab2.token, got));
    EXPECT_EQ(tab2.id, got.id);
    EXPECT_EQ(webd::SessionStore::Found::kWrongToken, store.Find(b.cookie, a.token, got));
    EXPECT_EQ(webd::SessionStore::Found::kNone, store.Find(a.cookie, a.token, got));  // a logged out
    ASSERT_TRUE(store.Create(stranger, "made-up-cookie"));
    EXPECT_NE("made-up-cookie", stranger.cookie);
    EXPECT_FALSE(store.Remove(tab2.id));
    EXPECT_EQ(webd::SessionStore::Found::kLive, store.Find(b.cookie, b.token, got));
    for (size_t i = 0; i < webd::SessionStore::kMaxPerBrowser; ++i) ASSERT_TRUE(store.Create(tab3, b.cookie));
    EXPECT_EQ(webd::SessionStore::Found::kWrongToken, store.Find(b.cookie, b.token, got)) << "the oldest went";
    EXPECT_EQ(webd::SessionStore::kMaxPerBrowser + 1, store.Count());  // and stranger
    EXPECT_TRUE(store.Remove(stranger.id));

    EXPECT_TRUE(webd::SameSecret("abc", "abc"));
    EXPECT_FALSE(webd::SameSecret("abc", "abd"));
    EXPECT_FALSE(webd::SameSecret("abc", "ab"));

    EXPECT_EQ("v1", webd::CookieValue("kova_sid=v1", "kova_sid"));
    EXPECT_EQ("v2", webd::CookieValue("a=1; kova_sid=v2; b=3", "kova_sid"));
    EXPECT_EQ("", webd::CookieValue("xkova_sid=v3; kova_sidx=4", "kova_sid"));
    EXPECT_EQ("", webd::CookieValue("", "kova_sid"));
}

TEST(Sessions, IdleSessionsEndAndUseKeepsThemAlive) {
    time_t now = 1000;
    webd::SessionStore store(60, [&now] { return now; });
    webd::Session a, b;
    ASSERT_TRUE(store.Create(a));
    ASSERT_TRUE(store.Create(b));
    webd::Session got;
    now += 50;
    EXPECT_TRUE(store.Get(a.id, got));   // a is used, b is not
    now += 50;
    EXPECT_TRUE(store.Get(a.id, got));   // 50 s idle: still alive
    EXPECT_FALSE(store.Get(b.id, got));  // 100 s idle: gone
    now += 61;
    EXPECT_FALSE(store.Get(a.id, got));
    EXPECT_EQ(0u, store.Count());

    // Expired sessions are swept when others are created.
    webd::Session c, d;
    ASSERT_TRUE(store.Create(c));
    now += 100;
    ASSERT_TRUE(store.Create(d));
    EXPECT_EQ(1u, store.Count());
}

using std::chrono::seconds;
using Throttle = webd::LoginThrottle;

TEST(LoginThrottle, BlocksAnAccountAfterItsLimitAndDoublesTheDelay) {
    Throttle::Limits limits;
    limits.perAccount = 3;
    limits.firstDelay = seconds(10);
    limits.maxDelay = seconds(25);
    Throttle t(limits);
    const auto t0 = Throttle::Clock::now();
    t.Failed("10.0.0.1", "alice", t0);
    t.Failed("10.0.0.1", "alice", t0);
    EXPECT_EQ(seconds(0), t.RetryAfter("10.0.0.1", "alice", t0));
    t.Failed("10.0.0.1", "alice", t0);
    EXPECT_EQ(seconds(10), t.RetryAfter("10.0.0.1", "alice", t0));
    // Rounded up while any wait is left; free once it has passed.
    EXPECT_EQ(seconds(1), t.RetryAfter("10.0.0.1", "alice", t0 + std::chrono::milliseconds(9500)));
    EXPECT_EQ(seconds(0), t.RetryAfter("10.0.0.1", "alice", t0 + seconds(10)));
    // The same account from elsewhere, and another account from here, pass.
    EXPECT_EQ(seconds(0), t.RetryAfter("10.0.0.2", "alice", t0));
    EXPECT_EQ(seconds(0), t.RetryAfter("10.0.0.1", "bob", t0));

    // Each failure past the limit doubles the delay, up to the ceiling.
    t.Failed("10.0.0.1", "alice", t0 + seconds(10));
    EXPECT_EQ(seconds(20), t.RetryAfter("10.0.0.1", "alice", t0 + seconds(10)));
    t.Failed("10.0.0.1", "alice", t0 + seconds(30));
    EXPECT_EQ(seconds(25), t.RetryAfter("10.0.0.1", "alice", t0 + seconds(30)));

    // A success starts the account over.
    t.Succeeded("10.0.0.1", "alice");
    EXPECT_EQ(seconds(0), t.RetryAfter("10.0.0.1", "alice", t0 + seconds(30)));
    t.Failed("10.0.0.1", "alice", t0 + seconds(31));
    EXPECT_EQ(seconds(0), t.RetryAfter("10.0.0.1", "alice", t0 + seconds(31)));
}

TEST(LoginThrottle, SprayingAccountsFromOneAddressIsBlockedAndSuccessDoesNotLiftIt) {
    Throttle::Limits limits;
    limits.perAccount = 100;
    limits.perAddress = 4;
    limits.firstDelay = seconds(30);
    Throttle t(limits);
    const auto t0 = Throttle::Clock::now();
    for (int i = 0; i < 4; ++i) {
        t.Failed("10.0.0.9", "user" + std::to_string(i), t0);
        // A success between guesses only clears that account.
        t.Succeeded("10.0.0.9", "mine");
    }
    EXPECT_EQ(seconds(30), t.RetryAfter("10.0.0.9", "anyone", t0));
    EXPECT_EQ(seconds(30), t.RetryAfter("10.0.0.9", "mine", t0));
    EXPECT_EQ(seconds(0), t.RetryAfter("10.0.0.10", "anyone", t0));
}

TEST(LoginThrottle, QuietCountersAreForgottenAndTheTableStaysBounded) {
    Throttle::Limits limits;
    limits.perAccount = 2;
    limits.perAddress = 100;
    limits.forgetAfter = seconds(60);
    limits.maxEntries = 4;  // two addresses' worth: a pair key and an address key each
    Throttle t(limits);
    const auto t0 = Throttle::Clock::now();
    // Failures further apart than the quiet period do not add up.
    t.Failed("a", "alice", t0);
    t.Failed("a", "alice", t0 + seconds(61));
    EXPECT_EQ(seconds(0), t.RetryAfter("a", "alice", t0 + seconds(61)));
    t.Failed("a", "alice", t0 + seconds(62));
    EXPECT_GT(t.RetryAfter("a", "alice", t0 + seconds(62)).count(), 0);

    // Two more addresses need room: the counters idle longest make way.
    t.Failed("b", "bob", t0 + seconds(63));
    t.Failed("c", "carol", t0 + seconds(64));
    EXPECT_EQ(seconds(0), t.RetryAfter("a", "alice", t0 + seconds(64)));
    t.Failed("c", "carol", t0 + seconds(65));
    EXPECT_GT(t.RetryAfter("c", "carol", t0 + seconds(65)).count(), 0);
}

TEST(Worker, EveryRequestStartsWithoutTheLastErrorOfTheOneBefore) {
    webd::ModuleRegistry reg;
    ASSERT_TRUE(reg.Add({{"T", 1, "err", ReadsLastError, "t.so"}}));
    webd::Logs logs;
    const std::vector<gid_t> rootGroups = webd::CurrentGroups();
    Json::Value req;
    ASSERT_TRUE(webd::ParseJsonText(R"({"api":"T","version":1,"method":"err","uid":0,"gid":0,"groups":[0]})", req));
    KLIBCErrSet(KOVA_ERR_NOMEM);  // left by whatever the thread ran before
    for (int i = 0; i < 2; ++i) {
        gSeenError = -1;
        Json::Value reply = webd::RunRequest(reg, req, logs);
        EXPECT_TRUE(reply["success"].asBool()) << reply;
        EXPECT_EQ(KOVA_ERR_NONE, gSeenError) << "request " << i;
    }
    ASSERT_TRUE(webd::RestoreRoot(rootGroups));
}

// The request handling as a plain function of the request: no socket, no listener, and a worker pool that can
// never start a worker.
class Front : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(reg.Add({{"T", 1, "m", H, "t.so"}})); }
    webd::HttpReply Call(webd::Front &front, const std::string &method, const std::string &target,
                         const webd::HeaderList &headers = {}, const std::string &body = "") {
        webd::HttpRequest r;
        r.method = method;
        r.target = target;
        r.headers = headers;
        r.body = body;
        r.remote = "10.0.0.1";
        return front.Handle(r);
    }
    // The headers of a signed-in session's call.
    webd::HeaderList Session() {
        webd::Session s;
        s.user = "someone";
        EXPECT_TRUE(sessions.Create(s));
        return {{"cookie", "kova_sid=" + s.id}, {"x-kova-token", s.token}};
    }

    kova_test::TempRoot root;
    webd::Logs logs;
    webd::ModuleRegistry reg;
    webd::SessionStore sessions{3600};
    webd::WorkerPool pool{{root.At("no-such-program")}, 1, 5, logs};
};

// Every /webapi answer is the envelope; static files stay inside the UI folder.
TEST_F(Front, HandlesWholeRequestsInProcess) {
    const std::string ui = root.At("ui");
    ASSERT_TRUE(kova_test::WriteFile(ui + "/index.html", "<p>hi</p>"));
    ASSERT_TRUE(kova_test::WriteFile(ui + "/js/app.js", "export {};"));
    ASSERT_TRUE(kova_test::WriteFile(root.At("secret.txt"), "no"));
    ASSERT_EQ(0, symlink(root.At("secret.txt").c_str(), (ui + "/link.txt").c_str()));
    webd::Front front(reg, sessions, pool, logs, ui);
    auto code = [](const webd::HttpReply &r) {
        Json::Value v;
        EXPECT_TRUE(webd::ParseJsonText(r.body, v)) << r.body;
        EXPECT_EQ("application/json; charset=utf-8", r.Header("Content-Type"));
        EXPECT_EQ("DENY", r.Header("X-Frame-Options"));
        return v["error"]["code"].asInt();
    };
    webd::HeaderList form = Session();
    form.emplace_back("Content-Type", "application/x-www-form-urlencoded");
    webd::HttpReply busy = Call(front, "POST", "/webapi?api=T", form, "version=1&method=m");
    EXPECT_EQ(503, busy.status);  // found, but no worker can run it
    EXPECT_EQ(161, code(busy));

    webd::HttpReply index = Call(front, "GET", "/");
    EXPECT_EQ(200, index.status);
    EXPECT_EQ("<p>hi</p>", index.body);
    EXPECT_EQ("text/html; charset=utf-8", index.Header("Content-Type"));
    EXPECT_EQ("text/javascript; charset=utf-8", Call(front, "HEAD", "/js/app.js").Header("Content-Type"));
    for (const char *outside : {"/../secret.txt", "/js/%2e%2e/../secret.txt", "/link.txt", "/js//app.js", "/js"})
        EXPECT_EQ(404, Call(front, "GET", outside).status) << outside;
    EXPECT_EQ(405, Call(front, "POST", "/").status);

    webd::HttpRequest partial;
    webd::HttpReply refused = front.Refuse(webd::Refusal::kRequestLineTooLong, partial);
    EXPECT_EQ(414, refused.status);
    EXPECT_EQ(106, code(refused));
    EXPECT_EQ("close", refused.Header("Connection"));
}

// The front's own APIs are rows of the registry it serves, looked up like any module's, and leave with it: a
// later front on the same registry answers them itself instead of calling into one that is gone.
TEST_F(Front, OwnApisAreRegistryRowsForItsLifetime) {
    const webd::Route *r = nullptr;
    for (int round = 0; round < 2; ++round) {
        webd::Front front(reg, sessions, pool, logs, "");
        ASSERT_EQ(webd::ModuleRegistry::Lookup::kFound, reg.Find("KOVA.Server.Session", 1, "login", &r));
        EXPECT_TRUE(r->RunsInFront());
        EXPECT_FALSE(r->needsSession);
        ASSERT_EQ(webd::ModuleRegistry::Lookup::kFound, reg.Find("KOVA.Server.Info", 1, "query", &r));
        EXPECT_TRUE(r->RunsInFront());
        EXPECT_TRUE(r->needsSession);
        ASSERT_EQ(webd::ModuleRegistry::Lookup::kFound, reg.Find("T", 1, "m", &r));
        EXPECT_FALSE(r->RunsInFront());
        // The sign-in needs no session; its checks (no passwd) ran in this front.
        webd::HttpReply res = Call(front, "GET", "/webapi?api=KOVA.Server.Session&version=1&method=login&account=x");
        EXPECT_EQ(400, res.status) << round;
        EXPECT_NE(std::string::npos, res.body.find("passwd")) << res.body;

        Json::Value v;
        ASSERT_TRUE(webd::ParseJsonText(Call(front, "GET", "/webapi?api=KOVA.Server.Info&version=1&method=query",
                                             Session()).body, v));
        std::set<std::string> apis;
        for (const Json::Value &a : v["data"]["apis"]) apis.insert(a["api"].asString() + " " + a["origin"].asString());
        EXPECT_EQ((std::set<std::string>{"T t.so", "KOVA.Server.Info built-in", "KOVA.Server.Session built-in"}), apis);
    }
    EXPECT_EQ(webd::ModuleRegistry::Lookup::kNoAPI, reg.Find("KOVA.Server.Session", 1, "login", &r));
    EXPECT_EQ(webd::ModuleRegistry::Lookup::kNoAPI, reg.Find("KOVA.Server.Info", 1, "query", &r));
    EXPECT_EQ(webd::ModuleRegistry::Lookup::kFound, reg.Find("T", 1, "m", &r));
}

} // namespace
