// Source "domain": searches the host's cached account databases of the
// Windows domains, users (kind false) or groups (kind true). The full
// database is searched in every selected field and may be restricted to a
// distinguished-name suffix ("bindon"); the enumeration database holds
// names only. Paging runs across the domains as one list.
#ifndef KOVA_MODULE_DOMAIN_ENUMERATOR_H
#define KOVA_MODULE_DOMAIN_ENUMERATOR_H

#include "directory-fields.h"
#include "usergroup-enumerator.h"

#include <string>
#include <vector>

namespace internal {

class DomainEnumerator : public UserGroupEnumerator {
public:
    struct Option : DirectoryFields {
        std::vector<std::string> domains;  // queried in order
        std::string bindon;                // distinguished-name suffix filter
    };

    DomainEnumerator(bool kind, Option const &option) : kind_(kind), option_(option) {}
    SearchResult Enumerate(SearchOption const &option) override;

private:
    bool kind_;
    Option option_;
};

// Reads the field flags from "keywordFields" and "bindon" from "config".
// With trusted domains on, a non-empty bindon names the only domain to
// search; otherwise it filters, and the domains are all the host knows.
template <>
bool Deserialize<DomainEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &config,
                                          DomainEnumerator::Option &option);

} // namespace internal

#endif
