// What one folder passes to its children, kept for a run of children of
// that folder: a task that sets every entry of a folder in turn (through
// the kept folder of target.h) then pays for the walk up the ancestors
// (inherit.h) once per folder instead of once per entry.
//
// The kept copy can never be used stale by what it was read from: on every
// use the folder and each ancestor the walk read are checked against what
// they were then (device, inode and change time: a record written, a folder
// moved in or out, changes it), and the folder's own record is read again
// and compared byte for byte (a second change within one clock tick of the
// first leaves the change time alone; for the folder the task has just
// written, that is the likely case). What is left is a farther ancestor
// changed twice within one tick with the copy made in between; the
// propagation of that change rewrites the entry anyway. One copy per thread.
#ifndef KOVA_ACL_PASSDOWN_CACHE_H
#define KOVA_ACL_PASSDOWN_CACHE_H

#include "ace.h"
#include "target.h"

#include <vector>

namespace kova_acl {

// CollectInherited(t, out) for an entry named in its folder (t.name not
// empty, t.st filled), answered from the kept copy when the folder and its
// ancestors are still what they were. Needs what CollectInherited needs.
bool CollectInheritedKept(const Target &t, std::vector<Ace> &out);

// Drops the kept copy (its descriptors included).
void ForgetPassDown();

} // namespace kova_acl

#endif
