#include "webd-process.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/beast/http.hpp>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "temp-root.h"

namespace kova_test {

std::string ModulesDir() { return BuildDir() + "/tests/server/modules"; }

std::string LoginBody(const std::string &account, const std::string &passwd) {
    return "{\"api\":\"KOVA.Server.Session\",\"version\":1,\"method\":\"login\",\"params\":{\"account\":\"" +
           account + "\",\"passwd\":\"" + passwd + "\"}}";
}

namespace {

Reply MakeReply(int status, std::string body, std::string contentType, std::string setCookie,
                std::string retryAfter) {
    Reply out{status, Json::Value(), false, std::move(body), std::move(contentType), std::move(setCookie),
              std::move(retryAfter)};
    std::istringstream in(out.raw);
    out.json = Json::parseFromStream(Json::CharReaderBuilder(), in, &out.body, nullptr);
    return out;
}

Reply ToReply(const httplib::Result &r) {
    if (!r) return Reply();
    return MakeReply(r->status, r->body, r->get_header_value("Content-Type"), r->get_header_value("Set-Cookie"),
                     r->get_header_value("Retry-After"));
}

// The first whole HTTP reply in bytes, read with Beast's parser.
Reply ParseReply(const std::string &bytes) {
    namespace http = boost::beast::http;
    http::response_parser<http::string_body> parser;
    parser.eager(true);
    boost::system::error_code ec;
    parser.put(boost::asio::buffer(bytes), ec);
    if (ec || !parser.is_done()) return Reply();
    const auto &res = parser.get();
    return MakeReply(static_cast<int>(res.result_int()), res.body(), std::string(res[http::field::content_type]),
                     std::string(res[http::field::set_cookie]), std::string(res[http::field::retry_after]));
}

} // namespace

WebdProcess::WebdProcess(const std::string &root, const std::string &modules, int workers,
                         const std::vector<std::string> &extraArgs)
    : root_(root) {
    const std::string portFile = root + "/webd.port";
    unlink(portFile.c_str());
    const std::string exe = BuildDir() + "/bin/kova-webd";
    pid_ = fork();
    if (pid_ < 0) ended_ = std::string("fork: ") + std::strerror(errno);
    if (pid_ == 0) {
        std::vector<std::string> args = {exe, "--root", root, "--modules", modules, "--port", "0",
                                         "--port-file", portFile, "--workers", std::to_string(workers), "--ui", ""};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        std::vector<char *> argv;
        for (std::string &a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        execv(exe.c_str(), argv.data());
        _exit(127);
    }
    // Start-up is waited for by polling the port file; a server that exits early ends the wait at once.
    for (int i = 0; i < 400 && pid_ > 0; ++i) {
        std::string text = ReadFile(portFile);
        if (!text.empty()) {
            port_ = std::stoi(text);
            return;
        }
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
            ended_ = WIFSIGNALED(status) ? "signal " + std::to_string(WTERMSIG(status))
                                         : "exit status " + std::to_string(WEXITSTATUS(status));
            pid_ = -1;
            return;
        }
        usleep(25 * 1000);
    }
}

WebdProcess::~WebdProcess() {
    if (pid_ > 0) {
        kill(pid_, SIGTERM);
        int status;
        waitpid(pid_, &status, 0);
    }
}

long WebdProcess::ResidentKiB() const {
    const std::string status = ReadFile("/proc/" + std::to_string(pid_) + "/status");
    const size_t at = status.find("\nVmRSS:");
    return at == std::string::npos ? 0 : std::strtol(status.c_str() + at + 8, nullptr, 10);
}

std::string WebdProcess::ErrorLog() const {
    const std::string log = ReadFile(root_ + "/var/log/webd-error.log");
    return ended_.empty() ? log : log + "(kova-webd did not start: " + ended_ + ")\n";
}
std::string WebdProcess::AccessLog() const { return ReadFile(root_ + "/var/log/webd-access.log"); }

WebClient::WebClient(int port, int timeoutSeconds) : http_(new httplib::Client("127.0.0.1", port)) {
    http_->set_connection_timeout(timeoutSeconds, 0);
    http_->set_read_timeout(timeoutSeconds, 0);
    http_->set_write_timeout(timeoutSeconds, 0);
}

RawConnection::RawConnection(int port, const std::string &from) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in local = {}, server = {};
    local.sin_family = server.sin_family = AF_INET;
    server.sin_port = htons(static_cast<uint16_t>(port));
    if (fd_ < 0 || inet_pton(AF_INET, from.c_str(), &local.sin_addr) != 1 ||
        inet_pton(AF_INET, "127.0.0.1", &server.sin_addr) != 1 ||
        bind(fd_, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0 ||
        connect(fd_, reinterpret_cast<sockaddr *>(&server), sizeof server) != 0) {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }
}

RawConnection::~RawConnection() {
    if (fd_ >= 0) close(fd_);
}

bool RawConnection::Send(const std::string &bytes) {
    size_t done = 0;
    while (fd_ >= 0 && done < bytes.size()) {
        ssize_t w = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (w <= 0) return false;
        done += static_cast<size_t>(w);
    }
    return fd_ >= 0;
}

std::string RawConnection::Receive(int timeoutMs) {
    std::string out;
    ReadUntil(timeoutMs, [&out](const std::string &got) {
        out = got;
        return false;
    });
    return out;
}

Reply RawConnection::ReadReply(int timeoutMs) {
    Reply reply;
    ReadUntil(timeoutMs, [&reply](const std::string &got) {
        reply = ParseReply(got);
        return reply.status != 0;
    });
    return reply;
}

void RawConnection::ReadUntil(int timeoutMs, const std::function<bool(const std::string &)> &enough) {
    std::string all;
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (fd_ >= 0) {
        const long left =
            std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now()).count();
        struct pollfd p = {fd_, POLLIN, 0};
        if (left <= 0 || poll(&p, 1, static_cast<int>(left)) <= 0) break;
        char buf[4096];
        ssize_t r = recv(fd_, buf, sizeof buf, 0);
        if (r <= 0) break;
        all.append(buf, static_cast<size_t>(r));
        if (enough(all)) return;
    }
}

