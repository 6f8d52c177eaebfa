// The rule objects `get` answers with: one per platform ACL entry, in list
// order, with the reading-side keys ("owner_is_internal", "level") beside
// those of the rule model. An entry whose principal has no name (a deleted
// user or group, an unknown identity type) or whose letters do not convert
// is left out without an error.
#ifndef KOVA_MODULE_ACL_ENTRY_RULES_H
#define KOVA_MODULE_ACL_ENTRY_RULES_H

#include "kova/acl.h"

#include <json/json.h>

Json::Value RulesFromAcl(const KOVA_ACL &acl);

#endif
