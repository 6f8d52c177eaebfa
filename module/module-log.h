// System-log lines of the module. Every message begins with the source
// file's name without extension and a line number that is part of the
// message text (fixed per message, not the C++ line).
//
// Messages carry user text (paths, keywords, task ids, names). The whole
// formatted line is escaped before it reaches the log, so no request can
// end a line early or forge one: control characters (C0, DEL, C1), bytes
// that are not UTF-8 and the backslash itself are written as "\xNN" (the
// backslash as "\\"), which keeps the escaped form unambiguous.
#ifndef KOVA_MODULE_LOG_H
#define KOVA_MODULE_LOG_H

#include <syslog.h>

#include <string>

void KovaLogLine(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));

// The escaped form of one formatted line.
std::string EscapeLogText(const std::string &text);

#define KOVA_LOG(priority, file, line, fmt, ...) \
    KovaLogLine((priority), "%s:%d " fmt, (file), (line), ##__VA_ARGS__)

#endif
