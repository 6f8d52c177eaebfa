#include "logs.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace webd {

namespace {

void WriteLine(int fd, const std::string &line) {
    if (fd < 0) return;
    std::string all = line + "\n";
    ssize_t w = write(fd, all.data(), all.size());
    (void)w;  // a full disk must not take the server down
}

} // namespace

bool Logs::Open(const std::string &dir) {
    accessFd_ = open((dir + "/webd-access.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    errorFd_ = open((dir + "/webd-error.log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    return accessFd_ >= 0 && errorFd_ >= 0;
}

Logs::~Logs() {
    if (accessFd_ >= 0) close(accessFd_);
    if (errorFd_ >= 0) close(errorFd_);
}

void Logs::Access(const std::string &line) { WriteLine(accessFd_, NowIso() + " " + line); }

void Logs::Error(const std::string &line) {
    std::string full = NowIso() + " " + line;
    WriteLine(errorFd_, full);
    fprintf(stderr, "kova-webd: %s\n", line.c_str());
}

std::string NowIso() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    gmtime_r(&tv.tv_sec, &tm);
    char buf[64];
    snprintf(buf, sizeof buf, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1, tm.tm_mday,
             tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(tv.tv_usec / 1000));
    return buf;
}

std::string LogSafe(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

} // namespace webd
