// Source "local" (users) and "internal": walks every local user or every
// internal account through the host's account library, filters by keyword
// in memory on upper-cased text and pages as it goes.
#ifndef KOVA_MODULE_LOCAL_USER_ENUMERATOR_H
#define KOVA_MODULE_LOCAL_USER_ENUMERATOR_H

#include "usergroup-enumerator.h"

namespace internal {

class LocalUserEnumerator : public UserGroupEnumerator {
public:
    struct Option {
        bool users = true;           // set by the registry, never from JSON
        bool internalUsers = false;  // set by the registry, never from JSON
        bool name = true;
        bool description = false;
        bool email = false;
    };

    explicit LocalUserEnumerator(Option const &option) : option_(option) {}
    SearchResult Enumerate(SearchOption const &option) override;

private:
    Option option_;
};

// Reads "name", "description", "email" from "keywordFields"; "config" is
// ignored.
template <>
bool Deserialize<LocalUserEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &config,
                                             LocalUserEnumerator::Option &option);

} // namespace internal

#endif
