// ACLHandler::Get: a path's rules as rule objects, whether it is in ACL mode
// and inherits, and what the caller may edit.
#include "acl.h"
#include "acl-object.h"

#include "kova/account.h"
#include "kova/klibc.h"
#include "kova/share.h"

#include <cstring>

namespace {

// Names the principal of an entry; the user and group holders are reused
// across entries and released by the caller.
std::string PrincipalName(const KOVA_ACL_ENTRY &ace, PKOVA_USER &user, PKOVA_GROUP &group, bool &isInternal) {
    isInternal = false;
    switch (ace.idType) {
    case KOVA_ACL_ID_USER:
        if (KOVAUserGetByUID(static_cast<unsigned int>(ace.id), &user) == 0 && user && user->szName) {
            isInternal = KOVAUserIsInternal(user->szName, user->uid) != 0;
            return user->szName;
        }
        return "";
    case KOVA_ACL_ID_OWNER:
        return "Owner";
    case KOVA_ACL_ID_GROUP:
        if (KOVAGroupGetByGID(static_cast<unsigned int>(ace.id), &group) >= 0 && group && group->szName)
            return group->szName;
        return "";
    case KOVA_ACL_ID_EVERYONE:
        return "Everyone";
    case KOVA_ACL_ID_AUTHUSER:
        return "Authenticated Users";
    case KOVA_ACL_ID_SYSTEM:
        return "SYSTEM";
    default:
        return "";
    }
}

} // namespace

void ACLHandler::Get() {
    const Json::Value null;
    const std::string type = request_->GetParam("type", null).asString();
    const std::string path = request_->GetParam("file_path", null).asString();
    // Only a definite yes makes an administrator: a failed lookup (negative)
    // must not read as one.
    const bool isAdmin = KLIBGroupIsAdminGroupMem(request_->GetLoginUserName().c_str(), 0) == 1;

    Json::Value result(Json::objectValue);
    PKOVA_ACL acl = nullptr;
    PKOVA_USER user = nullptr;
    PKOVA_GROUP group = nullptr;
    bool ok = false;
    bool supported = false;

    do {
        if (!IsPathUnderSharedFolder(path)) {
            error_ = 403;
            break;
        }
        bool modeAll;
        if (type == "all") {
            modeAll = true;
        } else if (type == "inherite") {
            modeAll = false;
        } else {
            error_ = 403;
            break;
        }

        CriticalSection section;
        ENTERCriticalSection(section, 210);
        // A negative (error) answer counts as support on purpose: the read
        // below then reports the real failure.
        supported = KOVAACLIsSupport(path.c_str(), -1, 2) != 0;
        LEAVECriticalSection(section, 212);

        result["is_acl"] = false;
        result["is_inherited"] = false;

        if (!modeAll) {
            int rc;
            if (isAdmin) {
                ENTERCriticalSection(section, 219);
                rc = KOVAACLGet(path.c_str(), -1, 3, &acl);
                LEAVECriticalSection(section, 221);
            } else {
                rc = KOVAACLGet(path.c_str(), -1, 3, &acl);
            }
            if (rc < 0 || !acl) {
                if (KLIBCErrGet() == 0x300) error_ = 6205;
                break;
            }
        } else if (supported) {
            result["is_acl"] = true;
            int rc;
            if (isAdmin) {
                ENTERCriticalSection(section, 239);
                rc = KOVAACLGet(path.c_str(), -1, 1, &acl);
                LEAVECriticalSection(section, 241);
            } else {
                rc = KOVAACLGet(path.c_str(), -1, 1, &acl);
            }
            if (rc < 0 || !acl) {
                if (KLIBCErrGet() == 0x300) error_ = 6205;
                break;
            }
            result["is_inherited"] = acl->isInherited != 0;
        } else {
            int rc;
            if (isAdmin) {
                ENTERCriticalSection(section, 257);
                rc = KOVAACLDumpFromMode(path.c_str(), -1, &acl);
                LEAVECriticalSection(section, 259);
            } else {
                rc = KOVAACLDumpFromMode(path.c_str(), -1, &acl);
            }
            if (rc != 0 || !acl) break;
        }

        Json::Value rules(Json::arrayValue);
        Json::Value rule;
        for (const KOVA_ACL_ENTRY *ace = acl->pHead; ace; ace = ace->pNext) {
            char idType[64];
            char access[32];
            char permission[256];
            char inherit[256];
            std::memset(idType, 0, sizeof idType);
            std::memset(access, 0, sizeof access);
            std::memset(permission, 0, sizeof permission);
            std::memset(inherit, 0, sizeof inherit);
            KOVAACLAcePrintIDType(ace->idType, idType, sizeof idType);
            KOVAACLAcePrintAccessType(ace->accessType, access, sizeof access);
            KOVAACLAcePrintPermission(ace->permission, permission, sizeof permission);
            KOVAACLAcePrintInherit(ace->inherit, inherit, sizeof inherit);

            rule = Json::Value(Json::objectValue);
            rule["owner_type"] = idType;
            rule["owner_name"] = "";
            bool isInternal = false;
            rule["owner_name"] = PrincipalName(*ace, user, group, isInternal);
            if (isInternal) rule["owner_is_internal"] = true;
            if (rule["owner_name"].asString().empty()) continue;
            rule["permission_type"] = access;

            // An entry without any inheritance flag reads as "this folder
            // only", which the inherit object spells with the n letter.
            std::string inheritText = inherit;
            if (inheritText == "----") inheritText = "---n";
            Json::Value permObj(Json::objectValue);
            Json::Value inheritObj(Json::objectValue);
            if (!PermissionStr2Obj(permission, permObj)) continue;
            if (!InheritStr2Obj(inheritText, inheritObj)) continue;
            rule["permission"] = permObj;
            rule["inherit"] = inheritObj;
            rule["level"] = ace->level;
            rules.append(rule);
        }
        result["acl"] = rules;
        result["change_permission"] = false;
        result["acl_editable"] = true;

        if (!supported) {
            int fsType = KOVAGetFSType(path.c_str(), 0);
            if (isAdmin)
                result["acl_editable"] = true;
            else
                result["acl_editable"] = fsType >= 0 ? CheckFsType(fsType, path, true) : false;
            ok = true;
            break;
        }

        KOVA_ACL_ENTRY mask;
        std::memset(&mask, 0, sizeof mask);
        if (KOVAACLAceParsePermission("C", &mask) < 0 || mask.permission == 0) break;
        if (isAdmin) {
            result["change_permission"] = true;
        } else {
            int rc = KOVAACLPermCheck(path.c_str(), mask.permission);
            if (rc > 0) {
                result["change_permission"] = true;
            } else if (rc < 0 || KLIBCErrGet() != 0x300) {
                break;
            }
        }
        ok = true;
    } while (false);

    KOVAUserFree(user);
    KOVAGroupFree(group);
    if (acl) KOVAACLFree(acl);
    if (ok)
        response_->SetSuccess(result);
    else
        response_->SetError(error_, Json::Value());
}
