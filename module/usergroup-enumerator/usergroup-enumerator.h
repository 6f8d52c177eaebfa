// The abstract source of the owner search, and the option reader that every
// source specialises.
//
// An enumerator runs once against a SearchOption and returns its matches
// with the page slice (search-records.h). It never throws for host
// failures: it logs them and returns what it has. Enumerators are owned by
// exactly one EnumeratorList.
#ifndef KOVA_MODULE_USERGROUP_ENUMERATOR_H
#define KOVA_MODULE_USERGROUP_ENUMERATOR_H

#include "search-records.h"

#include <json/json.h>

#include <list>
#include <memory>

namespace internal {

class UserGroupEnumerator {
public:
    virtual ~UserGroupEnumerator();
    virtual SearchResult Enumerate(SearchOption const &option) = 0;
};

typedef std::list<std::unique_ptr<UserGroupEnumerator>> EnumeratorList;

// Fills a source's option record from the request's "keywordFields" and the
// scope element's "config". Each source header declares the specialisation
// for its Option; every specialisation returns true.
template <typename Option>
bool Deserialize(Json::Value const &keywordFields, Json::Value const &config, Option &option);

// Reads key from an object when it holds a boolean; anything else leaves
// the target as it was.
void ReadBool(Json::Value const &object, const char *key, bool &target);

} // namespace internal

#endif
