// Text helpers that build the LIKE conditions the account databases accept
// from a client keyword. The escape character is the backslash, matching
// the ESCAPE part of every clause.
#ifndef KOVA_MODULE_LIKE_CLAUSE_H
#define KOVA_MODULE_LIKE_CLAUSE_H

#include <string>

namespace internal {

// Backslash, "_" and "%" get a backslash in front; other bytes pass.
std::string EscapeLikeExpression(std::string const &text);

// Unicode upper case through the host, whole however much longer the
// upper-case form is. False, out untouched, when the text is too long,
// memory runs out or the host refuses it.
bool ToUnicodeUpper(std::string const &text, std::string &out);

// (column LIKE "[%]pattern[%]" ESCAPE '\'); the pattern must be escaped.
std::string CreateLikeClause(std::string const &column, std::string const &pattern,
                             bool leadingWildcard, bool trailingWildcard);

// True when column contains "upper" in any letter case; such columns hold
// upper-cased copies and are searched with the upper-cased pattern.
bool IsUpperColumn(std::string const &column);

} // namespace internal

#endif
