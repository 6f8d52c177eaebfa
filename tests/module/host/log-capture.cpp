// The test executable's own syslog: the module (loaded with dlopen) binds its
// syslog calls to these definitions because test executables export their
// symbols. Lines are kept only while a capture is active.
#include "module-host.h"

#include <cstdarg>
#include <cstdio>
#include <string>
#include <vector>

namespace {

bool gCapturing = false;
std::vector<kova_host::LogLine> *gLines = nullptr;

void Record(int priority, const char *format, va_list args) {
    if (!gCapturing || !gLines || !format) return;
    va_list copy;
    va_copy(copy, args);
    char small[1024];
    int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) return;
    std::string text;
    if (static_cast<size_t>(n) < sizeof small) {
        text.assign(small, static_cast<size_t>(n));
    } else {
        std::vector<char> big(static_cast<size_t>(n) + 1);
        std::vsnprintf(big.data(), big.size(), format, args);
        text.assign(big.data(), static_cast<size_t>(n));
    }
    try {
        gLines->push_back(kova_host::LogLine{priority, std::move(text)});
    } catch (...) {
        // Out of memory while logging: the line is lost, the caller goes on.
    }
}

} // namespace

namespace kova_host {

void StartLogCapture() {
    if (!gLines) gLines = new std::vector<LogLine>();
    gLines->clear();
    gCapturing = true;
}

std::vector<LogLine> StopLogCapture() {
    gCapturing = false;
    std::vector<LogLine> out;
    if (gLines) out.swap(*gLines);
    return out;
}

} // namespace kova_host

extern "C" {

__attribute__((visibility("default"))) void vsyslog(int priority, const char *format, va_list args) {
    Record(priority, format, args);
}

__attribute__((visibility("default"))) void syslog(int priority, const char *format, ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}

// Fortified builds call these instead.
__attribute__((visibility("default"))) void __syslog_chk(int priority, int, const char *format, ...) {
    va_list args;
    va_start(args, format);
    Record(priority, format, args);
    va_end(args);
}

__attribute__((visibility("default"))) void __vsyslog_chk(int priority, int, const char *format, va_list args) {
    Record(priority, format, args);
}

} // extern "C"
