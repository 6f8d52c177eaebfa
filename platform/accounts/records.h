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

// The highest uid or gid a row may hold: ids reach set*id calls and reach
// callers as int, so a larger one would read as another id (2^40 as 0).
constexpr long long kMaxAccountId = 0x7FFFFFFF;

// Checks the columns of one row as they are read. The platform writes ids
// as INTEGER in 0..kMaxAccountId, flags as INTEGER 0 or 1, names by the
// naming rules, descriptions, e-mail addresses and homes as NULL or text by
// the text rules, password hashes as NULL or text. A row with anything else
// was not written by the platform: Done() logs it (system log, error level,
// named by table and key, never by its texts) and sets KOVA_ERR_CORRUPT, and
// the caller answers "invalid" rather than reading it as some other account.
class RowCheck {
public:
    RowCheck(const kova_internal::Statement &st, const char *table, long long key) : st_(st), table_(table), key_(key) {}
    unsigned Id(int col, const char *what);
    bool Flag(int col, const char *what);
    std::string Name(int col);
    std::optional<std::string> Text(int col, const char *what);
    std::optional<std::string> Secret(int col);
    // True when every column read was valid.
    bool Done();

private:
    void Bad(const char *what) {
        if (!bad_) bad_ = what;
    }
    const kova_internal::Statement &st_;
    const char *table_;
    long long key_;
    const char *bad_ = nullptr;
};

// nullopt (logged, KOVA_ERR_CORRUPT) for an invalid row.
std::optional<UserRow> ReadUser(const kova_internal::Statement &st);
std::optional<GroupRow> ReadGroup(const kova_internal::Statement &st);

// Fills *pp (reusing the record it holds when reuse is set and it is not
// NULL); false with KOVA_ERR_NOMEM when an allocation fails, *pp untouched
// in that case unless it was reused (then it is left cleared but valid).
bool FillUser(const UserRow &row, PKOVA_USER *pp, bool reuse);
bool FillGroup(const GroupRow &row, PKOVA_GROUP *pp, bool reuse);

} // namespace kova_accounts

#endif
