// The share roots of this process, read from the share database once and
// kept until the database changes. KOVAShareNamePathGet runs on every ACL
// call; opening SQLite and reading the table each time dominated it.
//
// Freshness:
// - the database file and its folder are kept open (O_PATH) and fstat-ed
//   on every use; the path (the platform root may change) and the device,
//   inode, size, mtime and ctime (nanoseconds) of both must match those
//   seen when the table was read (a background task, kova-internal/task-end.h,
//   looks at most every 100 ms, so another process's change reaches it
//   within that time). A write changes the file; its journal,
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
// - the table names each share's real root (KOVAShareSet records the real
//   path). A root is opened without following any link (openat2
//   RESOLVE_NO_SYMLINKS): a root whose path is now a symbolic link, or
//   passes through one, holds nothing, so a user who may replace a folder
//   that is (or lies above) a share root cannot move that share elsewhere.
//   A root missing or refused then is checked again on every use and holds
//   its paths again once a real folder is back at its path.
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
    std::string real;      // the root as paths below it are named (the stored path)
    bool exists = false;   // a real folder, no link on the way, stands at the path
    bool watch = false;    // missing or refused when read: check on use
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
