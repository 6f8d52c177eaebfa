#include "http-listener.h"

#include <signal.h>
#include <strings.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/thread_pool.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/string.hpp>
#include <boost/beast/http.hpp>
#include <boost/optional.hpp>

#include <algorithm>
#include <atomic>
#include <list>
#include <type_traits>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace webd {

namespace net = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = net::ip::tcp;
using boost::system::error_code;
using TlsStream = net::ssl::stream<tcp::socket>;

namespace {

// After a refusal the rest of what the client sends is read and dropped for
// a moment before closing, so the client reads the refusal instead of a
// reset; bounded in time and bytes.
constexpr auto kLingerTime = std::chrono::seconds(2);
constexpr size_t kLingerBytes = 1 << 20;

bool IsHttpError(const error_code &ec) {
    return &ec.category() == &http::make_error_code(http::error::bad_target).category();
}

std::string PeerAddress(const tcp::socket &s) {
    error_code ec;
    tcp::endpoint ep = s.remote_endpoint(ec);
    if (ec) return "";
    net::ip::address a = ep.address();
    if (a.is_v6() && a.to_v6().is_v4_mapped()) a = net::ip::make_address_v4(net::ip::v4_mapped, a.to_v6());
    return a.to_string();
}

tcp::socket &Lowest(tcp::socket &s) { return s; }
tcp::socket &Lowest(TlsStream &s) { return s.next_layer(); }

// A year, the usual value: browsers then refuse plain HTTP to this name.
constexpr const char *kHsts = "max-age=31536000";

void MarkSecure(std::string &cookie) {
    std::string lower = cookie;
    for (char &c : lower) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    if (lower.find("; secure") == std::string::npos) cookie += "; Secure";
}

} // namespace

struct HttpListener::Impl {
    Impl(const ListenLimits &l, Handler h, Refuser r)
        : limits(l), handler(std::move(h)), refuser(std::move(r)), handlers(l.handlerThreads ? l.handlerThreads : 1) {}

    enum class Admission { kAdmitted, kOverAddressCap, kFull };
    Admission Admit(const std::string &address) {
        std::lock_guard<std::mutex> lock(mu);
        if (open >= limits.total) return Admission::kFull;
        ++open;
        size_t &n = perAddress[address];
        if (n >= limits.perAddress) {
            if (n == 0) perAddress.erase(address);
            return Admission::kOverAddressCap;
        }
        ++n;
        return Admission::kAdmitted;
    }
    void Release(const std::string &address, bool admitted) {
        std::lock_guard<std::mutex> lock(mu);
        --open;
        if (!admitted) return;
        auto it = perAddress.find(address);
        if (it != perAddress.end() && --it->second == 0) perAddress.erase(it);
    }
    bool Reserve(size_t n) {
        size_t held = bodiesHeld.load();
        do {
            if (n > limits.bodyBudget - std::min(held, limits.bodyBudget)) return false;
        } while (!bodiesHeld.compare_exchange_weak(held, held + n));
        return true;
    }
    void GiveBack(size_t n) { bodiesHeld -= n; }
    struct Port {
        explicit Port(net::io_context &loop) : acceptor(loop) {}
        tcp::acceptor acceptor;
        std::unique_ptr<net::ssl::context> tls;  // null: plain HTTP
    };
    void Accept(Port &port);
    int Listen(Port &port, const std::string &host, int portNo, std::string *why);

    ListenLimits limits;
    std::atomic<size_t> bodiesHeld{0};
    Handler handler;
    Refuser refuser;
    // Declared before the loop: connections still queued in it when it is
    // destroyed release their counts here.
    std::mutex mu;
    std::map<std::string, size_t> perAddress;
    size_t open = 0;
    net::io_context loop;
    std::list<Port> ports;
    net::signal_set signals{loop, SIGINT, SIGTERM};
    net::steady_timer acceptRetry{loop};
    net::thread_pool handlers;
};

namespace {

template <class Stream>
class Connection : public std::enable_shared_from_this<Connection<Stream>> {
    static constexpr bool kTls = std::is_same<Stream, TlsStream>::value;
    using std::enable_shared_from_this<Connection<Stream>>::shared_from_this;

public:
    template <class... StreamArgs>
    Connection(HttpListener::Impl &srv, std::string remote, bool admitted, StreamArgs &&...streamArgs)
        : srv_(srv), stream_(std::forward<StreamArgs>(streamArgs)...), socket_(Lowest(stream_)),
          timer_(stream_.get_executor()), remote_(std::move(remote)), admitted_(admitted),
          buffer_(srv.limits.headerBytes * 2 + 4096) {}
    ~Connection() {
        srv_.GiveBack(reserved_);
        srv_.Release(remote_, admitted_);
    }

