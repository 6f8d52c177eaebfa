// kova-webd's HTTP front in-process, without sockets: the input is the byte
// stream a client sends on one connection, fed through cpp-httplib's request
// processing (a subclass reaches the protected process_request with an
// in-memory stream) into the routes Front::Install registers. Module calls
// go through a real worker pool of one kova-webd worker process, so a method
// that kills its worker shows here as HTTP 500 with code 160.
//
// Placeholders in the headers, fields and body: "@SID_ADMIN@" /
// "@TOKEN_ADMIN@" and "@SID_ALICE@" / "@TOKEN_ALICE@" become the cookie and
// token of sessions made at start, "@SHARE@" the fuzz root's share path.
// In headers and fields they are replaced after the HTTP parse, before
// routing; in a body given with Content-Length, before the parse, with the
// length adjusted, so a seed's Content-Length stays right.
//
// Checked for every answer to /webapi: it is a well-formed HTTP response;
// a 200 carries a JSON envelope ({"success": bool, ...}); no call killed the
// worker (code 160). With KOVA_FUZZ_STRICT=1 also: every answer of
// /webapi, whatever its status, is a JSON envelope in valid UTF-8 (off by
// default until the front answers every refusal so, issue 13 break 5).
#include "fuzz-root.h"
#include "utf8-check.h"

#include "frame.h"
#include "http-front.h"
#include "files-api.h"

#include "kova/account.h"
#include "kova/klibc.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

[[noreturn]] void Die(const std::string &what) {
    std::fprintf(stderr, "http_front_fuzz: %s\n", what.c_str());
    std::abort();
}

class MemoryStream : public httplib::Stream {
public:
    explicit MemoryStream(const std::string &in) : in_(in) {}
    bool is_readable() const override { return pos_ < in_.size(); }
    bool is_writable() const override { return true; }
    ssize_t read(char *ptr, size_t size) override {
        size_t n = std::min(size, in_.size() - pos_);
        in_.copy(ptr, n, pos_);
        pos_ += n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const char *ptr, size_t size) override {
        out_.append(ptr, size);
        return static_cast<ssize_t>(size);
    }
    void get_remote_ip_and_port(std::string &ip, int &port) const override {
        ip = "192.0.2.7";
        port = 40000;
    }
    void get_local_ip_and_port(std::string &ip, int &port) const override {
        ip = "127.0.0.1";
        port = 5000;
    }
    socket_t socket() const override { return INVALID_SOCKET; }

    bool exhausted() const { return pos_ >= in_.size(); }
    std::string &out() { return out_; }

private:
    const std::string &in_;
    size_t pos_ = 0;
    std::string out_;
};

class InMemoryServer : public httplib::Server {
public:
    // One connection's requests, as the server's keep-alive loop runs them.
    std::string Serve(const std::string &input) {
        MemoryStream stream(input);
        std::string all;
        for (int i = 0; i < 8 && !stream.exhausted(); ++i) {
            bool closed = false;
            bool ok = process_request(stream, false, closed, nullptr);
            Check(stream.out());
            all += stream.out();
            stream.out().clear();
            if (!ok || closed) break;
        }
        return all;
    }

private:
    // One response: a status line, headers, and for /webapi 200 a JSON envelope.
    static void Check(const std::string &out) {
        if (out.empty()) return;  // nothing parsed: the connection just ends
        if (out.compare(0, 9, "HTTP/1.1 ") != 0) Die("response without a status line: " + out.substr(0, 80));
        int status = std::atoi(out.c_str() + 9);
        size_t body = out.find("\r\n\r\n");
        if (body == std::string::npos) Die("response without the end of its headers");
        std::string headers = out.substr(0, body);
        if (headers.find("application/json") == std::string::npos) return;
        Json::Value reply;
        if (!webd::ParseJsonText(out.substr(body + 4), reply) || !reply.isObject() || !reply["success"].isBool()) {
            if (status == 200) Die("a 200 answer of /webapi is not a JSON envelope");
            return;
        }
        if (!reply["success"].asBool() && reply["error"]["code"].asInt() == 160)
            Die("a call killed its worker: " + out.substr(0, 300));
    }
};

struct World {
    webd::Logs logs;
    webd::ModuleRegistry registry;
    std::unique_ptr<webd::WorkerPool> pool;
    webd::SessionStore sessions{24 * 3600};
    std::unique_ptr<webd::Front> front;
    InMemoryServer server;
    std::vector<std::pair<std::string, std::string>> tokens;
};

World *gWorld = nullptr;

// The session of `user` behind the placeholders @SID_<tag>@ / @TOKEN_<tag>@,
// made anew when an input ended it (logout, or a sign-in from its cookie),
// so later inputs still reach the methods.
void EnsureSession(World &w, const std::string &user, const std::string &tag) {
    const std::string sidKey = "@SID_" + tag + "@", tokenKey = "@TOKEN_" + tag + "@";
    for (const auto &kv : w.tokens) {
        webd::Session live;
        if (kv.first == sidKey && w.sessions.Get(kv.second, live)) return;
    }
    webd::Session s;
    s.user = user;
    int uid = -1, gid = -1;
    if (KOVAUserGetUGID(user.c_str(), &uid, &gid) < 0) Die("no user " + user);
    s.uid = static_cast<uid_t>(uid);
    s.gid = static_cast<gid_t>(gid);
    s.groups.push_back(s.gid);
    s.admin = KLIBGroupIsAdminGroupMem(user.c_str(), 0) == 1;
    if (!w.sessions.Create(s)) Die("session");
    for (auto it = w.tokens.begin(); it != w.tokens.end();)
        it = it->first == sidKey || it->first == tokenKey ? w.tokens.erase(it) : it + 1;
    w.tokens.emplace_back(sidKey, s.id);
    w.tokens.emplace_back(tokenKey, s.token);
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

// Replaces the placeholders in each Content-Length body of a connection's
// bytes and corrects the length; everything else passes unchanged.
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

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const kova_fuzz::FuzzRoot &root = kova_fuzz::Root();
    // The worker is a separate program: it learns the fault that keeps
    // set's task from starting from the environment.
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
    w->server.set_payload_max_length(8u << 20);
    w->server.set_pre_routing_handler([](const httplib::Request &req, httplib::Response &) {
        // The request is the server's own, not const; only the handlers see it so.
        auto &r = const_cast<httplib::Request &>(req);
        for (auto &kv : r.headers) kv.second = Substitute(kv.second);
        for (auto &kv : r.params) kv.second = Substitute(kv.second);
        return httplib::Server::HandlerResponse::Unhandled;
    });
    if (std::getenv("KOVA_FUZZ_STRICT")) {
        w->server.set_post_routing_handler([](const httplib::Request &req, httplib::Response &res) {
            if (req.path != "/webapi") return;
            Json::Value reply;
            if (!kova_fuzz::ValidUtf8(res.body) || !webd::ParseJsonText(res.body, reply) || !reply.isObject() ||
                !reply["success"].isBool())
                Die("answer " + std::to_string(res.status) + " of /webapi is not a JSON envelope in UTF-8");
        });
    }
    w->front->Install(w->server);
    EnsureSessions(*w);
    gWorld = w;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string input = SubstituteBodies(std::string(reinterpret_cast<const char *>(data), size));
    std::string out = gWorld->server.Serve(input);
    EnsureSessions(*gWorld);
    // KOVA_FUZZ_PRINT=1 shows the answers, for writing seeds.
    static const bool print = std::getenv("KOVA_FUZZ_PRINT") != nullptr;
    if (print) std::fprintf(stderr, "---\n%s\n", out.c_str());
    return 0;
}
