// Well-formed UTF-8, as the platform requires of every string from a request before it reaches a path, a log
// line, a query or a reply: no overlong forms, surrogates, values past U+10FFFF or cut sequences.
#ifndef KOVA_FUZZ_UTF8_CHECK_H
#define KOVA_FUZZ_UTF8_CHECK_H

#include <cstdint>
#include <string>

namespace kova_fuzz {

inline bool ValidUtf8(const std::string &s) {
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t len = c < 0x80 ? 1 : (c >> 5) == 6 ? 2 : (c >> 4) == 14 ? 3 : (c >> 3) == 30 ? 4 : 0;
        if (!len || i + len > s.size()) return false;
        uint32_t cp = len == 1 ? c : c & (0x7F >> len);
        for (size_t k = 1; k < len; ++k) {
            unsigned char d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            cp = cp << 6 | (d & 0x3F);
        }
        static const uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMin[len] || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return false;
        i += len;
    }
    return true;
}

} // namespace kova_fuzz

#endif
