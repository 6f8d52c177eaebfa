// Source "ldap" (users): searches the host's LDAP user cache; names are
// qualified with "@" and the login suffix.
#ifndef KOVA_MODULE_LDAP_USER_ENUMERATOR_H
#define KOVA_MODULE_LDAP_USER_ENUMERATOR_H

#include "directory-fields.h"
#include "usergroup-enumerator.h"

#include <string>

namespace internal {

class LdapUserEnumerator : public UserGroupEnumerator {
public:
    struct Option : DirectoryFields {};

    // suffix: "@" followed by the login suffix.
    LdapUserEnumerator(std::string const &suffix, Option const &option) : suffix_(suffix), option_(option) {}
    SearchResult Enumerate(SearchOption const &option) override;

private:
    std::string suffix_;
    Option option_;
};

// Reads "name", "description", "email", "fullname" from "keywordFields".
template <>
bool Deserialize<LdapUserEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &config,
                                            LdapUserEnumerator::Option &option);

} // namespace internal

#endif
