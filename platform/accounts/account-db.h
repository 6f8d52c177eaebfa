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
//
// Read sessions also answer repeated lookups from a per-connection memo of
// rows. It is kept only while the file's identity (device, inode, size,
// mtime) and SQLite's change counter in its header are what they were when
// the rows were read; every committed write bumps that counter (the file is
// in rollback-journal mode; a file switched to WAL is never memoised). The
// counter is read without a lock: a commit not yet written there has not
// happened for this reader either. Password hashes are never memoised.
#ifndef KOVA_ACCOUNTS_ACCOUNT_DB_H
#define KOVA_ACCOUNTS_ACCOUNT_DB_H

#include "kova-internal/identity.h"
#include "kova-internal/sqlite-db.h"
#include "records.h"

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace kova_accounts {

constexpr unsigned kUsersGid = 100;
constexpr unsigned kServicesGid = 90;
constexpr unsigned kFirstFreeUid = 1026;
constexpr unsigned kFirstFreeGid = 1000;
constexpr unsigned kFirstInternalUid = 500;

// Rows read through one connection, valid for one state of the file.
struct RowMemo {
    std::unordered_map<std::string, std::optional<UserRow>> usersByName;
    std::unordered_map<unsigned, std::optional<UserRow>> usersByUid;
    std::unordered_map<std::string, std::optional<GroupRow>> groupsByName;
    std::unordered_map<unsigned, std::optional<GroupRow>> groupsByGid;
    std::unordered_map<unsigned, std::vector<unsigned>> gidsByUid;
    size_t size() const {
        return usersByName.size() + usersByUid.size() + groupsByName.size() + groupsByGid.size() + gidsByUid.size();
    }
    void clear();
};

class AccountSession {
public:
    // kReadSecrets: a read that needs password hashes (never memoised).
    enum Mode { kRead, kReadSecrets, kWrite };

    AccountSession() = default;
    ~AccountSession();
    AccountSession(const AccountSession &) = delete;
    AccountSession &operator=(const AccountSession &) = delete;

    // Opens (and on first use creates) the database, or takes this thread's
    // open connection; false with the last error set on failure.
    bool Open(Mode mode = kRead);
    // The connection, for statements. A plain read that reaches SQLite
    // raises here when a hot journal waits to be rolled back.
    kova_internal::Database &db();
    // The memo when this session may use it (plain reads), else null.
    RowMemo *memo() { return memo_; }

private:
    // Declared first so it is released last, after the session's work.
    std::optional<kova_internal::RootScope> root_;
    kova_internal::Database *db_ = nullptr;
    RowMemo *memo_ = nullptr;
    std::string path_;
    bool counted_ = false;
    bool journalChecked_ = false;
};

// Path of the database file under the current platform root.
std::string AccountDbPath();

} // namespace kova_accounts

#endif
