// Formatting of transfer-log lines.
#include "xfer-line.h"

namespace kova_log {

std::string EscapeField(const std::string &text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
        case '\\': out += "\\\\"; break;
        case '\t': out += "\\t"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        default: out += c; break;
        }
    }
    return out;
}

std::string FormatXferLine(const XferRecord &r) {
    struct tm tm;
    gmtime_r(&r.when, &tm);
    char stamp[32];
    if (strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%SZ", &tm) == 0) stamp[0] = '\0';
    std::string line = stamp;
    line += '\t';
    line += EscapeField(r.remote);
    line += '\t';
    line += EscapeField(r.user);
    line += '\t';
    line += EscapeField(r.action);
    line += '\t';
    line += std::to_string(r.size);
    line += '\t';
    line += r.isDir ? "dir" : "file";
    line += '\t';
    line += std::to_string(r.type);
    line += '\t';
    line += EscapeField(r.path);
    line += '\n';
    return line;
}

} // namespace kova_log
