// What the rights evaluation needs to know about a principal and a path,
// read from the platform: a user's groups, and whether the principal owns
// the path. Shared by inspect and check_self_denied.
#include "acl.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <cstdlib>

bool LoadUserGroupIds(const std::string &userName, std::vector<unsigned int> &gids) {
    gids.clear();
    PKLIBC_SZLIST list = KLIBGroupInfoListGet(userName.c_str(), 0);
    if (list) {
        for (int i = 0; i < list->nItem; ++i) {
            const char *item = KLIBCSzListGet(list, i);
            gids.push_back(static_cast<unsigned int>(std::strtoul(item ? item : "", nullptr, 10)));
        }
    }
    const bool loaded = list != nullptr;
    KLIBCSzListFree(list);
    return loaded;
}

bool IsPathOwner(const std::string &path, const KOVA_ACL_ID &principal,
                 const std::vector<unsigned int> &gids, int &errorCode) {
    // Only a definite yes raises the lookup; a failed check (negative) reads
    // as "not an administrator".
    const bool elevated = KLIBGroupIsAdminGroupMemByUid(static_cast<unsigned int>(principal.id), 0) == 1;
    errorCode = 0;

    KOVA_ACL_ID owner = {0, 0};
    if (PrivilegedIf(elevated, 1644, 1646, [&] { return KOVAACLOwnerIdGet(path.c_str(), &owner); }) != 0) {
        errorCode = OwnerLookupErrorCode(KLIBCErrGet());
        return false;
    }
    return EntryMatchesPrincipal(owner, principal, gids, false);
}

int OwnerLookupErrorCode(int lastError) {
    switch (lastError) {
    case KOVA_ERR_NOENT: return 6207;
    case KOVA_ERR_ACL_NOTSUP: return 6201;
    case KOVA_ERR_PERM: return 6205;
    default: return 6200;
    }
}
