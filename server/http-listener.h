// The HTTP side of kova-webd on Boost.Beast and Asio: a few event-loop
// threads read and write every connection, so a connection waiting on a
// slow client holds a little memory and no thread. Only whole requests
// reach the handling, on a separate pool of handler threads (their calls
// block on sign-in hashes and workers); the reply goes back to the loop.
//
// Limits (ListenLimits): connections per peer address and in all, bytes of
// request line plus header fields, bytes of body, and deadlines: the whole
// header (or, on a kept-alive connection, the next request's header) within
// headerTime of starting to wait for it, the whole body within bodyTime,
// the reply written within writeTime. Bodies held at once are bounded too:
// a request's declared length (a chunked one: bodyBytes) is reserved from
// bodyBudget when its header is read, and given back once it is answered;
// a request that does not fit is refused (kBusy). A request past a limit is answered by
// the refuser (Refusal) and the connection closed; a kept-alive connection
// idle past headerTime is closed without a word. The listener parses no
// HTTP itself: Beast's parser does.
//
// It may listen on several addresses, each plain or TLS (OpenSSL through
// Asio's ssl::stream; the handshake counts against headerTime). Replies
// over TLS carry Strict-Transport-Security and every cookie they set is
// marked Secure, so a session made over HTTPS is never sent in clear.
#ifndef KOVA_WEBD_HTTP_LISTENER_H
#define KOVA_WEBD_HTTP_LISTENER_H

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "http-message.h"

namespace webd {

struct ListenLimits {
    size_t perAddress = 32;             // open connections from one address
    size_t total = 10000;               // open connections in all; past it new ones are closed at once
    size_t headerBytes = 16 << 10;      // request line and header fields
    size_t bodyBytes = 8 << 20;
    size_t bodyBudget = 256 << 20;      // bodies of all requests being read or answered

    std::chrono::seconds headerTime{10};
    std::chrono::seconds bodyTime{30};
    std::chrono::seconds writeTime{30};
    size_t handlerThreads = 16;
    size_t loopThreads = 2;
};

class HttpListener {
public:
    using Handler = std::function<HttpReply(const HttpRequest &)>;
    using Refuser = std::function<HttpReply(Refusal, const HttpRequest &)>;

    HttpListener(const ListenLimits &limits, Handler handler, Refuser refuser);
    ~HttpListener();
    HttpListener(const HttpListener &) = delete;
    HttpListener &operator=(const HttpListener &) = delete;

    // Listens on host:port (0: a free port). The port, or -1 with *why set.
    int Bind(const std::string &host, int port, std::string *why);
    // The same over TLS with a PEM certificate (chain) and key; refused
    // (-1, *why) when they cannot be loaded or do not match.
    int BindTls(const std::string &host, int port, const std::string &certFile, const std::string &keyFile,
                std::string *why);
    // Serves until SIGTERM or SIGINT arrives or Stop is called; returns once
    // every handler thread has finished its request.
    void Run();
    void Stop();  // from any thread, not from a signal handler

    struct Impl;  // the loop and its connections, in http-listener.cpp

private:
    std::unique_ptr<Impl> impl_;
};

} // namespace webd

#endif
