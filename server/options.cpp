#include "options.h"

#include <arpa/inet.h>
#include <stdlib.h>

#include <algorithm>
#include <sstream>

namespace webd {

namespace {

bool ToInt(const std::string &s, int lo, int hi, int &out) {
    if (s.empty() || s.size() > 9 || s.find_first_not_of("0123456789") != std::string::npos) return false;
    int v = atoi(s.c_str());
    if (v < lo || v > hi) return false;
    out = v;
    return true;
}

bool ToPort(const std::string &s, int &out) {
    if (s == "off") {
        out = kPortOff;
        return true;
    }
    return ToInt(s, 0, 65535, out);
}

std::string Trim(const std::string &s) {
    const size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return "";
    return s.substr(b, s.find_last_not_of(" \t\r") - b + 1);
}

// One option and its value; "" or the message.
std::string Apply(const std::string &a, const std::string &v, Options &o) {
    bool ok = true;
    if (a == "--root") o.root = v;
    else if (a == "--modules") o.modulesDir = v;
    else if (a == "--ui") o.uiDir = v;
    else if (a == "--host") o.host = v;
    else if (a == "--port") ok = ToPort(v, o.port);
    else if (a == "--port-file") o.portFile = v;
    else if (a == "--https-host") o.httpsHost = v;
    else if (a == "--https-port") ok = ToPort(v, o.httpsPort);
    else if (a == "--https-port-file") o.httpsPortFile = v;
    else if (a == "--cert") o.certFile = v;
    else if (a == "--key") o.keyFile = v;
    else if (a == "--workers") ok = ToInt(v, 1, 256, o.workers);
    else if (a == "--http-threads") ok = ToInt(v, 1, 1024, o.httpThreads);
    else if (a == "--session-idle") ok = ToInt(v, 1, 1000000000, o.sessionIdle);
    else if (a == "--request-timeout") ok = ToInt(v, 1, 86400, o.requestTimeout);
    else if (a == "--conns-per-address") ok = ToInt(v, 1, 100000, o.connsPerAddress);
    else if (a == "--header-timeout") ok = ToInt(v, 1, 3600, o.headerTimeout);
    else if (a == "--body-timeout") ok = ToInt(v, 1, 3600, o.bodyTimeout);
    else if (a == "--body-budget") ok = ToInt(v, 1, 1 << 20, o.bodyBudgetMiB);
    else return "unknown option " + a;
    if (!ok) return "bad value for " + a + ": " + v;
    return "";
}

} // namespace

std::string Usage() {
    return "usage: kova-webd [--config FILE] [--root DIR] [--modules DIR] [--ui DIR]\n"
           "                 [--host ADDR] [--port N|off] [--port-file FILE]\n"
           "                 [--https-host ADDR] [--https-port N|off] [--https-port-file FILE]\n"
           "                 [--cert FILE] [--key FILE] [--workers N] [--http-threads N]\n"
           "                 [--session-idle SECONDS] [--request-timeout SECONDS] [--conns-per-address N]\n"
           "                 [--header-timeout SECONDS] [--body-timeout SECONDS] [--body-budget MIB]\n"
           "\n"
           "The web-administration server. Runs as root; every call runs in a worker\n"
           "process with the signed-in user's identity.\n"
           "\n"
           "  --config FILE        settings file, \"key = value\" lines with the option names\n"
           "                       below as keys (default /etc/kova/webd.conf if present;\n"
           "                       \"\" reads none); the command line overrides it\n"
           "  --root DIR           platform root (default $KOVA_ROOT)\n"
           "  --modules DIR        every *.so in it is loaded\n"
           "  --ui DIR             the browser UI's files (\"\" serves none)\n"
           "  --host ADDR          plain HTTP address, loopback only (default 127.0.0.1)\n"
           "  --port N|off         plain HTTP port (default 5080; 0 picks a free one)\n"
           "  --port-file FILE     where the plain HTTP port is written once listening\n"
           "  --https-host ADDR    HTTPS address (default 0.0.0.0: every interface)\n"
           "  --https-port N|off   HTTPS port (default off; the package's settings use 5443)\n"
           "  --https-port-file FILE  where the HTTPS port is written once listening\n"
           "  --cert FILE, --key FILE  PEM certificate (chain) and key; without them a\n"
           "                       self-signed pair is made once in ROOT/etc/tls and its\n"
           "                       SHA-256 fingerprint is printed at every start\n"
           "  --workers N          worker processes (default 4)\n"
           "  --http-threads N     requests answered at once (default 16)\n"
           "  --session-idle S     seconds of inactivity that end a session (default 3600)\n"
           "  --request-timeout S  seconds one call may take in a worker (default 600)\n"
           "  --conns-per-address N  open connections from one address (default 32)\n"
           "  --header-timeout S   seconds for a request's header (default 10)\n"
           "  --body-timeout S     seconds for a request's body (default 30)\n"
           "  --body-budget MIB    request bodies held at once (default 256)\n"
           "\n"
           "Logs: ROOT/var/log/webd-error.log and webd-access.log; start-up lines also\n"
           "go to standard error (the journal under systemd).\n";
}

std::string ConfigPath(const std::vector<std::string> &args, bool *given) {
    const char *env = getenv("KOVA_WEBD_CONFIG");
    std::string path = env ? env : kDefaultConfig;
    *given = false;
    for (size_t i = 0; i + 1 < args.size(); ++i) {
        if (args[i] == "--config") {
            path = args[i + 1];
            *given = true;
        }
    }
    return path;
}

std::string ParseOptions(const std::vector<std::string> &args, Options &o) {
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string &a = args[i];
        if (a == "--help" || a == "-h") return "help";
        if (i + 1 >= args.size()) return "option " + a + " needs a value (or is unknown)";
        const std::string &v = args[++i];
        if (a == "--config") continue;  // read before the rest (ConfigPath)
        if (a == "--worker-fd") {
            if (!ToInt(v, 0, 1 << 20, o.workerFd)) return "bad value for " + a + ": " + v;
            continue;
        }
        std::string bad = Apply(a, v, o);
        if (!bad.empty()) return bad;
    }
    return "";
}

