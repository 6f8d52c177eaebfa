// The ids a request runs with, and switching a worker between root and a
// logged-in user. The user identity is effective only: real and saved ids
// stay 0, so platform code that must act as root after checking the caller
// can raise itself, and the worker can return to root after the request.
// The test host runs module calls through the same two steps.
#ifndef KOVA_WEBD_IDENTITY_SWITCH_H
#define KOVA_WEBD_IDENTITY_SWITCH_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace webd {

struct UserIds {
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;  // every group of the user, primary first
};

// The ids of a platform account (local or directory) as its requests run.
// false when the account or its groups cannot be read; the platform's last
// error is left as the failed call set it.
bool LookupUserIds(const std::string &user, UserIds &ids);

// Supplementary groups, then effective gid, then effective uid. On failure
// the process is put back to root (RestoreRoot) and false is returned.
bool BecomeUser(uid_t uid, gid_t gid, const std::vector<gid_t> &groups);
// All ids 0 and the given supplementary groups. false when any id is not 0
// afterwards (a handler dropped the saved id): the worker must then exit.
bool RestoreRoot(const std::vector<gid_t> &rootGroups);
// The process's supplementary groups right now.
std::vector<gid_t> CurrentGroups();

} // namespace webd

#endif