    void Start() {
        if constexpr (kTls) {
            // The handshake is part of the time a client has for its header.
            Deadline(srv_.limits.headerTime, false);
            stream_.async_handshake(net::ssl::stream_base::server, [self = shared_from_this()](error_code ec) {
                if (ec) self->Close();
                else self->Begin();
            });
        } else {
            Begin();
        }
    }

private:
    void Begin() {
        if (admitted_) ReadHeader();
        else Refuse(Refusal::kTooManyConnections);
    }

    // At expiry a read is cancelled (the connection is then answered) and a
    // write or linger closes the socket.
    void Deadline(std::chrono::seconds limit, bool cancelOnly) {
        timedOut_ = false;
        timer_.expires_after(limit);
        timer_.async_wait([self = shared_from_this(), gen = ++generation_, cancelOnly](error_code ec) {
            if (ec || gen != self->generation_) return;
            self->timedOut_ = true;
            error_code ignored;
            if (cancelOnly) self->socket_.cancel(ignored);
            else self->socket_.close(ignored);
        });
    }
    void NoDeadline() {
        ++generation_;
        timer_.cancel();
    }

    void ReadHeader() {
        parser_.emplace();
        parser_->header_limit(static_cast<std::uint32_t>(srv_.limits.headerBytes));
        parser_->body_limit(srv_.limits.bodyBytes);
        Deadline(srv_.limits.headerTime, true);
        http::async_read_header(stream_, buffer_, *parser_,
                                [self = shared_from_this()](error_code ec, size_t) { self->OnHeader(ec); });
    }

    void OnHeader(error_code ec) {
        const bool started = parser_->got_some() || buffer_.size() > 0;
        if (ec && timedOut_) {
            // Idle between requests is no fault; a request begun and not
            // finished in time is answered.
            if (started) Refuse(Refusal::kTooSlow);
            else Close();
            return;
        }
        if (ec == http::error::header_limit) {
            const auto data = buffer_.data();
            const std::string seen(static_cast<const char *>(data.data()), std::min<size_t>(data.size(), 1 << 16));
            Refuse(seen.find('\n') == std::string::npos ? Refusal::kRequestLineTooLong : Refusal::kHeaderTooLarge);
            return;
        }
        if (ec == http::error::body_limit) {  // the declared length alone is over
            Refuse(Refusal::kBodyTooLarge);
            return;
        }
        if (ec == http::error::end_of_stream || ec == http::error::partial_message || (ec && !IsHttpError(ec))) {
            Close();
            return;
        }
        if (ec) {
            Refuse(Refusal::kMalformed);
            return;
        }
        const boost::optional<std::uint64_t> length = parser_->content_length();
        if (length && *length > srv_.limits.bodyBytes) {
            Refuse(Refusal::kBodyTooLarge);
            return;
        }
        // Chunked bodies may grow to the limit: that much is set aside.
        const size_t want = parser_->is_done() ? 0 : length ? static_cast<size_t>(*length) : srv_.limits.bodyBytes;
        if (!srv_.Reserve(want)) {
            Refuse(Refusal::kBusy);
            return;
        }
        reserved_ = want;
        const auto expect = parser_->get()[http::field::expect];
        if (!parser_->is_done() && beast::iequals(expect, "100-continue")) {
            // The client waits for this before it sends the body.
            auto cont = std::make_shared<http::response<http::empty_body>>(http::status::continue_, 11);
            Deadline(srv_.limits.writeTime, false);
            http::async_write(stream_, *cont, [self = shared_from_this(), cont](error_code e, size_t) {
                if (e) self->Close();
                else self->ReadBody();
            });
            return;
        }
        ReadBody();
    }

    void ReadBody() {
        if (parser_->is_done()) {
            Dispatch();
            return;
        }
        Deadline(srv_.limits.bodyTime, true);
        http::async_read(stream_, buffer_, *parser_, [self = shared_from_this()](error_code ec, size_t) {
            if (ec && self->timedOut_) self->Refuse(Refusal::kTooSlow);
            else if (ec == http::error::body_limit) self->Refuse(Refusal::kBodyTooLarge);
            else if (ec == http::error::partial_message || (ec && !IsHttpError(ec))) self->Close();
            else if (ec) self->Refuse(Refusal::kMalformed);
            else self->Dispatch();
        });
    }

