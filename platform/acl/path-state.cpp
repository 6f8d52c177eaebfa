// Loading a path's state for the path calls.
#include "path-state.h"

#include "acl-store.h"
#include "inherit.h"
#include "kernel-acl.h"
#include "mode-acl.h"

#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"

#include <unistd.h>

namespace kova_acl {

Elevation::Elevation() : Elevation(geteuid()) {}

Elevation::Elevation(uid_t currentEuid) : scope_(currentEuid) {
    if (!scope_.ok()) KOVA_FAIL(KOVA_ERR_PERM);
}

std::vector<Ace> PathState::Complete() const {
    if (!stored) return unstored;
    std::vector<Ace> all = own.entries;
    all.insert(all.end(), inherited.begin(), inherited.end());
    return all;
}

uint32_t PathState::RightsOf(const Principal &p) const {
    return EffectiveRights(p, owner, Complete(), target.BelowShareRoot());
}

bool LoadPathState(const char *szPath, PathState &out, unsigned flags, const Principal *judged) {
    return ResolveTarget(szPath, out.target) && LoadResolvedState(out, flags, judged);
}

bool LoadResolvedState(PathState &out, unsigned flags, const Principal *judged) {
    if (judged && RightsIgnoreEntries(*judged, out.target.BelowShareRoot())) flags |= kSkipInherited;
    bool present = false;
    if (!ReadStored(out.target, out.own, present)) {
        if (!((flags & kIgnoreCorruptOwn) && KLIBCErrGet() == KOVA_ERR_CORRUPT)) return false;
        out.own = StoredAcl();
        present = false;
    }
    out.stored = present;
    out.inherited.clear();
    out.unstored.clear();
    if (!present) out.unstored = EntriesWithoutRecord(out.target);
    if (present && out.own.inherits && !(flags & kSkipInherited) && !CollectInherited(out.target, out.inherited))
        return false;
    if (present && out.own.hasGroupOwner) {
        out.owner.idType = KOVA_ACL_ID_GROUP;
        out.owner.id = static_cast<int>(out.own.ownerGid);
    } else {
        out.owner.idType = KOVA_ACL_ID_USER;
        out.owner.id = static_cast<int>(out.target.st.st_uid);
    }
    return true;
}

} // namespace kova_acl
