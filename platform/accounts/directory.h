// Directory accounts (LDAP and Windows domains) as the account calls see
// them: names in the forms the search gives ("name@suffix", "DOMAIN\name";
// a bare name is tried in LDAP), ids from the caches (LDAP uidNumber /
// gidNumber, a domain's range base + RID), and their groups.
//
// Callers look for a local account first: a local account wins any clash,
// by name and by id. A directory account whose ids are unusable has none
// and is not found: users need a uid from KOVA_UID_FIRST_USER and a primary
// gid, groups a gid; gid 0 and the administrators' gid are never taken
// from a directory (administrators are local), nor is an id that a local
// account holds.
#ifndef KOVA_ACCOUNTS_DIRECTORY_H
#define KOVA_ACCOUNTS_DIRECTORY_H

#include "records.h"

#include <optional>
#include <string>
#include <vector>

namespace kova_accounts {

struct DirAccount {
    UserRow user;    // users: name (qualified), uid, primary gid, desc, email
    GroupRow group;  // groups: name (qualified), gid, desc
    int source = 0;  // KOVA_ACCOUNT_SRC_LDAP or KOVA_ACCOUNT_SRC_DOMAIN
    std::string domain;    // domains: as recorded by the join
    std::string plain;     // the name inside its directory
    std::string dn;
};

// 1 found, 0 no such directory account (no error set), -1 error (set).
int FindDirectoryUser(const std::string &name, DirAccount &out);
int FindDirectoryUserByUid(unsigned uid, DirAccount &out);
int FindDirectoryGroup(const std::string &name, DirAccount &out);
int FindDirectoryGroupByGid(unsigned gid, DirAccount &out);
// The user's gids: primary first, then the directory groups naming the
// user as a member, ascending. False with the last error set on failure.
bool DirectoryUserGids(const DirAccount &user, std::vector<unsigned> &gids);
// True when the name has a directory form ("@" or "\") and so can never be
// a local account.
bool DirectoryForm(const std::string &name);

class AccountSession;
// The account calls' lookups: local first, then the directory. nullopt has
// the last error set (KOVA_ERR_NOUSER / KOVA_ERR_NOGROUP when absent). dir,
// when given, receives the directory account (source 0 for a local one).
std::optional<UserRow> RequireAnyUser(AccountSession &s, const std::string &name, DirAccount *dir = nullptr);
std::optional<UserRow> RequireAnyUserByUid(AccountSession &s, unsigned uid, DirAccount *dir = nullptr);
std::optional<GroupRow> RequireAnyGroup(AccountSession &s, const std::string &name);
std::optional<GroupRow> RequireAnyGroupByGid(AccountSession &s, unsigned gid);
// A user's gids, whichever side it came from.
bool AnyUserGids(AccountSession &s, const UserRow &row, const DirAccount &dir, std::vector<unsigned> &gids);

} // namespace kova_accounts

#endif
