#include "cache-paths.h"

#include "kova-internal/paths.h"
#include "kova-internal/fault-point.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <sys/stat.h>

#include <cctype>
#include <cerrno>

namespace kova_accountdb {

std::string CacheDir() { return std::string(KLIBCRootGet()) + "/var/cache/accountdb"; }

std::string VariantName(int dbType) { return dbType == KOVA_ACCOUNTDB_TYPE_FULL ? "full" : "enum"; }

bool ValidDomain(const std::string &d) {
    if (d.empty() || d.size() > 63 || d[0] == '.' || d[0] == '-') return false;
    for (char c : d)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_') return false;
    return true;
}

std::string UpperAscii(std::string s) {
    for (char &c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return s;
}

bool CachePath(int selector, int dbType, const std::string &domain, std::string &out) {
    if (selector == KOVA_ACCOUNTDB_LDAP) {
        out = CacheDir() + "/ldap.db";
        return true;
    }
    if (selector != KOVA_ACCOUNTDB_DOMAIN || (dbType != KOVA_ACCOUNTDB_TYPE_FULL && dbType != KOVA_ACCOUNTDB_TYPE_ENUM)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    std::string variant = CacheDir() + "/domain-" + VariantName(dbType);
    if (domain.empty()) {
        out = variant + ".db";
        return true;
    }
    if (!ValidDomain(domain)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return false;
    }
    out = variant + "/" + UpperAscii(domain) + ".db";
    return true;
}

bool MakeDirs(const std::string &dir) {
    if (kova_internal::MakeDirs(dir)) return true;
    KOVA_FAIL(KOVA_ERR_IO);
    return false;
}

} // namespace kova_accountdb
