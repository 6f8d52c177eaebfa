// Settings of kova-webd, from a configuration file and the command line:
//   kova-webd [--config FILE] [--root DIR] [--modules DIR] [--ui DIR]
//             [--host ADDR] [--port N|off] [--port-file FILE]
//             [--https-host ADDR] [--https-port N|off] [--https-port-file FILE]
//             [--cert FILE] [--key FILE] [--workers N] [--http-threads N]
//             [--session-idle SECONDS] [--request-timeout SECONDS]
//             [--conns-per-address N] [--header-timeout SECONDS] [--body-timeout SECONDS]
//             [--body-budget MIB]
// The file (default /etc/kova/webd.conf when it exists, or
// $KOVA_WEBD_CONFIG when set; --config "" reads none) holds "key = value" lines whose keys are the long options without
// "--"; '#' starts a comment line. The command line overrides the file;
// $KOVA_ROOT is used when neither names a root. Port 0 picks a free port,
// written to the port file (for scripts and tests). Plain HTTP is served on
// a loopback address only. --worker-fd is internal: the server starts its
// workers with it.
#ifndef KOVA_WEBD_OPTIONS_H
#define KOVA_WEBD_OPTIONS_H

#include <string>
#include <vector>

namespace webd {

constexpr const char *kDefaultConfig = "/etc/kova/webd.conf";
constexpr int kPortOff = -1;

struct Options {
    std::string root;
    std::string modulesDir;
    std::string uiDir;
    std::string host = "127.0.0.1";   // plain HTTP: loopback only
    int port = 5080;                  // kPortOff: no plain HTTP
    std::string portFile;
    std::string httpsHost = "0.0.0.0";
    int httpsPort = kPortOff;
    std::string httpsPortFile;
    std::string certFile;             // both empty: a self-signed pair under the root
    std::string keyFile;
    int workers = 4;
    int httpThreads = 16;      // handler threads; connections are not tied to them
    int connsPerAddress = 32;
    int headerTimeout = 10;
    int bodyTimeout = 30;
    int bodyBudgetMiB = 256;
    int sessionIdle = 3600;
    int requestTimeout = 600;
    int workerFd = -1;
};

// "" on success, "help" for --help, else the message for the user.
std::string ParseOptions(const std::vector<std::string> &args, Options &o);
// The value of --config in args: $KOVA_WEBD_CONFIG or kDefaultConfig when
// absent ("": none); *given tells
// whether it was named (a named file must exist, the default may not).
std::string ConfigPath(const std::vector<std::string> &args, bool *given);
// Applies a configuration file's text; "" or "FILE:LINE: message".
std::string ParseConfig(const std::string &text, const std::string &origin, Options &o);
// The settings together make sense: "" or the message for the user.
std::string CheckOptions(const Options &o);
// Loopback names and addresses: localhost, 127.0.0.0/8, ::1.
bool IsLoopback(const std::string &host);
std::string Usage();

} // namespace webd

#endif
