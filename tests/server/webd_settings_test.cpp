// How kova-webd is reached and configured: HTTPS with the certificate it makes for itself, plain HTTP on
// loopback only, the configuration file.
#include <gtest/gtest.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/write.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http.hpp>

#include <regex>

#include "kova/account.h"
#include "options.h"
#include "temp-root.h"
#include "tls-cert.h"
#include "webd-process.h"

namespace net = boost::asio;
namespace http = boost::beast::http;
using kova_test::LoginBody;
using kova_test::ModulesDir;
using kova_test::ReadFile;
using kova_test::WebdProcess;

namespace {

std::string Webd() { return kova_test::BuildDir() + "/bin/kova-webd"; }

// The last fingerprint the server printed.
std::string PrintedFingerprint(const std::string &log) {
    static const std::regex re("SHA-256 ([0-9A-F]{2}(:[0-9A-F]{2}){31})");
    std::string last;
    for (std::sregex_iterator it(log.begin(), log.end(), re), end; it != end; ++it) last = (*it)[1];
    return last;
}

struct TlsReply {
    std::string servedFingerprint;  // of the certificate the server presented
    int status = 0;
    std::string hsts, setCookie;
};

// A TLS connection to the server that trusts whatever certificate it serves.
struct TlsConnection {
    explicit TlsConnection(int port) {
        ctx.set_verify_mode(net::ssl::verify_none);
        s.next_layer().connect({net::ip::make_address("127.0.0.1"), static_cast<unsigned short>(port)}, ec);
        if (!ec) s.handshake(net::ssl::stream_base::client, ec);
    }
    net::io_context io;
    net::ssl::context ctx{net::ssl::context::tls_client};
    net::ssl::stream<net::ip::tcp::socket> s{io, ctx};
    boost::system::error_code ec;
};

// One POST over TLS, noting the served certificate's fingerprint.
TlsReply PostTls(int port, const std::string &body) {
    TlsReply out;
    TlsConnection c(port);
    auto &s = c.s;
    auto &ec = c.ec;
    if (ec) return out;
    if (X509 *cert = SSL_get1_peer_certificate(s.native_handle())) {
        unsigned char md[EVP_MAX_MD_SIZE];
        unsigned n = 0;
        X509_digest(cert, EVP_sha256(), md, &n);
        char hex[4];
        for (unsigned i = 0; i < n; ++i) {
            snprintf(hex, sizeof hex, i ? ":%02X" : "%02X", md[i]);
            out.servedFingerprint += hex;
        }
        X509_free(cert);
    }
    http::request<http::string_body> req(http::verb::post, "/webapi", 11);
    req.set(http::field::host, "localhost");
    req.set(http::field::content_type, "application/json");
    req.body() = body;
    req.prepare_payload();
    http::write(s, req, ec);
    boost::beast::flat_buffer buf;
    http::response<http::string_body> res;
    if (!ec) http::read(s, buf, res, ec);
    if (ec) return out;
    out.status = static_cast<int>(res.result_int());
    out.hsts = std::string(res[http::field::strict_transport_security]);
    out.setCookie = std::string(res[http::field::set_cookie]);
    return out;
}

// Runs kova-webd to its end (it is expected to refuse to start): exit status and everything it printed.
int RunWebd(const std::string &args, std::string *printed) {
    FILE *p = popen((Webd() + " " + args + " 2>&1").c_str(), "r");
    if (!p) return -1;
    char buf[512];
    while (fgets(buf, sizeof buf, p)) *printed += buf;
    const int st = pclose(p);
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

class Https : public ::testing::Test {
protected:
    void Start(const std::vector<std::string> &extra = {}) {
        std::vector<std::string> args = {"--https-port", "0", "--https-port-file", root.At("https.port")};
        args.insert(args.end(), extra.begin(), extra.end());
        webd.reset(new WebdProcess(root.path(), ModulesDir(), 1, args));
        ASSERT_TRUE(webd->ok()) << webd->ErrorLog();
        httpsPort = std::stoi(ReadFile(root.At("https.port")));
    }
    kova_test::TempRoot root;
    std::unique_ptr<WebdProcess> webd;
    int httpsPort = 0;
};

TEST_F(Https, TheGeneratedCertificateIsServedKeptPrivateKeptAcrossRestartsAndChecked) {
    ASSERT_EQ(0, KOVAUserAdd("alice", -1, "Alice-Secret1", "", "", 0));
    Start();
    const std::string printed = PrintedFingerprint(webd->ErrorLog());
    ASSERT_FALSE(printed.empty()) << webd->ErrorLog();
    EXPECT_EQ(printed, webd::CertFingerprint(root.At("etc/tls/webd.crt")));

    TlsReply r = PostTls(httpsPort, LoginBody("alice", "Alice-Secret1"));
    EXPECT_EQ(printed, r.servedFingerprint);
    EXPECT_EQ(200, r.status);
    EXPECT_EQ("max-age=31536000", r.hsts);
    EXPECT_NE(std::string::npos, r.setCookie.find("kova_sid=")) << r.setCookie;
    EXPECT_NE(std::string::npos, r.setCookie.find("; Secure")) << r.setCookie;

    // Plain HTTP on loopback still answers, without Secure or HSTS (a browser would drop a Secure cookie sent
    // over it).
    kova_test::WebClient plain(webd->port());
    kova_test::Reply p = plain.Login("alice", "Alice-Secret1");
    EXPECT_TRUE(p.body["success"].asBool()) << p.raw;
    EXPECT_EQ(std::string::npos, p.setCookie.find("Secure")) << p.setCookie;

    struct stat dir, key;
    ASSERT_EQ(0, lstat(root.At("etc/tls").c_str(), &dir));
    ASSERT_EQ(0, lstat(root.At("etc/tls/webd.key").c_str(), &key));
    EXPECT_EQ(0700u, dir.st_mode & 07777);
    EXPECT_EQ(0600u, key.st_mode & 07777);
    EXPECT_EQ(0u, key.st_uid);

    webd.reset();
    Start();
    EXPECT_EQ(printed, PostTls(httpsPort, "{}").servedFingerprint) << "a restart made a new certificate";

    // A key others can read, or a certificate given with a key that is not its own, is refused.
    webd.reset();
    chmod(root.At("etc/tls/webd.key").c_str(), 0644);
    std::string out;
    EXPECT_EQ(1, RunWebd("--config '' --root " + root.path() + " --port 0 --https-port 0", &out));
    EXPECT_NE(std::string::npos, out.find("webd.key must belong to root")) << out;
    webd::CertFiles other;
    std::string why;
    ASSERT_TRUE(webd::EnsureSelfSigned(root.At("other"), &other, &why)) << why;
    out.clear();
    EXPECT_EQ(1, RunWebd("--config '' --root " + root.path() + " --port 0 --https-port 0 --cert " +
                             root.At("etc/tls/webd.crt") + " --key " + other.key,
                         &out));
    EXPECT_NE(std::string::npos, out.find("does not match")) << out;
}

// The HTTP side's deadlines hold over TLS too, for the header and for a handshake never made.
TEST_F(Https, DeadlinesCoverTheHandshakeAndTheHeader) {
    Start({"--header-timeout", "1"});
    TlsConnection slow(httpsPort);
    ASSERT_FALSE(slow.ec) << slow.ec.message();
    net::write(slow.s, net::buffer(std::string("POST /webapi HTTP/1.1\r\nHost: x\r\n")));
    boost::beast::flat_buffer buf;
    http::response<http::string_body> res;
    boost::system::error_code ec;
    http::read(slow.s, buf, res, ec);
    ASSERT_FALSE(ec) << ec.message();
    EXPECT_EQ(408u, res.result_int());
    EXPECT_NE(std::string::npos, res.body().find("\"code\":107")) << res.body();
    EXPECT_EQ("max-age=31536000", std::string(res[http::field::strict_transport_security]));

    // Connected, but no ClientHello: closed once the header time is up.
    net::ip::tcp::socket mute(slow.io);
    mute.connect({net::ip::make_address("127.0.0.1"), static_cast<unsigned short>(httpsPort)});
    struct timeval wait = {5, 0};
    setsockopt(mute.native_handle(), SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    char byte;
    const ssize_t n = recv(mute.native_handle(), &byte, 1, 0);
    EXPECT_TRUE(n == 0 || (n < 0 && errno == ECONNRESET)) << "still open after 5 s: " << n << " " << strerror(errno);
}

TEST(PlainHttp, IsRefusedAtStartOnAnAddressOtherThanLoopback) {
    kova_test::TempRoot root;
    for (const char *host : {"0.0.0.0", "::", "192.0.2.1", "example.com"}) {
        std::string out;
        EXPECT_EQ(2, RunWebd("--config '' --root " + root.path() + " --port 0 --host " + host, &out)) << host;
        EXPECT_NE(std::string::npos, out.find("plain HTTP is served on loopback only")) << out;
    }
    for (const char *host : {"127.0.0.1", "127.3.2.1", "::1", "localhost"}) EXPECT_TRUE(webd::IsLoopback(host)) << host;
    // Over HTTPS any address may be served, plain HTTP switched off.
    webd::Options o;
    o.host = "0.0.0.0";
    o.port = webd::kPortOff;
    o.httpsPort = 5443;
    EXPECT_EQ("", webd::CheckOptions(o));
}

TEST(ConfigFile, SetsWhatTheCommandLineTakesAndTheCommandLineWins) {
    webd::Options o;
    const std::string text = "# kova-webd\n\n  workers = 7\nhttps-port=5443\nhost = 127.0.0.2\nui = \"\"\n"
                             "cert = /etc/ssl/a.pem\nkey = /etc/ssl/a.key\n";
    ASSERT_EQ("", webd::ParseConfig(text, "webd.conf", o));
    EXPECT_EQ(7, o.workers);
    EXPECT_EQ(5443, o.httpsPort);
    EXPECT_EQ("127.0.0.2", o.host);
    EXPECT_EQ("", o.uiDir);
    EXPECT_EQ("/etc/ssl/a.key", o.keyFile);
    ASSERT_EQ("", webd::ParseOptions({"--config", "x", "--workers", "2", "--port", "off"}, o));
    EXPECT_EQ(2, o.workers);
    EXPECT_EQ(webd::kPortOff, o.port);
    EXPECT_EQ(5443, o.httpsPort);

    // $KOVA_WEBD_CONFIG replaces the default file, "" meaning none; --config wins.
    bool given = true;
    setenv("KOVA_WEBD_CONFIG", "/srv/webd.conf", 1);
    EXPECT_EQ("/srv/webd.conf", webd::ConfigPath({"--port", "1"}, &given));
    EXPECT_FALSE(given);
    EXPECT_EQ("/x.conf", webd::ConfigPath({"--config", "/x.conf"}, &given));
    EXPECT_TRUE(given);
    unsetenv("KOVA_WEBD_CONFIG");
    EXPECT_EQ(webd::kDefaultConfig, webd::ConfigPath({}, &given));

    // Mistakes name the file and line and change nothing after them.
    for (const auto &bad : std::vector<std::pair<std::string, std::string>>{
             {"workers = 2\nwokers = 3\n", "webd.conf:2: unknown setting \"wokers\""},
             {"port = 70000\n", "webd.conf:1: bad value for --port: 70000"},
             {"\nroot /srv\n", "webd.conf:2: expected \"key = value\""},
             {"worker-fd = 3\n", "webd.conf:1: \"worker-fd\" cannot be set here"}}) {
        webd::Options fresh;
        EXPECT_EQ(bad.second, webd::ParseConfig(bad.first, "webd.conf", fresh));
    }
}

TEST(ConfigFile, IsReadByTheServerAndANamedFileMustExist) {
    kova_test::TempRoot root;
    const std::string conf = root.At("webd.conf");
    ASSERT_TRUE(kova_test::WriteFile(conf, "https-port = 0\nhttps-port-file = " + root.At("from-conf.port") +
                                               "\nworkers = 1\n"));
    {
        WebdProcess webd(root.path(), ModulesDir(), 1, {"--config", conf});
        ASSERT_TRUE(webd.ok()) << webd.ErrorLog();
        const std::string port = ReadFile(root.At("from-conf.port"));
        ASSERT_FALSE(port.empty()) << webd.ErrorLog();
        TlsReply r = PostTls(std::stoi(port), "{}");
        EXPECT_FALSE(r.servedFingerprint.empty()) << "no HTTPS on the configured port";
        EXPECT_EQ(400, r.status);
    }
    std::string out;
    EXPECT_EQ(2, RunWebd("--config " + root.At("missing.conf") + " --root " + root.path(), &out));
    EXPECT_NE(std::string::npos, out.find("cannot read the configuration file")) << out;
    ASSERT_TRUE(kova_test::WriteFile(conf, "port = 0\nbogus = 1\n"));
    out.clear();
    EXPECT_EQ(2, RunWebd("--config " + conf + " --root " + root.path(), &out));
    EXPECT_NE(std::string::npos, out.find(conf + ":2: unknown setting \"bogus\"")) << out;
}

} // namespace
