// The default system-call table: the real calls (see sys-calls.h).
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

namespace kova_internal {

namespace {

// Numbers of calls newer than some C libraries' headers; the same on every
// architecture that uses the common system-call table.
#if defined(SYS_getxattrat) && defined(SYS_setxattrat) && defined(SYS_removexattrat)
constexpr long kSetXattrAt = SYS_setxattrat;
constexpr long kGetXattrAt = SYS_getxattrat;
constexpr long kRemoveXattrAt = SYS_removexattrat;
#elif (defined(__x86_64__) && !defined(__ILP32__)) || defined(__aarch64__) || (defined(__riscv) && __riscv_xlen == 64)
constexpr long kSetXattrAt = 463;
constexpr long kGetXattrAt = 464;
constexpr long kRemoveXattrAt = 466;
#else
constexpr long kSetXattrAt = -1;
constexpr long kGetXattrAt = -1;
constexpr long kRemoveXattrAt = -1;
#endif

// The kernel's argument block for an attribute value.
struct XattrArgs {
    uint64_t value;
    uint32_t size;
    uint32_t flags;
};

int Unknown() {
    errno = ENOSYS;
    return -1;
}

int RealOpenat(int dirFd, const char *name, int flags, mode_t mode) { return ::openat(dirFd, name, flags, mode); }

int RealOpenat2(int dirFd, const char *name, const struct open_how *how, size_t size) {
#ifdef SYS_openat2
    return static_cast<int>(syscall(SYS_openat2, dirFd, name, how, size));
#else
    return Unknown();
#endif
}

ssize_t RealGetXattrAt(int dirFd, const char *name, int atFlags, const char *attr, void *value, size_t size) {
    if (kGetXattrAt < 0) return Unknown();
    XattrArgs args{static_cast<uint64_t>(reinterpret_cast<uintptr_t>(value)), static_cast<uint32_t>(size), 0};
    return static_cast<ssize_t>(syscall(kGetXattrAt, dirFd, name, atFlags, attr, &args, sizeof args));
}

int RealSetXattrAt(int dirFd, const char *name, int atFlags, const char *attr, const void *value, size_t size,
                   int flags) {
    if (kSetXattrAt < 0) return Unknown();
    XattrArgs args{static_cast<uint64_t>(reinterpret_cast<uintptr_t>(value)), static_cast<uint32_t>(size),
                   static_cast<uint32_t>(flags)};
    return static_cast<int>(syscall(kSetXattrAt, dirFd, name, atFlags, attr, &args, sizeof args));
}

int RealRemoveXattrAt(int dirFd, const char *name, int atFlags, const char *attr) {
    if (kRemoveXattrAt < 0) return Unknown();
    return static_cast<int>(syscall(kRemoveXattrAt, dirFd, name, atFlags, attr));
}

int RealSetgroups(size_t count, const gid_t *groups) { return ::setgroups(count, groups); }

int RealCapget(cap_user_header_t header, cap_user_data_t data) {
    return static_cast<int>(syscall(SYS_capget, header, data));
}

int RealCapset(cap_user_header_t header, const cap_user_data_t data) {
    return static_cast<int>(syscall(SYS_capset, header, data));
}

int RealPidfdOpen(pid_t pid, unsigned int flags) {
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, flags));
#else
    (void)pid;
    (void)flags;
    return Unknown();
#endif
}

int RealPidfdSendSignal(int pidFd, int sig, siginfo_t *info, unsigned int flags) {
#ifdef SYS_pidfd_send_signal
    return static_cast<int>(syscall(SYS_pidfd_send_signal, pidFd, sig, info, flags));
#else
    (void)pidFd;
    (void)sig;
    (void)info;
    (void)flags;
    return Unknown();
#endif
}

int RealFcntlLock(int fd, int cmd, struct flock *lock) { return ::fcntl(fd, cmd, lock); }

const SysCalls kReal = {
    RealOpenat,
    RealOpenat2,
    ::close,
    ::fstat,
    ::fstatat,
    ::fstatfs,
    ::fchownat,
    ::fchmod,
    ::mkdirat,
    ::unlinkat,
    ::renameat,
    ::readlinkat,
    ::read,
    ::write,
    ::fsync,
    ::fdopendir,
    ::readdir64,
    ::closedir,
    RealGetXattrAt,
    RealSetXattrAt,
    RealRemoveXattrAt,
    ::fgetxattr,
    ::fsetxattr,
    ::fremovexattr,
    ::getxattr,
    ::setxattr,
    ::removexattr,
    ::kill,
    ::setresuid,
    ::setresgid,
    RealSetgroups,
    RealCapget,
    RealCapset,
    RealPidfdOpen,
    RealPidfdSendSignal,
    RealFcntlLock,
    ::faccessat,
    ::lseek,
    ::execve,
};

SysCalls gTable = kReal;

} // namespace

SysCalls &Sys() { return gTable; }
const SysCalls &RealSysCalls() { return kReal; }
void ResetSysCalls() { gTable = kReal; }

} // namespace kova_internal
