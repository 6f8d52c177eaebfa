// Who an ACL entry speaks to: matching an entry identity against a
// principal, loading a user's groups, and deciding whether a principal owns
// a path. Shared by inspect and check_self_denied so that both evaluate an
// ACL the same way.
#include "acl.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <algorithm>
#include <cstdlib>

namespace {

// Lowest uid of an ordinary user, and the guest account that the
// authenticated-users principal leaves out.
const unsigned int kFirstUserUid = KOVA_UID_FIRST_USER;
const unsigned int kGuestUid = KOVA_UID_GUEST;

bool IsUser(const KOVA_ACL_ID &principal) { return principal.idType == KOVA_ACL_ID_USER; }

} // namespace

bool EntryMatchesPrincipal(const KOVA_ACL_ID &entry, const KOVA_ACL_ID &principal,
                           const std::vector<unsigned int> &gids, bool isOwner) {
    const unsigned int uid = static_cast<unsigned int>(principal.id);
    switch (entry.idType) {
    case KOVA_ACL_ID_EVERYONE:
        return true;
    case KOVA_ACL_ID_OWNER:
        return isOwner;
    case KOVA_ACL_ID_USER:
        return IsUser(principal) && principal.id == entry.id;
    case KOVA_ACL_ID_GROUP:
        return std::find(gids.begin(), gids.end(), static_cast<unsigned int>(entry.id)) != gids.end();
    case KOVA_ACL_ID_AUTHUSER:
        // The guest (1025) is not an authenticated user, and neither are
        // the system accounts below the first user.
        if (principal.idType == KOVA_ACL_ID_AUTHUSER) return true;
        return IsUser(principal) && (uid == kFirstUserUid || uid > kGuestUid);
    case KOVA_ACL_ID_SYSTEM:
        if (principal.idType == KOVA_ACL_ID_SYSTEM) return true;
        return IsUser(principal) && uid < kFirstUserUid;
    default:
        return false;
    }
}

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
    int ret;
    if (elevated) {
        CriticalSection section;
        ENTERCriticalSection(section, 1644);
        ret = KOVAACLOwnerIdGet(path.c_str(), &owner);
        LEAVECriticalSection(section, 1646);
    } else {
        ret = KOVAACLOwnerIdGet(path.c_str(), &owner);
    }

    if (ret != 0) {
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
