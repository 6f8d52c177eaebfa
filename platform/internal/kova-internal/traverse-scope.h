// TraverseScope: the platform's own path lookups, raised past the kernel's
// search check on the folders above what they reach.
#ifndef KOVA_INTERNAL_TRAVERSE_SCOPE_H
#define KOVA_INTERNAL_TRAVERSE_SCOPE_H

#include "kova-internal/identity.h"

namespace kova_internal {

// The platform's own lookups below a share root (which share holds a path,
// a user's path to its descriptor, a share root's folder) run inside this
// scope: with the uid raised through the identity component, so that the
// kernel's traverse check on the folders on the way does not decide them.
// The platform judges each entry by its own evaluation alone, as if every
// user held a bypass-traverse privilege for its API; shells and file
// services stay with the kernel, which needs search on every folder above
// and so never grants more. Only the lookup is raised: what it reaches is
// judged afterwards with the caller's ids. A process that cannot raise (no
// saved uid 0) looks up with its own ids, the kernel's stricter answer.
class TraverseScope {
public:
    TraverseScope() = default;
    TraverseScope(const TraverseScope &) = delete;
    TraverseScope &operator=(const TraverseScope &) = delete;

private:
    UidScope uid_;
};

} // namespace kova_internal

#endif
