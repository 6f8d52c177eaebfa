#include "static-files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace webd {

namespace {

constexpr off_t kMaxFileBytes = 4 << 20;

std::string ContentType(const std::string &name) {
    static const std::pair<const char *, const char *> kTypes[] = {
        {".html", "text/html; charset=utf-8"},  {".js", "text/javascript; charset=utf-8"},
        {".mjs", "text/javascript; charset=utf-8"}, {".css", "text/css; charset=utf-8"},
        {".json", "application/json; charset=utf-8"}, {".svg", "image/svg+xml"},
        {".png", "image/png"}, {".ico", "image/x-icon"}, {".txt", "text/plain; charset=utf-8"},
    };
    for (const auto &t : kTypes) {
        const std::string ext = t.first;
        if (name.size() > ext.size() && name.compare(name.size() - ext.size(), ext.size(), ext) == 0) return t.second;
    }
    return "application/octet-stream";
}

bool SafeRelative(const std::string &path, std::string &rel) {
    if (path.empty() || path[0] != '/') return false;
    rel = path.substr(1);
    if (rel.empty() || rel.back() == '/') rel += "index.html";
    if (rel.find('\0') != std::string::npos || rel.find('\\') != std::string::npos) return false;
    size_t start = 0;
    while (start <= rel.size()) {
        size_t end = rel.find('/', start);
        if (end == std::string::npos) end = rel.size();
        const std::string part = rel.substr(start, end - start);
        if (part.empty() || part == "." || part == "..") return false;
        start = end + 1;
    }
    return true;
}

// Opens rel below dirFd one part at a time, never following a link.
int OpenBelow(int dirFd, const std::string &rel) {
    int fd = dup(dirFd);
    size_t start = 0;
    while (fd >= 0) {
        const size_t end = rel.find('/', start);
        const bool last = end == std::string::npos;
        const std::string part = rel.substr(start, last ? std::string::npos : end - start);
        int next = openat(fd, part.c_str(), (last ? O_RDONLY : O_PATH | O_DIRECTORY) | O_NOFOLLOW | O_CLOEXEC);
        close(fd);
        fd = next;
        if (last) break;
        start = end + 1;
    }
    return fd;
}

} // namespace

StaticFiles::StaticFiles(const std::string &dir) {
    if (!dir.empty()) dirFd_ = open(dir.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
}

StaticFiles::~StaticFiles() {
    if (dirFd_ >= 0) close(dirFd_);
}

void StaticFiles::Serve(const std::string &method, const std::string &path, HttpReply &reply) const {
    reply.Set("Content-Type", "text/plain; charset=utf-8");
    if (method != "GET" && method != "HEAD") {
        reply.status = 405;
        reply.Set("Allow", "GET, HEAD");
        reply.body = "method not allowed\n";
        return;
    }
    std::string rel;
    int fd = dirFd_ >= 0 && SafeRelative(path, rel) ? OpenBelow(dirFd_, rel) : -1;
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > kMaxFileBytes)) {
        close(fd);
        fd = -1;
    }
    if (fd < 0) {
        reply.status = 404;
        reply.body = "not found\n";
        return;
    }
    std::string body(static_cast<size_t>(st.st_size), '\0');
    size_t got = 0;
    while (got < body.size()) {
        ssize_t r = read(fd, &body[got], body.size() - got);
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) break;
        got += static_cast<size_t>(r);
    }
    close(fd);
    body.resize(got);
    reply.status = 200;
    reply.Set("Content-Type", ContentType(rel));
    reply.body = std::move(body);
}

} // namespace webd
