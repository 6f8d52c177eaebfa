// Task record files: atomic replacement and tolerant reading.
#include "task-record.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <sstream>

namespace kova_webapi {

namespace {

bool MakeDir(const std::string &path, mode_t mode) {
    if (mkdir(path.c_str(), mode) == 0 || errno == EEXIST) return true;
    return false;
}

bool WriteAll(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        done += static_cast<size_t>(n);
    }
    return true;
}

bool ReadAll(int fd, std::string &out) {
    char buf[8192];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) return true;
        out.append(buf, static_cast<size_t>(n));
    }
}

} // namespace

std::string TaskDir() {
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return std::string();
    }
    std::string base = KLIBCRootGet();
    std::string run = base + "/var/run";
    std::string dir = run + "/tasks";
    if (!MakeDir(base + "/var", 0755) || !MakeDir(run, 0755) || !MakeDir(dir, 0700)) {
        KOVA_FAIL(KOVA_ERR_IO);
        return std::string();
    }
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        KOVA_FAIL(KOVA_ERR_IO);
        return std::string();
    }
    // Records name their owners and the tasks' progress: nobody but root
    // may list or read them, whoever created the directory first.
    if ((st.st_uid != 0 || st.st_gid != 0) && chown(dir.c_str(), 0, 0) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return std::string();
    }
    if ((st.st_mode & 07777) != 0700 && chmod(dir.c_str(), 0700) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return std::string();
    }
    return dir;
}

bool IsValidTaskId(const std::string &id) {
    if (id.empty() || id.size() > 200 || id[0] == '.') return false;
    for (char c : id)
        if (c == '/' || c == '\0' || c == '\n') return false;
    return true;
}

std::string RecordPath(const std::string &dir, const std::string &id) { return dir + "/" + id; }

bool WriteRecord(const std::string &path, const Json::Value &record) {
    std::string text;
    try {
        Json::StreamWriterBuilder w;
        w["indentation"] = "";
        text = Json::writeString(w, record);
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return false;
    }
    text += '\n';

    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    // Unique per process and call: tasks and status readers may write the
    // same record at once, each through its own temporary file.
    static std::atomic<unsigned> counter{0};
    std::ostringstream tmp;
    tmp << path << ".tmp." << getpid() << "." << counter++;
    std::string tmpPath = tmp.str();

    int fd = open(tmpPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    // Readers are kept from torn records by the rename alone, which is
    // atomic whether or not the data reached the disk. fsync only buys
    // durability across a crash, which matters for the outcome of a task
    // (its final record) and not for progress: a task that dies with the
    // machine reads as failed whatever its last progress said, and a task
    // publishing every few hundred entries would otherwise wait on the disk
    // each time.
    const bool durable = record.isObject() && record["finished"].isBool() && record["finished"].asBool();
    bool ok = WriteAll(fd, text) && (!durable || fsync(fd) == 0);
    if (close(fd) != 0) ok = false;
    if (ok && rename(tmpPath.c_str(), path.c_str()) != 0) ok = false;
    if (!ok) {
        unlink(tmpPath.c_str());
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    if (durable) {
        // The rename itself is durable once its directory is flushed. The
        // record is in place either way, so a failure here changes nothing
        // for readers and is not reported.
        const size_t slash = path.rfind('/');
        const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
        int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (dfd >= 0) {
            (void)fsync(dfd);
            close(dfd);
        }
    }
    return true;
}

int ReadRecord(const std::string &path, Json::Value &record) {
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        if (errno == ENOENT) {
            KOVA_FAIL(KOVA_ERR_NOTASK);
            return 0;
        }
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    std::string text;
    bool ok = ReadAll(fd, text);
    close(fd);
    if (!ok) {
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    try {
        Json::CharReaderBuilder b;
        std::unique_ptr<Json::CharReader> reader(b.newCharReader());
        std::string errs;
        Json::Value v;
        if (!reader->parse(text.data(), text.data() + text.size(), &v, &errs) || !v.isObject()) {
            KOVA_FAIL(KOVA_ERR_CORRUPT);
            return -1;
        }
        record.swap(v);
    } catch (...) {
        KOVA_FAIL(KOVA_ERR_CORRUPT);
        return -1;
    }
    return 1;
}

bool RemoveRecord(const std::string &path) {
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    return true;
}

} // namespace kova_webapi
