#include "clause.h"

#include "kova-internal/fault-point.h"
#include "kova/klibc.h"
#include "kova/errcode.h"

#include <cctype>

namespace kova_accountdb {

namespace {

constexpr int kMaxDepth = 16;
const std::string kLikeOpen = " LIKE \"";
const std::string kLikeClose = "\" ESCAPE '\\')";

class Parser {
public:
    Parser(const std::string &text, const Layout &layout) : s_(text), layout_(layout) {}

    std::unique_ptr<ClauseNode> Run() {
        auto node = Expr(0);
        if (!node || pos_ != s_.size()) return nullptr;
        return node;
    }

private:
    bool Eat(const std::string &tok) {
        if (s_.compare(pos_, tok.size(), tok) != 0) return false;
        pos_ += tok.size();
        return true;
    }

    std::unique_ptr<ClauseNode> Expr(int depth) {
        if (depth > kMaxDepth) return nullptr;
        auto group = std::make_unique<ClauseNode>();
        group->kind = ClauseNode::kGroup;
        for (;;) {
            auto term = Term(depth);
            if (!term) return nullptr;
            group->children.push_back(std::move(term));
            if (Eat(" AND "))
                group->opIsAnd.push_back(true);
            else if (Eat(" OR "))
                group->opIsAnd.push_back(false);
            else
                break;
        }
        return group;
    }

    std::unique_ptr<ClauseNode> Term(int depth) {
        if (!Eat("(")) return nullptr;
        size_t start = pos_;
        size_t end = pos_;
        while (end < s_.size() && (std::isalnum(static_cast<unsigned char>(s_[end])) || s_[end] == '_')) ++end;
        if (end > start && s_.compare(end, kLikeOpen.size(), kLikeOpen) == 0) return Cond(start, end);
        auto inner = Expr(depth + 1);
        if (!inner || !Eat(")")) return nullptr;
        return inner;
    }

    std::unique_ptr<ClauseNode> Cond(size_t start, size_t end) {
        int col = layout_.Find(s_.substr(start, end - start));
        if (col < 0) return nullptr;
        size_t pstart = end + kLikeOpen.size();
        size_t pend = s_.find(kLikeClose, pstart);
        if (pend == std::string::npos) return nullptr;
        std::string pattern = s_.substr(pstart, pend - pstart);
        // A trailing lone backslash would escape nothing.
        size_t bs = 0;
        for (size_t i = pattern.size(); i > 0 && pattern[i - 1] == '\\'; --i) ++bs;
        if (bs % 2) return nullptr;
        pos_ = pend + kLikeClose.size();
        auto node = std::make_unique<ClauseNode>();
        node->column = col;
        node->pattern = std::move(pattern);
        return node;
    }

    const std::string &s_;
    const Layout &layout_;
    size_t pos_ = 0;
};

} // namespace

std::unique_ptr<ClauseNode> ParseClause(const std::string &text, const Layout &layout) {
    auto node = Parser(text, layout).Run();
    if (!node) KOVA_FAIL(KOVA_ERR_BADARG);
    return node;
}

std::string ClauseSql(const ClauseNode &node, const Layout &layout, std::vector<std::string> &params) {
    if (node.kind == ClauseNode::kCond) {
        params.push_back(node.pattern);
        return std::string("(\"") + layout.columns[static_cast<size_t>(node.column)].name + "\" LIKE ? ESCAPE '\\')";
    }
    std::string sql = "(";
    for (size_t i = 0; i < node.children.size(); ++i) {
        if (i) sql += node.opIsAnd[i - 1] ? " AND " : " OR ";
        sql += ClauseSql(*node.children[i], layout, params);
    }
    return sql + ")";
}

std::string LongestLiteral(const std::string &pattern, size_t *chars) {
    std::string best, cur;
    size_t bestChars = 0, curChars = 0;
    auto flush = [&] {
        if (curChars > bestChars) {
            best = cur;
            bestChars = curChars;
        }
        cur.clear();
        curChars = 0;
    };
    for (size_t i = 0; i < pattern.size(); ++i) {
        char c = pattern[i];
        if (c == '%' || c == '_') {
            flush();
            continue;
        }
        if (c == '\\' && i + 1 < pattern.size()) c = pattern[++i];
        cur += c;
        if ((static_cast<unsigned char>(c) & 0xC0) != 0x80) ++curChars;
    }
    flush();
    if (chars) *chars = bestChars;
    return best;
}

} // namespace kova_accountdb
