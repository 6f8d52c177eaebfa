// kova-webd: the web-administration server. Loads the request-handling
// modules, serves /webapi and the browser UI, runs every call in a worker
// process with the logged-in user's identity.
#include <errno.h>
#include <limits.h>
#include <malloc.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <memory>

#include "kova-internal/paths.h"
#include "files-api.h"
#include "http-front.h"
#include "http-listener.h"
#include "logs.h"
#include "module-registry.h"
#include "options.h"
#include "session-store.h"
#include "system-log.h"
#include "tls-cert.h"
#include "worker-pool.h"
#include "worker.h"

#ifndef KOVA_WEBD_DEFAULT_MODULES
#define KOVA_WEBD_DEFAULT_MODULES ""
#endif
#ifndef KOVA_WEBD_DEFAULT_UI
#define KOVA_WEBD_DEFAULT_UI ""
#endif

namespace {

// Every open connection is a descriptor: the default soft limit of 1024
// would cap the server well below its own connection limits.
void RaiseDescriptorLimit() {
    struct rlimit rl;
    if (getrlimit(RLIMIT_NOFILE, &rl) == 0 && rl.rlim_cur < rl.rlim_max) {
        rl.rlim_cur = rl.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rl);
    }
}

std::string SelfPath() {
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return "";
    buf[n] = '\0';
    return buf;
}

void WritePortFile(const std::string &path, int port) {
    if (path.empty()) return;
    std::string why;
    kova_internal::WriteAtomically(path, std::to_string(port) + "\n", 0644, &why);
}

// The configuration file, then the command line over it. "" or the message.
std::string ReadSettings(const std::vector<std::string> &args, webd::Options &o) {
    bool given = false;
    const std::string path = webd::ConfigPath(args, &given);
    if (!path.empty()) {
        std::ifstream in(path);
        if (in) {
            std::stringstream text;
            text << in.rdbuf();
            std::string bad = webd::ParseConfig(text.str(), path, o);
            if (!bad.empty()) return bad;
        } else if (given) {
            return "cannot read the configuration file " + path;
        }
    }
    std::string root = o.root;
    o.root.clear();
    std::string bad = webd::ParseOptions(args, o);
    if (o.root.empty()) o.root = root;
    if (o.root.empty()) {
        if (const char *r = getenv("KOVA_ROOT")) o.root = r;
    }
    return bad;
}

} // namespace

