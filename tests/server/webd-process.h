// Starts kova-webd on a free loopback port for one test and stops it after. Also a small client that logs in
// and keeps the session cookie and token.
#ifndef KOVA_TEST_WEBD_PROCESS_H
#define KOVA_TEST_WEBD_PROCESS_H

#include <httplib.h>
#include <json/json.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace kova_test {

// Where the build puts the server tests' modules (a probe, a malformed one).
std::string ModulesDir();
// The body of a sign-in call, written by hand so that any bytes go through.
std::string LoginBody(const std::string &account, const std::string &passwd);

class WebdProcess {
public:
    // root: platform root; modules: modules folder. Waits until it listens.
    WebdProcess(const std::string &root, const std::string &modules, int workers = 3,
                const std::vector<std::string> &extraArgs = {});
    ~WebdProcess();
    bool ok() const { return port_ > 0; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    // Resident memory now (VmRSS) in KiB, 0 when it cannot be read.
    long ResidentKiB() const;
    // The error log, and how the server ended when it did not start.
    std::string ErrorLog() const;
    std::string AccessLog() const;

private:
    pid_t pid_ = -1;
    int port_ = 0;
    std::string root_;
    std::string ended_;  // why the server did not start: its exit status, signal or fork error
};

struct Reply {
    int status = 0;            // HTTP status, 0 when no answer
    Json::Value body;          // parsed JSON body
    bool json = false;         // the body parsed as JSON
    std::string raw;           // the body as sent
    std::string contentType;
    std::string setCookie;     // Set-Cookie header, if any
    std::string retryAfter;    // Retry-After header, if any
};

// A connection made by hand, from a chosen loopback address (what the server's per-address limit counts).
class RawConnection {
public:
    RawConnection(int port, const std::string &from = "127.0.0.1");
    ~RawConnection();
    RawConnection(const RawConnection &) = delete;
    RawConnection &operator=(const RawConnection &) = delete;
    bool ok() const { return fd_ >= 0; }
    bool Send(const std::string &bytes);
    // Whatever arrives until the server closes, or timeoutMs passes.
    std::string Receive(int timeoutMs);
    // The first whole HTTP reply; status 0 when none came within timeoutMs.
    Reply ReadReply(int timeoutMs);
    // Nothing arrived and the connection is still open after waitMs.
    bool Silent(int waitMs);

private:
    // Reads until enough(all read so far) is true, the peer closes, or time is up.
    void ReadUntil(int timeoutMs, const std::function<bool(const std::string &)> &enough);
    int fd_ = -1;
};


class WebClient {
public:
    explicit WebClient(int port, int timeoutSeconds = 60);
    Reply Login(const std::string &account, const std::string &passwd);
    // POST a JSON call with the session cookie and, when sendToken, the token.
    Reply Call(const std::string &api, int version, const std::string &method,
               const Json::Value &params = Json::Value(Json::objectValue), bool sendToken = true);
    Reply Raw(const std::string &method, const std::string &target, const std::string &body,
              const std::string &contentType, const httplib::Headers &headers);

    std::string cookie;   // "kova_sid=..."
    std::string token;

private:
    std::unique_ptr<httplib::Client> http_;
};

} // namespace kova_test

#endif
