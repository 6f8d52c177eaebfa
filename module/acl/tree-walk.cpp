#include "tree-walk.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace {

const int kOpenDir = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct Identity {
    mode_t mode = 0;
    dev_t dev = 0;
    ino_t ino = 0;
    bool hasMountId = false;
    unsigned long long mountId = 0;
};

// What the entry `name` of `dirFd` is, its link not followed; with an
// empty name, the descriptor itself.
bool Identify(int dirFd, const char *name, Identity &out) {
    struct statx sx;
    const int flags = AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT | (*name ? 0 : AT_EMPTY_PATH);
    if (statx(dirFd, name, flags, STATX_TYPE | STATX_INO | STATX_MNT_ID, &sx) != 0) return false;
    out.mode = sx.stx_mode;
    out.dev = makedev(sx.stx_dev_major, sx.stx_dev_minor);
    out.ino = sx.stx_ino;
    out.hasMountId = (sx.stx_mask & STATX_MNT_ID) != 0;
    out.mountId = sx.stx_mnt_id;
    return true;
}

} // namespace

TreeWalk::TreeWalk(std::string &path) : path_(path) {}

TreeWalk::~TreeWalk() {
    for (Level &level : levels_)
        if (level.dir) closedir(level.dir);
}

TreeWalk::Step TreeWalk::Fail(bool open, int error) {
    openFailed_ = open;
    error_ = error;
    return Step::kFailed;
}

bool TreeWalk::Start() {
    const int fd = open(path_.c_str(), kOpenDir);
    if (fd < 0) {
        Fail(true, errno);
        return false;
    }
    Identity top;
    if (!Identify(fd, "", top)) {
        const int err = errno;
        close(fd);
        Fail(true, err);
        return false;
    }
    dev_ = top.dev;
    haveMountId_ = top.hasMountId;
    mountId_ = top.mountId;
    return Push(fd, top.dev, top.ino);
}

bool TreeWalk::Push(int fd, dev_t dev, ino_t ino) {
    DIR *dir = fdopendir(fd);
    if (!dir) {
        const int err = errno;
        close(fd);
        Fail(true, err);
        return false;
    }
    if (openLevels() >= kMaxOpenLevels) {
        // The shallowest open folder is the one needed last.
        Level &oldest = levels_[firstOpen_];
        oldest.position = telldir(oldest.dir);
        closedir(oldest.dir);
        oldest.dir = nullptr;
        ++firstOpen_;
    }
    levels_.push_back(Level{dir, 0, dev, ino, path_.size()});
    return true;
}

bool TreeWalk::Pop() {
    const size_t child = levels_.size() - 1;
    if (child > 0 && levels_[child - 1].dir == nullptr) {
        // Back through the child's "..": the folder must be the one that
        // was left, not whatever a rename put above the child meanwhile.
        Level &parent = levels_[child - 1];
        path_.resize(parent.prefix);
        const int fd = openat(dirfd(levels_[child].dir), "..", kOpenDir);
        Identity id;
        int err = 0;
        if (fd < 0) {
            err = errno;
        } else if (!Identify(fd, "", id)) {
            err = errno;
        } else if (id.dev != parent.dev || id.ino != parent.ino) {
            err = ESTALE;
        } else if (!(parent.dir = fdopendir(fd))) {
            err = errno;
        }
        if (err != 0) {
            if (fd >= 0) close(fd);
            Fail(true, err);
            return false;
        }
        seekdir(parent.dir, parent.position);
        firstOpen_ = child - 1;
    }
    closedir(levels_[child].dir);
    levels_.pop_back();
    if (firstOpen_ > levels_.size()) firstOpen_ = levels_.size();
    return true;
}

TreeWalk::Step TreeWalk::ReadName(const char *&name) {
    for (;;) {
        if (levels_.empty()) return Step::kEnd;
        Level &current = levels_.back();
        errno = 0;
        struct dirent64 *entry = readdir64(current.dir);
        if (!entry) {
            if (errno != 0) return Fail(false, errno);
            if (!Pop()) return Step::kFailed;
            continue;
        }
        entryType_ = entry->d_type;
        name = entry->d_name;
        path_.resize(current.prefix);
        path_ += '/';
        path_ += name;
        return Step::kEntry;
    }
}

bool TreeWalk::OnThisMount(dev_t dev, bool hasMountId, unsigned long long mountId) const {
    if (dev != dev_) return false;
    return !haveMountId_ || !hasMountId || mountId == mountId_;
}

TreeWalk::Step TreeWalk::Classify(const char *name, Kind &kind, bool &report) {
    report = false;
    const int parentFd = dirfd(levels_.back().dir);
    if (entryType_ == DT_LNK) {
        kind = Kind::kLink;
        report = true;
        return Step::kEntry;
    }
    if (entryType_ != DT_DIR) {
        Identity id;
        if (!Identify(parentFd, name, id)) {
            // A listed entry that is gone by now is simply not there; one
            // whose type the listing did not give must be examinable.
            if (entryType_ != DT_UNKNOWN && errno == ENOENT) return Step::kEntry;
            return Fail(false, errno);
        }
        if (S_ISLNK(id.mode)) {
            kind = Kind::kLink;
            report = true;
            return Step::kEntry;
        }
        if (!S_ISDIR(id.mode)) {
            if (!OnThisMount(id.dev, id.hasMountId, id.mountId)) return Step::kEntry;
            kind = Kind::kPlain;
            report = true;
            return Step::kEntry;
        }
    }
    const int fd = openat(parentFd, name, kOpenDir);
    if (fd < 0) {
        const int err = errno;
        if (err == ENOENT) return Step::kEntry;  // gone since it was listed
        if (err != ENOTDIR && err != ELOOP) return Fail(true, err);
        // No longer a folder (swapped for a link or a file since it was
        // listed): met as what it is now, never entered.
        Identity now;
        if (!Identify(parentFd, name, now)) return errno == ENOENT ? Step::kEntry : Fail(false, errno);
        if (S_ISDIR(now.mode)) return Step::kEntry;  // swapped back and forth: left alone
        kind = S_ISLNK(now.mode) ? Kind::kLink : Kind::kPlain;
        report = kind == Kind::kLink || OnThisMount(now.dev, now.hasMountId, now.mountId);
        return Step::kEntry;
    }
    Identity id;
    if (!Identify(fd, "", id)) {
        const int err = errno;
        close(fd);
        return Fail(false, err);
    }
    if (!OnThisMount(id.dev, id.hasMountId, id.mountId)) {
        close(fd);
        return Step::kEntry;
    }
    if (!Push(fd, id.dev, id.ino)) return Step::kFailed;
    kind = Kind::kDirectory;
    report = true;
    return Step::kEntry;
}
