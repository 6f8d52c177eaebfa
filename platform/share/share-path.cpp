// Which share holds a path. The path is canonicalised first (links and ".."
// resolved) so that no path reaches outside its share by a link or "..":
// a path written below a share root whose real location is elsewhere is
// refused with KOVA_ERR_BADPATH instead of being attributed to any share.
#include "kova/share.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "share-db.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::string StripTrailingSlashes(std::string p) {
    while (p.size() > 1 && p.back() == '/') p.pop_back();
    return p;
}

bool RealPath(const std::string &p, std::string &out, int &err) {
    char *r = realpath(p.c_str(), nullptr);
    if (!r) {
        err = errno;
        return false;
    }
    out = r;
    std::free(r);
    return true;
}

// realpath of the whole path; when only the final component is missing, the
// real parent plus that name. False with the last error set.
bool Canonicalise(const std::string &raw, std::string &out) {
    std::string p = StripTrailingSlashes(raw);
    int err = 0;
    if (RealPath(p, out, err)) return true;
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
    std::string realParent;
    if (!RealPath(parent, realParent, err)) {
        KOVA_FAIL(err == ENOENT ? KOVA_ERR_NOENT : err == EACCES ? KOVA_ERR_PERM : KOVA_ERR_BADPATH);
        return false;
    }
    out = realParent == "/" ? "/" + name : realParent + "/" + name;
    return true;
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

// A share's root as it is on disk now (stored paths are real when written,
// but a root may be recorded by another tool).
std::string RootOf(const KOVA_SHARE &s) {
    std::string stored = StripTrailingSlashes(s.szPath), real;
    int err = 0;
    return RealPath(stored, real, err) ? real : stored;
}

bool UnderRoot(const std::string &path, const std::string &root) {
    if (root == "/") return true;
    return path.compare(0, root.size(), root) == 0 && (path.size() == root.size() || path[root.size()] == '/');
}

// Index of the share whose root is the longest prefix of path, or -1.
int LongestMatch(const std::vector<KOVA_SHARE> &shares, const std::string &path) {
    int best = -1;
    size_t bestLen = 0;
    for (size_t i = 0; i < shares.size(); ++i) {
        std::string root = RootOf(shares[i]);
        if (!UnderRoot(path, root)) continue;
        if (best < 0 || root.size() > bestLen) {
            best = static_cast<int>(i);
            bestLen = root.size();
        }
    }
    return best;
}

} // namespace

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
    std::string canonical;
    if (!Canonicalise(raw, canonical)) return -1;

    kova_internal::Database db;
    std::vector<KOVA_SHARE> shares;
    if (!kova_share::OpenShareDb(db, false) || !kova_share::LoadAllShares(db, shares)) return -1;

    int lexical = LongestMatch(shares, CollapseDots(raw));
    int real = LongestMatch(shares, canonical);
    if (lexical >= 0 && !UnderRoot(canonical, RootOf(shares[static_cast<size_t>(lexical)]))) {
        // Written inside a share but resolving elsewhere: an escape.
        KOVA_FAIL(KOVA_ERR_BADPATH);
        return -1;
    }
    if (real < 0) {
        KOVA_FAIL(KOVA_ERR_NOSHARE);
        return -1;
    }
    const KOVA_SHARE &s = shares[static_cast<size_t>(real)];
    std::string root = RootOf(s);
    if ((szName && !kova_share::CopyText(szName, static_cast<size_t>(cbName), s.szName)) ||
        (szSharePath && !kova_share::CopyText(szSharePath, static_cast<size_t>(cbSharePath), root))) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    return 0;
}
