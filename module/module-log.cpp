#include "module-log.h"
#include "request-text.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace {

void AppendByte(std::string &out, unsigned char byte) {
    static const char kHex[] = "0123456789ABCDEF";
    out += "\\x";
    out += kHex[byte >> 4];
    out += kHex[byte & 0x0F];
}

} // namespace

std::string EscapeLogText(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    const unsigned char *p = reinterpret_cast<const unsigned char *>(text.data());
    size_t left = text.size();
    while (left > 0) {
        const size_t length = Utf8SequenceLength(p, left);
        if (length == 0 || p[0] < 0x20 || p[0] == 0x7F || (p[0] == 0xC2 && p[1] < 0xA0)) {
            // Not text, a control character, or a C1 control (U+0080-U+009F):
            // each of its bytes is written out.
            const size_t bytes = length == 0 ? 1 : length;
            for (size_t i = 0; i < bytes; ++i) AppendByte(out, p[i]);
            p += bytes;
            left -= bytes;
            continue;
        }
        if (p[0] == '\\') out += '\\';
        out.append(reinterpret_cast<const char *>(p), length);
        p += length;
        left -= length;
    }
    return out;
}

void KovaLogLine(int priority, const char *format, ...) {
    // "%m" in a format names errno as the caller left it.
    const int savedErrno = errno;
    char small[512];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    errno = savedErrno;
    const int n = std::vsnprintf(small, sizeof small, format, copy);
    va_end(copy);
    if (n < 0) {
        va_end(args);
        return;
    }
    try {
        std::string text;
        if (static_cast<size_t>(n) < sizeof small) {
            text.assign(small, static_cast<size_t>(n));
        } else {
            std::vector<char> big(static_cast<size_t>(n) + 1);
            errno = savedErrno;
            std::vsnprintf(big.data(), big.size(), format, args);
            text.assign(big.data(), static_cast<size_t>(n));
        }
        syslog(priority, "%s", EscapeLogText(text).c_str());
    } catch (...) {
        // Out of memory while logging: the line is lost, the caller goes on.
    }
    va_end(args);
    errno = savedErrno;
}
