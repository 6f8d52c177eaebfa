// Switching the process to a user's identity: supplementary groups,
// effective gid and uid of the user, real and saved ids 0 (so platform
// code can still raise to root). Needs effective or saved uid 0.
#ifndef KOVA_FILEOP_IDENTITY_SWITCH_H
#define KOVA_FILEOP_IDENTITY_SWITCH_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace kova_fileop {

// 0 on success; otherwise a KOVA_WFM_ERR_* class with the last error set,
// and the process keeps (as far as the kernel lets it) its former ids.
int SwitchTo(uid_t uid, gid_t gid, const std::vector<gid_t> &groups);
// After a switch to a uid other than 0: the calling thread keeps
// CAP_SYS_ADMIN, and only it, in its effective set. The user's own ids
// still decide every permission check of ordinary file operations (no
// DAC capability is kept), while the platform writes trusted attributes
// for the user, after judging the user's rights, without raising its uid
// for each one. False when the kernel refused; the ids are in place
// either way, and the platform then raises its uid for those writes.
bool KeepAttributeCapability();
// The user's uid, primary gid and every group gid; a KOVA_WFM_ERR_* class.
int LookupIdentity(const std::string &user, uid_t &uid, gid_t &gid, std::vector<gid_t> &groups);

} // namespace kova_fileop

#endif
