// Unicode upper-casing of UTF-8 text with ICU's full case mapping (so "ß"
// becomes "SS" and "ǆ" becomes "Ǆ"), locale-independent.
#include "kova/klibc.h"
#include "kova/errcode.h"
#include "kova-internal/fault-point.h"
#include "kova-internal/text.h"

#include <unicode/ucasemap.h>
#include <unicode/utf8.h>

#include <cstring>
#include <vector>

namespace {
// Largest prefix of s[0..len) that does not end inside a UTF-8 sequence.
size_t CutAtBoundary(const char *s, size_t len) {
    size_t i = len;
    while (i > 0 && (static_cast<unsigned char>(s[i - 1]) & 0xC0) == 0x80) --i;
    if (i == 0) return 0;
    unsigned char lead = static_cast<unsigned char>(s[i - 1]);
    size_t need = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC0 ? 2 : 1;
    return (len - (i - 1) >= need) ? len : i - 1;
}
} // namespace

namespace {

// One case map per thread: opening one costs far more than mapping a name.
struct CaseMap {
    UCaseMap *map = nullptr;
    ~CaseMap() {
        if (map) ucasemap_close(map);
    }
};

UCaseMap *ThreadCaseMap() {
    thread_local CaseMap holder;
    if (!holder.map) {
        UErrorCode status = U_ZERO_ERROR;
        holder.map = ucasemap_open("", 0, &status);
        if (U_FAILURE(status)) holder.map = nullptr;
    }
    return holder.map;
}

bool IsAscii(const char *s, size_t len) {
    for (size_t i = 0; i < len; ++i)
        if (static_cast<unsigned char>(s[i]) >= 0x80) return false;
    return true;
}

} // namespace

bool kova_internal::IsValidUtf8(const char *s, size_t len) {
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(s);
    int32_t i = 0;
    const int32_t n = static_cast<int32_t>(len);
    while (i < n) {
        UChar32 c;
        U8_NEXT(bytes, i, n, c);
        if (c < 0) return false;
    }
    return true;
}

bool kova_internal::IsCleanText(const std::string &s) {
    return s.find('\0') == std::string::npos && IsValidUtf8(s.data(), s.size());
}

extern "C" int KLIBCUnicodeUTF8StrUpper(const char *in, char *out, size_t cbOut) {
    KOVA_FAULT_POINT("KLIBCUnicodeUTF8StrUpper", int);
    if (!in || !out || cbOut == 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    size_t inLen = std::strlen(in);
    // ASCII text upper-cases to ASCII of the same length under full Unicode
    // case mapping too, so most account names never reach ICU.
    if (IsAscii(in, inLen)) {
        size_t len = inLen < cbOut ? inLen : cbOut - 1;
        for (size_t i = 0; i < len; ++i) {
            char c = in[i];
            out[i] = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
        }
        out[len] = '\0';
        return static_cast<int>(len);
    }
    if (!kova_internal::IsValidUtf8(in, inLen)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    UCaseMap *map = ThreadCaseMap();
    if (!map) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return -1;
    }
    UErrorCode status = U_ZERO_ERROR;
    std::vector<char> buf(inLen * 3 + 4);
    int32_t n = ucasemap_utf8ToUpper(map, buf.data(), static_cast<int32_t>(buf.size()), in, static_cast<int32_t>(inLen), &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
        status = U_ZERO_ERROR;
        buf.resize(static_cast<size_t>(n) + 1);
        n = ucasemap_utf8ToUpper(map, buf.data(), static_cast<int32_t>(buf.size()), in, static_cast<int32_t>(inLen), &status);
    }
    if (U_FAILURE(status)) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    size_t len = static_cast<size_t>(n);
    if (len >= cbOut) len = CutAtBoundary(buf.data(), cbOut - 1);
    std::memcpy(out, buf.data(), len);
    out[len] = '\0';
    return static_cast<int>(len);
}
