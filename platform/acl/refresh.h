// Keeping descendants' kernel ACLs true to dynamic inheritance, in place.
// A folder's set (or removal) that changes what it passes down changes the
// complete ACL of every descendant that inherits through it. Normally the
// background propagation rewrites them (propagation.h); this synchronous
// walk (descriptor-walk.h) is what is left when that cannot be used: a
// folder outside every share, or every job place taken. Only entries that
// hold a record and inherit are rewritten and descended into (below any
// other, nothing depends on the folder). It visits at most kRefreshLimit
// entries and kRefreshDepth levels; what lies beyond is left as it was for
// `kova-admin acl verify --repair` (docs/platform/enforcement.md).
#ifndef KOVA_ACL_REFRESH_H
#define KOVA_ACL_REFRESH_H

#include "ace.h"
#include "target.h"

#include <cstddef>

namespace kova_acl {

constexpr size_t kRefreshLimit = 100000;
constexpr size_t kRefreshDepth = 128;

// Whether children see the same thing from a folder before and after a
// change of its record (hadOld false: it had none; hasNew false: removed).
bool PassesDownTheSame(bool hadOld, const StoredAcl &old, bool hasNew, const StoredAcl &next);

// Rewrites the projections below folder t (judged, stat filled). Needs
// root. False only when t itself cannot be opened as a folder; entries that
// vanish or fail meanwhile are skipped. visited counts what was looked at.
bool RefreshDescendants(const Target &t, size_t &visited);
// The same, looking at no more than `limit` entries; complete tells whether
// the whole tree was seen (nothing left beyond the limit or the depth).
bool RefreshDescendants(const Target &t, size_t limit, size_t &visited, bool &complete);

} // namespace kova_acl

#endif
