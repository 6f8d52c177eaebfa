#include "system-log.h"

#include <dlfcn.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace webd {

namespace {

std::atomic<SystemLogSink> gSink{SystemLogSink::kUnset};
char gIdent[64] = "kova-webd";

using VsyslogFn = void (*)(int, const char *, va_list);

VsyslogFn RealVsyslog() {
    static VsyslogFn real = reinterpret_cast<VsyslogFn>(dlsym(RTLD_NEXT, "vsyslog"));
    return real;
}

// One connect attempt, as the C library would make it.
bool Accepts(const std::string &path) {
    struct sockaddr_un addr;
    memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    memcpy(addr.sun_path, path.c_str(), path.size());
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    bool ok = connect(fd, reinterpret_cast<struct sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

const char *LevelName(int priority) {
    static const char *const names[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};
    return names[LOG_PRI(priority)];
}

void ToStderr(int priority, const char *format, va_list ap) {
    char text[2048];
    int n = snprintf(text, sizeof text, "%s[%d]: <%s> ", gIdent, static_cast<int>(getpid()), LevelName(priority));
    if (n < 0) return;
    const int head = n;
    n = vsnprintf(text + head, sizeof text - static_cast<size_t>(head) - 1, format, ap);
    if (n < 0) return;
    size_t len = static_cast<size_t>(head) + std::min(static_cast<size_t>(n), sizeof text - static_cast<size_t>(head) - 2);
    if (len == 0 || text[len - 1] != '\n') text[len++] = '\n';
    ssize_t w = write(STDERR_FILENO, text, len);  // one write: lines of several threads never mix
    (void)w;
}

void Route(int priority, const char *format, va_list ap) {
    if (gSink.load() == SystemLogSink::kStderr) {
        if (LOG_MASK(LOG_PRI(priority)) & setlogmask(0)) ToStderr(priority, format, ap);
        return;
    }
    if (VsyslogFn real = RealVsyslog()) real(priority, format, ap);
}

} // namespace

SystemLogSink InitSystemLog(const std::string &ident, const std::string &socketPath) {
    snprintf(gIdent, sizeof gIdent, "%s", ident.c_str());
    if (Accepts(socketPath)) {
        openlog(gIdent, LOG_PID | LOG_NDELAY, LOG_DAEMON);
        gSink = SystemLogSink::kSyslog;
    } else {
        gSink = SystemLogSink::kStderr;
    }
    return gSink;
}

SystemLogSink CurrentSystemLogSink() { return gSink; }

} // namespace webd

// The C library's entry points, and their fortified forms (_FORTIFY_SOURCE
// builds of a library call those).
extern "C" {

void vsyslog(int priority, const char *format, va_list ap) { webd::Route(priority, format, ap); }

void syslog(int priority, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    webd::Route(priority, format, ap);
    va_end(ap);
}

void __vsyslog_chk(int priority, int, const char *format, va_list ap) { webd::Route(priority, format, ap); }

void __syslog_chk(int priority, int, const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    webd::Route(priority, format, ap);
    va_end(ap);
}

} // extern "C"
