// Reading and writing one path's stored ACL record in its extended
// attribute, never following a final symbolic link and never by path. Callers hold root
// (trusted attributes need it) and have already checked the caller's rights.
#ifndef KOVA_ACL_STORE_H
#define KOVA_ACL_STORE_H

#include "ace.h"
#include "target.h"

#include <string>

namespace kova_acl {

// present is false when the path has no record (it is in mode-bit form).
// False with KOVA_ERR_CORRUPT for a malformed record, KOVA_ERR_NOENT for a
// missing path, KOVA_ERR_IO otherwise. The entry is t's judged one
// (target.h), reached through its folder's descriptor.
bool ReadStored(const Target &t, StoredAcl &out, bool &present);

// The same for the open folder dirFd itself, for a walk that holds
// descriptors only.
bool ReadStoredOfFolder(int dirFd, StoredAcl &out, bool &present);

// Replaces the record in one attribute write (old or new, never a mix).
// KOVA_ERR_ACL_NOSPACE for too many entries, a read-only file system or no
// room; KOVA_ERR_ACL_NOTSUP when the file system has no such attributes.
bool WriteStored(const Target &t, const StoredAcl &acl);

// Removes the record; a path without one is already done.
bool RemoveStored(const Target &t);

// Writes next's inherit flag and entries while keeping the group owner the
// path's record holds now (next's own group-owner fields are replaced by
// it). For callers whose right to write does not depend on the stored
// record: a path without one costs a single create, and a record that
// already says the same is not written again. A damaged record fails
// (KOVA_ERR_CORRUPT) unless replaceCorrupt, when it is replaced and has no
// group owner to keep.
// previous, when given, tells what the record held before: nothing
// (had false), a readable record, or a damaged one (damaged true).
struct PreviousRecord {
    bool had = false;
    bool damaged = false;
    StoredAcl acl;
};
bool WriteStoredKeepingGroupOwner(const Target &t, StoredAcl &next, bool replaceCorrupt,
                                  PreviousRecord *previous = nullptr);

} // namespace kova_acl

#endif
