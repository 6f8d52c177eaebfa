// The directory-service state database, <root>/etc/dirsvc.db: key-value
// flags and settings, the ordered domain list and the organisational units.
// Root-only (it holds the LDAP bind password); sessions raise to root like
// the account database's.
#ifndef KOVA_DIRSVC_STATE_DB_H
#define KOVA_DIRSVC_STATE_DB_H

#include "kova-dirsvc-admin.h"
#include "kova-internal/identity.h"
#include "kova-internal/sqlite-db.h"

#include <map>
#include <string>
#include <vector>

namespace kova_dirsvc {

class StateSession {
public:
    bool Open();
    kova_internal::Database &db() { return db_; }
    // All keys; false on a database error.
    bool ReadAll(std::map<std::string, std::string> &kv);
    bool Set(const std::string &key, const std::string &value);
    bool Domains(std::vector<std::string> &out);
    bool Ous(std::vector<std::pair<std::string, std::string>> &out);
    bool Begin() { return db_.Exec("BEGIN IMMEDIATE"); }
    bool Commit();
    void Rollback() { db_.Exec("ROLLBACK"); }

private:
    kova_internal::RootScope root_;
    kova_internal::Database db_;
};

// The recorded settings as the administration structures.
void LdapFromState(std::map<std::string, std::string> &kv, KovaLdapConfig &out);
void DomainFlagsFromState(const std::map<std::string, std::string> &kv, KovaDomainState &out);

// "yes" / "no" values.
inline bool IsYes(const std::map<std::string, std::string> &kv, const char *key, bool fallback = false) {
    auto it = kv.find(key);
    return it == kv.end() ? fallback : it->second == "yes";
}

} // namespace kova_dirsvc

#endif