std::string ParseConfig(const std::string &text, const std::string &origin, Options &o) {
    std::istringstream in(text);
    std::string line;
    for (int n = 1; std::getline(in, line); ++n) {
        const std::string where = origin + ":" + std::to_string(n) + ": ";
        line = Trim(line);
        if (line.empty() || line[0] == '#') continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos) return where + "expected \"key = value\"";
        const std::string key = Trim(line.substr(0, eq));
        std::string value = Trim(line.substr(eq + 1));
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') value = value.substr(1, value.size() - 2);
        if (key.empty() || key == "config" || key == "worker-fd" || key == "help")
            return where + "\"" + key + "\" cannot be set here";
        std::string bad = Apply("--" + key, value, o);
        if (bad.rfind("unknown option", 0) == 0) return where + "unknown setting \"" + key + "\"";
        if (!bad.empty()) return where + bad;
    }
    return "";
}

bool IsLoopback(const std::string &host) {
    if (host == "localhost" || host == "ip6-localhost") return true;
    unsigned char buf[16];
    if (inet_pton(AF_INET, host.c_str(), buf) == 1) return buf[0] == 127;
    static const unsigned char v6loop[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    return inet_pton(AF_INET6, host.c_str(), buf) == 1 && std::equal(buf, buf + 16, v6loop);
}

std::string CheckOptions(const Options &o) {
    if (o.port != kPortOff && !IsLoopback(o.host))
        return "plain HTTP is served on loopback only, and " + o.host +
               " is not a loopback address: serve other addresses over HTTPS (--https-host " + o.host +
               " --https-port N) and leave --host at 127.0.0.1, or give --port off";
    if (o.port == kPortOff && o.httpsPort == kPortOff) return "both --port and --https-port are off: nothing to serve";
    if (o.certFile.empty() != o.keyFile.empty()) return "--cert and --key go together";
    return "";
}

} // namespace webd
