// Which directory entries are accounts, and how their attributes map to
// the cached columns. Shared by the LDAP and LDIF readers so both agree.
#ifndef KOVA_DIRSVC_ENTRY_MAP_H
#define KOVA_DIRSVC_ENTRY_MAP_H

#include "kova-dirsvc-admin.h"

#include <map>
#include <string>
#include <vector>

namespace kova_dirsvc {

// Attribute names lower-cased, values in directory order.
using Attrs = std::map<std::string, std::vector<std::string>>;

// Users: objectClass posixAccount or inetOrgPerson, named by uid; full name
// from displayName, else cn. Groups: posixGroup or groupOfNames, named by
// cn. False for anything else (or an account without its naming attribute).
bool MapEntry(const std::string &dn, const Attrs &attrs, KovaDirEntry &out);

// The attributes the readers ask for.
extern const char *const kWantedAttrs[];

std::string Lower(std::string s);

} // namespace kova_dirsvc

#endif