bool RawConnection::Silent(int waitMs) {
    struct pollfd p = {fd_, POLLIN, 0};
    return fd_ >= 0 && poll(&p, 1, waitMs) == 0;
}

Reply WebClient::Raw(const std::string &method, const std::string &target, const std::string &body,
                     const std::string &contentType, const httplib::Headers &headers) {
    if (method == "GET") return ToReply(http_->Get(target.c_str(), headers));
    return ToReply(http_->Post(target.c_str(), headers, body, contentType.c_str()));
}

Reply WebClient::Login(const std::string &account, const std::string &passwd) {
    Json::Value p(Json::objectValue);
    p["account"] = account;
    p["passwd"] = passwd;
    Reply r = Call("KOVA.Server.Session", 1, "login", p, false);
    if (r.body["success"].asBool()) {
        cookie = r.setCookie.substr(0, r.setCookie.find(';'));
        token = r.body["data"]["token"].asString();
    }
    return r;
}

Reply WebClient::Call(const std::string &api, int version, const std::string &method, const Json::Value &params,
                      bool sendToken) {
    Json::Value body(Json::objectValue);
    body["api"] = api;
    body["version"] = version;
    body["method"] = method;
    body["params"] = params;
    httplib::Headers h;
    if (!cookie.empty()) h.emplace("Cookie", cookie);
    if (sendToken && !token.empty()) h.emplace("X-Kova-Token", token);
    return Raw("POST", "/webapi", Json::writeString(Json::StreamWriterBuilder(), body), "application/json", h);
}

} // namespace kova_test
