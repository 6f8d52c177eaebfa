/*
 * Exact lookups in the account caches (libkovaaccountdb.so.7), for the
 * account library: one directory account by name or by its cached number,
 * and the groups a user belongs to.
 *
 * Contract: every call is noexcept and answers 1 found, 0 absent (also when
 * the cache does not exist yet, or was written before caches kept numbers),
 * -1 on an error with the last error set. Domains use their full cache, or
 * their names-only cache when that is all there is. Numbers are the cached
 * ones: uidNumber / gidNumber for LDAP, RIDs for domains; -1 when the entry
 * has none.
 */
#ifndef KOVA_ACCOUNTDB_LOOKUP_H
#define KOVA_ACCOUNTDB_LOOKUP_H

#include <string>
#include <vector>

#include "kova/export.h"

// The administration interface beside the public one: exported like it.
KOVA_API_BEGIN

struct KovaCachedAccount {
    std::string name, dn, desc, mail;
    long long id = -1, gid = -1;
};

class KovaAccountCacheLookup {
public:
    // selector KOVA_ACCOUNTDB_LDAP (domain ignored) or KOVA_ACCOUNTDB_DOMAIN.
    // Names match exactly, else case-insensitively when that finds one
    // entry only.
    static int ByName(int selector, const std::string &domain, bool group, const std::string &name,
                      KovaCachedAccount &out) noexcept;
    static int ById(int selector, const std::string &domain, bool group, long long id, KovaCachedAccount &out) noexcept;
    // The numbers of the groups whose members name the user (by name or by
    // DN), ascending; groups without a number are left out.
    static int GroupIdsOf(int selector, const std::string &domain, const KovaCachedAccount &user,
                          std::vector<long long> &ids) noexcept;
};

KOVA_API_END

#endif
