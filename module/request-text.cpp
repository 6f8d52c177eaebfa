#include "request-text.h"

#include <vector>

size_t Utf8SequenceLength(const unsigned char *p, size_t left) {
    const unsigned char lead = p[0];
    if (lead < 0x80) return lead == 0 ? 0 : 1;
    size_t length;
    unsigned char low = 0x80, high = 0xBF;  // range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0) low = 0xA0;        // overlong
        else if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0) low = 0x90;        // overlong
        else if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
        return 0;
    }
    if (left < length || p[1] < low || p[1] > high) return 0;
    for (size_t i = 2; i < length; ++i)
        if (p[i] < 0x80 || p[i] > 0xBF) return 0;
    return length;
}

namespace {

bool IsCleanString(const Json::Value &value) {
    const char *begin = nullptr;
    const char *end = nullptr;
    if (!value.getString(&begin, &end)) return true;
    return IsCleanText(begin, static_cast<size_t>(end - begin));
}

} // namespace

bool IsCleanText(const char *text, size_t size) {
    const unsigned char *p = reinterpret_cast<const unsigned char *>(text);
    while (size > 0) {
        const size_t length = Utf8SequenceLength(p, size);
        if (length == 0) return false;
        p += length;
        size -= length;
    }
    return true;
}

bool IsCleanJson(const Json::Value &root) {
    // An explicit stack: a request's nesting depth is the client's choice.
    std::vector<const Json::Value *> pending{&root};
    while (!pending.empty()) {
        const Json::Value &value = *pending.back();
        pending.pop_back();
        if (value.isString()) {
            if (!IsCleanString(value)) return false;
        } else if (value.isObject()) {
            for (Json::Value::const_iterator it = value.begin(); it != value.end(); ++it) {
                const char *keyEnd = nullptr;
                const char *key = it.memberName(&keyEnd);
                if (!IsCleanText(key, static_cast<size_t>(keyEnd - key))) return false;
                pending.push_back(&*it);
            }
        } else if (value.isArray()) {
            for (Json::Value::const_iterator it = value.begin(); it != value.end(); ++it) pending.push_back(&*it);
        }
    }
    return true;
}
