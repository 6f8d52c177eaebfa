#include "fts-narrow.h"

namespace kova_accountdb {

namespace {
constexpr size_t kMinTrigram = 3;

// An FTS5 string literal: double quotes doubled.
std::string Quote(const std::string &s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

std::string Join(const std::vector<std::string> &parts, const char *op) {
    std::string out;
    for (const auto &p : parts) out += (out.empty() ? "" : op) + ("(" + p + ")");
    return out;
}
} // namespace

std::string Narrowing(const ClauseNode &node, const Layout &layout) {
    if (node.kind == ClauseNode::kCond) {
        const Column &col = layout.columns[static_cast<size_t>(node.column)];
        if (!col.indexed) return "";
        size_t chars = 0;
        std::string lit = LongestLiteral(node.pattern, &chars);
        if (chars < kMinTrigram) return "";
        return std::string("\"") + col.name + "\" : " + Quote(lit);
    }
    bool anyAnd = false, anyOr = false;
    for (bool isAnd : node.opIsAnd) (isAnd ? anyAnd : anyOr) = true;
    if (anyAnd && anyOr) return "";  // mixed precedence: leave it to the scan
    std::vector<std::string> parts;
    for (const auto &child : node.children) {
        std::string n = Narrowing(*child, layout);
        if (n.empty()) {
            if (anyOr) return "";  // one unindexed alternative defeats an OR
            continue;
        }
        parts.push_back(n);
    }
    if (parts.empty()) return "";
    return Join(parts, anyOr ? " OR " : " AND ");
}

std::string NarrowingFor(const std::vector<const ClauseNode *> &andClauses, const std::vector<const ClauseNode *> &orClauses,
                         const Layout &layout) {
    std::vector<std::string> parts;
    for (const ClauseNode *c : andClauses) {
        std::string n = Narrowing(*c, layout);
        if (!n.empty()) parts.push_back(n);
    }
    if (!orClauses.empty()) {
        std::vector<std::string> alts;
        for (const ClauseNode *c : orClauses) {
            std::string n = Narrowing(*c, layout);
            if (n.empty()) {
                alts.clear();
                break;
            }
            alts.push_back(n);
        }
        if (!alts.empty()) parts.push_back(Join(alts, " OR "));
    }
    return Join(parts, " AND ");
}

} // namespace kova_accountdb
