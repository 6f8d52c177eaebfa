// The kept copy of what a folder passes down (see passdown-cache.h).
#include "passdown-cache.h"

#include "acl-record.h"
#include "entry-attr.h"
#include "inherit.h"

#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace kova_acl {

namespace {

using kova_internal::Sys;

// A folder as it was when the copy was made.
struct Stamp {
    dev_t dev = 0;
    ino_t ino = 0;
    struct timespec ctime = {0, 0};

    bool Take(int fd) {
        struct stat st;
        if (Sys().fstat(fd, &st) != 0) return false;
        dev = st.st_dev;
        ino = st.st_ino;
        ctime = st.st_ctim;
        return true;
    }
    bool Same(int fd) const {
        Stamp now;
        return now.Take(fd) && now.dev == dev && now.ino == ino && now.ctime.tv_sec == ctime.tv_sec &&
               now.ctime.tv_nsec == ctime.tv_nsec;
    }
};

// The folder's raw record; empty when it has none. False when it cannot
// be read (the copy is then not used).
bool RawRecord(int dirFd, std::string &out) {
    char buf[kMaxRecordSize + 1];
    const ssize_t n = GetEntryAttr(dirFd, "", kAttrName, buf, sizeof buf);
    if (n < 0) {
        out.clear();
        return errno == ENODATA || errno == ENOTSUP;
    }
    out.assign(buf, static_cast<size_t>(n));
    return true;
}

struct Kept {
    bool valid = false;
    std::string folder;     // the folder's path as judged (the levels depend on it)
    std::string shareRoot;
    bool inShare = false;
    std::string record;     // the folder's own record, raw
    Stamp stamp;            // the folder itself
    bool viaKept = false;   // made through the kept folder (target.h) ...
    uint64_t generation = 0;  // ... of this generation
    bool have[2] = {false, false};  // inherited[isDir] is filled
    std::vector<Ace> inherited[2];
};

thread_local Kept tKept;

std::string FolderOf(const Target &t) { return ParentOf(t.path); }

// The copy still holds when the entry is named in the same folder, judged
// the same way, and the folder's own record is still what the copy was
// made from. The folder is identified by its descriptor: the one the copy
// was made through (the thread's kept folder, of one generation) names the
// same object for as long as it is kept, so only another descriptor needs
// a look at the object.
bool StillValid(const Target &t) {
    const Kept &k = tKept;
    if (!k.valid || k.inShare != t.inShare || k.shareRoot != t.shareRoot || k.folder != FolderOf(t)) return false;
    uint64_t generation = 0;
    const bool viaKept = IsKeptFolder(t.parent.get(), generation);
    if (!(viaKept && k.viaKept && generation == k.generation) && !k.stamp.Same(t.parent.get())) return false;
    std::string now;
    return RawRecord(t.parent.get(), now) && now == k.record;
}

// A new copy for t's folder: its identity and record are taken before
// anything is read through them, so a change made meanwhile shows on the
// next check. Holds no descriptor of its own. False when the folder
// cannot be looked at.
bool Rebuild(const Target &t) {
    tKept = Kept();
    Kept k;
    k.folder = FolderOf(t);
    k.shareRoot = t.shareRoot;
    k.inShare = t.inShare;
    if (!k.stamp.Take(t.parent.get()) || !RawRecord(t.parent.get(), k.record)) return false;
    k.viaKept = IsKeptFolder(t.parent.get(), k.generation);
    k.valid = true;
    tKept = std::move(k);
    return true;
}

} // namespace

bool CollectInheritedKept(const Target &t, std::vector<Ace> &out) {
    if (t.name.empty() || !t.hasStat) return CollectInherited(t, out);
    const int kind = t.IsDir() ? 1 : 0;
    if (!StillValid(t) && !Rebuild(t)) {
        tKept = Kept();
        return CollectInherited(t, out);
    }
    Kept &k = tKept;
    if (!k.have[kind]) {
        std::vector<Ace> found;
        if (!CollectInherited(t, found)) {
            tKept = Kept();
            return false;
        }
        k.inherited[kind].swap(found);
        k.have[kind] = true;
    }
    out.insert(out.end(), k.inherited[kind].begin(), k.inherited[kind].end());
    return true;
}

void ForgetPassDown() { tKept = Kept(); }

} // namespace kova_acl
