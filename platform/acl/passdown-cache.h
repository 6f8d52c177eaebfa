// What one folder passes to its children, kept for a run of children of
// that folder: a task that sets every entry of a folder in turn (through
// the kept folder of target.h) then pays for the walk up the ancestors
// (inherit.h) once per folder instead of once per entry.
//
// The copy is checked on every use: the entry must be named in the same
// folder, reached through the same kept folder (or, through another
// descriptor, the same object with the same change time), and the folder's
// own record is read again and compared byte for byte (a change within one
// clock tick of the last one leaves the change time alone; for a folder the
// task has just written, that is the likely case). Farther ancestors are
// read when the copy is made, not on every use: one changed while a task
// works through a folder reaches the rest of that folder's entries through
// the propagation that the change starts, as it reaches every entry below
// it. One copy per thread, holding no descriptor.
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
