// Source "local" (groups): walks every local group, fetches its
// description, filters by keyword in memory on upper-cased text and pages
// as it goes.
#ifndef KOVA_MODULE_LOCAL_GROUP_ENUMERATOR_H
#define KOVA_MODULE_LOCAL_GROUP_ENUMERATOR_H

#include "usergroup-enumerator.h"

namespace internal {

class LocalGroupEnumerator : public UserGroupEnumerator {
public:
    struct Option {
        bool name = true;
        bool description = false;
    };

    explicit LocalGroupEnumerator(Option const &option) : option_(option) {}
    SearchResult Enumerate(SearchOption const &option) override;

private:
    Option option_;
};

// Reads "name" and "description" from "keywordFields"; "config" is ignored.
template <>
bool Deserialize<LocalGroupEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &config,
                                              LocalGroupEnumerator::Option &option);

} // namespace internal

#endif
