// Row lookups shared by the account calls; each runs in an open session.
#ifndef KOVA_ACCOUNTS_LOOKUP_H
#define KOVA_ACCOUNTS_LOOKUP_H

#include "account-db.h"
#include "records.h"

#include <optional>
#include <string>
#include <vector>

namespace kova_accounts {

// nullopt when absent (no error set) or on a database error (error set;
// dbError tells which when the caller cares). An invalid row (RowCheck) is
// such an error, with KOVA_ERR_CORRUPT.
std::optional<UserRow> FindUser(AccountSession &s, const std::string &name, bool *dbError = nullptr);
std::optional<UserRow> FindUserByUid(AccountSession &s, unsigned uid, bool *dbError = nullptr);
std::optional<GroupRow> FindGroup(AccountSession &s, const std::string &name, bool *dbError = nullptr);
std::optional<GroupRow> FindGroupByGid(AccountSession &s, unsigned gid, bool *dbError = nullptr);
// For calls where the account must exist: nullopt always has the last
// error set, KOVA_ERR_NOUSER / KOVA_ERR_NOGROUP when the row is absent.
std::optional<UserRow> RequireUser(AccountSession &s, const std::string &name);
std::optional<UserRow> RequireUserByUid(AccountSession &s, unsigned uid);
std::optional<GroupRow> RequireGroup(AccountSession &s, const std::string &name);
std::optional<GroupRow> RequireGroupByGid(AccountSession &s, unsigned gid);
// The user's gids, primary first, then supplementary in ascending order;
// false with the last error set on a database error or an invalid gid.
bool UserGids(AccountSession &s, const UserRow &user, std::vector<unsigned> &gids);

} // namespace kova_accounts

#endif
