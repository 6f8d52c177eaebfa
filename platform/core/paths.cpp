#include "kova-internal/paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace kova_internal {

bool UnderRoot(const std::string &path, const std::string &root) {
    if (root == "/") return !path.empty() && path[0] == '/';
    return path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/');
}

std::string StripTrailingSlashes(std::string path) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

bool MakeDirs(const std::string &dir, mode_t mode) {
    for (size_t end = dir.find('/', 1);; end = dir.find('/', end + 1)) {
        const std::string part = dir.substr(0, end);
        if (!part.empty() && part.back() != '/' && mkdir(part.c_str(), mode) != 0 && errno != EEXIST) return false;
        if (end == std::string::npos) break;
    }
    // What stands at the end may be a file of that name: no folder then.
    struct stat st;
    if (stat(dir.c_str(), &st) != 0) return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

bool WriteAtomically(const std::string &path, const std::string &text, mode_t mode, std::string *why) {
    const std::string tmp = path + ".tmp";
    unlink(tmp.c_str());
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode);
    if (fd < 0) return *why = "cannot write " + tmp + ": " + strerror(errno), false;
    bool ok = fchmod(fd, mode) == 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
              fsync(fd) == 0;
    ok = close(fd) == 0 && ok;
    if (!ok || rename(tmp.c_str(), path.c_str()) != 0) {
        *why = "cannot write " + path + ": " + strerror(errno);
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

} // namespace kova_internal
