// Text checks for strings that come from a request: a path, a user name or
// a session id must hold no NUL byte (C calls would see only the text
// before it, and judge something else than what is acted on) and must be
// valid UTF-8 (the form every name on the platform has).
#ifndef KOVA_INTERNAL_TEXT_H
#define KOVA_INTERNAL_TEXT_H

#include <cstddef>
#include <string>

namespace kova_internal {

// Well-formed UTF-8: no stray or truncated sequence, no overlong form, no
// surrogate.
bool IsValidUtf8(const char *s, size_t len);
// No NUL byte and valid UTF-8.
bool IsCleanText(const std::string &s);

} // namespace kova_internal

#endif
