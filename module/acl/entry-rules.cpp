// Rule objects of a platform ACL (contract in entry-rules.h).
#include "entry-rules.h"

#include "acl-object.h"

#include "kova/account.h"

#include <string>

namespace {

// One user and one group record serve every lookup of a listing: each
// lookup writes into the same holder, released once at the end.
struct NameLookups {
    PKOVA_USER user = nullptr;
    PKOVA_GROUP group = nullptr;
    NameLookups() = default;
    NameLookups(const NameLookups &) = delete;
    NameLookups &operator=(const NameLookups &) = delete;
    ~NameLookups() {
        KOVAUserFree(user);
        KOVAGroupFree(group);
    }
};

// The name of an entry's principal, empty when it has none; isInternal
// tells whether a named user is an internal account.
std::string PrincipalName(const KOVA_ACL_ENTRY &ace, NameLookups &lookups, bool &isInternal) {
    isInternal = false;
    switch (ace.idType) {
    case KOVA_ACL_ID_USER: {
        PKOVA_USER &user = lookups.user;
        if (KOVAUserGetByUID(static_cast<unsigned int>(ace.id), &user) == 0 && user && user->szName) {
            isInternal = KOVAUserIsInternal(user->szName, user->uid) != 0;
            return user->szName;
        }
        return "";
    }
    case KOVA_ACL_ID_OWNER:
        return "Owner";
    case KOVA_ACL_ID_GROUP: {
        PKOVA_GROUP &group = lookups.group;
        if (KOVAGroupGetByGID(static_cast<unsigned int>(ace.id), &group) >= 0 && group && group->szName)
            return group->szName;
        return "";
    }
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

// The rule object of one entry; false when the entry is left out.
bool RuleFromEntry(const KOVA_ACL_ENTRY &ace, NameLookups &lookups, Json::Value &rule) {
    char idType[64] = {0};
    char access[32] = {0};
    char permission[256] = {0};
    char inherit[256] = {0};
    KOVAACLAcePrintIDType(ace.idType, idType, sizeof idType);
    KOVAACLAcePrintAccessType(ace.accessType, access, sizeof access);
    KOVAACLAcePrintPermission(ace.permission, permission, sizeof permission);
    KOVAACLAcePrintInherit(ace.inherit, inherit, sizeof inherit);

    rule = Json::Value(Json::objectValue);
    rule["owner_type"] = idType;
    bool isInternal = false;
    const std::string name = PrincipalName(ace, lookups, isInternal);
    rule["owner_name"] = name;
    if (isInternal) rule["owner_is_internal"] = true;
    if (name.empty()) return false;
    rule["permission_type"] = access;

    // An entry without any inheritance flag reads as "this folder only",
    // which the inherit object spells with the n letter.
    std::string inheritText = inherit;
    if (inheritText == "----") inheritText = "---n";
    Json::Value permObj(Json::objectValue);
    Json::Value inheritObj(Json::objectValue);
    if (!PermissionStr2Obj(permission, permObj) || !InheritStr2Obj(inheritText, inheritObj)) return false;
    rule["permission"] = permObj;
    rule["inherit"] = inheritObj;
    rule["level"] = ace.level;
    return true;
}

} // namespace

Json::Value RulesFromAcl(const KOVA_ACL &acl) {
    NameLookups lookups;
    Json::Value rules(Json::arrayValue);
    Json::Value rule;
    for (const KOVA_ACL_ENTRY *ace = acl.pHead; ace; ace = ace->pNext) {
        if (RuleFromEntry(*ace, lookups, rule)) rules.append(rule);
    }
    return rules;
}
