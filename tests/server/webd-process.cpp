#include "webd-process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "temp-root.h"

namespace kova_test {

namespace {

std::string ReadAll(const std::string &path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

Reply ToReply(const httplib::Result &r) {
    Reply out;
    if (!r) return out;
    out.status = r->status;
    out.setCookie = r->get_header_value("Set-Cookie");
    Json::CharReaderBuilder b;
    std::string errs;
    std::istringstream in(r->body);
    Json::parseFromStream(b, in, &out.body, &errs);
    return out;
}

} // namespace

WebdProcess::WebdProcess(const std::string &root, const std::string &modules, int workers,
                         const std::vector<std::string> &extraArgs)
    : root_(root) {
    const std::string portFile = root + "/webd.port";
    unlink(portFile.c_str());
    const std::string exe = BuildDir() + "/bin/kova-webd";
    pid_ = fork();
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
    // Start-up is waited for by polling the port file; a server that exits
    // early ends the wait at once.
    for (int i = 0; i < 400 && pid_ > 0; ++i) {
        std::string text = ReadAll(portFile);
        if (!text.empty()) {
            port_ = std::stoi(text);
            return;
        }
        int status;
        if (waitpid(pid_, &status, WNOHANG) == pid_) {
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

std::string WebdProcess::ErrorLog() const { return ReadAll(root_ + "/var/log/webd-error.log"); }
std::string WebdProcess::AccessLog() const { return ReadAll(root_ + "/var/log/webd-access.log"); }

WebClient::WebClient(int port) : http_(new httplib::Client("127.0.0.1", port)) {
    http_->set_read_timeout(60, 0);
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
