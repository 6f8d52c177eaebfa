#include "like-clause.h"

#include "kova/klibc.h"

#include <strings.h>

#include <cstdlib>
#include <memory>

namespace internal {

std::string EscapeLikeExpression(std::string const &text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '\\' || c == '_' || c == '%') out += '\\';
        out += c;
    }
    return out;
}

bool ToUnicodeUpper(std::string const &text, std::string &out) {
    if (text.empty()) {
        out.clear();
        return true;
    }
    if (text.size() >= 2147483647u) return false;
    // calloc rather than new: running out of memory is a false result here,
    // not an exception.
    std::unique_ptr<char, void (*)(void *)> buffer(
        static_cast<char *>(calloc(text.size() + 1, 1)), free);
    if (!buffer) return false;
    if (KLIBCUnicodeUTF8StrUpper(text.c_str(), buffer.get(), text.size() + 1) < 0) return false;
    out.assign(buffer.get());
    return true;
}

std::string CreateLikeClause(std::string const &column, std::string const &pattern,
                             bool leadingWildcard, bool trailingWildcard) {
    std::string clause = "(";
    clause += column;
    clause += " LIKE \"";
    if (leadingWildcard) clause += '%';
    clause += pattern;
    if (trailingWildcard) clause += '%';
    clause += "\" ESCAPE '\\')";
    return clause;
}

bool IsUpperColumn(std::string const &column) {
    static const char kUpper[] = "upper";
    if (column.size() < 5) return false;
    for (size_t i = 0; i + 5 <= column.size(); ++i) {
        if (strncasecmp(column.c_str() + i, kUpper, 5) == 0) return true;
    }
    return false;
}

} // namespace internal
