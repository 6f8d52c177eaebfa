#include "text-check.h"

#include <unicode/utf8.h>

#include <algorithm>

namespace webd {

namespace {

// ICU's U8_NEXT is strict: overlong forms, surrogates and code points
// above U+10FFFF come back negative.
bool WellFormed(const std::string &text, bool allowNul) {
    const uint8_t *s = reinterpret_cast<const uint8_t *>(text.data());
    const int32_t n = static_cast<int32_t>(text.size());
    if (text.size() > static_cast<size_t>(INT32_MAX)) return false;
    for (int32_t i = 0; i < n;) {
        UChar32 c;
        U8_NEXT(s, i, n, c);
        if (c < 0 || (c == 0 && !allowNul)) return false;
    }
    return true;
}

} // namespace

bool IsCleanText(const std::string &text) { return WellFormed(text, false); }

bool IsCleanValue(const Json::Value &v) {
    if (v.isString()) return IsCleanText(v.asString());
    if (v.isArray()) {
        for (const Json::Value &item : v)
            if (!IsCleanValue(item)) return false;
    } else if (v.isObject()) {
        for (auto it = v.begin(); it != v.end(); ++it)
            if (!IsCleanText(it.name()) || !IsCleanValue(*it)) return false;
    }
    return true;
}

std::string WellFormedUtf8(const std::string &text) {
    if (WellFormed(text, true)) return text;
    const uint8_t *s = reinterpret_cast<const uint8_t *>(text.data());
    const int32_t n = static_cast<int32_t>(std::min(text.size(), static_cast<size_t>(INT32_MAX)));
    std::string out;
    out.reserve(text.size() + 8);
    for (int32_t i = 0; i < n;) {
        const int32_t start = i;
        UChar32 c;
        U8_NEXT(s, i, n, c);
        if (c < 0) out += "\xEF\xBF\xBD";
        else out.append(text, static_cast<size_t>(start), static_cast<size_t>(i - start));
    }
    return out;
}

bool MakeWellFormed(Json::Value &v) {
    bool changed = false;
    if (v.isString()) {
        // Checked first: almost every string is fine and is left alone.
        if (!WellFormed(v.asString(), true)) {
            v = WellFormedUtf8(v.asString());
            changed = true;
        }
    } else if (v.isArray()) {
        for (Json::Value &item : v) changed = MakeWellFormed(item) || changed;
    } else if (v.isObject()) {
        Json::Value fixed(Json::objectValue);
        bool renamed = false;
        for (const std::string &name : v.getMemberNames()) {
            Json::Value &member = v[name];
            changed = MakeWellFormed(member) || changed;
            if (!WellFormed(name, true)) renamed = true;
        }
        if (renamed) {
            for (const std::string &name : v.getMemberNames()) fixed[WellFormedUtf8(name)] = std::move(v[name]);
            v = std::move(fixed);
            changed = true;
        }
    }
    return changed;
}

} // namespace webd
