#include "identity-switch.h"

#include <grp.h>
#include <unistd.h>

namespace webd {

std::vector<gid_t> CurrentGroups() {
    int n = getgroups(0, nullptr);
    if (n <= 0) return {};
    std::vector<gid_t> g(static_cast<size_t>(n));
    n = getgroups(n, g.data());
    g.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return g;
}

bool RestoreRoot(const std::vector<gid_t> &rootGroups) {
    // Uid first: changing groups and gids needs an effective uid of 0.
    setresuid(0, 0, 0);
    setresgid(0, 0, 0);
    setgroups(rootGroups.size(), rootGroups.data());
    uid_t ru, eu, su;
    gid_t rg, eg, sg;
    if (getresuid(&ru, &eu, &su) != 0 || getresgid(&rg, &eg, &sg) != 0) return false;
    return ru == 0 && eu == 0 && su == 0 && rg == 0 && eg == 0 && sg == 0;
}

bool BecomeUser(uid_t uid, gid_t gid, const std::vector<gid_t> &groups) {
    std::vector<gid_t> rootGroups = CurrentGroups();
    if (setgroups(groups.size(), groups.data()) != 0 || setresgid(0, gid, 0) != 0 || setresuid(0, uid, 0) != 0) {
        RestoreRoot(rootGroups);
        return false;
    }
    return true;
}

} // namespace webd
