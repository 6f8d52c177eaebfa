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

// The combined list must read nearer levels first; an entry whose level is
// below one already seen is refused (4203), whomever it names.
int CheckLevelOrder(const KOVA_ACL &acl) {
    unsigned int level = 0;
    for (const KOVA_ACL_ENTRY *ace = acl.pHead; ace; ace = ace->pNext) {
        if (ace->level < level) {
            KOVA_LOG(LOG_ERR, "acl", 1694, "wrong level order: current=%u, ace=%u", level, ace->level);
            return 4203;
        }
        level = ace->level;
    }
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

    // What the rules themselves leave the user: neither ownership nor
    // administrator rights count, only "Owner" entries.
    RightsPrincipal who;
    if (!Owner2AclId("user", login, who.id) || !LoadUserGroupIds(login, who.gids)) {
        response_->SetError(6211, kNull);
        return;
    }

    who.isOwner = IsPathOwner(path, who.id, who.gids, code);
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

    code = CheckLevelOrder(*proposed.get());
    if (code != 0) {
        response_->SetError(code, kNull);
        return;
    }
    result["is_denied"] = EffectiveRights(who, 0, *proposed.get()) == 0;
    response_->SetSuccess(result);
}
