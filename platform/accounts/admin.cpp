// Account administration: every change is one SQLite transaction, so a
// failure leaves the database as it was.
#include "account-db.h"
#include "lookup.h"
#include "names.h"
#include "password.h"

#include "kova-internal/call-guard.h"
#include "kova-dirsvc-admin.h"
#include "kova/account.h"

#include <string>

using namespace kova_accounts;
using kova_internal::Guarded;

namespace {

// BEGIN IMMEDIATE ... COMMIT, rolled back unless committed.
class Transaction {
public:
    explicit Transaction(kova_internal::Database &db) : db_(db), open_(db.Exec("BEGIN IMMEDIATE")) {}
    ~Transaction() {
        if (open_) db_.Exec("ROLLBACK");
    }
    bool ok() const { return open_; }
    bool Commit() {
        open_ = false;
        if (db_.Exec("COMMIT")) return true;
        db_.Exec("ROLLBACK");
        return false;
    }

private:
    kova_internal::Database &db_;
    bool open_;
};

bool Run(kova_internal::Statement &st) { return st.ok() && st.Step() == SQLITE_DONE; }

// Next id: one above the highest in [from, to], or from when none is used.
long long NextId(AccountSession &s, const char *table, const char *column, unsigned from, unsigned to) {
    std::string sql = std::string("SELECT max(") + column + ") FROM " + table + " WHERE " + column + " BETWEEN ?1 AND ?2";
    kova_internal::Statement st(s.db(), sql.c_str());
    if (!st.ok()) return -1;
    st.Bind(1, static_cast<long long>(from)).Bind(2, static_cast<long long>(to));
    if (st.Step() != SQLITE_ROW) return -1;
    long long next = st.TextOrNull(0) ? st.Int(0) + 1 : from;
    if (next > to) {
        KOVA_FAIL(KOVA_ERR_RANGE);
        return -1;
    }
    return next;
}

void BindOptText(kova_internal::Statement &st, int idx, const char *text) {
    if (text)
        st.Bind(idx, std::string(text));
    else
        st.BindNull(idx);
}

int Fail(int code) {
    KOVA_FAIL(code);
    return -1;
}

// Ids inside a domain's range belong to that domain's accounts: a local
// account there would be confused with one of them. True when taken (or
// the ranges cannot be read), with the last error set.
bool InDomainRange(long long id) {
    KovaIdRange r;
    int found = KovaDirsvc::RangeOfId(id, r);
    if (found > 0) KOVA_FAIL(KOVA_ERR_EXIST);
    return found != 0;
}

} // namespace

extern "C" int KOVAUserAdd(const char *szName, int uid, const char *szPassword, const char *szDesc, const char *szEmail,
                           int isInternal) {
    KOVA_FAULT_POINT("KOVAUserAdd", int);
    return Guarded(-1, [&]() -> int {
        if (!szName || !ValidAccountName(szName) || !ValidText(szDesc) || !ValidText(szEmail) || uid < -1)
            return Fail(KOVA_ERR_BADARG);
        std::string hash;
        if (szPassword && !HashPassword(szPassword, hash)) return -1;
        AccountSession s;
        if (!s.Open(AccountSession::kWrite)) return -1;
        Transaction tx(s.db());
        if (!tx.ok()) return -1;
        long long id = uid;
        if (uid == -1) {
            id = isInternal ? NextId(s, "users", "uid", kFirstInternalUid, KOVA_UID_FIRST_USER - 1)
                            : NextId(s, "users", "uid", kFirstFreeUid, 0x7FFFFFFF);
            if (id < 0) return -1;
        }
        if (InDomainRange(id)) return -1;
        bool nameError = false, idError = false;
        bool taken = FindUser(s, szName, &nameError) || FindUserByUid(s, static_cast<unsigned>(id), &idError);
        if (nameError || idError) return -1;  // an invalid row holds it (logged) or the database failed
        if (taken) return Fail(KOVA_ERR_EXIST);
        kova_internal::Statement st(s.db(),
                                    "INSERT INTO users(uid, name, gid, description, email, internal, password, disabled)"
                                    " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, 0)");
        st.Bind(1, id).Bind(2, std::string(szName)).Bind(3, static_cast<long long>(isInternal ? kServicesGid : kUsersGid));
        BindOptText(st, 4, szDesc);
        BindOptText(st, 5, szEmail);
        st.Bind(6, static_cast<long long>(isInternal ? 1 : 0));
        if (szPassword)
            st.Bind(7, hash);
        else
            st.BindNull(7);
        if (!Run(st) || !tx.Commit()) return -1;
        return 0;
    });
}

