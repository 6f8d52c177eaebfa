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
// cn. Numbers: uidNumber / gidNumber, the RID of objectSid (else
// sambaSID) and primaryGroupID; group members from memberUid and member.
// False for anything else (or an account without its naming attribute).
bool MapEntry(const std::string &dn, const Attrs &attrs, KovaDirEntry &out);

// A decimal id in 0..2^31-1, else -1.
long long ParseId(const std::string &text);
// The RID (last sub-authority) of a SID in text ("S-1-5-21-...-1105") or
// binary form, else -1.
long long RidOfSid(const std::string &sid);

// The attributes the readers ask for.
extern const char *const kWantedAttrs[];

std::string Lower(std::string s);

} // namespace kova_dirsvc

#endif
