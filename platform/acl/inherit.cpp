// Inheritance resolution (rules in inherit.h).
#include "inherit.h"

#include "acl-store.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/sys-calls.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace kova_acl {

namespace {
constexpr uint16_t kF = KOVA_ACL_INHERIT_FILE;
constexpr uint16_t kD = KOVA_ACL_INHERIT_DIR;
constexpr uint16_t kI = KOVA_ACL_INHERIT_ONLY;
constexpr uint16_t kN = KOVA_ACL_INHERIT_NO_PROPAGATE;
} // namespace

bool PassDown(const Ace &e, bool childIsDir, Ace &copy) {
    const bool f = e.inherit & kF, d = e.inherit & kD, n = e.inherit & kN;
    copy = e;
    if (!childIsDir) {
        if (!f) return false;
        copy.inherit = static_cast<uint16_t>(e.inherit & ~kI);
    } else if (d) {
        copy.inherit = static_cast<uint16_t>(e.inherit & ~kI);
    } else if (f && !n) {
        copy.inherit = static_cast<uint16_t>(e.inherit | kI);
    } else {
        return false;
    }
    if (n) copy.inherit = static_cast<uint16_t>(copy.inherit & ~(kF | kD));
    return true;
}

namespace {

// The folder above dirFd, found through the descriptor (".." is never a link).
OwnedFd OpenParentOf(int dirFd) {
    return OwnedFd(kova_internal::Sys().openat(dirFd, "..", O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC, 0));
}

// How many folders above t the walk may visit: up to its share root, or up
// to "/" outside every share, as t's path was judged.
size_t AncestorsOf(const Target &t) {
    if (t.path == "/") return 0;
    const size_t from = t.inShare && t.shareRoot != "/" ? t.shareRoot.size() : 0;
    return static_cast<size_t>(std::count(t.path.begin() + static_cast<std::ptrdiff_t>(from), t.path.end(), '/'));
}

// The share root as its device and inode, asked once per walk (from the
// share table's real root path: only an administrator places it), and
// whether a folder of the walk is it.
class ShareRootId {
public:
    explicit ShareRootId(const std::string &root) : root_(root) {}
    // False with the last error set when either cannot be asked.
    bool Is(int fd, bool &is) {
        struct stat st;
        if ((!known_ && kova_internal::Sys().fstatat(AT_FDCWD, root_.c_str(), &want_, 0) != 0) ||
            kova_internal::Sys().fstat(fd, &st) != 0) {
            KOVA_FAIL(KOVA_ERR_IO);
            return false;
        }
        known_ = true;
        is = st.st_dev == want_.st_dev && st.st_ino == want_.st_ino;
        return true;
    }

private:
    const std::string &root_;
    struct stat want_;
    bool known_ = false;
};

} // namespace

bool CollectInherited(const Target &t, std::vector<Ace> &out) {
    if (t.AtShareRoot()) return true;
    const size_t levels = AncestorsOf(t);
    if (levels == 0) return true;
    ShareRootId root(t.shareRoot);
    // Upwards from the judged entry's own folder through descriptors only:
    // a folder on the way swapped for a link is never read in its place.
    OwnedFd cur = t.name.empty() ? OpenParentOf(t.parent.get()) : OwnedFd::Borrowed(t.parent.get());
    std::vector<Ace> found;
    for (uint32_t level = 1; level <= levels; ++level) {
        if (cur.get() < 0) {
            KOVA_FAIL(errno == ENOENT ? KOVA_ERR_NOENT : KOVA_ERR_IO);
            return false;
        }
        StoredAcl anc;
        bool present = false;
        if (!ReadStoredOfFolder(cur.get(), anc, present)) return false;
        if (!present) break;
        // A folder that contributes is the share root (known by device and
        // inode, wherever the walk meets it: the walk ends there) or lies
        // below it. At the last step it must be the root: a walk that has
        // not met it by then went above it, because the tree moved under
        // the path, and nothing read on the way is used.
        bool atRoot = false;
        if (t.inShare) {
            if (!root.Is(cur.get(), atRoot)) return false;
            if (level == levels && !atRoot) {
                KOVA_FAIL(KOVA_ERR_NOENT);
                return false;
            }
        }
        // Carry each entry down through the folders between the ancestor
        // and the path, then into the path itself.
        for (const Ace &e : anc.entries) {
            Ace carried = e;
            bool reaches = true;
            for (uint32_t step = 1; step <= level && reaches; ++step) {
                bool childIsDir = step < level ? true : t.IsDir();
                Ace next;
                reaches = PassDown(carried, childIsDir, next);
                carried = next;
            }
            if (!reaches) continue;
            carried.level = level;
            found.push_back(carried);
        }
        if (atRoot || level == levels || !anc.inherits) break;
        cur = OpenParentOf(cur.get());
    }
    out.insert(out.end(), found.begin(), found.end());
    return true;
}

} // namespace kova_acl
