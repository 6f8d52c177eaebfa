// Narrowing a query with the trigram index: from the parsed conditions,
// an FTS5 query whose matches are a superset of the rows the LIKE
// conditions accept. A condition narrows when its column is indexed and
// its pattern holds a literal run of 3 or more characters (trigrams need
// 3); AND narrows when any part does, OR only when every part does. Rows
// found this way are always confirmed by the exact LIKE.
#ifndef KOVA_ACCOUNTDB_FTS_NARROW_H
#define KOVA_ACCOUNTDB_FTS_NARROW_H

#include "clause.h"

#include <string>
#include <vector>

namespace kova_accountdb {

// "" when the node cannot narrow.
std::string Narrowing(const ClauseNode &node, const Layout &layout);
// The whole WHERE: AND clauses, plus the OR group when it has members.
std::string NarrowingFor(const std::vector<const ClauseNode *> &andClauses, const std::vector<const ClauseNode *> &orClauses,
                         const Layout &layout);

} // namespace kova_accountdb

#endif
