// The record lives in one extended attribute; lgetxattr/lsetxattr keep a
// final symbolic link itself as the subject.
#include "acl-store.h"

#include "acl-record.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <sys/xattr.h>

#include <cerrno>
#include <vector>

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

} // namespace

bool ReadStored(const std::string &path, StoredAcl &out, bool &present) {
    present = false;
    // One byte more than the largest valid record: a longer value is corrupt
    // and reads as ERANGE.
    std::vector<char> buf(kMaxRecordSize + 1);
    ssize_t n = lgetxattr(path.c_str(), kAttrName, buf.data(), buf.size());
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
    if (!DecodeRecord(buf.data(), static_cast<size_t>(n), out)) return false;
    present = true;
    return true;
}

bool WriteStored(const std::string &path, const StoredAcl &acl) {
    std::string rec;
    if (!EncodeRecord(acl, rec)) return false;
    if (lsetxattr(path.c_str(), kAttrName, rec.data(), rec.size(), 0) != 0) {
        KOVA_FAIL(WriteError(errno));
        return false;
    }
    return true;
}

bool RemoveStored(const std::string &path) {
    // No attribute, or a file system without attributes: nothing stored.
    if (lremovexattr(path.c_str(), kAttrName) == 0 || errno == ENODATA || errno == ENOTSUP) return true;
    KOVA_FAIL(WriteError(errno));
    return false;
}

} // namespace kova_acl
