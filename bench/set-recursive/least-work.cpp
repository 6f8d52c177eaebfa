#include "least-work.h"

#include "timing.h"
#include "kova-internal/sys-calls.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kova_bench {
namespace {

// Through the platform's own system-call table, as the set's writes go.
void Write(int dirFd, const char *name, const std::pair<std::string, std::string> &attr) {
    if (kova_internal::Sys().setxattrat(dirFd, name, AT_SYMLINK_NOFOLLOW, attr.first.c_str(), attr.second.data(),
                                        attr.second.size(), 0) != 0)
        Die(std::string("setxattrat ") + name + " " + attr.first + ": " + std::strerror(errno));
}

// Every entry of the open folder dirFd, then each sub-folder in turn.
void Walk(int dirFd, const LeastWorkAttrs &attrs) {
    DIR *dir = fdopendir(dirFd);
    if (!dir) Die("fdopendir");
    while (const dirent *entry = readdir(dir)) {
        const char *name = entry->d_name;
        if (name[0] == '.' && (!name[1] || (name[1] == '.' && !name[2]))) continue;
        struct statx sx;
        if (statx(dirFd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, STATX_TYPE | STATX_MNT_ID, &sx) != 0)
            Die(std::string("statx ") + name);
        if (S_ISLNK(sx.stx_mode)) continue;
        const bool folder = S_ISDIR(sx.stx_mode);
        for (const auto &attr : folder ? attrs.folder : attrs.file) Write(dirFd, name, attr);
        if (folder) {
            const int sub = openat(dirFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub < 0) Die(std::string("openat ") + name);
            Walk(sub, attrs);
        }
    }
    closedir(dir);
}

std::vector<std::pair<std::string, std::string>> ReadAll(const std::string &path) {
    std::vector<std::pair<std::string, std::string>> out;
    char names[4096];
    const ssize_t len = llistxattr(path.c_str(), names, sizeof names);
    if (len < 0) Die("llistxattr " + path);
    for (const char *n = names; n < names + len; n += std::strlen(n) + 1) {
        char value[4096];
        const ssize_t size = lgetxattr(path.c_str(), n, value, sizeof value);
        if (size < 0) Die(std::string("lgetxattr ") + n);
        out.emplace_back(n, std::string(value, static_cast<size_t>(size)));
    }
    if (out.empty()) Die("no attributes on " + path);
    return out;
}

} // namespace

LeastWorkAttrs ReadSetAttrs(const std::string &file, const std::string &folder) {
    return LeastWorkAttrs{ReadAll(file), ReadAll(folder)};
}

ProcessRun RunLeastWork(const std::string &top, const LeastWorkAttrs &attrs) {
    ProcessRun out;
    const double start = Seconds();
    const pid_t pid = fork();
    if (pid < 0) Die("fork");
    if (pid == 0) {
        const int fd = open(top.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0) _exit(1);
        Walk(fd, attrs);
        _exit(0);
    }
    int st = 0;
    struct rusage ru;
    if (wait4(pid, &st, 0, &ru) != pid || !WIFEXITED(st) || WEXITSTATUS(st) != 0) Die("the least-work walk failed");
    out.seconds = Seconds() - start;
    out.maxRssKb = ru.ru_maxrss;
    out.cpuSeconds = CpuOf(ru);
    return out;
}

} // namespace kova_bench
