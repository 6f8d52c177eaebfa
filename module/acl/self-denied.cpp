// check_self_denied: would the proposed rules (followed, on request, by the
// entries the path inherits) leave the logged-in user with no permission at
// all on the path? Answers {"is_denied": bool}.
//
// Unlike the other methods this one keeps its own error code, starting at
// 0, rather than the handler's.
#include "acl.h"
#include "acl-holder.h"
#include "acl-object.h"
#include "module-log.h"

#include "kova/errcode.h"
#include "kova/klibc.h"

#include <string>
#include <vector>

namespace {

const Json::Value kNull;

// Builds the proposed ACL from the rule objects, in their order. Returns 0
// or the error code of the first rule that cannot become a valid entry.
int AppendRules(const Json::Value &rules, KOVA_ACL &acl) {
    unsigned int state = 0;
    for (Json::Value::const_iterator it = rules.begin(); it != rules.end(); ++it) {
        PKOVA_ACL_ENTRY ace = KOVAACLAceAlloc();
        if (!ace) return 1415;
        if (!RuleObj2AclAce(*it, ace)) {
            const int lastError = KLIBCErrGet();
            KOVA_LOG(LOG_ERR, "acl", 1767, "failed to convert acl str[0x%04X %s:%d]", lastError,
                     KLIBCErrorGetFile(), KLIBCErrorGetLine());
            KOVAACLAceFree(ace);
            return (lastError == KOVA_ERR_NOGROUP || lastError == KOVA_ERR_NOUSER) ? 6211 : 6200;
        }
        if (KOVAACLAceIsValid(ace, &state) == 0) {
            KOVA_LOG(LOG_ERR, "acl", 1773, "failed to check acl[0x%04X %s:%d]", KLIBCErrGet(),
                     KLIBCErrorGetFile(), KLIBCErrorGetLine());
            KOVAACLAceFree(ace);
            return 6200;
        }
        if (KOVAACLAceAppend(&acl, ace) < 0) {
            KOVAACLAceFree(ace);
            return 6200;
        }
    }
    return 0;
}

// Moves every entry of `from`, in order, to the end of `to`.
void MoveEntries(KOVA_ACL &from, KOVA_ACL &to) {
    if (!from.pHead) return;
    if (to.pTail) to.pTail->pNext = from.pHead; else to.pHead = from.pHead;
    to.pTail = from.pTail;
    to.aceCount += from.aceCount;
    from.pHead = nullptr;
    from.pTail = nullptr;
    from.aceCount = 0;
}

// Evaluates the combined list level by level. What a level left allowed is
// carried into later levels; deny bits accumulate over all levels, so a
// deny seen at a nearer level also masks what a farther level allows.
// Returns 0 and the effective mask, or 4203 when the levels go down.
int Evaluate(const KOVA_ACL &acl, const KOVA_ACL_ID &principal, const std::vector<unsigned int> &gids,
             bool isOwner, unsigned int &effective) {
    unsigned int allow = 0, deny = 0, carried = 0;
    unsigned int level = 0;
    for (PKOVA_ACL_ENTRY ace = acl.pHead; ace; ace = ace->pNext) {
        if (ace->level > level) {
            carried |= allow & ~deny;
            allow = 0;
            level = ace->level;
        }
        if (ace->level < level) {
            KOVA_LOG(LOG_ERR, "acl", 1694, "wrong level order: current=%u, ace=%u", level, ace->level);
            return 4203;
        }
        const KOVA_ACL_ID id = {ace->idType, ace->id};
        if (!(ace->inherit & KOVA_ACL_INHERIT_ONLY) && EntryMatchesPrincipal(id, principal, gids, isOwner)) {
            if (ace->accessType == KOVA_ACL_DENY) deny |= ace->permission; else allow |= ace->permission;
        }
    }
    effective = (allow & ~deny) | carried;
    return 0;
}

} // namespace

void ACLHandler::CheckSelfDenied() {
    int code = 0;
    const bool inherited = request_->GetParam("inherited", false).asBool();
    const Json::Value &rules = request_->GetParamRef("rules", kNull);
    const std::string login = request_->GetLoginUserName();
    const std::string path = request_->GetParam("file_path", kNull).asString();

    if (!IsPathUnderSharedFolder(path)) {
        response_->SetError(403, kNull);
        return;
    }

    Json::Value result(Json::objectValue);
    if (!request_->GetParam("change_acl", false).asBool()) {
        result["is_denied"] = false;
        response_->SetSuccess(result);
        return;
    }

    KOVA_ACL_ID principal = {0, 0};
    std::vector<unsigned int> gids;
    if (!Owner2AclId("user", login, principal) || !LoadUserGroupIds(login, gids)) {
        response_->SetError(6211, kNull);
        return;
    }

    const bool isOwner = IsPathOwner(path, principal, gids, code);
    if (code != 0) {
        response_->SetError(code, kNull);
        return;
    }

    AclHolder inheritedAcl;
    if (inherited) {
        if (KOVAACLGet(path.c_str(), -1, KOVA_ACL_GET_INHERITED, inheritedAcl.out()) < 0 || !inheritedAcl.get()) {
            response_->SetError(6200, kNull);
            return;
        }
    }

    AclHolder proposed;
    proposed.reset(KOVAACLAlloc(0));
    if (!proposed.get()) {
        response_->SetError(1415, kNull);
        return;
    }
    code = AppendRules(rules, *proposed.get());
    if (code != 0) {
        response_->SetError(code, kNull);
        return;
    }

    proposed.get()->isInherited = inherited ? 1 : 0;
    if (inheritedAcl.get()) MoveEntries(*inheritedAcl.get(), *proposed.get());

    unsigned int effective = 0;
    code = Evaluate(*proposed.get(), principal, gids, isOwner, effective);
    if (code != 0) {
        response_->SetError(code, kNull);
        return;
    }
    result["is_denied"] = effective == 0;
    response_->SetSuccess(result);
}
