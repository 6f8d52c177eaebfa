// System-log lines of the module. Every message begins with the source
// file's name without extension and a line number that is part of the
// message text (fixed per message, not the C++ line).
#ifndef KOVA_MODULE_LOG_H
#define KOVA_MODULE_LOG_H

#include <syslog.h>

#define KOVA_LOG(priority, file, line, fmt, ...) \
    syslog((priority), "%s:%d " fmt, (file), (line), ##__VA_ARGS__)

#endif
