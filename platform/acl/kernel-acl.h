// Writing and reading the kernel's ACLs of a judged entry (through its
// folder's descriptor, entry-attr.h): the projection of what the platform
// stores, and the platform's view of an entry without a record.
#ifndef KOVA_ACL_KERNEL_ACL_H
#define KOVA_ACL_KERNEL_ACL_H

#include "ace.h"
#include "evaluate.h"
#include "posix-acl.h"
#include "projection.h"
#include "target.h"

#include <vector>

namespace kova_acl {

// Writes the projection of an entry's stored ACL: access ACL, and on a
// folder the default ACL (removed when nothing passes down). Symbolic links
// and special files are left alone. checkFirst: an ACL the entry already
// holds is not written again (one read instead of a write; a walk over a
// tree a task has mostly set itself), at the cost of that read everywhere
// else. Needs root. t.st must be filled and current.
// False with KOVA_ERR_ACL_NOTSUP (no POSIX ACLs on the file system),
// KOVA_ERR_ACL_NOSPACE, KOVA_ERR_NOENT or KOVA_ERR_IO.
bool WriteProjection(const Target &t, const Projection &p, bool checkFirst = false);

// After a record was written: reads what the entry inherits (as root), and
// writes the projection of own + inherited entries. keptFolder: t was
// located in the thread's kept folder (target.h), whose pass-down is then
// kept too (passdown-cache.h). The last projection computed is kept with
// its inputs, so a run of entries with the same inputs encodes it once.
bool ProjectStored(Target &t, const StoredAcl &own, bool keptFolder = false);

// The complete ACL a projection is made from: own entries, then (when the
// record inherits) what the ancestors pass down, read as root. A damaged
// ancestor leaves the own entries alone; false on any other failure.
bool CompleteEntries(Target &t, const StoredAcl &own, bool keptFolder, std::vector<Ace> &out);

// Whom the projection treats as the owner: the record's group owner when it
// has one, else the file's owner (st: the entry's lstat).
OwnerId ProjectionOwner(const StoredAcl &own, const struct stat &st);

// After the record was removed: the kernel's ACLs go, and the mode keeps
// the owner, owning-group and other bits of the projection that was there
// (the owning group's entry, not the mask).
bool Unproject(const Target &t);

// The kernel's ACLs as they are now; present false when the entry has none
// (its mode bits then say everything).
bool ReadKernelAcl(const Target &t, const char *attr, PosixAcl &out, bool &present);

// The platform's entries for an entry without a record: its mode bits, or
// its POSIX access ACL when it has one (as union of allow entries, which
// grants at least what the kernel grants).
std::vector<Ace> EntriesWithoutRecord(const Target &t);

} // namespace kova_acl

#endif
