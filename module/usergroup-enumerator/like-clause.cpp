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
    // Full case mapping lengthens text ("\xC5\x89", two bytes, becomes
    // "\xCA\xBCN", three; some characters triple). A result cut to the
    // input's length would drop the end of the keyword and could end in
    // half an escape ("...\"), so the buffer is sized for the expansion
    // and grown while the host fills it to the end.
    const size_t kMaxBuffer = 1u << 30;
    if (text.size() >= kMaxBuffer / 4) return false;
    size_t capacity = text.size() * 3 + 8;
    for (;;) {
        // calloc rather than new: running out of memory is a false result
        // here, not an exception.
        std::unique_ptr<char, void (*)(void *)> buffer(static_cast<char *>(calloc(capacity, 1)), free);
        if (!buffer) return false;
        const int written = KLIBCUnicodeUTF8StrUpper(text.c_str(), buffer.get(), capacity);
        if (written < 0) return false;
        // A cut result ends at most one character (4 bytes) short of the end.
        if (static_cast<size_t>(written) + 5 <= capacity) {
            out.assign(buffer.get(), static_cast<size_t>(written));
            return true;
        }
        if (capacity >= kMaxBuffer) return false;
        capacity *= 2;
    }
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
