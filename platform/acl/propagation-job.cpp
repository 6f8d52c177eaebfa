// Propagation job records (see propagation-job.h). A record is a few lines
// of "key=value"; the path is kept with '%', control bytes and DEL escaped
// as %XX, so a name holding a newline cannot forge a field.
#include "propagation-job.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace kova_acl {

namespace {

using kova_internal::OwnedFd;
using kova_internal::Sys;

constexpr size_t kMaxText = 64 * 1024;
constexpr const char *kRunner = "runner";

std::mutex gThreads;

std::string Escape(const std::string &s) {
    std::string out;
    for (unsigned char c : s) {
        if (c < 0x20 || c == 0x7f || c == '%') {
            char buf[4];
            std::snprintf(buf, sizeof buf, "%%%02X", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

std::string Unescape(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '%' && i + 2 < s.size()) {
            const std::string hex = s.substr(i + 1, 2);
            char *end = nullptr;
            const long v = std::strtol(hex.c_str(), &end, 16);
            if (hex.size() == 2 && end == hex.c_str() + 2) {
                out += static_cast<char>(v);
                i += 2;
                continue;
            }
        }
        out += s[i];
    }
    return out;
}

bool ParseState(const std::string &s, JobState &out) {
    for (JobState st : {JobState::kQueued, JobState::kRunning, JobState::kStopped, JobState::kDone, JobState::kGone})
        if (s == JobStateName(st)) {
            out = st;
            return true;
        }
    return false;
}

std::string Format(const PropagationJob &j) {
    char buf[512];
    std::snprintf(buf, sizeof buf,
                  "dev=%" PRIu64 "\nino=%" PRIu64 "\nseq=%" PRIu64 "\nstate=%s\nvisited=%" PRIu64
                  "\nrewritten=%" PRIu64 "\nfailed=%" PRIu64 "\nbeyond_depth=%" PRIu64 "\nresume=%" PRId64
                  "\npid=%" PRId64 "\nstarttime=%" PRIu64 "\n",
                  j.dev, j.ino, j.seq, JobStateName(j.state), j.visited, j.rewritten, j.failed, j.beyondDepth,
                  j.resume, j.pid, j.startTime);
    return std::string(buf) + "check_first=" + (j.checkFirst ? "1" : "0") + "\npath=" + Escape(j.path) +
           "\ncurrent=" + Escape(j.current) + "\n";
}

bool Parse(const std::string &text, PropagationJob &j) {
    bool haveDev = false, haveIno = false, haveState = false, havePath = false;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        const size_t eq = line.find('=');
        if (eq == std::string::npos) return false;
        const std::string k = line.substr(0, eq), v = line.substr(eq + 1);
        auto u = [&v](uint64_t &out) {
            char *e = nullptr;
            errno = 0;
            out = std::strtoull(v.c_str(), &e, 10);
            return !v.empty() && errno == 0 && *e == '\0';
        };
        auto s = [&v](int64_t &out) {
            char *e = nullptr;
            errno = 0;
            out = std::strtoll(v.c_str(), &e, 10);
            return !v.empty() && errno == 0 && *e == '\0';
        };
        bool ok = true;
        if (k == "dev") ok = haveDev = u(j.dev);
        else if (k == "ino") ok = haveIno = u(j.ino);
        else if (k == "seq") ok = u(j.seq);
        else if (k == "state") ok = haveState = ParseState(v, j.state);
        else if (k == "visited") ok = u(j.visited);
        else if (k == "rewritten") ok = u(j.rewritten);
        else if (k == "failed") ok = u(j.failed);
        else if (k == "beyond_depth") ok = u(j.beyondDepth);
        else if (k == "resume") ok = s(j.resume);
        else if (k == "pid") ok = s(j.pid);
        else if (k == "starttime") ok = u(j.startTime);
        else if (k == "check_first") { ok = v == "0" || v == "1"; j.checkFirst = v == "1"; }
        else if (k == "path") { j.path = Unescape(v); havePath = !j.path.empty(); }
        else if (k == "current") j.current = Unescape(v);
        if (!ok) return false;
    }
    return haveDev && haveIno && haveState && havePath;
}

OwnedFd OpenSubdir(int parent, const char *name, mode_t mode) {
    if (Sys().mkdirat(parent, name, mode) != 0 && errno != EEXIST) return OwnedFd();
    return OwnedFd(Sys().openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
}

} // namespace

const char *JobStateName(JobState s) {
    switch (s) {
    case JobState::kQueued: return "queued";
    case JobState::kRunning: return "running";
    case JobState::kStopped: return "stopped";
    case JobState::kDone: return "done";
    case JobState::kGone: return "gone";
    }
    return "queued";
}

std::string PropagationJob::Key() const {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%" PRIx64 "-%" PRIx64, dev, ino);
    return buf;
}

bool JobDir::Open() {
    kova_internal::RootScope root;
    if (!root.ok()) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    OwnedFd base(Sys().openat(AT_FDCWD, KLIBCRootGet(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0));
    OwnedFd var = base.get() < 0 ? OwnedFd() : OpenSubdir(base.get(), "var", 0755);
    OwnedFd run = var.get() < 0 ? OwnedFd() : OpenSubdir(var.get(), "run", 0755);
    OwnedFd dir = run.get() < 0 ? OwnedFd() : OpenSubdir(run.get(), "propagation", 0700);
    struct stat st;
    if (dir.get() < 0 || Sys().fstat(dir.get(), &st) != 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    // Records name folders and their progress: root's alone.
    if (((st.st_uid != 0 || st.st_gid != 0) && Sys().fchownat(dir.get(), "", 0, 0, AT_EMPTY_PATH) != 0) ||
        ((st.st_mode & 07777) != 0700 && Sys().fchmod(dir.get(), 0700) != 0)) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    fd_ = std::move(dir);
    return true;
}

bool JobDir::WriteText(const std::string &name, const std::string &text) const {
    kova_internal::RootScope root;
    if (!root.ok() || fd_.get() < 0) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return false;
    }
    static std::atomic<unsigned> counter{0};
    const std::string tmp = "." + name + ".tmp." + std::to_string(getpid()) + "." + std::to_string(counter++);
    const int fd = Sys().openat(fd_.get(), tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        KOVA_FAIL(KOVA_ERR_IO);
        return false;
    }
    size_t done = 0;
    bool ok = true;
    while (ok && done < text.size()) {
        const ssize_t n = Sys().write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        ok = n > 0;
        if (ok) done += static_cast<size_t>(n);
    }
    if (Sys().close(fd) != 0) ok = false;
    if (ok && Sys().renameat(fd_.get(), tmp.c_str(), fd_.get(), name.c_str()) != 0) ok = false;
    if (!ok) {
        Sys().unlinkat(fd_.get(), tmp.c_str(), 0);
        KOVA_FAIL(KOVA_ERR_IO);
    }
    return ok;
}

int JobDir::ReadText(const std::string &name, std::string &text) const {
    kova_internal::RootScope root;
    if (!root.ok() || fd_.get() < 0) {
        KOVA_FAIL(KOVA_ERR_PERM);
        return -1;
    }
    OwnedFd fd(Sys().openat(fd_.get(), name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0));
    if (fd.get() < 0) {
        if (errno == ENOENT) return 0;
        KOVA_FAIL(KOVA_ERR_IO);
        return -1;
    }
    struct stat st;
    if (Sys().fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) {
        KOVA_FAIL(KOVA_ERR_CORRUPT);
        return -1;
    }
    text.clear();
    char buf[4096];
    for (;;) {
        const ssize_t n = Sys().read(fd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            KOVA_FAIL(KOVA_ERR_IO);
            return -1;
        }
        if (n == 0) return 1;
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > kMaxText) {
            KOVA_FAIL(KOVA_ERR_CORRUPT);
            return -1;
        }
    }
}

bool JobDir::Write(const PropagationJob &job) const { return WriteText(job.Key(), Format(job)); }

int JobDir::Read(const std::string &key, PropagationJob &job) const {
    std::string text;
    const int rc = ReadText(key, text);
    if (rc <= 0) return rc;
    job = PropagationJob();
    if (!Parse(text, job) || job.Key() != key) {
        KOVA_FAIL(KOVA_ERR_CORRUPT);
        return -1;
    }
    return 1;
}

bool JobDir::Remove(const std::string &key) const {
    kova_internal::RootScope root;
    if (!root.ok()) return false;
    return Sys().unlinkat(fd_.get(), key.c_str(), 0) == 0 || errno == ENOENT;
}

bool JobDir::List(std::vector<PropagationJob> &jobs) const {
    jobs.clear();
    std::vector<std::string> names;
    {
        kova_internal::RootScope root;
        const int dup = root.ok() ? Sys().openat(fd_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0) : -1;
        DIR *d = dup < 0 ? nullptr : Sys().fdopendir(dup);
        if (!d) {
            if (dup >= 0) Sys().close(dup);
            KOVA_FAIL(KOVA_ERR_IO);
            return false;
        }
        while (struct dirent64 *e = Sys().readdir64(d))
            if (e->d_name[0] != '.' && std::strcmp(e->d_name, kRunner) != 0) names.push_back(e->d_name);
        Sys().closedir(d);
    }
    for (const std::string &n : names) {
        PropagationJob j;
        // A record removed meanwhile, or one that is not ours, is passed over.
        if (Read(n, j) == 1) jobs.push_back(j);
    }
    return true;
}

int JobDir::ReadRunner(pid_t &pid, unsigned long long &startTime) const {
    std::string text;
    const int rc = ReadText(kRunner, text);
    if (rc <= 0) return rc;
    long long p = 0;
    unsigned long long s = 0;
    if (std::sscanf(text.c_str(), "pid=%lld\nstarttime=%llu", &p, &s) != 2) return 0;
    pid = static_cast<pid_t>(p);
    startTime = s;
    return 1;
}

bool JobDir::WriteRunner(pid_t pid, unsigned long long startTime) const {
    return WriteText(kRunner, "pid=" + std::to_string(pid) + "\nstarttime=" + std::to_string(startTime) + "\n");
}

bool JobDir::RemoveRunner() const { return Remove(kRunner); }

JobLock::JobLock(const JobDir &dir) : threads_(gThreads) {
    kova_internal::RootScope root;
    if (!root.ok()) return;
    file_ = OwnedFd(Sys().openat(dir.fd(), ".lock", O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (file_.get() < 0) return;
    struct flock fl = {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    int rc;
    do {
        rc = Sys().fcntl_lock(file_.get(), F_SETLKW, &fl);
    } while (rc != 0 && errno == EINTR);
    ok_ = rc == 0;
    if (!ok_) KOVA_FAIL(KOVA_ERR_IO);
}

void JobLock::ResetAfterFork() { new (&gThreads) std::mutex(); }

JobLock::~JobLock() {
    if (!ok_) return;
    struct flock fl = {};
    fl.l_type = F_UNLCK;
    fl.l_whence = SEEK_SET;
    (void)Sys().fcntl_lock(file_.get(), F_SETLK, &fl);
}

bool ListPropagations(std::vector<PropagationJob> &jobs) {
    JobDir dir;
    return dir.Open() && dir.List(jobs);
}

} // namespace kova_acl
