#include "logs.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>
#include <unicode/utf8.h>

#include <algorithm>

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
    const uint8_t *s = reinterpret_cast<const uint8_t *>(text.data());
    const int32_t n = static_cast<int32_t>(std::min(text.size(), static_cast<size_t>(INT32_MAX)));
    for (int32_t i = 0; i < n;) {
        const int32_t start = i;
        UChar32 c;
        U8_NEXT(s, i, n, c);
        if (c >= 0x20 && c != 0x7f) {
            out.append(text, static_cast<size_t>(start), static_cast<size_t>(i - start));
            continue;
        }
        // Control characters, and bytes that are not UTF-8, as \xNN.
        for (int32_t k = start; k < i; ++k) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\x%02x", s[k]);
            out += buf;
        }
    }
    return out;
}

} // namespace webd
