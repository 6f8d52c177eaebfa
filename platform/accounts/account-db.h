// The local account database, <root>/etc/accounts.db, created with its
// default accounts on first use.
//
// Each thread keeps one connection open and reuses it from call to call.
// It is dropped and reopened when the file at the path is another file than
// the one opened (replaced, removed, or the platform root changed) and in a
// forked child, which never touches its parent's connection. Changes made by
// other connections need no check here: SQLite compares the file's change
// counter whenever a statement takes its read lock.
//
// The file is root-only (it holds password hashes). Opening it raises to
// root when the caller is not root; reads through an already-open
// connection do not, because the descriptor is already open. Write sessions
// raise for their lifetime (the journal is created beside the file). Rows
// are copied out before the session ends so no caller code runs raised.
#ifndef KOVA_ACCOUNTS_ACCOUNT_DB_H
#define KOVA_ACCOUNTS_ACCOUNT_DB_H

#include "kova-internal/identity.h"
#include "kova-internal/sqlite-db.h"

#include <optional>
#include <string>

namespace kova_accounts {

constexpr unsigned kUsersGid = 100;
constexpr unsigned kServicesGid = 90;
constexpr unsigned kFirstFreeUid = 1026;
constexpr unsigned kFirstFreeGid = 1000;
constexpr unsigned kFirstInternalUid = 500;

class AccountSession {
public:
    enum Mode { kRead, kWrite };

    AccountSession() = default;
    ~AccountSession();
    AccountSession(const AccountSession &) = delete;
    AccountSession &operator=(const AccountSession &) = delete;

    // Opens (and on first use creates) the database, or takes this thread's
    // open connection; false with the last error set on failure.
    bool Open(Mode mode = kRead);
    kova_internal::Database &db() { return *db_; }

private:
    // Declared first so it is released last, after the session's work.
    std::optional<kova_internal::RootScope> root_;
    kova_internal::Database *db_ = nullptr;
    bool counted_ = false;
};

// Path of the database file under the current platform root.
std::string AccountDbPath();

} // namespace kova_accounts

#endif
