// Following a task's sets below a held folder (see walk-coverage.h).
#include "walk-coverage.h"

#include "kova-internal/identity.h"
#include "kova-internal/sys-calls.h"

#include <dirent.h>
#include <fcntl.h>
#include <sodium.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

namespace kova_acl {

namespace {

using kova_internal::OwnedFd;
using kova_internal::Sys;

struct Ident {
    uint64_t dev = 0, ino = 0;
    bool operator==(const Ident &o) const { return dev == o.dev && ino == o.ino; }
};

Ident IdentOf(const struct stat &st) { return {static_cast<uint64_t>(st.st_dev), static_cast<uint64_t>(st.st_ino)}; }

struct PendingFolder {
    Ident id;
    std::string name;
};

// One folder being walked.
struct Frame {
    Ident id;
    OwnedFd fd;                  // open for listing
    bool viaKept = false;        // last met as the thread's kept folder (target.h) ...
    uint64_t generation = 0;     // ... of this generation
    uint64_t count = 0;          // files and folders set in it
    uint64_t sum = 0;            // hash sum of their names
    std::vector<PendingFolder> pending;  // sub-folders set, not entered yet
};

struct Proof {
    bool active = false;
    bool ok = false;
    Ident root;
    std::vector<Frame> stack;
    unsigned char key[crypto_shorthash_KEYBYTES];
};

std::mutex gMutex;
Proof gProof;

// The entry's name and inode: a file renamed over one the task set keeps
// the name but not the inode, and its projection is not the task's.
uint64_t EntryHash(const Proof &p, const char *name, uint64_t ino) {
    unsigned char in[NAME_MAX + 1 + sizeof ino];
    const size_t len = std::min<size_t>(std::strlen(name), NAME_MAX);
    std::memcpy(in, name, len);
    in[len] = '\0';
    std::memcpy(in + len + 1, &ino, sizeof ino);
    unsigned char out[crypto_shorthash_BYTES];
    crypto_shorthash(out, in, len + 1 + sizeof ino, p.key);
    uint64_t h;
    std::memcpy(&h, out, sizeof h);
    return h;
}

void Fail(Proof &p) {
    p.ok = false;
    p.stack.clear();
}

bool Countable(mode_t m) { return S_ISREG(m) || S_ISDIR(m); }

// The files and folders a folder holds now (its platform folder left out,
// as every walk leaves it): how many and their hash sum.
bool ListFolder(const Proof &p, int fd, uint64_t &count, uint64_t &sum) {
    const int dup = Sys().openat(fd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (dup < 0) return false;
    DIR *d = Sys().fdopendir(dup);
    if (!d) {
        Sys().close(dup);
        return false;
    }
    count = sum = 0;
    bool ok = true;
    errno = 0;
    while (struct dirent64 *e = Sys().readdir64(d)) {
        const char *n = e->d_name;
        if ((n[0] == '.' && (n[1] == '\0' || (n[1] == '.' && n[2] == '\0'))) || std::strcmp(n, "@kova_attr") == 0)
            continue;
        bool countable = e->d_type == DT_REG || e->d_type == DT_DIR;
        if (e->d_type == DT_UNKNOWN) {
            struct stat st;
            if (Sys().fstatat(dirfd(d), n, &st, AT_SYMLINK_NOFOLLOW) != 0) {
                ok = false;
                break;
            }
            countable = Countable(st.st_mode);
        }
        if (countable) {
            ++count;
            sum += EntryHash(p, n, static_cast<uint64_t>(e->d_ino));
        }
        errno = 0;
    }
    if (errno != 0) ok = false;
    Sys().closedir(d);
    return ok;
}

// A folder the sets have left: it holds exactly what was set in it, and
// every sub-folder set but never entered is empty.
bool Complete(const Proof &p, const Frame &f) {
    for (const PendingFolder &sub : f.pending) {
        OwnedFd fd(Sys().openat(f.fd.get(), sub.name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
        struct stat st;
        uint64_t count = 0, sum = 0;
        if (fd.get() < 0 || Sys().fstat(fd.get(), &st) != 0 || !(IdentOf(st) == sub.id) ||
            !ListFolder(p, fd.get(), count, sum) || count != 0)
            return false;
    }
    uint64_t count = 0, sum = 0;
    return ListFolder(p, f.fd.get(), count, sum) && count == f.count && sum == f.sum;
}

void Pop(Proof &p) {
    Frame f = std::move(p.stack.back());
    p.stack.pop_back();
    if (!Complete(p, f)) Fail(p);
}

// The frame of the folder t was set in, entering or leaving folders as the
// sets go; null (and the proof failed) when it is none of the walk's.
Frame *FrameOf(Proof &p, const Target &t) {
    uint64_t generation = 0;
    const bool viaKept = IsKeptFolder(t.parent.get(), generation);
    Frame *top = &p.stack.back();
    if (viaKept && top->viaKept && top->generation == generation) return top;
    struct stat st;
    if (Sys().fstat(t.parent.get(), &st) != 0) {
        Fail(p);
        return nullptr;
    }
    const Ident folder = IdentOf(st);
    if (!(folder == top->id)) {
        size_t i = 0;
        while (i < top->pending.size() && !(top->pending[i].id == folder)) ++i;
        if (i < top->pending.size()) {
            // A sub-folder set in the top one, entered now.
            Frame f;
            f.id = folder;
            f.fd = OwnedFd(Sys().openat(t.parent.get(), ".", O_PATH | O_DIRECTORY | O_CLOEXEC, 0));
            if (f.fd.get() < 0 || p.stack.size() >= kMaxCoverageDepth) {
                Fail(p);
                return nullptr;
            }
            top->pending.erase(top->pending.begin() + static_cast<std::ptrdiff_t>(i));
            p.stack.push_back(std::move(f));
        } else {
            // A folder further up: those below it are done.
            size_t level = p.stack.size();
            for (size_t j = 0; j < p.stack.size(); ++j)
                if (p.stack[j].id == folder) level = j;
            if (level == p.stack.size()) {
                Fail(p);
                return nullptr;
            }
            while (p.ok && p.stack.size() > level + 1) Pop(p);
            if (!p.ok) return nullptr;
        }
        top = &p.stack.back();
    }
    top->viaKept = viaKept;
    top->generation = generation;
    return top;
}

} // namespace

void CoverageStart(const Target &t) {
    std::lock_guard<std::mutex> g(gMutex);
    Proof &p = gProof;
    if (p.active) {
        Fail(p);
        return;
    }
    if (sodium_init() < 0) return;
    crypto_shorthash_keygen(p.key);
    p.active = true;
    p.ok = false;
    p.stack.clear();
    if (!t.hasStat || !t.IsDir() || t.name.empty()) return;
    Frame f;
    f.id = IdentOf(t.st);
    f.fd = OwnedFd(Sys().openat(t.parent.get(), t.name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
    struct stat st;
    if (f.fd.get() < 0 || Sys().fstat(f.fd.get(), &st) != 0 || !(IdentOf(st) == f.id)) return;
    p.root = f.id;
    p.ok = true;
    p.stack.push_back(std::move(f));
}

void CoverageNote(const Target &t) {
    std::lock_guard<std::mutex> g(gMutex);
    Proof &p = gProof;
    if (!p.active || !p.ok) return;
    if (!t.hasStat || t.name.empty()) {
        Fail(p);
        return;
    }
    // Links and special files carry no projection: no walk rewrites them.
    if (!Countable(t.st.st_mode)) return;
    Frame *f = FrameOf(p, t);
    if (!f) return;
    ++f->count;
    f->sum += EntryHash(p, t.name.c_str(), static_cast<uint64_t>(t.st.st_ino));
    if (t.IsDir()) {
        if (f->pending.size() >= kMaxPendingFolders) {
            Fail(p);
            return;
        }
        f->pending.push_back({IdentOf(t.st), t.name});
    }
}

bool CoverageProven(uint64_t dev, uint64_t ino) {
    std::lock_guard<std::mutex> g(gMutex);
    Proof &p = gProof;
    if (!p.active) return false;
    {
        // The folders left are listed as root: the task's own ids may have
        // changed since its walk listed them.
        kova_internal::RootScope root;
        if (!root.ok()) Fail(p);
        while (p.ok && !p.stack.empty()) Pop(p);
    }
    const bool proven = p.ok && p.root.dev == dev && p.root.ino == ino;
    p.active = false;
    p.ok = false;
    p.stack.clear();
    return proven;
}

} // namespace kova_acl
