// The record lives in one extended attribute; lgetxattr/lsetxattr keep a
// final symbolic link itself as the subject.
#include "acl-store.h"

#include "acl-record.h"
#include "xattr-at.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <sys/xattr.h>

#include <cerrno>

namespace kova_acl {

namespace {

int WriteError(int err) {
    switch (err) {
    case EROFS:
    case ENOSPC:
    case E2BIG:
    case EDQUOT:
    case ERANGE: return KOVA_ERR_ACL_NOSPACE;
    case ENOTSUP: return KOVA_ERR_ACL_NOTSUP;
    case ENOENT:
    case ENOTDIR: return KOVA_ERR_NOENT;
    case EACCES:
    case EPERM: return KOVA_ERR_PERM;
    default: return KOVA_ERR_IO;
    }
}

// Where a record lives: a name in an open folder, or a path.
struct Place {
    int dirFd;
    const char *name;
    const char *path;

    bool At() const { return dirFd >= 0 && XattrAtAvailable(); }
    ssize_t Get(void *buf, size_t size) const {
        return At() ? GetXattrAt(dirFd, name, kAttrName, buf, size) : lgetxattr(path, kAttrName, buf, size);
    }
    int Set(const void *value, size_t size) const {
        return At() ? SetXattrAt(dirFd, name, kAttrName, value, size) : lsetxattr(path, kAttrName, value, size, 0);
    }
    int Remove() const { return At() ? RemoveXattrAt(dirFd, name, kAttrName) : lremovexattr(path, kAttrName); }
};

Place PlaceOf(const std::string &path) { return Place{-1, nullptr, path.c_str()}; }
Place PlaceOf(const Target &t) { return Place{t.parent.get(), t.name.c_str(), t.path.c_str()}; }

bool Read(const Place &where, StoredAcl &out, bool &present) {
    present = false;
    // One byte more than the largest valid record: a longer value is corrupt
    // and reads as ERANGE.
    char buf[kMaxRecordSize + 1];
    ssize_t n = where.Get(buf, sizeof buf);
    if (n < 0) {
        switch (errno) {
        case ENODATA:
        case ENOTSUP: return true;
        case ERANGE: KOVA_FAIL(KOVA_ERR_CORRUPT); return false;
        case ENOENT:
        case ENOTDIR: KOVA_FAIL(KOVA_ERR_NOENT); return false;
        case EACCES:
        case EPERM: KOVA_FAIL(KOVA_ERR_PERM); return false;
        default: KOVA_FAIL(KOVA_ERR_IO); return false;
        }
    }
    if (!DecodeRecord(buf, static_cast<size_t>(n), out)) return false;
    present = true;
    return true;
}

bool Write(const Place &where, const StoredAcl &acl) {
    std::string rec;
    if (!EncodeRecord(acl, rec)) return false;
    if (where.Set(rec.data(), rec.size()) != 0) {
        KOVA_FAIL(WriteError(errno));
        return false;
    }
    return true;
}

bool Remove(const Place &where) {
    // No attribute, or a file system without attributes: nothing stored.
    if (where.Remove() == 0 || errno == ENODATA || errno == ENOTSUP) return true;
    KOVA_FAIL(WriteError(errno));
    return false;
}

} // namespace

bool ReadStored(const std::string &path, StoredAcl &out, bool &present) { return Read(PlaceOf(path), out, present); }
bool WriteStored(const std::string &path, const StoredAcl &acl) { return Write(PlaceOf(path), acl); }
bool RemoveStored(const std::string &path) { return Remove(PlaceOf(path)); }
bool ReadStored(const Target &t, StoredAcl &out, bool &present) { return Read(PlaceOf(t), out, present); }
bool WriteStored(const Target &t, const StoredAcl &acl) { return Write(PlaceOf(t), acl); }
bool RemoveStored(const Target &t) { return Remove(PlaceOf(t)); }

} // namespace kova_acl
