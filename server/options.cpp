#include "options.h"

#include <stdlib.h>

namespace webd {

namespace {

bool ToInt(const std::string &s, int lo, int hi, int &out) {
    if (s.empty() || s.size() > 9 || s.find_first_not_of("0123456789") != std::string::npos) return false;
    int v = atoi(s.c_str());
    if (v < lo || v > hi) return false;
    out = v;
    return true;
}

} // namespace

std::string Usage() {
    return "usage: kova-webd [--root DIR] [--modules DIR] [--ui DIR] [--host ADDR] [--port N]\n"
           "                 [--port-file FILE] [--workers N] [--http-threads N] [--session-idle SECONDS]\n"
           "                 [--request-timeout SECONDS] [--conns-per-address N]\n"
           "                 [--header-timeout SECONDS] [--body-timeout SECONDS] [--body-budget MIB]\n";
}

std::string ParseOptions(const std::vector<std::string> &args, Options &o) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") return "help";
        if (i + 1 >= args.size()) return "option " + a + " needs a value (or is unknown)";
        const std::string &v = args[++i];
        bool ok = true;
        if (a == "--root") o.root = v;
        else if (a == "--modules") o.modulesDir = v;
        else if (a == "--ui") o.uiDir = v;
        else if (a == "--host") o.host = v;
        else if (a == "--port") ok = ToInt(v, 0, 65535, o.port);
        else if (a == "--port-file") o.portFile = v;
        else if (a == "--workers") ok = ToInt(v, 1, 256, o.workers);
        else if (a == "--http-threads") ok = ToInt(v, 1, 1024, o.httpThreads);
        else if (a == "--session-idle") ok = ToInt(v, 1, 1000000000, o.sessionIdle);
        else if (a == "--request-timeout") ok = ToInt(v, 1, 86400, o.requestTimeout);
        else if (a == "--conns-per-address") ok = ToInt(v, 1, 100000, o.connsPerAddress);
        else if (a == "--header-timeout") ok = ToInt(v, 1, 3600, o.headerTimeout);
        else if (a == "--body-timeout") ok = ToInt(v, 1, 3600, o.bodyTimeout);
        else if (a == "--body-budget") ok = ToInt(v, 1, 1 << 20, o.bodyBudgetMiB);
        else if (a == "--worker-fd") ok = ToInt(v, 0, 1 << 20, o.workerFd);
        else return "unknown option " + a;
        if (!ok) return "bad value for " + a + ": " + v;
    }
    return "";
}

} // namespace webd
