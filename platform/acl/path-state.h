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

#include <sys/types.h>

#include <vector>

namespace kova_acl {

struct PathState {
    Target target;
    bool stored = false;         // the path is in ACL mode
    StoredAcl own;               // valid when stored
    std::vector<Ace> inherited;  // levels >= 1, when stored and inheriting
    std::vector<Ace> unstored;   // without a record: mode bits or kernel ACL
    OwnerId owner;

    // Own entries then inherited ones when stored, else `unstored`.
    std::vector<Ace> Complete() const;
    uint32_t RightsOf(const Principal &p) const;
};

// Load options. Root's rights do not depend on entries, so a call made by
// root that only needs the rights can skip the ancestors (a damaged ancestor
// then does not block it) and may replace a damaged record of the path.
// The same holds for whoever RightsIgnoreEntries names once the path's place
// is known: pass that caller as `judged` and the ancestors are only read
// when its rights could depend on them.
enum LoadFlags : unsigned {
    kLoadAll = 0,
    kSkipInherited = 0x1,     // leave `inherited` empty
    kIgnoreCorruptOwn = 0x2,  // a malformed own record reads as "not stored"
};

// False with the last error set.
bool LoadPathState(const char *szPath, PathState &out, unsigned flags = kLoadAll,
                   const Principal *judged = nullptr);

// The same for a state whose target is resolved already.
bool LoadResolvedState(PathState &out, unsigned flags, const Principal *judged);

// The uid raise of kova_internal::UidScope (uid 0 for its lifetime, the
// caller's uid and capabilities back afterwards) for the path calls, whose
// failure sets the last error KOVA_ERR_PERM. Only the uid is raised: the
// group ids are left alone, which saves two of the four id changes a path
// call would otherwise pay.
class Elevation {
public:
    Elevation();
    // For a caller that has just read its effective uid (Principal::Caller):
    // saves asking the kernel again.
    explicit Elevation(uid_t currentEuid);
    Elevation(const Elevation &) = delete;
    Elevation &operator=(const Elevation &) = delete;
    bool ok() const { return scope_.ok(); }

private:
    kova_internal::UidScope scope_;
};

} // namespace kova_acl

#endif
