// Dynamic inheritance: what a path's ancestors pass down to it, resolved at
// read time from their stored records.
//
// Walking up from the path (whose own record has the inherit flag set), the
// ancestor k steps up contributes its own entries, carried down k steps by
// the pass-down rule, at level k. The walk ends after the share root (it
// contributes; nothing above it does), after the first ancestor that does
// not inherit itself (it contributes), or at the first ancestor with no
// stored ACL (it contributes nothing).
//
// Pass-down of one entry to a child: f reaches files, d reaches folders; f
// without d reaches a folder as inherit-only (i set) so it carries on to the
// files below; n stops after one level (the copy loses f and d, and an
// f-without-d entry does not reach a folder at all); i on the ancestor's own
// entry does not keep it from passing and is cleared on the copy.
#ifndef KOVA_ACL_INHERIT_H
#define KOVA_ACL_INHERIT_H

#include "ace.h"
#include "target.h"

#include <vector>

namespace kova_acl {

// One step: the copy of e that a child receives; false when nothing passes.
bool PassDown(const Ace &e, bool childIsDir, Ace &copy);

// Appends the inherited entries of t (levels 1, 2, ...) to out. Needs root
// (reads ancestors' records). The ancestors are reached from t's judged
// folder through ".." of its descriptor, never by path; the share root is
// known by device and inode. False on a failed read, KOVA_ERR_CORRUPT for a
// malformed ancestor record, KOVA_ERR_NOENT when the walk does not arrive at
// the share root where t's path put it (the tree moved under the path).
bool CollectInherited(const Target &t, std::vector<Ace> &out);

} // namespace kova_acl

#endif
