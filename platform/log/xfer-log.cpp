// KOVALogXferLog: appends one record to <root>/var/log/xfer.log.
#include "kova/xferlog.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"

#include "xfer-line.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

extern "C" int KOVALogXferLog(const char *szRemoteAddr, const char *szUser, const char *szAction,
                              unsigned long long size, const char *szPath, int isDir, int type) {
    KOVA_FAULT_POINT("KOVALogXferLog", int);
    if (!szRemoteAddr || !szUser || !szAction || !szPath || type < 1 || type > 3) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    try {
        kova_log::XferRecord r{time(nullptr), szRemoteAddr, szUser, szAction, size, isDir != 0, type, szPath};
        std::string line = kova_log::FormatXferLine(r);

        std::string root = KLIBCRootGet();
        std::string dir = root + "/var/log";
        std::string path = dir + "/xfer.log";
        // Callers often act as a user by now (a task after switching
        // identity); the log is the platform's and is written as root.
        kova_internal::RootScope asRoot;
        if (!asRoot.ok()) {
            KOVA_FAIL(KOVA_ERR_PERM);
            return -1;
        }
        if ((mkdir((root + "/var").c_str(), 0755) != 0 && errno != EEXIST) ||
            (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)) {
            KOVA_FAIL(KOVA_ERR_IO);
            return -1;
        }
        int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
        if (fd < 0) {
            KOVA_FAIL(KOVA_ERR_IO);
            return -1;
        }
        // One write per record: with O_APPEND concurrent writers never
        // interleave within a line.
        ssize_t n;
        do {
            n = write(fd, line.data(), line.size());
        } while (n < 0 && errno == EINTR);
        bool ok = n == static_cast<ssize_t>(line.size());
        if (close(fd) != 0) ok = false;
        if (!ok) {
            KOVA_FAIL(KOVA_ERR_IO);
            return -1;
        }
        return 0;
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return -1;
    }
}