extern "C" int KOVAUserSet(const KOVA_USER *pUser) {
    KOVA_FAULT_POINT("KOVAUserSet", int);
    return Guarded(-1, [&]() -> int {
        if (!pUser || !pUser->szName || !ValidAccountName(pUser->szName) || !ValidText(pUser->szDesc) ||
            !ValidText(pUser->szEmail) || !ValidText(pUser->szHome))
            return Fail(KOVA_ERR_BADARG);
        AccountSession s;
        if (!s.Open(AccountSession::kWrite)) return -1;
        Transaction tx(s.db());
        if (!tx.ok()) return -1;
        if (!RequireUserByUid(s, pUser->uid) || !RequireGroupByGid(s, pUser->gid)) return -1;
        bool dbError = false;
        auto byName = FindUser(s, pUser->szName, &dbError);
        if (dbError) return -1;
        if (byName && byName->uid != pUser->uid) return Fail(KOVA_ERR_EXIST);
        kova_internal::Statement st(s.db(),
                                    "UPDATE users SET name = ?2, gid = ?3, description = ?4, email = ?5, home = ?6,"
                                    " internal = ?7, disabled = ?8 WHERE uid = ?1");
        st.Bind(1, static_cast<long long>(pUser->uid)).Bind(2, std::string(pUser->szName));
        st.Bind(3, static_cast<long long>(pUser->gid));
        BindOptText(st, 4, pUser->szDesc);
        BindOptText(st, 5, pUser->szEmail);
        BindOptText(st, 6, pUser->szHome);
        st.Bind(7, static_cast<long long>(pUser->isInternal ? 1 : 0)).Bind(8, static_cast<long long>(pUser->isDisabled ? 1 : 0));
        if (!Run(st) || !tx.Commit()) return -1;
        return 0;
    });
}

extern "C" int KOVAUserPasswordSet(const char *szName, const char *szPassword) {
    KOVA_FAULT_POINT("KOVAUserPasswordSet", int);
    return Guarded(-1, [&]() -> int {
        if (!szName || !szPassword) return Fail(KOVA_ERR_BADARG);
        std::string hash;
        if (!HashPassword(szPassword, hash)) return -1;
        AccountSession s;
        if (!s.Open(AccountSession::kWrite)) return -1;
        kova_internal::Statement st(s.db(), "UPDATE users SET password = ?2 WHERE name = ?1");
        st.Bind(1, std::string(szName)).Bind(2, hash);
        if (!Run(st)) return -1;
        if (sqlite3_changes(s.db().get()) == 0) return Fail(KOVA_ERR_NOUSER);
        return 0;
    });
}

extern "C" int KOVAUserDelete(const char *szName) {
    KOVA_FAULT_POINT("KOVAUserDelete", int);
    return Guarded(-1, [&]() -> int {
        if (!szName) return Fail(KOVA_ERR_BADARG);
        AccountSession s;
        if (!s.Open(AccountSession::kWrite)) return -1;
        // Memberships go with the user (ON DELETE CASCADE).
        kova_internal::Statement st(s.db(), "DELETE FROM users WHERE name = ?1");
        st.Bind(1, std::string(szName));
        if (!Run(st)) return -1;
        if (sqlite3_changes(s.db().get()) == 0) return Fail(KOVA_ERR_NOUSER);
        return 0;
    });
}

