// From a client's search keyword to SQL: the module's LIKE helpers (like-clause.h) and the account databases'
// clause parser and SQL builder (clause.h). The first byte picks a table layout (low three bits) and a mode
// (bit 3) for the text that follows. A clause is refused or becomes SQL of the layout's column names,
// operators and one bound parameter per condition, with no byte of a pattern in it. A keyword, escaped into a
// clause for each column as the directory sources do, parses back to that column and pattern, whose longest
// literal is the whole keyword.
#include "clause.h"
#include "fuzz-check.h"
#include "like-clause.h"
#include "utf8-check.h"

#include "kova/accountdb.h"

#include <algorithm>
#include <vector>

namespace {

using kova_fuzz::Check;

// Users (even b) or groups (odd b) of an LDAP directory, a domain's full cache or its enumeration cache.
const kova_accountdb::Layout *PickLayout(uint8_t b) {
    static const int kSources[3][2] = {{KOVA_ACCOUNTDB_LDAP, 0}, {KOVA_ACCOUNTDB_DOMAIN, KOVA_ACCOUNTDB_TYPE_FULL},
                                       {KOVA_ACCOUNTDB_DOMAIN, KOVA_ACCOUNTDB_TYPE_ENUM}};
    const int *source = kSources[(b % 6) / 2];
    return kova_accountdb::LayoutFor(source[0], source[1], b % 2 ? KOVA_ACCOUNTDB_KIND_GROUP : KOVA_ACCOUNTDB_KIND_USER);
}

size_t Conditions(const kova_accountdb::ClauseNode &node) {
    if (node.kind == kova_accountdb::ClauseNode::kCond) return 1;
    Check(node.children.size() == node.opIsAnd.size() + 1, "a group with the wrong number of operators");
    size_t n = 0;
    for (const auto &child : node.children) n += Conditions(*child);
    return n;
}

void FuzzClause(const kova_accountdb::Layout &layout, const std::string &text) {
    auto node = kova_accountdb::ParseClause(text, layout);
    if (!node) return;
    std::vector<std::string> params;
    std::string sql = kova_accountdb::ClauseSql(*node, layout, params);
    Check(params.size() == Conditions(*node), "one bound parameter per condition");
    // Strip what the builder may write; nothing may remain.
    std::string rest = sql;
    auto strip = [&rest](const std::string &token) {
        for (size_t pos; (pos = rest.find(token)) != std::string::npos;) rest.erase(pos, token.size());
    };
    strip("\" LIKE ? ESCAPE '\\')");
    // Longest names first: "name" is a prefix of "name_upper".
    std::vector<std::string> names;
    for (const auto &column : layout.columns) names.push_back(std::string("(\"") + column.name);
    std::sort(names.begin(), names.end(), [](const std::string &a, const std::string &b) { return a.size() > b.size(); });
    for (const std::string &name : names) strip(name);
    strip(" AND ");
    strip(" OR ");
    strip("(");
    strip(")");
    Check(rest.empty(), "clause text reached the SQL");
    for (const std::string &p : params) {
        size_t chars = 0;
        std::string literal = kova_accountdb::LongestLiteral(p, &chars);
        Check(literal.size() <= p.size() && chars <= literal.size(), "longest literal longer than its pattern");
    }
}

void CheckKeywordClause(const kova_accountdb::Layout &layout, int column, const std::string &pattern) {
    const std::string name = layout.columns[static_cast<size_t>(column)].name;
    std::string clause = internal::CreateLikeClause(name, pattern, true, true);
    auto node = kova_accountdb::ParseClause(clause, layout);
    Check(node != nullptr, "a clause built from a keyword does not parse");
    Check(node->kind == kova_accountdb::ClauseNode::kGroup && node->children.size() == 1,
          "a keyword clause parsed into more than one condition");
    const auto &cond = *node->children[0];
    Check(cond.kind == kova_accountdb::ClauseNode::kCond && cond.column == column, "keyword clause names another column");
    Check(cond.pattern == "%" + pattern + "%", "keyword clause pattern changed");
    // Two of them joined, as a source that searches several columns does.
    auto both = kova_accountdb::ParseClause("(" + clause + " OR " + clause + ")", layout);
    Check(both != nullptr, "two keyword clauses joined do not parse");
}

void FuzzKeyword(const kova_accountdb::Layout &layout, const std::string &keyword) {
    std::string escaped = internal::EscapeLikeExpression(keyword);
    std::string upper = escaped;
    std::string out;
    if (internal::ToUnicodeUpper(escaped, out)) upper = out;
    for (size_t i = 0; i < layout.columns.size(); ++i) {
        bool isUpper = internal::IsUpperColumn(layout.columns[i].name);
        CheckKeywordClause(layout, static_cast<int>(i), isUpper ? upper : escaped);
    }
    // Requests reach the search only as valid UTF-8; the literal counts characters, so stray continuation
    // bytes alone count as nothing.
    size_t chars = 0;
    std::string literal = kova_accountdb::LongestLiteral("%" + escaped + "%", &chars);
    if (kova_fuzz::ValidUtf8(keyword))
        Check(literal == keyword, "an escaped keyword does not match itself literally");
    else
        Check(keyword.find(literal) != std::string::npos, "the literal of an escaped keyword is not part of it");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 1) return 0;
    const kova_accountdb::Layout *layout = PickLayout(data[0] & 7);
    if (!layout) return 0;
    const std::string text = kova_fuzz::Text(data + 1, size - 1);
    if (data[0] & 8)
        FuzzKeyword(*layout, text);
    else
        FuzzClause(*layout, text);
    return 0;
}
