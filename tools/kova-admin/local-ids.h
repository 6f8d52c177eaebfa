// Which local account, if any, holds an id inside a range: domain id ranges
// must stay clear of local uids and gids.
#ifndef KOVA_ADMIN_LOCAL_IDS_H
#define KOVA_ADMIN_LOCAL_IDS_H

#include <string>

namespace kova_admin {

// 1 when a local user or group has an id in [base, base + size) (holder
// names it, e.g. "user alice (uid 2001)"), 0 when none, -1 when the
// accounts could not be read.
int LocalIdIn(long long base, long long size, std::string &holder);

} // namespace kova_admin

#endif
