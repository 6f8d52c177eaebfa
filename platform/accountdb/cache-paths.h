// Where the caches live under the platform root:
//   var/cache/accountdb/ldap.db                    the LDAP cache
//   var/cache/accountdb/domain-full.db             catalogue of full domain caches
//   var/cache/accountdb/domain-full/<DOMAIN>.db    one domain's full cache
//   var/cache/accountdb/domain-enum.db, domain-enum/<DOMAIN>.db  the same, names only
// Domain file names are the upper-cased domain name (domains are
// case-insensitive), which must be letters, digits, '.', '-', '_'.
#ifndef KOVA_ACCOUNTDB_CACHE_PATHS_H
#define KOVA_ACCOUNTDB_CACHE_PATHS_H

#include <string>

namespace kova_accountdb {

std::string CacheDir();
// False (KOVA_ERR_BADARG) for unknown selectors/types or bad domain names.
// An empty domain names the variant's catalogue.
bool CachePath(int selector, int dbType, const std::string &domain, std::string &out);
std::string VariantName(int dbType);  // "full" or "enum"
bool ValidDomain(const std::string &domain);
std::string UpperAscii(std::string s);
// Creates the directory and its parents (0755).
bool MakeDirs(const std::string &dir);

} // namespace kova_accountdb

#endif
