// The ACL rule model: the JSON rule object of the WebAPI, its validation, and
// its conversion to the platform's ACL entry and ACL text.
//
// A rule object holds "owner_type", "owner_name", "permission_type",
// "permission" (13 booleans) and "inherit" (4 booleans). Conversions walk
// the two flag tables below in their order; a table ends at a row whose key
// is null.
#ifndef KOVA_MODULE_ACL_OBJECT_H
#define KOVA_MODULE_ACL_OBJECT_H

#include "kova/acl.h"

#include <json/json.h>

#include <string>

struct AclFlagRow {
    const char *key;
    char letter;
    bool inverted;  // the letter stands for the key being false
};

extern const AclFlagRow kPermissionTable[];  // 13 rows: "read_data" r ... "take_ownership" o
extern const AclFlagRow kInheritTable[];     // 4 rows: "child_files" f ... "all_descendants" n (inverted)

bool ValidateRuleObj(const Json::Value &rule);
bool RuleObj2AclAce(const Json::Value &rule, KOVA_ACL_ENTRY *ace);
bool RuleObj2AclStr(const Json::Value &rule, std::string &text);
bool PermissionStr2Obj(const std::string &text, Json::Value &obj);
bool InheritStr2Obj(const std::string &text, Json::Value &obj);

#endif
