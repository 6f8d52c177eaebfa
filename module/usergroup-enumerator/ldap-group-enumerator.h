// Source "ldap" (groups): searches the host's LDAP group cache; names are
// qualified with "@" and the login suffix.
#ifndef KOVA_MODULE_LDAP_GROUP_ENUMERATOR_H
#define KOVA_MODULE_LDAP_GROUP_ENUMERATOR_H

#include "usergroup-enumerator.h"

#include <string>

namespace internal {

class LdapGroupEnumerator : public UserGroupEnumerator {
public:
    struct Option {
        bool name = true;
        bool description = false;
    };

    // suffix: "@" followed by the login suffix.
    LdapGroupEnumerator(std::string const &suffix, Option const &option) : suffix_(suffix), option_(option) {}
    SearchResult Enumerate(SearchOption const &option) override;

private:
    std::string suffix_;
    Option option_;
};

// Reads "name" and "description" from "keywordFields".
template <>
bool Deserialize<LdapGroupEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &config,
                                             LdapGroupEnumerator::Option &option);

} // namespace internal

#endif
