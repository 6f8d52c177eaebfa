// The per-thread share table (rules in share-cache.h).
#include "share-cache.h"

#include "kova-internal/paths.h"
#include "kova-internal/real-path.h"
#include "kova-internal/traverse-scope.h"
#include "share-db.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/owned-fd.h"
#include "kova-internal/sys-calls.h"
#include "kova-internal/task-end.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <climits>

namespace kova_share {

namespace {

using kova_internal::OwnedFd;
using kova_internal::Sys;

// Bumped by every write of this process; a table read under an older value
// is stale.
std::atomic<unsigned long> gGeneration{0};

// A modification this recent may share its timestamp with a later one.
const long long kSettleNs = 2000000000LL;

// A background task looks at the database file at most this often: its
// walk asks for the table once per entry, and two fstat calls each time
// were a tenth of a recursive set's cost. Another process's change thus
// reaches a running task within this time (share-cache.h).
const long long kTaskRecheckNs = 100000000LL;

long long Ns(const struct timespec &ts) { return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec; }

// What one fstat says about a file, as far as freshness goes.
struct FileKey {
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    long long mtimeNs = 0, ctimeNs = 0;

    explicit FileKey(const struct stat &st)
        : dev(st.st_dev), ino(st.st_ino), size(st.st_size), mtimeNs(Ns(st.st_mtim)), ctimeNs(Ns(st.st_ctim)) {}
    FileKey() = default;
    bool operator==(const FileKey &o) const {
        return dev == o.dev && ino == o.ino && size == o.size && mtimeNs == o.mtimeNs && ctimeNs == o.ctimeNs;
    }
    bool operator!=(const FileKey &o) const { return !(*this == o); }
};

// The database file and the folder that holds it, open, with what fstat
// said of both when the table was read. The file's key moves with every
// write to it in place (SQLite's rollback journal writes the file itself);
// the folder's moves when a file in it is created, renamed or removed:
// the journal of every write, and a database put in place of the old one
// or removed. Two fstat calls thus see what a stat of the path saw,
// without walking the path on every use.
struct DbWatch {
    std::string path;
    // O_PATH: fstat needs no rights on them, and holding them keeps nobody
    // from replacing the files.
    OwnedFd dirFd, dbFd;
    FileKey dir, db;

    // Opens both and takes their keys; false when the database is missing.
    bool Open(const std::string &dbPath) {
        const size_t slash = dbPath.rfind('/');
        const std::string folder = slash == 0 ? "/" : dbPath.substr(0, slash);
        OwnedFd d(Sys().openat(AT_FDCWD, folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC, 0));
        if (d.get() < 0) return false;
        OwnedFd f(Sys().openat(d.get(), dbPath.c_str() + slash + 1, O_PATH | O_NOFOLLOW | O_CLOEXEC, 0));
        struct stat ds, fs;
        if (f.get() < 0 || Sys().fstat(d.get(), &ds) != 0 || Sys().fstat(f.get(), &fs) != 0 || !S_ISREG(fs.st_mode))
            return false;
        path = dbPath;
        dirFd = std::move(d);
        dbFd = std::move(f);
        dir = FileKey(ds);
        db = FileKey(fs);
        return true;
    }
    // Nothing in the folder or the file changed since Open.
    bool Unchanged(const char *dbPath) const {
        struct stat ds, fs;
        return dbFd.get() >= 0 && path == dbPath && Sys().fstat(dirFd.get(), &ds) == 0 && FileKey(ds) == dir &&
               Sys().fstat(dbFd.get(), &fs) == 0 && FileKey(fs) == db;
    }
    // The newest modification either key records.
    long long LastChangeNs() const { return std::max(std::max(dir.mtimeNs, dir.ctimeNs), std::max(db.mtimeNs, db.ctimeNs)); }
};

// One thread's table and the state of the database file it was read from.
struct Cache {
    bool valid = false;
    DbWatch watch;
    unsigned long generation = 0;
    long long checkedNs = 0;  // CLOCK_MONOTONIC_COARSE of the last look at the file
    std::shared_ptr<const ShareRoots> roots;

