// kova-webd's request handling without sockets: the input is what a client sends on one connection, read by
// Beast's parser with the listener's limits (http-listener.h) into requests for Front::Handle, or refusals
// for Front::Refuse (not HTTP, over a limit, or cut short: the client went quiet). Calls run in one real
// kova-webd worker. "@SID_ADMIN@", "@TOKEN_ADMIN@", "@SID_ALICE@", "@TOKEN_ALICE@" and "@SHARE@" become the
// sessions made at start and the share's path (in a Content-Length body before the parse, the length
// adjusted). Checked for every reply: a status and header fields the listener can write; on /webapi and in
// refusals a JSON envelope in valid UTF-8; no worker killed (code 160); no throw.
#include "fuzz-check.h"
#include "fuzz-root.h"
#include "utf8-check.h"

#include "frame.h"
#include "http-front.h"
#include "http-listener.h"
#include "files-api.h"

#include "kova/account.h"
#include "kova/klibc.h"

#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/http.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <map>
#include <vector>

namespace {

namespace http = boost::beast::http;
using kova_fuzz::Die;

struct World {
    webd::Logs logs;
    webd::ModuleRegistry registry;
    std::unique_ptr<webd::WorkerPool> pool;
    webd::SessionStore sessions{24 * 3600};
    std::unique_ptr<webd::Front> front;
    webd::ListenLimits limits;
    std::map<std::string, std::string> tokens;  // placeholder -> session id or token
};

World *gWorld = nullptr;

// The session of `user` behind the placeholders @SID_<tag>@ / @TOKEN_<tag>@, made anew when an input ended it
// (logout, or a sign-in from its cookie), so later inputs still reach the methods.
void EnsureSession(World &w, const std::string &user, const std::string &tag) {
    webd::Session live, s;
    if (w.sessions.Get(w.tokens["@SID_" + tag + "@"], live)) return;
    s.user = user;
    int uid = -1, gid = -1;
    if (KOVAUserGetUGID(user.c_str(), &uid, &gid) < 0) Die("no user " + user);
    s.uid = static_cast<uid_t>(uid);
    s.gid = static_cast<gid_t>(gid);
    s.groups.push_back(s.gid);
    s.admin = KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
    if (!w.sessions.Create(s)) Die("session");
    w.tokens["@SID_" + tag + "@"] = s.id;
    w.tokens["@TOKEN_" + tag + "@"] = s.token;
}

void EnsureSessions(World &w) {
    EnsureSession(w, "admin", "ADMIN");
    EnsureSession(w, "alice", "ALICE");
}

std::string Substitute(std::string text) {
    if (text.find('@') == std::string::npos) return text;
    for (const auto &kv : gWorld->tokens)
        for (size_t pos = 0; (pos = text.find(kv.first, pos)) != std::string::npos; pos += kv.second.size())
            text.replace(pos, kv.first.size(), kv.second);
    return kova_fuzz::WithSharePath(std::move(text));
}

// Replaces the placeholders in each Content-Length body of a connection's bytes and corrects the length;
// everything else passes unchanged.
std::string SubstituteBodies(const std::string &in) {
    std::string out;
    size_t pos = 0;
    while (pos < in.size()) {
        size_t end = in.find("\r\n\r\n", pos);
        if (end == std::string::npos) break;
        end += 4;
        std::string head = in.substr(pos, end - pos);
        pos = end;
        std::string lower = head;
        for (char &c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        size_t field = lower.find("\r\ncontent-length:");
        if (field != std::string::npos) {
            size_t value = field + 17;
            size_t eol = head.find("\r\n", value);
            unsigned long n = std::strtoul(head.c_str() + value, nullptr, 10);
            if (n <= in.size() - pos) {
                std::string body = Substitute(in.substr(pos, n));
                pos += n;
                head.replace(value, eol - value, " " + std::to_string(body.size()));
                head += body;
            }
        }
        out += head;
    }
    return out + in.substr(pos);
}

bool IsTokenChar(unsigned char c) {
    return std::isalnum(c) || std::string("!#$%&'*+-.^_`|~").find(static_cast<char>(c)) != std::string::npos;
}

// What the listener needs to write a reply, and the envelope on /webapi and on every refusal.
void Check(const webd::HttpReply &res, bool api, const std::string &what) {
    if (res.status < 200 || res.status > 599) Die(what + ": status " + std::to_string(res.status));
    for (const auto &h : res.headers) {
        if (h.first.empty()) Die(what + ": header without a name");
        for (char c : h.first)
            if (!IsTokenChar(static_cast<unsigned char>(c))) Die(what + ": header name " + h.first);
        if (h.second.find_first_of(std::string("\r\n\0", 3)) != std::string::npos)
            Die(what + ": header " + h.first + " holds a line break or NUL");
    }
    if (!api) return;
    Json::Value reply;
    if (!kova_fuzz::ValidUtf8(res.body) || !webd::ParseJsonText(res.body, reply) || !reply.isObject() ||
        !reply["success"].isBool())
        Die(what + ": answer " + std::to_string(res.status) + " is not a JSON envelope in UTF-8: " +
            res.body.substr(0, 200));
    if (!reply["success"].asBool() && reply["error"]["code"].asInt() == 160)
        Die("a call killed its worker: " + res.body.substr(0, 300));
}

webd::HttpRequest WhatWasRead(const http::request_parser<http::string_body> &p) {
    webd::HttpRequest req;
    req.remote = "192.0.2.7";
    if (p.is_header_done()) {
        const auto &h = p.get();
        req.method = std::string(h.method_string());
        req.target = Substitute(std::string(h.target()));
        for (const auto &f : h) req.headers.emplace_back(std::string(f.name_string()), Substitute(std::string(f.value())));
    }
    return req;
}

bool IsApi(const webd::HttpRequest &req) {
    std::string path, query;
    webd::SplitTarget(req.target, path, query);
    return path == "/webapi";
}

// One connection's requests (up to 8), as the listener reads and answers them; the replies in order, for
// KOVA_FUZZ_PRINT.
std::string Serve(World &w, const std::string &in) {
    std::string all;
    size_t pos = 0;
    for (int i = 0; i < 8 && pos < in.size(); ++i) {
        http::request_parser<http::string_body> p;
        p.header_limit(static_cast<std::uint32_t>(w.limits.headerBytes));
        p.body_limit(w.limits.bodyBytes);
        p.eager(true);
        const size_t begin = pos;
        boost::beast::error_code ec;
        while (!p.is_done() && pos < in.size()) {
            pos += p.put(boost::asio::buffer(in.data() + pos, in.size() - pos), ec);
            if (ec) break;
        }
        bool refused = true;
        webd::Refusal why = webd::Refusal::kMalformed;
        if (ec == http::error::header_limit) {
            const std::string seen = in.substr(begin, w.limits.headerBytes + 1);
            why = seen.find('\n') == std::string::npos ? webd::Refusal::kRequestLineTooLong
                                                         : webd::Refusal::kHeaderTooLarge;
        } else if (ec == http::error::body_limit) {
            why = webd::Refusal::kBodyTooLarge;
        } else if (ec == http::error::need_more || (!ec && !p.is_done())) {
            // The input ends mid-request: the client went quiet.
            why = webd::Refusal::kTooSlow;
        } else if (ec) {
            why = webd::Refusal::kMalformed;
        } else {
            refused = false;
        }
        webd::HttpReply res;
        webd::HttpRequest req = WhatWasRead(p);
        if (refused) {
            res = w.front->Refuse(why, req);
            Check(res, true, "refusal");
        } else {
            req.body = std::move(p.get().body());
            const bool api = IsApi(req);
            try {
                res = w.front->Handle(req);
            } catch (const std::exception &e) {
                Die(std::string("Handle threw: ") + e.what());
            }
            Check(res, api, req.method + " " + req.target.substr(0, 80));
        }
        all += std::to_string(res.status) + "\n" + res.body + "\n";
        if (refused || !p.get().keep_alive() || res.Header("Connection") == "close") break;
    }
    return all;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const kova_fuzz::FuzzRoot &root = kova_fuzz::Root();
    // The worker is a separate program: it learns the fault that keeps set's task from starting from the
    // environment.
    setenv("KOVA_FAULTS", "APIPolling::Start:0:0:0x0800", 1);
    // Millions of calls would fill the disk with access-log lines.
    const std::string logDir = root.path + "/var/log";
    for (const char *name : {"/webd-access.log", "/webd-error.log"})
        if (symlink("/dev/null", (logDir + name).c_str()) != 0) Die("log link");

    auto *w = new World;
    if (!w->logs.Open(logDir)) Die("logs");
    w->registry.Add(webd::FilesRoutes());
    auto say = [](const std::string &line) { std::fprintf(stderr, "http_front_fuzz: %s\n", line.c_str()); };
    if (!w->registry.LoadModule(KOVA_FUZZ_MODULE_PATH, say)) Die("module refused");
    w->pool = std::make_unique<webd::WorkerPool>(
        std::vector<std::string>{KOVA_FUZZ_WEBD_PATH, "--root", root.path, "--modules", KOVA_FUZZ_MODULE_DIR}, 1, 30,
        w->logs);
    if (!w->pool->Start()) Die("no worker");
    w->front = std::make_unique<webd::Front>(w->registry, w->sessions, *w->pool, w->logs, KOVA_FUZZ_UI_DIR);
    EnsureSessions(*w);
    gWorld = w;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input = SubstituteBodies(kova_fuzz::Text(data, size));
    std::string out = Serve(*gWorld, input);
    EnsureSessions(*gWorld);
    // KOVA_FUZZ_PRINT=1 shows the answers, for writing seeds.
    static const bool print = std::getenv("KOVA_FUZZ_PRINT") != nullptr;
    if (print) std::fprintf(stderr, "---\n%s\n", out.c_str());
    return 0;
}
