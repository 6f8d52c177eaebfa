// The rule model: flag tables, validation of rule objects and their
// conversion to platform ACL entries and to ACL text.
#include "acl-object.h"
#include "module-log.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"
#include "kova/paramcheck.h"

const AclFlagRow kPermissionTable[] = {
    {"read_data", 'r', false},      {"write_data", 'w', false},     {"exe_file", 'x', false},
    {"append_data", 'p', false},    {"delete", 'd', false},         {"delete_sub", 'D', false},
    {"read_attr", 'a', false},      {"write_attr", 'A', false},     {"read_ext_attr", 'R', false},
    {"write_ext_attr", 'W', false}, {"read_perm", 'c', false},      {"change_perm", 'C', false},
    {"take_ownership", 'o', false}, {nullptr, '\0', false},
};

// "this_folder" and "all_descendants" are stored as their negations: the
// platform's letters are inherit-only (i) and no-propagate (n).
const AclFlagRow kInheritTable[] = {
    {"child_files", 'f', false},
    {"child_folders", 'd', false},
    {"this_folder", 'i', true},
    {"all_descendants", 'n', true},
    {nullptr, '\0', false},
};

namespace {

size_t TableLength(const AclFlagRow *table) {
    size_t n = 0;
    while (table[n].key) ++n;
    return n;
}

bool IsSet(const Json::Value &obj, const char *key) {
    if (!obj.isObject() || !obj.isMember(key)) return false;
    const Json::Value &v = obj[key];
    return v.isConvertibleTo(Json::booleanValue) && v.asBool();
}

std::string FlagObj2Str(const AclFlagRow *table, const Json::Value &obj) {
    std::string text;
    for (const AclFlagRow *row = table; row->key; ++row) {
        bool set = IsSet(obj, row->key);
        text += (set != row->inverted) ? row->letter : '-';
    }
    return text;
}

bool FlagStr2Obj(const AclFlagRow *table, const std::string &text, Json::Value &obj) {
    const size_t length = TableLength(table);
    if (text.size() != length) {
        KOVA_LOG(LOG_ERR, "acl-object", 108, "Incorrect input string '%s'", text.c_str());
        return false;
    }
    for (size_t i = 0; i < length; ++i) {
        const bool matches = text[i] == table[i].letter;
        obj[table[i].key] = matches ? !table[i].inverted : table[i].inverted;
    }
    return true;
}

bool FlagObjCheck(const AclFlagRow *table, const Json::Value &obj) {
    if (!obj.isObject()) return false;
    for (const AclFlagRow *row = table; row->key; ++row) {
        if (!obj.isMember(row->key) || !obj[row->key].isBool()) return false;
    }
    return true;
}

const Json::Value &RuleSchema() {
    static const Json::Value schema = [] {
        Json::Value s(Json::objectValue);
        s["field"] = Json::Value(Json::objectValue);
        const struct {
            const char *name;
            int type;
        } fields[] = {{"owner_type", 4}, {"owner_name", 4}, {"permission_type", 4}, {"permission", 7}, {"inherit", 7}};
        for (const auto &f : fields) {
            Json::Value field(Json::objectValue);
            field["type"] = f.type;
            field["necessary"] = true;
            s["field"][f.name] = field;
        }
        return s;
    }();
    return schema;
}

bool IsOwnerType(const std::string &type) {
    static const char *const kTypes[] = {"system", "authenticated_user", "owner", "everyone", "user", "group"};
    for (const char *t : kTypes)
        if (type == t) return true;
    return false;
}

// The name written into ACL text: the fixed principals have display names.
std::string NameField(const std::string &type, const std::string &name) {
    if (type == "owner") return "Owner";
    if (type == "everyone") return "Everyone";
    if (type == "authenticated_user") return "Authenticated Users";
    if (type == "system") return "SYSTEM";
    return name;
}

} // namespace

bool ValidateRuleObj(const Json::Value &rule) {
    if (!ParameterChecker::check(rule, RuleSchema())) return false;
    if (!IsOwnerType(rule["owner_type"].asString())) return false;
    if (rule["owner_name"].asString().empty()) return false;
    const std::string access = rule["permission_type"].asString();
    if (access != "allow" && access != "deny") return false;
    if (!FlagObjCheck(kPermissionTable, rule["permission"])) return false;
    return FlagObjCheck(kInheritTable, rule["inherit"]);
}

bool RuleObj2AclAce(const Json::Value &rule, KOVA_ACL_ENTRY *ace) {
    if (!ace || !rule.isObject() || !ValidateRuleObj(rule)) return false;
    if (KOVAACLAceParseIDType(rule["owner_type"].asString().c_str(), ace) < 0) {
        KLIBCErrSetEx(KOVA_ERR_BADARG, "acl-object", 193);
        return false;
    }
    const std::string name = rule["owner_name"].asString();
    switch (ace->idType) {
    case KOVA_ACL_ID_USER:
        if (KOVAUserGetUGID(name.c_str(), &ace->id, nullptr) < 0) {
            KLIBCErrSetEx(KOVA_ERR_NOUSER, "acl-object", 206);
            return false;
        }
        break;
    case KOVA_ACL_ID_GROUP:
        if (KOVAGroupGetGID(name.c_str(), &ace->id) < 0) {
            KLIBCErrSetEx(KOVA_ERR_NOGROUP, "acl-object", 212);
            return false;
        }
        break;
    case KOVA_ACL_ID_OWNER:
    case KOVA_ACL_ID_EVERYONE:
    case KOVA_ACL_ID_AUTHUSER:
    case KOVA_ACL_ID_SYSTEM:
        ace->id = -1;
        break;
    default:
        KLIBCErrSetEx(KOVA_ERR_BADARG, "acl-object", 217);
        return false;
    }
    if (KOVAACLAceParseAccessType(rule["permission_type"].asString().c_str(), ace) < 0) return false;
    if (KOVAACLAceParsePermission(FlagObj2Str(kPermissionTable, rule["permission"]).c_str(), ace) < 0) return false;
    return KOVAACLAceParseInherit(FlagObj2Str(kInheritTable, rule["inherit"]).c_str(), ace) >= 0;
}

bool RuleObj2AclStr(const Json::Value &rule, std::string &text) {
    if (!rule.isObject() || !ValidateRuleObj(rule)) return false;
    const std::string type = rule["owner_type"].asString();
    text.clear();
    text += type;
    text += ':';
    text += NameField(type, rule["owner_name"].asString());
    text += ':';
    text += rule["permission_type"].asString();
    text += ':';
    text += FlagObj2Str(kPermissionTable, rule["permission"]);
    text += ':';
    text += FlagObj2Str(kInheritTable, rule["inherit"]);
    return true;
}

bool PermissionStr2Obj(const std::string &text, Json::Value &obj) { return FlagStr2Obj(kPermissionTable, text, obj); }

bool InheritStr2Obj(const std::string &text, Json::Value &obj) { return FlagStr2Obj(kInheritTable, text, obj); }
