// The share roots of this process, read from the share database once and
// kept until the database changes. KOVAShareNamePathGet runs on every ACL
// call; opening SQLite and reading the table each time dominated it.
//
// Freshness:
// - the database file and its folder are kept open (O_PATH) and fstat-ed
//   on every use; the path (the platform root may change) and the device,
//   inode, size, mtime and ctime (nanoseconds) of both must match those
//   seen when the table was read. A write changes the file; its journal,
//   and a database put in place of the old one or removed, change the
//   folder; so another process's change is seen on the next call. The
//   folder itself is the platform's own configuration folder and is not
//   expected to be replaced while a process runs;
// - a table read less than two seconds after the file or its folder was
//   modified is not kept (a second write inside one timestamp tick could
//   leave size and times unchanged): the next call reads again until they
//   settle;
// - every write through this library (ShareTableChanged) drops the tables
//   of all threads;
// - a root recorded by its real path (what kova-admin and KOVAShareSet
//   callers store) keeps the real path found when the table was read; a
//   root recorded through a link, or missing then, is stat-ed on every use
//   and worked out again when its link now leads elsewhere (a different
//   device and inode) or it appeared or vanished.
// The cache is per thread: no lock, so a fork from any thread is safe.
#ifndef KOVA_SHARE_CACHE_H
#define KOVA_SHARE_CACHE_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <vector>

namespace kova_share {

struct ShareRoot {
    std::string name;
    std::string stored;    // as recorded, trailing slashes removed
    std::string real;      // its real path now (stored when it does not resolve)
    bool exists = false;   // the stored path resolved when real was computed
    bool watch = false;    // recorded through a link, or missing: check on use
    dev_t dev = 0;         // identity of the root directory then
    ino_t ino = 0;
};

typedef std::vector<ShareRoot> ShareRoots;

// The current roots; false with the last error set (KOVA_ERR_NOSHARE when
// there is no database).
bool CurrentShareRoots(std::shared_ptr<const ShareRoots> &out);

// Every cached table is stale; called after each write to the database.
void ShareTableChanged();

} // namespace kova_share

#endif
