#include "ldap-group-enumerator.h"

#include "ldap-query.h"

namespace internal {

template <>
bool Deserialize<LdapGroupEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &,
                                             LdapGroupEnumerator::Option &option) {
    option = LdapGroupEnumerator::Option();
    if (keywordFields.empty()) return true;
    ReadBool(keywordFields, "name", option.name);
    ReadBool(keywordFields, "description", option.description);
    return true;
}

SearchResult LdapGroupEnumerator::Enumerate(SearchOption const &option) {
    LdapQuery query{"usergroup-enumerator/ldap-group-enumerator", 71, 76, 83, 111, 119, 124, 129,
                    KOVA_ACCOUNTDB_KIND_GROUP, "group", {"name", "desc"}, {}, suffix_};
    if (option_.name) query.clauseColumns.push_back("name_upper");
    if (option_.description) query.clauseColumns.push_back("desc");
    return RunLdapQuery(query, option);
}

} // namespace internal
