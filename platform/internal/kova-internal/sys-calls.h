// The system calls the platform makes on user-reachable files, on task
// processes and on the process's identity, as one replaceable table (the way
// SQLite's unix layer keeps its aSyscall[]). Platform code never calls these
// directly: it calls Sys().name(...), so a test can fail, delay or count any
// one of them (the Nth fchownat, every openat of one name) and then check
// what the platform left behind, and no code reaches the file system around
// the table.
//
// Entries have the kernel's signatures and errno conventions. The defaults
// are the real calls; calls that glibc does not wrap (openat2, the *xattrat
// family) are made through syscall(2) and answer -1 with ENOSYS where the
// kernel lacks them.
//
// Replacing entries is for tests. Do it while no other thread is inside a
// platform call; ScopedSysCall puts the previous entry back on every path.
#ifndef KOVA_INTERNAL_SYS_CALLS_H
#define KOVA_INTERNAL_SYS_CALLS_H

#include <dirent.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/types.h>

#include <cstddef>

struct open_how;

namespace kova_internal {

struct SysCalls {
    // Files and folders, always relative to a descriptor already judged.
    int (*openat)(int dirFd, const char *name, int flags, mode_t mode);
    int (*openat2)(int dirFd, const char *name, const struct open_how *how, size_t size);
    int (*close)(int fd);
    int (*fstat)(int fd, struct stat *st);
    int (*fstatat)(int dirFd, const char *name, struct stat *st, int flags);
    int (*fstatfs)(int fd, struct statfs *st);
    int (*fchownat)(int dirFd, const char *name, uid_t uid, gid_t gid, int flags);
    int (*fchmod)(int fd, mode_t mode);
    int (*mkdirat)(int dirFd, const char *name, mode_t mode);
    int (*unlinkat)(int dirFd, const char *name, int flags);
    int (*renameat)(int oldDirFd, const char *oldName, int newDirFd, const char *newName);
    ssize_t (*readlinkat)(int dirFd, const char *name, char *buf, size_t size);
    ssize_t (*read)(int fd, void *buf, size_t size);
    ssize_t (*write)(int fd, const void *buf, size_t size);
    int (*fsync)(int fd);
    DIR *(*fdopendir)(int fd);
    struct dirent64 *(*readdir64)(DIR *dir);
    int (*closedir)(DIR *dir);

    // Extended attributes. The path forms are only ever given the
    // /proc/self/fd name of a descriptor (which the kernel resolves to
    // that very file, never through a link), for kernels without *xattrat.
    ssize_t (*getxattrat)(int dirFd, const char *name, int atFlags, const char *attr, void *value, size_t size);
    int (*setxattrat)(int dirFd, const char *name, int atFlags, const char *attr, const void *value, size_t size,
                      int flags);
    int (*removexattrat)(int dirFd, const char *name, int atFlags, const char *attr);
    ssize_t (*fgetxattr)(int fd, const char *attr, void *value, size_t size);
    int (*fsetxattr)(int fd, const char *attr, const void *value, size_t size, int flags);
    int (*fremovexattr)(int fd, const char *attr);
    ssize_t (*getxattr)(const char *path, const char *attr, void *value, size_t size);
    int (*setxattr)(const char *path, const char *attr, const void *value, size_t size, int flags);
    int (*removexattr)(const char *path, const char *attr);

    // Processes.
    int (*kill)(pid_t pid, int sig);

    // Identity of the calling process (and thread, for capabilities).
    int (*setresuid)(uid_t ruid, uid_t euid, uid_t suid);
    int (*setresgid)(gid_t rgid, gid_t egid, gid_t sgid);
    int (*setgroups)(size_t count, const gid_t *groups);
    int (*capget)(cap_user_header_t header, cap_user_data_t data);
    int (*capset)(cap_user_header_t header, const cap_user_data_t data);

    // Task processes through a descriptor that names one process for its
    // whole life, so a pid reused in between is never signalled. Answer -1
    // with ENOSYS on kernels before 5.1 (send) and 5.3 (open).
    int (*pidfd_open)(pid_t pid, unsigned int flags);
    int (*pidfd_send_signal)(int pidFd, int sig, siginfo_t *info, unsigned int flags);
    // Record locks (F_SETLK, F_SETLKW, F_GETLK) on platform files.
    int (*fcntl_lock)(int fd, int cmd, struct flock *lock);
    // Whether the calling identity may reach an entry (AT_EACCESS: judged
    // with the effective ids), relative to a descriptor already judged.
    int (*faccessat)(int dirFd, const char *name, int mode, int flags);
    // A folder's read position (a readdir cookie), for a walk that resumes
    // where an earlier one stopped.
    off_t (*lseek)(int fd, off_t offset, int whence);
    // Starting one of the platform's own programs in a child just forked.
    int (*execve)(const char *path, char *const argv[], char *const envp[]);
};

// The table in force for the whole process.
SysCalls &Sys();
// The real calls, for a test's replacement to delegate to.
const SysCalls &RealSysCalls();
// Puts every entry back to the real call.
void ResetSysCalls();

// Replaces one entry for its lifetime:
//   ScopedSysCall<decltype(SysCalls::fchownat)> f(&SysCalls::fchownat, MyFchownat);
template <typename Fn>
class ScopedSysCall {
public:
    ScopedSysCall(Fn SysCalls::*entry, Fn replacement) : entry_(entry), saved_(Sys().*entry) {
        Sys().*entry_ = replacement;
    }
    ~ScopedSysCall() { Sys().*entry_ = saved_; }
    ScopedSysCall(const ScopedSysCall &) = delete;
    ScopedSysCall &operator=(const ScopedSysCall &) = delete;

private:
    Fn SysCalls::*entry_;
    Fn saved_;
};

} // namespace kova_internal

#endif