    HttpRequest WhatWasRead() {
        HttpRequest req;
        req.remote = remote_;
        if (parser_ && parser_->is_header_done()) {
            const auto &h = parser_->get();
            req.method = std::string(h.method_string());
            req.target = std::string(h.target());
            for (const auto &f : h) req.headers.emplace_back(std::string(f.name_string()), std::string(f.value()));
        }
        return req;
    }

    void Dispatch() {
        NoDeadline();
        HttpRequest req = WhatWasRead();
        req.body = std::move(parser_->get().body());
        keepAlive_ = parser_->get().keep_alive();
        head_ = parser_->get().method() == http::verb::head;
        parser_.reset();
        net::post(srv_.handlers, [self = shared_from_this(), req = std::move(req)]() {
            HttpReply reply;
            try {
                reply = self->srv_.handler(req);
            } catch (...) {
                reply = self->srv_.refuser(Refusal::kInternal, req);
                self->keepAlive_ = false;
            }
            net::post(self->socket_.get_executor(), [self, reply = std::move(reply)]() mutable {
                self->Write(std::move(reply));
            });
        });
    }

    void Refuse(Refusal why) {
        NoDeadline();
        HttpReply reply = srv_.refuser(why, WhatWasRead());
        parser_.reset();
        keepAlive_ = false;
        head_ = false;
        Write(std::move(reply));
    }

    void Write(HttpReply reply) {
        // The request's body is gone by now.
        srv_.GiveBack(reserved_);
        reserved_ = 0;
        auto res = std::make_shared<http::response<http::string_body>>();
        res->version(11);
        res->result(static_cast<unsigned>(reply.status));
        bool close = !keepAlive_;
        for (const auto &h : reply.headers) {
            if (strcasecmp(h.first.c_str(), "Connection") == 0) {
                close = close || strcasecmp(h.second.c_str(), "close") == 0;
                continue;
            }
            if (kTls && strcasecmp(h.first.c_str(), "Set-Cookie") == 0) {
                std::string cookie = h.second;
                MarkSecure(cookie);
                res->insert(h.first, cookie);
                continue;
            }
            res->insert(h.first, h.second);
        }
        if (kTls) res->set(http::field::strict_transport_security, kHsts);
        res->body() = std::move(reply.body);
        res->keep_alive(!close);
        res->prepare_payload();
        if (head_) res->body().clear();  // Content-Length stays that of the body
        Deadline(srv_.limits.writeTime, false);
        http::async_write(stream_, *res, [self = shared_from_this(), res, close](error_code ec, size_t) {
            self->NoDeadline();
            if (ec) self->Close();
            else if (close) self->Linger();
            else self->ReadHeader();
        });
    }

    void Linger() {
        Deadline(kLingerTime, false);
        if constexpr (kTls) {
            // close_notify, then the client's; the deadline closes a client
            // that never answers it.
            stream_.async_shutdown([self = shared_from_this()](error_code) { self->Close(); });
            return;
        }
        error_code ignored;
        socket_.shutdown(tcp::socket::shutdown_send, ignored);
        DropInput();
    }
    void DropInput() {
        socket_.async_read_some(net::buffer(scratch_), [self = shared_from_this()](error_code ec, size_t n) {
            self->dropped_ += n;
            if (ec || self->dropped_ > kLingerBytes) self->Close();
            else self->DropInput();
        });
    }

    void Close() {
        NoDeadline();
        error_code ignored;
        socket_.shutdown(tcp::socket::shutdown_both, ignored);
        socket_.close(ignored);
    }

    HttpListener::Impl &srv_;
    Stream stream_;
    tcp::socket &socket_;   // the TCP layer of stream_
    net::steady_timer timer_;
    std::string remote_;
    bool admitted_;
    beast::flat_buffer buffer_;
    boost::optional<http::request_parser<http::string_body>> parser_;
    unsigned generation_ = 0;
    bool timedOut_ = false;
    bool keepAlive_ = false;
    bool head_ = false;
    char scratch_[4096];
    size_t dropped_ = 0;
    size_t reserved_ = 0;   // of the server's body budget
};

} // namespace

