// The worker's switches, made by the platform's identity component so the
// server, the platform and the tests raise and lower ids one way.
#include "identity-switch.h"

#include "kova-internal/identity.h"

namespace webd {

std::vector<gid_t> CurrentGroups() { return kova_internal::CurrentGroups(); }

bool RestoreRoot(const std::vector<gid_t> &rootGroups) { return kova_internal::RestoreRoot(rootGroups); }

bool BecomeUser(uid_t uid, gid_t gid, const std::vector<gid_t> &groups) {
    std::vector<gid_t> rootGroups = CurrentGroups();
    if (!kova_internal::SwitchToUser(uid, gid, groups)) {
        RestoreRoot(rootGroups);
        return false;
    }
    return true;
}

} // namespace webd
