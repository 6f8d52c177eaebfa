// Allocation of the user and group records handed to callers, and the row
// shapes copied out of the database.
#ifndef KOVA_ACCOUNTS_RECORDS_H
#define KOVA_ACCOUNTS_RECORDS_H

#include "kova/account.h"
#include "kova-internal/sqlite-db.h"

#include <optional>
#include <string>

namespace kova_accounts {

struct UserRow {
    std::string name;
    unsigned uid = 0;
    unsigned gid = 0;
    std::optional<std::string> desc, email, home, password;
    bool internal = false;
    bool disabled = false;
};

struct GroupRow {
    std::string name;
    unsigned gid = 0;
    std::optional<std::string> desc;
};

// Column lists matching ReadUser/ReadGroup.
extern const char kUserColumns[];   // name, uid, gid, description, email, home, internal, password, disabled
extern const char kGroupColumns[];  // name, gid, description

UserRow ReadUser(const kova_internal::Statement &st);
GroupRow ReadGroup(const kova_internal::Statement &st);
std::optional<std::string> OptText(const kova_internal::Statement &st, int col);

// Fills *pp (reusing the record it holds when reuse is set and it is not
// NULL); false with KOVA_ERR_NOMEM when an allocation fails, *pp untouched
// in that case unless it was reused (then it is left cleared but valid).
bool FillUser(const UserRow &row, PKOVA_USER *pp, bool reuse);
bool FillGroup(const GroupRow &row, PKOVA_GROUP *pp, bool reuse);

} // namespace kova_accounts

#endif