void HttpListener::Impl::Accept(Port &port) {
    port.acceptor.async_accept(net::make_strand(loop), [this, &port](error_code ec, tcp::socket socket) {
        if (ec == net::error::operation_aborted || !port.acceptor.is_open()) return;
        if (ec) {
            // Out of descriptors or memory: try again shortly rather than spin.
            acceptRetry.expires_after(std::chrono::milliseconds(100));
            acceptRetry.async_wait([this, &port](error_code e) {
                if (!e) Accept(port);
            });
            return;
        }
        error_code ignored;
        // Replies are written as header and body: without this, Nagle's
        // algorithm and the client's delayed ACK add ~40 ms to each one.
        socket.set_option(tcp::no_delay(true), ignored);
        const std::string remote = PeerAddress(socket);
        const Admission admission = Admit(remote);
        if (admission == Admission::kFull) {
            socket.close(ignored);
        } else if (port.tls) {
            std::make_shared<Connection<TlsStream>>(*this, remote, admission == Admission::kAdmitted, std::move(socket),
                                                    *port.tls)
                ->Start();
        } else {
            std::make_shared<Connection<tcp::socket>>(*this, remote, admission == Admission::kAdmitted,
                                                      std::move(socket))
                ->Start();
        }
        Accept(port);
    });
}

HttpListener::HttpListener(const ListenLimits &limits, Handler handler, Refuser refuser)
    : impl_(new Impl(limits, std::move(handler), std::move(refuser))) {}

HttpListener::~HttpListener() {
    impl_->handlers.stop();
    impl_->handlers.join();
}

int HttpListener::Impl::Listen(Port &port, const std::string &host, int portNo, std::string *why) {
    error_code ec;
    tcp::resolver resolver(loop);
    auto results = resolver.resolve(host, std::to_string(portNo), tcp::resolver::passive, ec);
    if (ec || results.empty()) {
        if (why) *why = "cannot resolve " + host + ": " + ec.message();
        return -1;
    }
    const tcp::endpoint ep = results.begin()->endpoint();
    tcp::acceptor &a = port.acceptor;
    a.open(ep.protocol(), ec);
    if (!ec) a.set_option(net::socket_base::reuse_address(true), ec);
    if (!ec) a.bind(ep, ec);
    if (!ec) a.listen(net::socket_base::max_listen_connections, ec);
    if (ec) {
        if (why) *why = "cannot listen on " + host + ":" + std::to_string(portNo) + ": " + ec.message();
        error_code ignored;
        a.close(ignored);
        return -1;
    }
    return a.local_endpoint().port();
}

int HttpListener::Bind(const std::string &host, int port, std::string *why) {
    Impl::Port &p = impl_->ports.emplace_back(impl_->loop);
    const int bound = impl_->Listen(p, host, port, why);
    if (bound < 0) impl_->ports.pop_back();
    return bound;
}

int HttpListener::BindTls(const std::string &host, int port, const std::string &certFile, const std::string &keyFile,
                          std::string *why) {
    auto ctx = std::make_unique<net::ssl::context>(net::ssl::context::tls_server);
    error_code ec;
    // TLS 1.2 and later only; OpenSSL's default ciphers for them.
    ctx->set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                         net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 | net::ssl::context::no_tlsv1_1 |
                         net::ssl::context::single_dh_use,
                     ec);
    if (!ec) ctx->use_certificate_chain_file(certFile, ec);
    if (ec) {
        if (why) *why = "cannot load the certificate " + certFile + ": " + ec.message();
        return -1;
    }
    ctx->use_private_key_file(keyFile, net::ssl::context::pem, ec);
    if (!ec && SSL_CTX_check_private_key(ctx->native_handle()) != 1) ec = net::error::invalid_argument;
    if (ec) {
        if (why) *why = "cannot load the key " + keyFile + " (or it does not match the certificate): " + ec.message();
        return -1;
    }
    Impl::Port &p = impl_->ports.emplace_back(impl_->loop);
    p.tls = std::move(ctx);
    const int bound = impl_->Listen(p, host, port, why);
    if (bound < 0) impl_->ports.pop_back();
    return bound;
}

void HttpListener::Run() {
    Impl &s = *impl_;
    s.signals.async_wait([this](error_code ec, int) {
        if (!ec) Stop();
    });
    for (Impl::Port &p : s.ports) s.Accept(p);
    std::vector<std::thread> loops;
    for (size_t i = 1; i < s.limits.loopThreads; ++i) loops.emplace_back([&s] { s.loop.run(); });
    s.loop.run();
    for (std::thread &t : loops) t.join();
    // Requests already with a handler finish; queued ones are dropped.
    s.handlers.stop();
    s.handlers.join();
}

void HttpListener::Stop() {
    Impl &s = *impl_;
    net::post(s.loop, [&s] {
        error_code ignored;
        for (Impl::Port &p : s.ports) p.acceptor.close(ignored);
        s.signals.cancel(ignored);
        s.acceptRetry.cancel();
        s.loop.stop();
    });
}

} // namespace webd
