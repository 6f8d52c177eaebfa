// inspect: the effective permission of a user, group or built-in principal
// on one path, computed from the path's owner and ACL the way an access
// check evaluates them.
#include "acl.h"
#include "acl-holder.h"
#include "acl-object.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <string>
#include <vector>

namespace {

const Json::Value kNull;

// Within each run of consecutive entries of one level, moves the deny
// entries ahead of the allow entries, both keeping their relative order.
// Runs keep their order, so a level listed earlier still decides first.
void OrderDenyFirst(KOVA_ACL &acl) {
    PKOVA_ACL_ENTRY head = nullptr;
    PKOVA_ACL_ENTRY tail = nullptr;
    auto link = [&](PKOVA_ACL_ENTRY first, PKOVA_ACL_ENTRY last) {
        if (!first) return;
        if (tail) tail->pNext = first; else head = first;
        tail = last;
    };

    PKOVA_ACL_ENTRY ace = acl.pHead;
    while (ace) {
        const unsigned int level = ace->level;
        PKOVA_ACL_ENTRY denyFirst = nullptr, denyLast = nullptr;
        PKOVA_ACL_ENTRY allowFirst = nullptr, allowLast = nullptr;
        while (ace && ace->level == level) {
            PKOVA_ACL_ENTRY next = ace->pNext;
            ace->pNext = nullptr;
            PKOVA_ACL_ENTRY &first = ace->accessType == KOVA_ACL_DENY ? denyFirst : allowFirst;
            PKOVA_ACL_ENTRY &last = ace->accessType == KOVA_ACL_DENY ? denyLast : allowLast;
            if (last) last->pNext = ace; else first = ace;
            last = ace;
            ace = next;
        }
        link(denyFirst, denyLast);
        link(allowFirst, allowLast);
    }
    acl.pHead = head;
    acl.pTail = tail;
}

std::string WithTrailingSlash(const std::string &path) {
    if (!path.empty() && path.back() == '/') return path;
    return path + "/";
}

} // namespace

void ACLHandler::Inspect() {
    const std::string path = request_->GetParam("file_path", kNull).asString();
    const std::string ownerType = request_->GetParam("owner_type", kNull).asString();
    const std::string ownerName = request_->GetParam("owner_name", kNull).asString();
    // Administrators may inspect paths they cannot read themselves; only a
    // definite yes counts, a failed lookup (negative) does not.
    const bool callerIsAdmin = KLIBGroupIsAdminGroupMem(request_->GetLoginUserName().c_str(), 0) == 1;

    std::string sharePath;
    if (path.empty() || !IsPathUnderSharedFolder(path, sharePath)) {
        error_ = 403;
        response_->SetError(error_, kNull);
        return;
    }

    KOVA_ACL_ID principal = {0, 0};
    if (!Owner2AclId(ownerType, ownerName, principal)) {
        error_ = 6211;
        response_->SetError(error_, kNull);
        return;
    }

    std::vector<unsigned int> gids;
    bool principalIsAdmin = false;
    if (principal.idType == KOVA_ACL_ID_USER) {
        if (!LoadUserGroupIds(ownerName, gids)) {
            response_->SetError(error_, kNull);
            return;
        }
        const int admin = KLIBGroupIsAdminGroupMemByUid(static_cast<unsigned int>(principal.id), 0);
        if (admin < 0) {
            response_->SetError(error_, kNull);
            return;
        }
        principalIsAdmin = admin == 1;
    } else if (principal.idType == KOVA_ACL_ID_GROUP) {
        gids.push_back(static_cast<unsigned int>(principal.id));
        const int admin = KOVAGroupIsAdminGroupByGid(static_cast<unsigned int>(principal.id));
        if (admin < 0) {
            response_->SetError(error_, kNull);
            return;
        }
        principalIsAdmin = admin == 1;
    }

    KOVA_ACL_ID owner = {0, 0};
    int ret;
    if (callerIsAdmin) {
        CriticalSection section;
        ENTERCriticalSection(section, 1502);
        ret = KOVAACLOwnerIdGet(path.c_str(), &owner);
        LEAVECriticalSection(section, 1504);
    } else {
        ret = KOVAACLOwnerIdGet(path.c_str(), &owner);
    }
    if (ret != 0) {
        error_ = OwnerLookupErrorCode(KLIBCErrGet());
        response_->SetError(error_, kNull);
        return;
    }
    const bool isOwner = EntryMatchesPrincipal(owner, principal, gids, false);

    bool aclMode;
    {
        CriticalSection section;
        ENTERCriticalSection(section, 1526);
        aclMode = KOVAACLIsSupport(path.c_str(), -1, KOVA_ACL_SUPPORT_MODE) != 0;
        LEAVECriticalSection(section, 1528);
    }

    AclHolder acl;
    if (aclMode) {
        if (callerIsAdmin) {
            CriticalSection section;
            ENTERCriticalSection(section, 1532);
            ret = KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_ALL, acl.out());
            LEAVECriticalSection(section, 1534);
        } else {
            ret = KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_ALL, acl.out());
        }
        if (ret < 0 || !acl.get()) {
            if (KLIBCErrGet() == KOVA_ERR_PERM) error_ = 6209;
            response_->SetError(error_, kNull);
            return;
        }
    } else {
        if (callerIsAdmin) {
            CriticalSection section;
            ENTERCriticalSection(section, 1550);
            ret = KOVAACLDumpFromMode(path.c_str(), -1, acl.out());
            LEAVECriticalSection(section, 1552);
        } else {
            ret = KOVAACLDumpFromMode(path.c_str(), -1, acl.out());
        }
        if (ret != 0 || !acl.get()) {
            response_->SetError(error_, kNull);
            return;
        }
    }

    OrderDenyFirst(*acl.get());

    // The owner's implicit rights are decided before any entry is seen, so
    // no deny entry can take them away.
    unsigned int granted = 0;
    unsigned int undecided = 0xFFFFFFFFu;
    if (isOwner) {
        granted = KOVA_ACL_PERM_OWNER_IMPLICIT;
        undecided = ~static_cast<unsigned int>(KOVA_ACL_PERM_OWNER_IMPLICIT);
    }
    // Below a share root an administrator holds everything; at the root
    // itself only the entries decide.
    if (principalIsAdmin && WithTrailingSlash(path) != WithTrailingSlash(sharePath)) {
        granted = KOVA_ACL_PERM_ALL;
        undecided = ~static_cast<unsigned int>(KOVA_ACL_PERM_ALL);
    }

    for (PKOVA_ACL_ENTRY ace = acl.get()->pHead; ace; ace = ace->pNext) {
        const KOVA_ACL_ID id = {ace->idType, ace->id};
        if ((ace->inherit & KOVA_ACL_INHERIT_ONLY) || !EntryMatchesPrincipal(id, principal, gids, isOwner)) {
            continue;
        }
        const unsigned int bits = ace->permission & undecided;
        undecided &= ~ace->permission;
        if (ace->accessType == KOVA_ACL_DENY)
            granted &= ~bits;
        else
            granted |= bits;
        if (undecided == 0) break;
    }

    char text[256] = {0};
    Json::Value permission(Json::objectValue);
    if (KOVAACLAcePrintPermission(granted, text, sizeof(text)) < 0 || !PermissionStr2Obj(text, permission)) {
        response_->SetError(error_, kNull);
        return;
    }
    Json::Value result(Json::objectValue);
    result["permission"] = permission;
    response_->SetSuccess(result);
}
