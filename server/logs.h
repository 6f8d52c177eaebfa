// The server's two logs under <root>/var/log: webd-access.log (one line per
// HTTP request) and webd-error.log (start-up, refused modules, worker
// crashes). Lines are written whole with O_APPEND so concurrent writers
// never interleave; error lines are echoed to stderr.
#ifndef KOVA_WEBD_LOGS_H
#define KOVA_WEBD_LOGS_H

#include <string>

namespace webd {

class Logs {
public:
    // Opens (creating) both files in dir; false when either cannot be opened.
    bool Open(const std::string &dir);
    ~Logs();

    void Access(const std::string &line);
    void Error(const std::string &line);

private:
    int accessFd_ = -1;
    int errorFd_ = -1;
};

// ISO 8601 UTC time with milliseconds, e.g. 2026-01-02T03:04:05.678Z.
std::string NowIso();

// Replaces control characters so a value cannot forge a new log line, and
// bytes that are not UTF-8 so every line stays readable text; both as \xNN.
std::string LogSafe(const std::string &text);

} // namespace webd

#endif