    void Drop() {
        valid = false;
        watch = DbWatch();
        roots.reset();
    }
};

thread_local Cache tCache;

// The root directory at the stored path now: a real folder, no link on the
// way. A link put at the root's path, or at a folder above it, holds
// nothing; nor does a root that is missing. Whether the caller may search
// the folders above it does not count (TraverseScope): the table is kept
// per thread and serves every identity that thread takes on.
bool OpenRoot(const ShareRoot &r, struct stat &st) {
    kova_internal::TraverseScope raised;
    int fd = -1;
    if (kova_internal::OpenWithoutLinks(r.stored, O_DIRECTORY, &fd) != 0) return false;
    OwnedFd root(fd);
    return Sys().fstat(root.get(), &st) == 0;
}

void Locate(ShareRoot &r) {
    struct stat st;
    r.exists = OpenRoot(r, st);
    r.dev = r.exists ? st.st_dev : 0;
    r.ino = r.exists ? st.st_ino : 0;
    r.real = r.stored;
    r.watch = !r.exists;
}

bool StillThere(const ShareRoot &r) {
    if (!r.watch) return true;
    struct stat st;
    const bool exists = OpenRoot(r, st);
    if (exists != r.exists) return false;
    return !exists || (st.st_dev == r.dev && st.st_ino == r.ino);
}

bool ReadTable(ShareRoots &out) {
    kova_internal::Database db;
    std::vector<KOVA_SHARE> shares;
    if (!OpenShareDb(db, false) || !LoadAllShares(db, shares)) return false;
    out.clear();
    out.reserve(shares.size());
    for (const KOVA_SHARE &s : shares) {
        ShareRoot r;
        r.name = s.szName;
        r.stored = kova_internal::StripTrailingSlashes(s.szPath);
        Locate(r);
        out.push_back(std::move(r));
    }
    return true;
}

} // namespace

void ShareTableChanged() { gGeneration.fetch_add(1); }

bool CurrentShareRoots(std::shared_ptr<const ShareRoots> &out) {
    char buf[PATH_MAX];
    if (KLIBCRootPath("/etc/shares.db", buf, sizeof buf) < 0) return false;
    const unsigned long generation = gGeneration.load();

    struct timespec mono;
    clock_gettime(CLOCK_MONOTONIC_COARSE, &mono);
    const bool recent = tCache.valid && kova_internal::InTaskProcess() && Ns(mono) - tCache.checkedNs < kTaskRecheckNs;
    if (!tCache.valid || generation != tCache.generation || (!recent && !tCache.watch.Unchanged(buf))) {
        tCache.Drop();
        // The keys are taken before the table is read: a write that lands
        // in between leaves the table newer than the keys, which only costs
        // one more read.
        DbWatch watch;
        if (!watch.Open(buf)) {
            KOVA_FAIL(KOVA_ERR_NOSHARE);
            return false;
        }
        auto fresh = std::make_shared<ShareRoots>();
        if (!ReadTable(*fresh)) return false;
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        if (Ns(now) - watch.LastChangeNs() >= kSettleNs) {
            tCache.valid = true;
            tCache.watch = std::move(watch);
            tCache.generation = generation;
            tCache.roots = fresh;
            tCache.checkedNs = Ns(mono);
        }
        out = fresh;
        return true;
    }

    if (!recent) tCache.checkedNs = Ns(mono);
    bool moved = false;
    for (const ShareRoot &r : *tCache.roots)
        if (!StillThere(r)) moved = true;
    if (moved) {
        auto relocated = std::make_shared<ShareRoots>(*tCache.roots);
        for (ShareRoot &r : *relocated)
            if (!StillThere(r)) Locate(r);
        tCache.roots = relocated;
    }
    out = tCache.roots;
    return true;
}

} // namespace kova_share
