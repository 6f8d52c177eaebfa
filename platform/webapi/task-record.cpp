// Task record files: atomic replacement and tolerant reading, all relative
// to the descriptor of the task folder.
#include "task-record.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <memory>

namespace kova_webapi {

namespace {

using kova_internal::OwnedFd;
using kova_internal::Sys;

constexpr size_t kMaxIdLength = 128;
// A record is a few hundred bytes; anything far larger is not one of ours
// and is not read into memory.
constexpr off_t kMaxRecordSize = 1 << 20;

bool WriteAll(int fd, const std::string &text) {
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = Sys().write(fd, text.data() + done, text.size() - done);
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
        ssize_t n = Sys().read(fd, buf, sizeof(buf));
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (n == 0) return true;
        out.append(buf, static_cast<size_t>(n));
        if (out.size() > static_cast<size_t>(kMaxRecordSize)) return false;
    }
}

// A single component that can be handed to an *at call: never a path.
bool IsEntryName(const std::string &name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

// The folder `name` below `parent`, created when missing; never a link.
OwnedFd OpenSubdir(int parent, const char *name, mode_t mode) {
    if (Sys().mkdirat(parent, name, mode) != 0 && errno != EEXIST) return OwnedFd();
    return OwnedFd(Sys().openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
}

} // namespace

bool IsValidTaskId(const std::string &id) {
    if (id.empty() || id.size() > kMaxIdLength) return false;
    for (char c : id) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                        c == '_';
        if (!ok) return false;
    }
    return true;
}

bool RecordDir::Open() {
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    // The platform root is the administrator's setting and may itself be a
    // link; everything below it is ours and is never followed.
    OwnedFd base(Sys().openat(AT_FDCWD, KLIBCRootGet(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
    if (base.get() < 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    OwnedFd var = OpenSubdir(base.get(), "var", 0755);
    OwnedFd run = var.get() < 0 ? OwnedFd() : OpenSubdir(var.get(), "run", 0755);
    OwnedFd dir = run.get() < 0 ? OwnedFd() : OpenSubdir(run.get(), "tasks", 0700);
    struct stat st;
    if (dir.get() < 0 || Sys().fstat(dir.get(), &st) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    // Records name their owners and the tasks' progress: nobody but root
    // may list or read them, whoever created the folder first.
    if ((st.st_uid != 0 || st.st_gid != 0) && Sys().fchownat(dir.get(), "", 0, 0, AT_EMPTY_PATH) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    if ((st.st_mode & 07777) != 0700 && Sys().fchmod(dir.get(), 0700) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    fd_ = std::move(dir);
    return true;
}

bool RecordDir::Write(const std::string &id, const Json::Value &record) const {
    if (!IsOpen() || !IsValidTaskId(id)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
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
    // same record at once, each through its own temporary file. The dots
    // keep it from ever being a valid task id.
    static std::atomic<unsigned> counter{0};
    const std::string tmp = id + ".tmp." + std::to_string(getpid()) + "." + std::to_string(counter++);

    int fd = Sys().openat(fd_.get(), tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
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
    bool ok = WriteAll(fd, text) && (!durable || Sys().fsync(fd) == 0);
    if (Sys().close(fd) != 0) ok = false;
    if (ok && Sys().renameat(fd_.get(), tmp.c_str(), fd_.get(), id.c_str()) != 0) ok = false;
    if (!ok) {
        Sys().unlinkat(fd_.get(), tmp.c_str(), 0);
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    // The rename itself is durable once the folder is flushed. The record is
    // in place either way, so a failure here changes nothing for readers
    // and is not reported.
    if (durable) (void)Sys().fsync(fd_.get());
    return true;
}

int RecordDir::Read(const std::string &id, Json::Value &record, struct stat *stOut) const {
    if (!IsOpen() || !IsEntryName(id)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    OwnedFd fd(Sys().openat(fd_.get(), id.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0));
    if (fd.get() < 0) {
        if (errno == ENOENT) {
            KOVA_FAIL(KOVA_ERR_NOTASK);
            return 0;
        }
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    struct stat st;
    if (Sys().fstat(fd.get(), &st) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    if (!S_ISREG(st.st_mode) || st.st_size > kMaxRecordSize) {
        KOVA_FAIL(KOVA_ERR_CORRUPT);
        return -1;
    }
    if (stOut) *stOut = st;
    std::string text;
    if (!ReadAll(fd.get(), text)) {
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

bool RecordDir::Remove(const std::string &id) const {
    if (!IsOpen() || !IsEntryName(id)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    if (Sys().unlinkat(fd_.get(), id.c_str(), 0) != 0 && errno != ENOENT) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    return true;
}

bool RecordDir::List(std::vector<std::string> &names) const {
    if (!IsOpen()) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    // A stream of its own: the folder's descriptor stays ours, and its
    // read position is never shared between listings.
    int fd = Sys().openat(fd_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (fd < 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    DIR *d = Sys().fdopendir(fd);
    if (!d) {
        Sys().close(fd);
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    bool ok = true;
    try {
        names.clear();
        errno = 0;
        while (struct dirent64 *e = Sys().readdir64(d)) {
            if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.emplace_back(e->d_name);
            errno = 0;
        }
        if (errno != 0) ok = false;
    } catch (...) {
        ok = false;
    }
    Sys().closedir(d);
    if (!ok) KOVA_FAIL(KOVA_ERR_IO);
    return ok;
}

} // namespace kova_webapi
