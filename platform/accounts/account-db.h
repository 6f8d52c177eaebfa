// The local account database, <root>/etc/accounts.db: opened per call,
// created with its default accounts on first use. The file is root-only
// (it holds password hashes), so a session raises to root for its lifetime
// when the caller is not root; rows are copied out before the session ends
// so no caller code ever runs raised.
#ifndef KOVA_ACCOUNTS_ACCOUNT_DB_H
#define KOVA_ACCOUNTS_ACCOUNT_DB_H

#include "kova-internal/identity.h"
#include "kova-internal/sqlite-db.h"

#include <string>

namespace kova_accounts {

constexpr unsigned kUsersGid = 100;
constexpr unsigned kServicesGid = 90;
constexpr unsigned kFirstFreeUid = 1026;
constexpr unsigned kFirstFreeGid = 1000;
constexpr unsigned kFirstInternalUid = 500;

class AccountSession {
public:
    AccountSession() = default;
    // Opens (and on first use creates) the database; false with the last
    // error set on failure.
    bool Open();
    kova_internal::Database &db() { return db_; }

private:
    // Declared first so it is released last, after the connection closes.
    kova_internal::RootScope root_;
    kova_internal::Database db_;
};

// Path of the database file under the current platform root.
std::string AccountDbPath();

} // namespace kova_accounts

#endif
