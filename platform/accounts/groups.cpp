// Group lookups, descriptions, the administrators group and memberships.
#include "account-db.h"
#include "directory.h"
#include "lookup.h"

#include "kova-internal/call-guard.h"
#include "kova/account.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace kova_accounts;
using kova_internal::Guarded;

namespace {
// 1 when the user's primary group or one of its memberships is the
// administrators group, 0 when not, -1 on failure.
int IsAdminMember(AccountSession &s, const UserRow &user) {
    if (user.gid == KOVA_ADMIN_GID) return 1;
    std::vector<unsigned> gids;
    if (!UserGids(s, user, gids)) return -1;
    for (unsigned g : gids)
        if (g == KOVA_ADMIN_GID) return 1;
    return 0;
}
} // namespace

extern "C" int KOVAGroupGet(const char *szName, PKOVA_GROUP *ppGroup) {
    KOVA_FAULT_POINT("KOVAGroupGet", int);
    return Guarded(-1, [&]() -> int {
        if (!szName || !ppGroup) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyGroup(s, szName);
        if (!row) return -1;
        *ppGroup = nullptr;
        return FillGroup(*row, ppGroup, false) ? 0 : -1;
    });
}

extern "C" int KOVAGroupGetByGID(unsigned int gid, PKOVA_GROUP *ppGroup) {
    KOVA_FAULT_POINT("KOVAGroupGetByGID", int);
    return Guarded(-1, [&]() -> int {
        if (!ppGroup) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyGroupByGid(s, gid);
        if (!row) return -1;
        return FillGroup(*row, ppGroup, true) ? 0 : -1;
    });
}

extern "C" int KOVAGroupGetGID(const char *szName, int *pGid) {
    KOVA_FAULT_POINT("KOVAGroupGetGID", int);
    return Guarded(-1, [&]() -> int {
        if (!szName) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyGroup(s, szName);
        if (!row) return -1;
        if (pGid) *pGid = static_cast<int>(row->gid);
        return 0;
    });
}

extern "C" int KOVAGroupDescGet(const char *szName, char **pszDesc, char **pszReserved) {
    KOVA_FAULT_POINT("KOVAGroupDescGet", int);
    return Guarded(-1, [&]() -> int {
        if (!szName || !pszDesc) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        if (pszReserved) *pszReserved = nullptr;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyGroup(s, szName);
        if (!row) return -1;
        // A group without a description yields "", so callers always own a string.
        char *copy = strdup(row->desc ? row->desc->c_str() : "");
        if (!copy) {
            KOVA_FAIL(KOVA_ERR_NOMEM);
            return -1;
        }
        *pszDesc = copy;
        return 0;
    });
}

extern "C" int KOVAGroupIsAdminGroup(const char *szName) {
    KOVA_FAULT_POINT("KOVAGroupIsAdminGroup", int);
    return Guarded(-1, [&]() -> int {
        if (!szName) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyGroup(s, szName);
        if (!row) return -1;
        return row->gid == KOVA_ADMIN_GID ? 1 : 0;
    });
}

extern "C" int KOVAGroupIsAdminGroupByGid(unsigned int gid) {
    KOVA_FAULT_POINT("KOVAGroupIsAdminGroupByGid", int);
    return Guarded(-1, [&]() -> int {
        AccountSession s;
        if (!s.Open()) return -1;
        auto row = RequireAnyGroupByGid(s, gid);
        if (!row) return -1;
        return row->gid == KOVA_ADMIN_GID ? 1 : 0;
    });
}

extern "C" int KLIBGroupIsAdminGroupMem(const char *szUser, int flags) {
    KOVA_FAULT_POINT("KLIBGroupIsAdminGroupMem", int);
    return Guarded(-1, [&]() -> int {
        if (!szUser) return KOVA_FAIL(KOVA_ERR_BADARG), -1;
        AccountSession s;
        if (!s.Open()) return -1;
        DirAccount dir;
        auto row = RequireAnyUser(s, szUser, &dir);
        if (!row) return -1;
        // Administrators are local: a directory account never is one.
        return dir.source ? 0 : IsAdminMember(s, *row);
    });
}

extern "C" int KLIBGroupIsAdminGroupMemByUid(unsigned int uid, int flags) {
    KOVA_FAULT_POINT("KLIBGroupIsAdminGroupMemByUid", int);
    return Guarded(-1, [&]() -> int {
        AccountSession s;
        if (!s.Open()) return -1;
        DirAccount dir;
        auto row = RequireAnyUserByUid(s, uid, &dir);
        if (!row) return -1;
        return dir.source ? 0 : IsAdminMember(s, *row);
    });
}

extern "C" PKLIBC_SZLIST KLIBGroupInfoListGet(const char *szUser, int flags) {
    KOVA_FAULT_POINT_NULL("KLIBGroupInfoListGet");
    return Guarded<PKLIBC_SZLIST>(nullptr, [&]() -> PKLIBC_SZLIST {
        if (!szUser) return KOVA_FAIL(KOVA_ERR_BADARG), nullptr;
        std::vector<unsigned> gids;
        {
            AccountSession s;
            if (!s.Open()) return nullptr;
            DirAccount dir;
            auto row = RequireAnyUser(s, szUser, &dir);
            if (!row) return nullptr;
            if (!AnyUserGids(s, *row, dir, gids)) return nullptr;
        }
        PKLIBC_SZLIST list = KLIBCSzListAlloc(static_cast<int>(gids.size() * 8 + 16));
        if (!list) return nullptr;
        for (unsigned g : gids) {
            if (KLIBCSzListPush(&list, std::to_string(g).c_str()) < 0) {
                KLIBCSzListFree(list);
                return nullptr;
            }
        }
        return list;
    });
}
