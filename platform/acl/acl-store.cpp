// The record lives in one extended attribute of the judged entry
// (entry-attr.h); a final symbolic link is itself the subject.
#include "acl-store.h"

#include "acl-record.h"
#include "entry-attr.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <sys/xattr.h>

#include <cerrno>
#include <cstring>

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

// Where a record lives: a name in an open folder (empty: the folder).
struct Place {
    int dirFd;
    const char *name;

    ssize_t Get(void *buf, size_t size) const { return GetEntryAttr(dirFd, name, kAttrName, buf, size); }
    int Set(const void *value, size_t size, int flags = 0) const {
        return SetEntryAttr(dirFd, name, kAttrName, value, size, flags);
    }
    int Remove() const { return RemoveEntryAttr(dirFd, name, kAttrName); }
};

Place PlaceOf(const Target &t) { return Place{t.parent.get(), t.name.c_str()}; }

// One byte more than the largest valid record: a longer value is corrupt
// and reads as ERANGE.
typedef char RecordBuffer[kMaxRecordSize + 1];

// The raw value in buf; n its size when present. False with the last error
// set when the read failed for another reason than "no record".
bool ReadRaw(const Place &where, RecordBuffer &buf, ssize_t &n, bool &present) {
    present = false;
    n = where.Get(buf, sizeof buf);
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
    present = true;
    return true;
}

bool Read(const Place &where, StoredAcl &out, bool &present) {
    RecordBuffer buf;
    ssize_t n = 0;
    if (!ReadRaw(where, buf, n, present)) return false;
    if (!present) return true;
    if (!DecodeRecord(buf, static_cast<size_t>(n), out)) {
        present = false;
        return false;
    }
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

bool KeepingGroupOwner(const Place &where, StoredAcl &next, bool replaceCorrupt, PreviousRecord *previous) {
    PreviousRecord ignored;
    PreviousRecord &prev = previous ? *previous : ignored;
    prev = PreviousRecord();
    next.hasGroupOwner = false;
    next.ownerGid = 0;
    std::string rec;
    if (!EncodeRecord(next, rec)) return false;
    // Most paths have no record yet: creating it is then the whole job, and
    // the kernel refuses the create when one exists. Otherwise the stored
    // record is read for its group owner and rewritten unless it already
    // says the same. A record removed or created by someone else between
    // these steps sends the loop round again; a few rounds are plenty.
    for (int round = 0; round < 8; ++round) {
        if (where.Set(rec.data(), rec.size(), XATTR_CREATE) == 0) return true;
        if (errno != EEXIST) {
            KOVA_FAIL(WriteError(errno));
            return false;
        }
        RecordBuffer buf;
        ssize_t n = 0;
        bool present = false;
        if (!ReadRaw(where, buf, n, present)) return false;
        if (!present) continue;
        StoredAcl cur;
        prev.had = true;
        if (DecodeRecord(buf, static_cast<size_t>(n), cur)) {
            prev.acl = cur;
            if (cur.hasGroupOwner != next.hasGroupOwner || cur.ownerGid != next.ownerGid) {
                next.hasGroupOwner = cur.hasGroupOwner;
                next.ownerGid = cur.ownerGid;
                if (!EncodeRecord(next, rec)) return false;
            }
            if (static_cast<size_t>(n) == rec.size() && std::memcmp(buf, rec.data(), rec.size()) == 0) return true;
        } else if (!replaceCorrupt) {
            return false;
        } else {
            prev.damaged = true;
            // A damaged record has no group owner to keep.
            if (next.hasGroupOwner) {
                next.hasGroupOwner = false;
                next.ownerGid = 0;
                if (!EncodeRecord(next, rec)) return false;
            }
        }
        if (where.Set(rec.data(), rec.size(), XATTR_REPLACE) == 0) return true;
        if (errno != ENODATA) {
            KOVA_FAIL(WriteError(errno));
            return false;
        }
    }
    KOVA_FAIL(KOVA_ERR_IO);
    return false;
}

bool Remove(const Place &where) {
    // No attribute, or a file system without attributes: nothing stored.
    if (where.Remove() == 0 || errno == ENODATA || errno == ENOTSUP) return true;
    KOVA_FAIL(WriteError(errno));
    return false;
}

} // namespace

bool ReadStored(const Target &t, StoredAcl &out, bool &present) { return Read(PlaceOf(t), out, present); }
bool WriteStored(const Target &t, const StoredAcl &acl) { return Write(PlaceOf(t), acl); }
bool RemoveStored(const Target &t) { return Remove(PlaceOf(t)); }
bool ReadStoredOfFolder(int dirFd, StoredAcl &out, bool &present) { return Read(Place{dirFd, ""}, out, present); }
bool WriteStoredKeepingGroupOwner(const Target &t, StoredAcl &next, bool replaceCorrupt, PreviousRecord *previous) {
    return KeepingGroupOwner(PlaceOf(t), next, replaceCorrupt, previous);
}

} // namespace kova_acl
