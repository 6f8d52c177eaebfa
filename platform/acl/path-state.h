// Everything the path calls need to know about one path: where it is, its
// stored record, what it inherits and who owns it. Loading needs root
// (trusted attributes); callers capture the caller's identity first and then
// enter an Elevation.
#ifndef KOVA_ACL_PATH_STATE_H
#define KOVA_ACL_PATH_STATE_H

#include "ace.h"
#include "evaluate.h"
#include "target.h"

#include "kova-internal/identity.h"

#include <vector>

namespace kova_acl {

struct PathState {
    Target target;
    bool stored = false;         // the path is in ACL mode
    StoredAcl own;               // valid when stored
    std::vector<Ace> inherited;  // levels >= 1, when stored and inheriting
    OwnerId owner;

    // Own entries then inherited ones when stored, else the mode entries.
    std::vector<Ace> Complete() const;
    uint32_t RightsOf(const Principal &p) const;
};

// False with the last error set. With ignoreCorruptOwn a malformed record of
// the path itself reads as "not stored" (root rewriting or removing it).
bool LoadPathState(const char *szPath, PathState &out, bool ignoreCorruptOwn = false);

// Root for its lifetime; ok() false (last error KOVA_ERR_PERM) when the
// process cannot raise its ids.
class Elevation {
public:
    Elevation();
    bool ok() const { return scope_.ok(); }

private:
    kova_internal::RootScope scope_;
};

} // namespace kova_acl

#endif
