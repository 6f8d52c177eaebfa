// The per-thread share table (rules in share-cache.h).
#include "share-cache.h"

#include "real-path.h"
#include "share-db.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <time.h>

#include <atomic>
#include <climits>

namespace kova_share {

namespace {

// Bumped by every write of this process; a table read under an older value
// is stale.
std::atomic<unsigned long> gGeneration{0};

// A modification this recent may share its timestamp with a later one.
const long long kSettleNs = 2000000000LL;

struct DbKey {
    std::string path;
    dev_t dev = 0;
    ino_t ino = 0;
    off_t size = 0;
    long long mtimeNs = 0, ctimeNs = 0;

    bool operator==(const DbKey &o) const {
        return path == o.path && dev == o.dev && ino == o.ino && size == o.size && mtimeNs == o.mtimeNs &&
               ctimeNs == o.ctimeNs;
    }
};

long long Ns(const struct timespec &ts) { return static_cast<long long>(ts.tv_sec) * 1000000000LL + ts.tv_nsec; }

void KeyOf(const struct stat &st, DbKey &key) {
    key.dev = st.st_dev;
    key.ino = st.st_ino;
    key.size = st.st_size;
    key.mtimeNs = Ns(st.st_mtim);
    key.ctimeNs = Ns(st.st_ctim);
}

// One thread's table, with a descriptor of the database file it was read
// from: fstat of that descriptor is the per-call check, without walking the
// database's path again.
struct Cache {
    bool valid = false;
    DbKey key;
    unsigned long generation = 0;
    std::shared_ptr<const ShareRoots> roots;
    int fd = -1;

    Cache() = default;
    Cache(const Cache &) = delete;
    Cache &operator=(const Cache &) = delete;
    ~Cache() { Drop(); }
    void Drop() {
        if (fd >= 0) close(fd);
        fd = -1;
        valid = false;
        roots.reset();
    }
    // The file still is what the table was read from: same path asked for,
    // same identity, size and times, not unlinked or renamed over (its link
    // count would be 0), and no write of this process since.
    bool Fresh(const std::string &path, unsigned long gen) const {
        if (!valid || fd < 0 || gen != generation || path != key.path) return false;
        struct stat st;
        if (fstat(fd, &st) != 0 || st.st_nlink == 0) return false;
        DbKey now;
        now.path = path;
        KeyOf(st, now);
        return now == key;
    }
};

thread_local Cache tCache;

std::string StripTrailingSlashes(std::string p) {
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return p;
}

// Where the stored root leads now.
void Locate(ShareRoot &r) {
    struct stat st;
    r.exists = stat(r.stored.c_str(), &st) == 0;
    r.dev = r.exists ? st.st_dev : 0;
    r.ino = r.exists ? st.st_ino : 0;
    if (!r.exists || RealPathOf(r.stored, r.real) != 0) r.real = r.stored;
    r.watch = !r.exists || r.real != r.stored;
}

bool StillThere(const ShareRoot &r) {
    if (!r.watch) return true;
    struct stat st;
    const bool exists = stat(r.stored.c_str(), &st) == 0;
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
        r.stored = StripTrailingSlashes(s.szPath);
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
    const std::string path = buf;
    const unsigned long generation = gGeneration.load();

    if (!tCache.Fresh(path, generation)) {
        tCache.Drop();
        // The descriptor is opened before the table is read: a write that
        // lands in between leaves the table newer than the key, which only
        // costs one more read.
        int fd = open(buf, O_PATH | O_CLOEXEC);
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0) {
            if (fd >= 0) close(fd);
            KOVA_FAIL(KOVA_ERR_NOSHARE);
            return false;
        }
        auto fresh = std::make_shared<ShareRoots>();
        if (!ReadTable(*fresh)) {
            close(fd);
            return false;
        }
        DbKey key;
        key.path = path;
        KeyOf(st, key);
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        const bool settled = Ns(now) - key.mtimeNs >= kSettleNs && Ns(now) - key.ctimeNs >= kSettleNs;
        if (settled) {
            tCache.valid = true;
            tCache.key = key;
            tCache.generation = generation;
            tCache.roots = fresh;
            tCache.fd = fd;
        } else {
            close(fd);
        }
        out = fresh;
        return true;
    }

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
