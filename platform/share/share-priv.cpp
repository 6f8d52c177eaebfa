// Per-principal share privileges. A user's privilege is decided in this
// order: a "none" entry for the user or any of its groups denies; else the
// user's own entry; else the highest entry among its groups; else the share
// default.
#include "kova/share.h"
#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova-internal/fault-point.h"
#include "share-db.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>

using kova_internal::Database;
using kova_internal::Statement;

namespace {

constexpr int kPrincipalUser = 1;
constexpr int kPrincipalGroup = 4;

struct SzListDeleter {
    void operator()(KLIBC_SZLIST *p) const { KLIBCSzListFree(p); }
};

} // namespace

extern "C" int KOVASharePrivSet(const char *szShare, int principalType, const char *szPrincipal, int priv) {
    KOVA_FAULT_POINT("KOVASharePrivSet", int);
    if (!szShare || !*szShare || !szPrincipal || !*szPrincipal ||
        (principalType != kPrincipalUser && principalType != kPrincipalGroup) ||
        (priv != KOVA_SHARE_PRIV_NONE && priv != KOVA_SHARE_PRIV_RO && priv != KOVA_SHARE_PRIV_RW)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Database db;
    if (!kova_share::OpenShareDb(db, true)) return -1;
    bool ok = kova_share::InTransaction(db, [&] {
        KOVA_SHARE rec;
        if (!kova_share::LoadShare(db, szShare, rec)) return false;
        Statement st(db, "INSERT OR REPLACE INTO privileges (share, principal_type, principal, priv) VALUES (?1, ?2, ?3, ?4)");
        if (!st.ok()) return false;
        st.Bind(1, std::string(szShare)).Bind(2, static_cast<long long>(principalType));
        st.Bind(3, std::string(szPrincipal)).Bind(4, static_cast<long long>(priv));
        return st.Step() == SQLITE_DONE;
    });
    return ok ? 0 : -1;
}

extern "C" int KOVASharePrivGet(const char *szShare, const char *szUser, int *pPriv) {
    KOVA_FAULT_POINT("KOVASharePrivGet", int);
    if (!szShare || !*szShare || !szUser || !*szUser || !pPriv) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    Database db;
    KOVA_SHARE rec;
    if (!kova_share::OpenShareDb(db, false) || !kova_share::LoadShare(db, szShare, rec)) return -1;

    std::unique_ptr<KLIBC_SZLIST, SzListDeleter> gids(KLIBGroupInfoListGet(szUser, 0));
    if (!gids) return -1;
    std::set<long long> userGids;
    for (int i = 0; i < gids->nItem; ++i)
        if (const char *g = KLIBCSzListGet(gids.get(), i)) userGids.insert(std::strtoll(g, nullptr, 10));

    Statement st(db, "SELECT principal_type, principal, priv FROM privileges WHERE share = ?1");
    if (!st.ok()) return -1;
    st.Bind(1, std::string(szShare));
    int userPriv = -1, groupPriv = -1;
    bool denied = false;
    int rc;
    while ((rc = st.Step()) == SQLITE_ROW) {
        int type = static_cast<int>(st.Int(0));
        std::string principal = st.Text(1);
        int priv = static_cast<int>(st.Int(2));
        bool applies = false;
        if (type == kPrincipalUser) {
            applies = principal == szUser;
            if (applies) userPriv = priv;
        } else if (type == kPrincipalGroup) {
            int gid = -1;
            // A group deleted since its entry was written no longer applies.
            applies = KOVAGroupGetGID(principal.c_str(), &gid) >= 0 && userGids.count(gid) > 0;
            if (applies) groupPriv = std::max(groupPriv, priv);
        }
        if (applies && priv == KOVA_SHARE_PRIV_NONE) denied = true;
    }
    if (rc != SQLITE_DONE) return -1;
    if (denied)
        *pPriv = KOVA_SHARE_PRIV_NONE;
    else if (userPriv >= 0)
        *pPriv = userPriv;
    else if (groupPriv >= 0)
        *pPriv = groupPriv;
    else
        *pPriv = rec.defaultPriv;
    return 0;
}