extern "C" int KOVAGroupAdd(const char *szName, int gid, const char *szDesc) {
    KOVA_FAULT_POINT("KOVAGroupAdd", int);
    return Guarded(-1, [&]() -> int {
        if (!szName || !ValidAccountName(szName) || !ValidText(szDesc) || gid < -1) return Fail(KOVA_ERR_BADARG);
        AccountSession s;
        if (!s.Open(AccountSession::kWrite)) return -1;
        Transaction tx(s.db());
        if (!tx.ok()) return -1;
        long long id = gid == -1 ? NextId(s, "groups", "gid", kFirstFreeGid, 0x7FFFFFFF) : gid;
        if (id < 0 || InDomainRange(id)) return -1;
        bool nameError = false, idError = false;
        bool taken = FindGroup(s, szName, &nameError) || FindGroupByGid(s, static_cast<unsigned>(id), &idError);
        if (nameError || idError) return -1;
        if (taken) return Fail(KOVA_ERR_EXIST);
        kova_internal::Statement st(s.db(), "INSERT INTO groups(gid, name, description) VALUES (?1, ?2, ?3)");
        st.Bind(1, id).Bind(2, std::string(szName));
        BindOptText(st, 3, szDesc);
        if (!Run(st) || !tx.Commit()) return -1;
        return 0;
    });
}

extern "C" int KOVAGroupDelete(const char *szName) {
    KOVA_FAULT_POINT("KOVAGroupDelete", int);
    return Guarded(-1, [&]() -> int {
        if (!szName) return Fail(KOVA_ERR_BADARG);
        AccountSession s;
        if (!s.Open(AccountSession::kWrite)) return -1;
        Transaction tx(s.db());
        if (!tx.ok()) return -1;
        auto group = RequireGroup(s, szName);
        if (!group) return -1;
        // The built-in groups carry meaning (administrators, default group).
        if (group->gid == KOVA_ADMIN_GID || group->gid == kUsersGid || group->gid == kServicesGid)
            return Fail(KOVA_ERR_PERM);
        kova_internal::Statement used(s.db(), "SELECT 1 FROM users WHERE gid = ?1 LIMIT 1");
        used.Bind(1, static_cast<long long>(group->gid));
        int rc = used.Step();
        if (rc == SQLITE_ROW) return Fail(KOVA_ERR_EXIST);  // still someone's primary group
        if (rc != SQLITE_DONE) return -1;
        kova_internal::Statement st(s.db(), "DELETE FROM groups WHERE gid = ?1");
        st.Bind(1, static_cast<long long>(group->gid));
        if (!Run(st) || !tx.Commit()) return -1;
        return 0;
    });
}

namespace {
int ChangeMembership(const char *szGroup, const char *szUser, bool add) {
    if (!szGroup || !szUser) return Fail(KOVA_ERR_BADARG);
    AccountSession s;
    if (!s.Open(AccountSession::kWrite)) return -1;
    Transaction tx(s.db());
    if (!tx.ok()) return -1;
    auto group = RequireGroup(s, szGroup);
    if (!group) return -1;
    auto user = RequireUser(s, szUser);
    if (!user) return -1;
    kova_internal::Statement st(s.db(), add ? "INSERT OR IGNORE INTO members(gid, uid) VALUES (?1, ?2)"
                                            : "DELETE FROM members WHERE gid = ?1 AND uid = ?2");
    st.Bind(1, static_cast<long long>(group->gid)).Bind(2, static_cast<long long>(user->uid));
    if (!Run(st)) return -1;
    if (!add && sqlite3_changes(s.db().get()) == 0) return Fail(KOVA_ERR_NOENT);
    return tx.Commit() ? 0 : -1;
}
} // namespace

extern "C" int KOVAGroupMemberAdd(const char *szGroup, const char *szUser) {
    KOVA_FAULT_POINT("KOVAGroupMemberAdd", int);
    return Guarded(-1, [&] { return ChangeMembership(szGroup, szUser, true); });
}

extern "C" int KOVAGroupMemberRemove(const char *szGroup, const char *szUser) {
    KOVA_FAULT_POINT("KOVAGroupMemberRemove", int);
    return Guarded(-1, [&] { return ChangeMembership(szGroup, szUser, false); });
}
