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
// After a switch to a uid other than 0: the calling thread keeps two of
// root's capabilities, and only them, in its effective set, for the writes
// a background task makes on the platform's behalf after the platform has
// judged the user's rights: CAP_SYS_ADMIN for the trusted ACL records and
// CAP_FOWNER for the kernel ACLs projected from them (the kernel asks for
// the file's owner or that capability), so neither needs a uid raise per
// entry. With CAP_SYS_ADMIN the thread could already rewrite any record,
// from which the projection follows, so CAP_FOWNER widens nothing the task
// had not in reach. No DAC capability is kept: reading, listing and
// traversing stay judged by the user's own ids. False when the kernel
// refused both; CAP_SYS_ADMIN alone is then tried, and the platform raises
// its uid for what is missing.
bool KeepAttributeCapability();
// The user's uid, primary gid and every group gid; a KOVA_WFM_ERR_* class.
int LookupIdentity(const std::string &user, uid_t &uid, gid_t &gid, std::vector<gid_t> &groups);

} // namespace kova_fileop

#endif
