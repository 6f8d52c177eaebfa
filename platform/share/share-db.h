// The share database <root>/etc/shares.db: one row per share in "shares",
// one row per (share, principal) in "privileges". Every write runs in a
// transaction so a failure leaves the database as it was.
#ifndef KOVA_SHARE_DB_H
#define KOVA_SHARE_DB_H

#include "kova/share.h"
#include "kova-internal/sqlite-db.h"

#include <string>
#include <vector>

namespace kova_share {

// Opens the database. With forWrite the file and its schema are created when
// missing; without, a missing database fails with KOVA_ERR_NOSHARE (no
// shares at all). False with the last error set on failure.
bool OpenShareDb(kova_internal::Database &db, bool forWrite);

// Every share (name order). False on a database error.
bool LoadAllShares(const kova_internal::Database &db, std::vector<KOVA_SHARE> &out);

// One share by name; false with KOVA_ERR_NOSHARE when there is none.
bool LoadShare(const kova_internal::Database &db, const std::string &name, KOVA_SHARE &out);

// Copies text into a fixed buffer; false when it does not fit.
bool CopyText(char *dst, size_t cb, const std::string &src);

// Runs BEGIN IMMEDIATE .. COMMIT around body; rolls back when body fails.
template <class Body>
bool InTransaction(kova_internal::Database &db, Body body) {
    if (!db.Exec("BEGIN IMMEDIATE")) return false;
    if (!body() || !db.Exec("COMMIT")) {
        db.Exec("ROLLBACK");
        return false;
    }
    return true;
}

} // namespace kova_share

#endif
