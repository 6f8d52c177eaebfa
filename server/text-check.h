// Text from a request is checked before it reaches a lookup, a log line or
// a reply: it must be well-formed UTF-8 (no overlong forms, no surrogates)
// and hold no NUL, which the C interfaces behind the server would read as
// the end of the text. Text going out (file names, a module's echo of a
// value) is made well-formed instead: each ill-formed sequence becomes
// U+FFFD, so every reply is valid JSON in UTF-8.
#ifndef KOVA_WEBD_TEXT_CHECK_H
#define KOVA_WEBD_TEXT_CHECK_H

#include <json/json.h>

#include <string>

namespace webd {

// Well-formed UTF-8 without NUL.
bool IsCleanText(const std::string &text);
// IsCleanText for every string and every member name in v, at any depth.
bool IsCleanValue(const Json::Value &v);

// text with every ill-formed UTF-8 sequence replaced by U+FFFD.
std::string WellFormedUtf8(const std::string &text);
// The same for every string and member name in v; true when it changed.
bool MakeWellFormed(Json::Value &v);

} // namespace webd

#endif
