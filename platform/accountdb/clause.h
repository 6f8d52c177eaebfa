// The restricted clause language of the account databases:
//   expr := term { (" OR " | " AND ") term }
//   term := cond | "(" expr ")"
//   cond := "(" column " LIKE \"" pattern "\" ESCAPE '\')"
// A pattern is the text up to the next "\" ESCAPE '\')"; a backslash in it
// escapes the next character. The parse keeps the structure, checks each
// column against the table's layout and turns each pattern into a bound
// parameter, so no clause text ever reaches SQL.
#ifndef KOVA_ACCOUNTDB_CLAUSE_H
#define KOVA_ACCOUNTDB_CLAUSE_H

#include "cache-layout.h"

#include <memory>
#include <string>
#include <vector>

namespace kova_accountdb {

struct ClauseNode {
    enum Kind { kCond, kGroup } kind = kCond;
    // kCond
    int column = -1;  // index into the layout
    std::string pattern;
    // kGroup: children joined by ops (ops.size() == children.size() - 1),
    // each " AND " or " OR ".
    std::vector<std::unique_ptr<ClauseNode>> children;
    std::vector<bool> opIsAnd;
};

// Null (KOVA_ERR_BADARG set) when the text is outside the language, a
// column is unknown or a pattern ends in a lone escape.
std::unique_ptr<ClauseNode> ParseClause(const std::string &text, const Layout &layout);

// SQL text of the node with "?" for each pattern, appended to params in order.
std::string ClauseSql(const ClauseNode &node, const Layout &layout, std::vector<std::string> &params);

// The longest run of literal characters of a LIKE pattern (escapes
// resolved), and its length in characters.
std::string LongestLiteral(const std::string &pattern, size_t *chars);

} // namespace kova_accountdb

#endif
