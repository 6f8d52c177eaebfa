// One transfer-log record as text: tab-separated fields ending in a
// newline. Fields never contain raw tabs or line breaks: '\\', tab, newline
// and carriage return are written as \\ \t \n \r, so one line is one record.
#ifndef KOVA_LOG_XFER_LINE_H
#define KOVA_LOG_XFER_LINE_H

#include <ctime>
#include <string>

namespace kova_log {

struct XferRecord {
    std::time_t when;
    std::string remote;
    std::string user;
    std::string action;
    unsigned long long size;
    bool isDir;
    int type;
    std::string path;
};

std::string EscapeField(const std::string &text);
// time (ISO 8601 UTC), remote, user, action, size, "dir"/"file", type, path.
std::string FormatXferLine(const XferRecord &r);

} // namespace kova_log

#endif
