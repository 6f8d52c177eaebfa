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

namespace {

const Json::Value kNull;

// Fills in the principal's groups and administrator status. A user's groups
// come from the account; a group stands for itself. False when either
// lookup fails.
bool DescribePrincipal(const std::string &name, RightsPrincipal &who) {
    const unsigned int id = static_cast<unsigned int>(who.id.id);
    int admin = 0;
    if (who.id.idType == KOVA_ACL_ID_USER) {
        if (!LoadUserGroupIds(name, who.gids)) return false;
        admin = KLIBGroupIsAdminGroupMemByUid(id, 0);
    } else if (who.id.idType == KOVA_ACL_ID_GROUP) {
        who.gids.push_back(id);
        admin = KOVAGroupIsAdminGroupByGid(id);
    }
    if (admin < 0) return false;
    who.isAdmin = admin == 1;
    return true;
}

// The entries the evaluation reads: the stored ACL with everything the path
// inherits, or, for a path in mode bits, the entries those bits stand for.
// The support check always runs privileged, the reads only when `elevate`.
// On failure `error` becomes 6209 for a refused read and is kept otherwise.
bool ReadEntries(const std::string &path, bool elevate, AclHolder &acl, int &error) {
    // A negative (error) answer counts as ACL mode: the read then reports
    // the real failure.
    const bool aclMode = PrivilegedIf(true, 1526, 1528, [&] {
        return KOVAACLIsSupport(path.c_str(), -1, KOVA_ACL_SUPPORT_MODE) != 0;
    });
    if (!aclMode) {
        const int rc = PrivilegedIf(elevate, 1550, 1552, [&] { return KOVAACLDumpFromMode(path.c_str(), -1, acl.out()); });
        return rc == 0 && acl.get();
    }
    const int rc = PrivilegedIf(elevate, 1532, 1534, [&] {
        return KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_ALL, acl.out());
    });
    if (rc >= 0 && acl.get()) return true;
    if (KLIBCErrGet() == KOVA_ERR_PERM) error = 6209;
    return false;
}

std::string WithTrailingSlash(const std::string &path) {
    if (!path.empty() && path.back() == '/') return path;
    return path + "/";
}

// The answer: {"permission": permission object of the mask}.
bool PermissionAnswer(unsigned int rights, Json::Value &answer) {
    char text[256] = {0};
    Json::Value permission(Json::objectValue);
    if (KOVAACLAcePrintPermission(rights, text, sizeof(text)) < 0 || !PermissionStr2Obj(text, permission)) return false;
    answer = Json::Value(Json::objectValue);
    answer["permission"] = permission;
    return true;
}

} // namespace

void ACLHandler::Inspect() {
    const std::string path = request_->GetParam("file_path", kNull).asString();
    const std::string ownerType = request_->GetParam("owner_type", kNull).asString();
    const std::string ownerName = request_->GetParam("owner_name", kNull).asString();
    // Administrators may inspect paths they cannot read themselves; only a
    // definite yes counts, a failed lookup (negative) does not.
    const bool callerIsAdmin = KLIBGroupIsAdminGroupMem(request_->GetLoginUserName().c_str(), 0) == 1;
    auto fail = [&](int code) {
        error_ = code;
        response_->SetError(error_, kNull);
    };

    std::string sharePath;
    if (path.empty() || !IsPathUnderSharedFolder(path, sharePath)) return fail(403);

    RightsPrincipal who;
    if (!Owner2AclId(ownerType, ownerName, who.id)) return fail(6211);
    if (!DescribePrincipal(ownerName, who)) return fail(error_);

    KOVA_ACL_ID owner = {0, 0};
    if (PrivilegedIf(callerIsAdmin, 1502, 1504, [&] { return KOVAACLOwnerIdGet(path.c_str(), &owner); }) != 0)
        return fail(OwnerLookupErrorCode(KLIBCErrGet()));
    who.isOwner = EntryMatchesPrincipal(owner, who.id, who.gids, false);

    AclHolder acl;
    if (!ReadEntries(path, callerIsAdmin, acl, error_)) return fail(error_);

    // At the share root itself an administrator gets only what the entries
    // give; below it, everything.
    const bool belowShareRoot = WithTrailingSlash(path) != WithTrailingSlash(sharePath);
    Json::Value answer;
    if (!PermissionAnswer(EffectiveRights(who, FixedRights(who, belowShareRoot), *acl.get()), answer))
        return fail(error_);
    response_->SetSuccess(answer);
}
