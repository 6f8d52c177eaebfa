// Attributes of a judged entry (see entry-attr.h).
#include "entry-attr.h"

#include "kova-internal/sys-calls.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

namespace kova_acl {

using kova_internal::Sys;
using kova_internal::SysCalls;

namespace {

// The *xattrat calls take an entry by folder and name. The folder itself
// (empty name) is named "." there: AT_EMPTY_PATH is refused on an O_PATH
// descriptor, and "." is never a link.
const char *AtName(const char *name) { return name[0] != '\0' ? name : "."; }

// A lookup of an attribute nobody sets, on the root folder: a kernel with
// the call answers "no such attribute" (or "not supported" on a file system
// without attributes); anything else means the call is not there.
bool Probe() {
    char byte;
    if (Sys().getxattrat(AT_FDCWD, "/", AT_SYMLINK_NOFOLLOW, "trusted.kova.probe", &byte, sizeof byte) >= 0)
        return true;
    return errno == ENODATA || errno == ENOTSUP;
}

// The entry reached through /proc/self/fd: an O_PATH handle of it (its
// folder's descriptor itself for an empty name), closed on destruction.
class ProcName {
public:
    ProcName(int dirFd, const char *name) {
        if (name[0] == '\0') {
            fd_ = dirFd;
        } else {
            fd_ = Sys().openat(dirFd, name, O_PATH | O_NOFOLLOW | O_CLOEXEC, 0);
            owned_ = fd_ >= 0;
        }
        if (fd_ >= 0) std::snprintf(name_, sizeof name_, "/proc/self/fd/%d", fd_);
    }
    ~ProcName() {
        if (!owned_) return;
        const int saved = errno;
        Sys().close(fd_);
        errno = saved;
    }
    ProcName(const ProcName &) = delete;
    ProcName &operator=(const ProcName &) = delete;
    bool ok() const { return fd_ >= 0; }
    const char *get() const { return name_; }

private:
    int fd_ = -1;
    bool owned_ = false;
    char name_[40] = {};
};

// The entry is open, so a missing /proc name means /proc itself cannot
// answer: an I/O failure, never "no such file" or "no attribute".
template <typename R>
R FromProc(R rc) {
    if (rc < 0 && errno == ENOENT) errno = EIO;
    return rc;
}

} // namespace

bool XattrAtAvailable() {
    // Probed once per thread and table entry.
    thread_local decltype(SysCalls::getxattrat) probed = nullptr;
    thread_local bool available = false;
    if (probed != Sys().getxattrat) {
        probed = Sys().getxattrat;
        available = Probe();
    }
    return available;
}

ssize_t GetEntryAttr(int dirFd, const char *name, const char *attr, void *value, size_t size) {
    if (XattrAtAvailable()) return Sys().getxattrat(dirFd, AtName(name), AT_SYMLINK_NOFOLLOW, attr, value, size);
    ProcName p(dirFd, name);
    return p.ok() ? FromProc(Sys().getxattr(p.get(), attr, value, size)) : -1;
}

int SetEntryAttr(int dirFd, const char *name, const char *attr, const void *value, size_t size, int flags) {
    if (XattrAtAvailable()) return Sys().setxattrat(dirFd, AtName(name), AT_SYMLINK_NOFOLLOW, attr, value, size, flags);
    ProcName p(dirFd, name);
    return p.ok() ? FromProc(Sys().setxattr(p.get(), attr, value, size, flags)) : -1;
}

int RemoveEntryAttr(int dirFd, const char *name, const char *attr) {
    if (XattrAtAvailable()) return Sys().removexattrat(dirFd, AtName(name), AT_SYMLINK_NOFOLLOW, attr);
    ProcName p(dirFd, name);
    return p.ok() ? FromProc(Sys().removexattr(p.get(), attr)) : -1;
}

} // namespace kova_acl
