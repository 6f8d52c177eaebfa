// Switching a worker between root and a logged-in user. The user identity is
// effective only: real and saved ids stay 0, so platform code that must act
// as root after checking the caller can raise itself, and the worker can
// return to root after the request.
#ifndef KOVA_WEBD_IDENTITY_SWITCH_H
#define KOVA_WEBD_IDENTITY_SWITCH_H

#include <sys/types.h>

#include <vector>

namespace webd {

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
