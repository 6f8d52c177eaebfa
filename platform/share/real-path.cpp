// Real paths through /proc/self/fd (see real-path.h).
#include "real-path.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace kova_share {

namespace {

int ByRealpath(const std::string &path, std::string &out) {
    char *r = realpath(path.c_str(), nullptr);
    if (!r) return errno ? errno : ENOENT;
    out = r;
    std::free(r);
    return 0;
}

// The kernel's name for an open file, when it is a plain absolute path.
bool NameOfFd(int fd, std::string &out) {
    char link[40];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char buf[PATH_MAX + 1];
    ssize_t n = readlink(link, buf, sizeof buf);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof buf || buf[0] != '/') return false;
    static const char kDeleted[] = " (deleted)";
    const size_t cutLen = sizeof kDeleted - 1;
    // A removed file is named with this suffix; a real name that happens to
    // end the same way is simply left to realpath.
    if (static_cast<size_t>(n) >= cutLen && std::memcmp(buf + n - cutLen, kDeleted, cutLen) == 0) return false;
    out.assign(buf, static_cast<size_t>(n));
    return true;
}

// Absolute, without empty, "." or ".." components and without a trailing
// slash: the form a real path has.
bool LooksCanonical(const std::string &path) {
    if (path.empty() || path[0] != '/') return false;
    if (path.size() == 1) return true;
    size_t start = 1;
    for (;;) {
        size_t end = path.find('/', start);
        if (end == std::string::npos) end = path.size();
        const size_t len = end - start;
        if (len == 0) return false;
        if (path[start] == '.' && (len == 1 || (len == 2 && path[start + 1] == '.'))) return false;
        if (end == path.size()) return true;
        start = end + 1;
    }
}

// 0: the path has no link on its way and is real (*fd its descriptor);
// -1: it may have one (or the kernel lacks openat2), ask further; else the
// errno of the lookup.
int NoLinksOnTheWay(const std::string &path, int *fd) {
    struct open_how how;
    std::memset(&how, 0, sizeof how);
    how.flags = O_PATH | O_CLOEXEC;
    how.resolve = RESOLVE_NO_SYMLINKS;
    long rc = syscall(SYS_openat2, AT_FDCWD, path.c_str(), &how, sizeof how);
    if (rc >= 0) {
        *fd = static_cast<int>(rc);
        return 0;
    }
    switch (errno) {
    case ENOENT:
    case ENOTDIR:
    case EACCES:
    case ENAMETOOLONG: return errno;
    default: return -1;  // ELOOP (a link), ENOSYS, EPERM from a filter ...
    }
}

} // namespace

int RealPathOf(const std::string &path, std::string &out, int *keepFd) {
    if (keepFd) *keepFd = -1;
    int fd = -1;
    if (LooksCanonical(path)) {
        const int rc = NoLinksOnTheWay(path, &fd);
        if (rc > 0) return rc;
        if (rc == 0) out = path;
    }
    if (fd < 0) {
        fd = open(path.c_str(), O_PATH | O_CLOEXEC);
        if (fd < 0) return errno;
        if (!NameOfFd(fd, out)) {
            close(fd);
            return ByRealpath(path, out);
        }
    }
    if (keepFd)
        *keepFd = fd;
    else
        close(fd);
    return 0;
}

} // namespace kova_share
