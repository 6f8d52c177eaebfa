// The worker's switches, made by the platform's identity component so the
// server, the platform and the tests raise and lower ids one way.
#include "identity-switch.h"

#include <stdlib.h>

#include "kova-internal/identity.h"
#include "kova/account.h"
#include "kova/klibc.h"

namespace webd {

bool LookupUserIds(const std::string &user, UserIds &ids) {
    int uid = -1, gid = -1;
    if (KOVAUserGetUGID(user.c_str(), &uid, &gid) < 0 || uid < 0 || gid < 0) return false;
    PKLIBC_SZLIST groups = KLIBGroupInfoListGet(user.c_str(), 0);
    if (!groups) return false;
    ids.uid = static_cast<uid_t>(uid);
    ids.gid = static_cast<gid_t>(gid);
    ids.groups.clear();
    for (int i = 0; i < groups->nItem; ++i) {
        const char *g = KLIBCSzListGet(groups, i);
        if (g && *g) ids.groups.push_back(static_cast<gid_t>(strtoul(g, nullptr, 10)));
    }
    KLIBCSzListFree(groups);
    return true;
}

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
