// Which share holds a path. The path is canonicalised first (links and ".."
// resolved) so that no path reaches outside its share by a link or "..":
// a path written below a share root whose real location is elsewhere is
// refused with KOVA_ERR_BADPATH instead of being attributed to any share.
// The share found by the kernel's name is confirmed on descriptors: what
// was opened must be what is reached beneath the share root's descriptor.
#include "kova/share.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/paths.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/owned-fd.h"
#include "kova-internal/sys-calls.h"
#include "kova-internal/real-path.h"
#include "share-cache.h"
#include "share-db.h"
#include "share-lookup.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace {

// What canonicalisation reached: the real path, and a descriptor of the
// object it names (of its folder when only the final component is missing,
// `named` then being that folder's real path).
struct Reached {
    std::string canonical;
    std::string named;
    kova_internal::OwnedFd fd;
};

// The real path of the whole path; when only the final component is
// missing, the real parent plus that name. False with the last error set.
bool Canonicalise(const std::string &raw, Reached &out) {
    std::string p = kova_internal::StripTrailingSlashes(raw);
    int err = kova_internal::RealPathOf(p, out.canonical, out.fd);
    if (err == 0) {
        out.named = out.canonical;
        return true;
    }
    if (err != ENOENT) {
        KOVA_FAIL(err == EACCES ? KOVA_ERR_PERM : KOVA_ERR_BADPATH);
        return false;
    }
    size_t slash = p.rfind('/');
    std::string name = p.substr(slash + 1);
    std::string parent = slash == 0 ? "/" : p.substr(0, slash);
    if (name.empty() || name == "." || name == "..") {
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return false;
    }
    err = kova_internal::RealPathOf(parent, out.named, out.fd);
    if (err != 0) {
        KOVA_FAIL(err == ENOENT ? KOVA_ERR_NOENT : err == EACCES ? KOVA_ERR_PERM : KOVA_ERR_BADPATH);
        return false;
    }
    out.canonical = out.named == "/" ? "/" + name : out.named + "/" + name;
    return true;
}

// The kernel named what it opened below the share's root; the judgement is
// confirmed on descriptors: the same object (device and inode) must be
// reached now beneath a descriptor of the root, opened without links, the
// way openat2(RESOLVE_BENEATH) walks. A folder on the way swapped for a
// link since it was named fails here.
bool ReachedBeneath(const kova_share::ShareRoot &root, const Reached &r) {
    int raw = -1;
    if (kova_internal::OpenWithoutLinks(root.real, O_DIRECTORY, &raw) != 0) return false;
    kova_internal::OwnedFd rootFd(raw);
    std::string rel = r.named.size() > root.real.size() ? r.named.substr(root.real.size()) : std::string();
    while (!rel.empty() && rel[0] == '/') rel.erase(0, 1);
    if (kova_internal::OpenBeneath(rootFd.get(), rel, 0, &raw) != 0) return false;
    kova_internal::OwnedFd below(raw);
    struct stat now, named;
    return kova_internal::Sys().fstat(below.get(), &now) == 0 && kova_internal::Sys().fstat(r.fd.get(), &named) == 0 &&
           now.st_dev == named.st_dev && now.st_ino == named.st_ino;
}

// "/a/./b//c" -> "/a/b/c"; ".." is kept, it is what canonicalisation judges.
std::string CollapseDots(const std::string &p) {
    std::string out;
    size_t pos = 0;
    while (pos < p.size()) {
        size_t next = p.find('/', pos);
        if (next == std::string::npos) next = p.size();
        std::string comp = p.substr(pos, next - pos);
        if (!comp.empty() && comp != ".") out += "/" + comp;
        pos = next + 1;
    }
    return out.empty() ? "/" : out;
}

// Index of the share whose real root is the longest prefix of path, or -1.
// Roots are compared as they are on disk now (stored paths are real when
// written, but a root may be recorded by another tool).
int LongestMatch(const kova_share::ShareRoots &shares, const std::string &path) {
    int best = -1;
    size_t bestLen = 0;
    for (size_t i = 0; i < shares.size(); ++i) {
        const std::string &root = shares[i].real;
        if (!shares[i].exists || !kova_internal::UnderRoot(path, root)) continue;
        if (best < 0 || root.size() > bestLen) {
            best = static_cast<int>(i);
            bestLen = root.size();
        }
    }
    return best;
}

bool Table(std::shared_ptr<const kova_share::ShareRoots> &table) {
    try {
        return kova_share::CurrentShareRoots(table);
    } catch (const std::bad_alloc &) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return false;
    }
}

} // namespace

extern "C" int KOVAShareOfRealPath(const char *szRealPath, char *szName, int cbName, char *szSharePath,
                                   int cbSharePath) {
    // Same fault point as KOVAShareNamePathGet: it is that call's lookup.
    KOVA_FAULT_POINT("KOVAShareNamePathGet", int);
    if (!szRealPath || (szName && cbName <= 0) || (szSharePath && cbSharePath <= 0)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    const std::string real = szRealPath;
    std::shared_ptr<const kova_share::ShareRoots> table;
    if (!Table(table)) return -1;
    const int found = LongestMatch(*table, real);
    if (found < 0) {
        KOVA_FAIL(KOVA_ERR_NOSHARE);
        return -1;
    }
    const kova_share::ShareRoot &s = (*table)[static_cast<size_t>(found)];
    if ((szName && !kova_share::CopyText(szName, static_cast<size_t>(cbName), s.name)) ||
        (szSharePath && !kova_share::CopyText(szSharePath, static_cast<size_t>(cbSharePath), s.real))) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    return 0;
}

extern "C" int KOVAShareNamePathGet(const char *szPath, char *szName, int cbName, char *szSharePath, int cbSharePath) {
    KOVA_FAULT_POINT("KOVAShareNamePathGet", int);
    if (!szPath || !*szPath || (szName && cbName <= 0) || (szSharePath && cbSharePath <= 0)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    std::string raw = szPath;
    if (raw[0] != '/' || raw.size() >= PATH_MAX) {
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return -1;
    }
    Reached reached;
    if (!Canonicalise(raw, reached)) return -1;
    const std::string &canonical = reached.canonical;

    std::shared_ptr<const kova_share::ShareRoots> table;
    if (!Table(table)) return -1;
    const kova_share::ShareRoots &shares = *table;

    int lexical = LongestMatch(shares, CollapseDots(raw));
    int real = LongestMatch(shares, canonical);
    if (lexical >= 0 && !kova_internal::UnderRoot(canonical, shares[static_cast<size_t>(lexical)].real)) {
        // Written inside a share but resolving elsewhere: an escape.
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return -1;
    }
    if (real < 0) {
        KOVA_FAIL(KOVA_ERR_NOSHARE);
        return -1;
    }
    const kova_share::ShareRoot &s = shares[static_cast<size_t>(real)];
    if (!ReachedBeneath(s, reached)) {
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return -1;
    }
    if ((szName && !kova_share::CopyText(szName, static_cast<size_t>(cbName), s.name)) ||
        (szSharePath && !kova_share::CopyText(szSharePath, static_cast<size_t>(cbSharePath), s.real))) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    return 0;
}