int main(int argc, char **argv) {
    // A sign-in hashes with a buffer of many MiB. Left to itself glibc
    // raises its mmap threshold once such a buffer is freed, and from then
    // on each handler thread's arena keeps one for good (300 MiB after a
    // few hundred sign-ins). A fixed threshold maps every large buffer on
    // its own and gives it back at free; few arenas bound the rest.
    mallopt(M_MMAP_THRESHOLD, 1 << 20);
    mallopt(M_ARENA_MAX, 4);
    webd::Options o;
    o.modulesDir = KOVA_WEBD_DEFAULT_MODULES;
    o.uiDir = KOVA_WEBD_DEFAULT_UI;
    std::string bad = ReadSettings(std::vector<std::string>(argv + 1, argv + argc), o);
    if (bad == "help") {
        fputs(webd::Usage().c_str(), stdout);
        return 0;
    }
    if (!bad.empty()) {
        fprintf(stderr, "kova-webd: %s\n(kova-webd --help lists the options)\n", bad.c_str());
        return 2;
    }
    if (o.workerFd < 0) bad = webd::CheckOptions(o);
    if (!bad.empty()) {
        fprintf(stderr, "kova-webd: %s\n", bad.c_str());
        return 2;
    }
    if (o.root.empty()) {
        fprintf(stderr, "kova-webd: no platform root: give --root DIR or set KOVA_ROOT\n");
        return 2;
    }
    if (geteuid() != 0) {
        fprintf(stderr, "kova-webd: must run as root (it switches to each user per request)\n");
        return 2;
    }
    setenv("KOVA_ROOT", o.root.c_str(), 1);
    signal(SIGPIPE, SIG_IGN);
    // Before any module or platform call can log.
    webd::InitSystemLog("kova-webd");

    const std::string logDir = o.root + "/var/log";
    webd::Logs logs;
    if (!kova_internal::MakeDirs(logDir) || !logs.Open(logDir)) {
        fprintf(stderr, "kova-webd: cannot open the logs in %s\n", logDir.c_str());
        return 1;
    }

    webd::ModuleRegistry registry;
    registry.Add(webd::FilesRoutes());
    const bool worker = o.workerFd >= 0;
    // Workers load quietly: the front already reported each module once.
    auto log = [&logs, worker](const std::string &line) {
        if (!worker) logs.Error(line);
    };
    registry.LoadDir(o.modulesDir, log);

    if (worker) return webd::WorkerMain(o.workerFd, registry, logs);

    std::vector<std::string> workerArgs = {SelfPath(), "--config", "", "--root", o.root,
                                            "--modules", o.modulesDir};
    webd::WorkerPool pool(workerArgs, static_cast<size_t>(o.workers), o.requestTimeout, logs);
    if (!pool.Start()) {
        logs.Error("no worker could be started");
        return 1;
    }
    webd::SessionStore sessions(o.sessionIdle);
    webd::Front front(registry, sessions, pool, logs, o.uiDir);
    webd::ListenLimits limits;
    limits.perAddress = static_cast<size_t>(o.connsPerAddress);
    limits.headerTime = std::chrono::seconds(o.headerTimeout);
    limits.bodyTime = std::chrono::seconds(o.bodyTimeout);
    limits.bodyBudget = static_cast<size_t>(o.bodyBudgetMiB) << 20;
    limits.handlerThreads = static_cast<size_t>(o.httpThreads);
    RaiseDescriptorLimit();
    webd::HttpListener listener(
        limits, [&front](const webd::HttpRequest &req) { return front.Handle(req); },
        [&front](webd::Refusal why, const webd::HttpRequest &req) { return front.Refuse(why, req); });

    std::string why;
    int httpsPort = 0;
    if (o.httpsPort != webd::kPortOff) {
        webd::CertFiles cert{o.certFile, o.keyFile};
        if (cert.cert.empty()) kova_internal::MakeDirs(o.root + "/etc");  // a failure is told by the next step
        if (cert.cert.empty() && !webd::EnsureSelfSigned(o.root + "/etc/tls", &cert, &why)) {
            logs.Error("no TLS certificate: " + why);
            return 1;
        }
        const std::string fingerprint = webd::CertFingerprint(cert.cert);
        if (cert.generated) logs.Error("made a self-signed certificate " + cert.cert);
        httpsPort = listener.BindTls(o.httpsHost, o.httpsPort, cert.cert, cert.key, &why);
        if (httpsPort <= 0) {
            logs.Error(why);
            return 1;
        }
        logs.Error("listening on https://" + o.httpsHost + ":" + std::to_string(httpsPort) + "/ certificate " +
                   cert.cert + " SHA-256 " + fingerprint);
    }
    int port = 0;
    if (o.port != webd::kPortOff) {
        port = listener.Bind(o.host, o.port, &why);
        if (port <= 0) {
            logs.Error(why);
            return 1;
        }
        logs.Error("listening on http://" + o.host + ":" + std::to_string(port) + "/ (loopback only)");
    }
    // Port files last: a script that waits for one finds every port open.
    if (httpsPort > 0) WritePortFile(o.httpsPortFile, httpsPort);
    if (port > 0) WritePortFile(o.portFile, port);
    logs.Error("serving with " + std::to_string(pool.Size()) + " workers, root " + o.root);
    listener.Run();
    logs.Error("stopped");
    return 0;
}
