// Command line of kova-webd:
//   kova-webd [--root DIR] [--modules DIR] [--ui DIR] [--host ADDR] [--port N]
//             [--port-file FILE] [--workers N] [--http-threads N]
//             [--session-idle SECONDS] [--request-timeout SECONDS]
//             [--conns-per-address N] [--header-timeout SECONDS] [--body-timeout SECONDS]
//             [--body-budget MIB]
// --root defaults to $KOVA_ROOT; --port 0 picks a free port, written to
// --port-file (for scripts and tests). --worker-fd is internal: the server
// starts its workers with it.
#ifndef KOVA_WEBD_OPTIONS_H
#define KOVA_WEBD_OPTIONS_H

#include <string>
#include <vector>

namespace webd {

struct Options {
    std::string root;
    std::string modulesDir;
    std::string uiDir;
    std::string host = "127.0.0.1";
    int port = 5080;
    std::string portFile;
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

// "" on success, else the message for the user.
std::string ParseOptions(const std::vector<std::string> &args, Options &o);
std::string Usage();

} // namespace webd

#endif
