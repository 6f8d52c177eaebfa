// Source "builtin": the four fixed principals that are not accounts (Owner,
// Everyone, Authenticated Users, SYSTEM), matched by keyword against their
// ids and paged like every other source.
#ifndef KOVA_MODULE_BUILTIN_ENUMERATOR_H
#define KOVA_MODULE_BUILTIN_ENUMERATOR_H

#include "usergroup-enumerator.h"

namespace internal {

class BuiltinEnumerator : public UserGroupEnumerator {
public:
    // One flag per principal, in table order.
    struct Option {
        bool owner = true;
        bool everyone = true;
        bool authenticatedUsers = true;
        bool system = true;
    };

    explicit BuiltinEnumerator(Option const &option) : option_(option) {}
    SearchResult Enumerate(SearchOption const &option) override;

private:
    Option option_;
};

// Reads "config" only. Each of the four keys, when boolean, is stored in
// the owner flag: the last one present decides it, and the other three
// principals are always offered.
template <>
bool Deserialize<BuiltinEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &config,
                                            BuiltinEnumerator::Option &option);

} // namespace internal

#endif
