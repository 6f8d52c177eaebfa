// Paths to descriptors through the system-call table (see real-path.h).
#include "kova-internal/real-path.h"

#include "kova-internal/owned-fd.h"
#include "kova-internal/path-parts.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <vector>

namespace kova_internal {

namespace {

using kova_internal::OwnedFd;
using kova_internal::Sys;

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

int Openat2(int dirFd, const std::string &name, int flags, unsigned long long resolve, int *fd) {
    struct open_how how;
    std::memset(&how, 0, sizeof how);
    how.flags = static_cast<unsigned long long>(O_PATH | O_CLOEXEC | flags);
    how.resolve = resolve;
    const int rc = Sys().openat2(dirFd, name.c_str(), &how, sizeof how);
    if (rc < 0) return errno;
    *fd = rc;
    return 0;
}

// One component below dirFd, never following a link (ELOOP, as openat2
// says); a folder unless last.
int OpenComponent(int dirFd, const std::string &name, bool last, int flags, OwnedFd &out) {
    OwnedFd next(Sys().openat(dirFd, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC | (flags & ~O_DIRECTORY), 0));
    if (next.get() < 0) return errno;
    struct stat st;
    if (Sys().fstat(next.get(), &st) != 0) return errno;
    if (S_ISLNK(st.st_mode)) return ELOOP;
    if ((!last || (flags & O_DIRECTORY)) && !S_ISDIR(st.st_mode)) return ENOTDIR;
    out = std::move(next);
    return 0;
}

// openat2 is missing: the same judgement with one openat per component,
// two descriptors open at a time.
int WalkWithoutLinks(int startFd, const std::vector<std::string> &parts, bool beneath, int flags, int *fd) {
    // With no link on the way, ".." is its folder's parent by name alone.
    std::vector<std::string> names;
    for (const std::string &c : parts) {
        if (c == ".") continue;
        if (c != "..") {
            names.push_back(c);
            continue;
        }
        if (!beneath) return EINVAL;
        if (names.empty()) return EXDEV;
        names.pop_back();
    }
    OwnedFd cur(Sys().openat(startFd, ".", O_PATH | O_DIRECTORY | O_CLOEXEC, 0));
    if (cur.get() < 0) return errno;
    for (size_t i = 0; i < names.size(); ++i) {
        OwnedFd next;
        const int err = OpenComponent(cur.get(), names[i], i + 1 == names.size(), flags, next);
        if (err) return err;
        cur = std::move(next);
    }
    // A descriptor of its own for the caller; the walk's are closed here.
    const int mine = fcntl(cur.get(), F_DUPFD_CLOEXEC, 0);
    if (mine < 0) return errno;
    *fd = mine;
    return 0;
}

// 0: the path has no link on its way and is real (*fd its descriptor);
// -1: it may have one (or the kernel lacks openat2), ask further; else the
// errno of the lookup.
int NoLinksOnTheWay(const std::string &path, int *fd) {
    const int err = Openat2(AT_FDCWD, path, 0, RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS, fd);
    switch (err) {
    case 0: return 0;
    case ENOENT:
    case ENOTDIR:
    case EACCES:
    case ENAMETOOLONG: return err;
    default: return -1;  // ELOOP (a link), ENOSYS, EPERM from a filter ...
    }
}

} // namespace

int NameOfFd(int fd, std::string &out) {
    char link[40];
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    char buf[PATH_MAX + 1];
    const ssize_t n = Sys().readlinkat(AT_FDCWD, link, buf, sizeof buf);
    if (n <= 0 || static_cast<size_t>(n) >= sizeof buf) return EIO;
    // "(unreachable)/..." names a folder outside this process's root.
    if (buf[0] != '/') return ENOENT;
    static const char kDeleted[] = " (deleted)";
    const size_t cutLen = sizeof kDeleted - 1;
    // A removed file is named with this suffix. A real name that happens to
    // end the same way is refused too: better than judging a removed one.
    if (static_cast<size_t>(n) >= cutLen && std::memcmp(buf + n - cutLen, kDeleted, cutLen) == 0) return ENOENT;
    out.assign(buf, static_cast<size_t>(n));
    return 0;
}

int RealPathOf(const std::string &path, std::string &out, int *keepFd) {
    if (keepFd) *keepFd = -1;
    if (path.find('\0') != std::string::npos) return EINVAL;
    int fd = -1;
    std::string name;
    if (LooksCanonical(path)) {
        const int rc = NoLinksOnTheWay(path, &fd);
        if (rc > 0) return rc;
        if (rc == 0) name = path;
    }
    if (fd < 0) {
        fd = Sys().openat(AT_FDCWD, path.c_str(), O_PATH | O_CLOEXEC, 0);
        if (fd < 0) return errno;
        const int err = NameOfFd(fd, name);
        if (err) {
            (void)Sys().close(fd);
            return err;
        }
    }
    out.swap(name);
    if (keepFd)
        *keepFd = fd;
    else
        (void)Sys().close(fd);
    return 0;
}

int RealPathOf(const std::string &path, std::string &out, OwnedFd &fd) {
    int raw = -1;
    fd.Reset();
    const int err = RealPathOf(path, out, &raw);
    if (err == 0) fd = OwnedFd(raw);
    return err;
}

int OpenWithoutLinks(const std::string &path, int flags, int *fd) {
    if (!LooksCanonical(path)) return EINVAL;
    const int err = Openat2(AT_FDCWD, path, flags, RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS, fd);
    if (err != ENOSYS) return err;
    OwnedFd top(Sys().openat(AT_FDCWD, "/", O_PATH | O_DIRECTORY | O_CLOEXEC, 0));
    if (top.get() < 0) return errno;
    return WalkWithoutLinks(top.get(), kova_internal::PathComponents(path), false, flags, fd);
}

int OpenBeneath(int baseFd, const std::string &rel, int flags, int *fd) {
    if (rel.find('\0') != std::string::npos) return EINVAL;
    if (!rel.empty() && rel[0] == '/') return EXDEV;
    const int err = Openat2(baseFd, rel.empty() ? "." : rel, flags, RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS, fd);
    if (err != ENOSYS) return err;
    return WalkWithoutLinks(baseFd, kova_internal::PathComponents(rel), true, flags, fd);
}

} // namespace kova_internal
