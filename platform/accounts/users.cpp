// User lookups, the internal-account test and password checks.
#include "account-db.h"
#include "directory.h"
#include "lookup.h"
#include "sign-in.h"

#include "kova-internal/call-guard.h"
#include "kova/account.h"

using namespace kova_accounts;
using kova_internal::Guarded;

extern "C" int KOVAUserGet(const char *szName, PKOVA_USER *ppUser) {
    KOVA_FAULT_POINT("KOVAUserGet", int);
    return Guarded(-1, [&]() -> int {
        if (!szName || !ppUser) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyUser(s, szName);
        if (!row) return -1;
        *ppUser = nullptr;
        return FillUser(*row, ppUser, false) ? 0 : -1;
    });
}

extern "C" int KOVAUserGetByUID(unsigned int uid, PKOVA_USER *ppUser) {
    KOVA_FAULT_POINT("KOVAUserGetByUID", int);
    return Guarded(-1, [&]() -> int {
        if (!ppUser) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyUserByUid(s, uid);
        if (!row) return -1;
        return FillUser(*row, ppUser, true) ? 0 : -1;
    });
}

extern "C" int KOVAUserIsInternal(const char *szName, unsigned int uid) {
    KOVA_FAULT_POINT("KOVAUserIsInternal", int);
    return Guarded(0, [&]() -> int {
        AccountSession s;
        if (!s.Open()) return 0;
        bool dbError = false;
        bool byName = szName && *szName;
        auto row = byName ? FindUser(s, szName, &dbError) : FindUserByUid(s, uid, &dbError);
        if (row) return row->internal ? 1 : 0;
        if (!dbError) KOVA_FAIL(KOVA_ERR_NOUSER);
        // An unknown uid below the first user's is a system account all the same.
        return (!byName && !dbError && uid < KOVA_UID_FIRST_USER) ? 1 : 0;
    });
}

extern "C" int KOVAUserGetUGID(const char *szName, int *pUid, int *pGid) {
    KOVA_FAULT_POINT("KOVAUserGetUGID", int);
    return Guarded(-1, [&]() -> int {
        if (!szName) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyUser(s, szName);
        if (!row) return -1;
        if (pUid) *pUid = static_cast<int>(row->uid);
        if (pGid) *pGid = static_cast<int>(row->gid);
        return 0;
    });
}

extern "C" int KOVAUserPasswordCheck(const char *szName, const char *szPassword) {
    KOVA_FAULT_POINT("KOVAUserPasswordCheck", int);
    return Guarded(-1, [&]() -> int {
        if (!szName || !szPassword) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        return CheckSignIn(szName, szPassword);
    });
}
