// The per-thread share table (rules in share-cache.h).
#include "share-cache.h"

#include "real-path.h"
#include "share-db.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <sys/stat.h>
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

// One thread's table and the state of the database file it was read from.
struct Cache {
    bool valid = false;
    DbKey key;
    unsigned long generation = 0;
    std::shared_ptr<const ShareRoots> roots;

    void Drop() {
        valid = false;
        roots.reset();
    }
    // The file at the path is still the one the table was read from: same
    // identity, size and times, and no write of this process since. The
    // path is stat-ed rather than a kept descriptor: a database moved away
    // and another put in its place must be noticed too.
    bool Fresh(const DbKey &now, unsigned long gen) const { return valid && gen == generation && now == key; }
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
    const unsigned long generation = gGeneration.load();
    struct stat st;
    if (stat(buf, &st) != 0) {
        tCache.Drop();
        KOVA_FAIL(KOVA_ERR_NOSHARE);
        return false;
    }
    DbKey key;
    key.path = buf;
    KeyOf(st, key);

    if (!tCache.Fresh(key, generation)) {
        tCache.Drop();
        // The key is taken before the table is read: a write that lands in
        // between leaves the table newer than the key, which only costs one
        // more read.
        auto fresh = std::make_shared<ShareRoots>();
        if (!ReadTable(*fresh)) return false;
        struct timespec now;
        clock_gettime(CLOCK_REALTIME, &now);
        // Content writes move mtime (and ctime with it); ctime alone also
        // moves for metadata changes, and is part of the key for those.
        if (Ns(now) - key.mtimeNs >= kSettleNs) {
            tCache.valid = true;
            tCache.key = key;
            tCache.generation = generation;
            tCache.roots = fresh;
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
