#include "ldap-user-enumerator.h"

#include "ldap-query.h"

namespace internal {

template <>
bool Deserialize<LdapUserEnumerator::Option>(Json::Value const &keywordFields, Json::Value const &,
                                            LdapUserEnumerator::Option &option) {
    option = LdapUserEnumerator::Option();
    ReadDirectoryFields(keywordFields, option);
    return true;
}

SearchResult LdapUserEnumerator::Enumerate(SearchOption const &option) {
    LdapQuery query{"usergroup-enumerator/ldap-user-enumerator", 84, 89, 96, 130, 137, 141, 146,
                    KOVA_ACCOUNTDB_KIND_USER, "user", {"name", "mail", "fullname", "desc"}, {}, suffix_};
    if (option_.name) query.clauseColumns.push_back("name_upper");
    if (option_.description) query.clauseColumns.push_back("desc");
    if (option_.email) query.clauseColumns.push_back("mail");
    if (option_.fullname) query.clauseColumns.push_back("fullname");
    return RunLdapQuery(query, option);
}

} // namespace internal
