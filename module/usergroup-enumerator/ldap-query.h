// The query both LDAP sources run against the host's LDAP account cache:
// open, request columns, add one LIKE clause per searched column (joined by
// OR), set the page, collect rows. The database filters and pages; the
// result's total is its count of all matching rows. Any host failure is
// logged with the source's own file and line and yields an empty result.
#ifndef KOVA_MODULE_LDAP_QUERY_H
#define KOVA_MODULE_LDAP_QUERY_H

#include "search-records.h"

#include "kova/accountdb.h"

#include <string>
#include <vector>

namespace internal {

struct LdapQuery {
    const char *logFile;
    // Log lines: open, action init, add field, add clause, enum set,
    // core exec, callback status.
    int lineOpen, lineInit, lineField, lineClause, lineSet, lineExec, lineCallback;
    int kind;                                // 0 users, 1 groups
    const char *type;                        // "user" or "group"
    std::vector<const char *> columns;       // requested, in order
    std::vector<const char *> clauseColumns; // searched, in order
    std::string suffix;                      // appended to every name
};

SearchResult RunLdapQuery(LdapQuery const &query, SearchOption const &option);

} // namespace internal

#endif
