// Where the system-log lines of kova-webd go: those of the platform
// libraries and of the modules (which call syslog() themselves) as well as
// its own. The server's processes define syslog() and vsyslog(), so every
// such call in them, from any library, lands here (the program exports the
// names; see server/CMakeLists.txt).
//
// Init checks once whether the system log's socket takes messages. If it
// does (a service: journald, or rsyslog), lines go there through the C
// library's syslog, connected once with the program's name and pid. If it
// does not (a container without /dev/log), the C library would try to
// connect again for every line and then drop it; here each line is
// written to standard error instead, whole, as "kova-webd[PID]: <level>
// text". Before Init lines take the C library's way.
#ifndef KOVA_WEBD_SYSTEM_LOG_H
#define KOVA_WEBD_SYSTEM_LOG_H

#include <string>

namespace webd {

enum class SystemLogSink { kUnset, kSyslog, kStderr };

// socketPath: the system log's socket, /dev/log but for tests.
SystemLogSink InitSystemLog(const std::string &ident, const std::string &socketPath = "/dev/log");
SystemLogSink CurrentSystemLogSink();

} // namespace webd

#endif
