// Unicode upper-casing of UTF-8 text with ICU's full case mapping (so "ß"
// becomes "SS" and "ǆ" becomes "Ǆ"), locale-independent.
#include "kova/klibc.h"
#include "kova/errcode.h"
#include "kova-internal/fault-point.h"

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

extern "C" int KLIBCUnicodeUTF8StrUpper(const char *in, char *out, size_t cbOut) {
    KOVA_FAULT_POINT("KLIBCUnicodeUTF8StrUpper", int);
    if (!in || !out || cbOut == 0) {
        KOVA_FAIL(KOVA_ERR_BADARG);
        return -1;
    }
    UErrorCode status = U_ZERO_ERROR;
    UCaseMap *map = ucasemap_open("", 0, &status);
    if (U_FAILURE(status)) {
        KOVA_FAIL(KOVA_ERR_NOMEM);
        return -1;
    }
    int32_t inLen = static_cast<int32_t>(std::strlen(in));
    std::vector<char> buf(static_cast<size_t>(inLen) * 3 + 4);
    int32_t n = ucasemap_utf8ToUpper(map, buf.data(), static_cast<int32_t>(buf.size()), in, inLen, &status);
    if (status == U_BUFFER_OVERFLOW_ERROR) {
        status = U_ZERO_ERROR;
        buf.resize(static_cast<size_t>(n) + 1);
        n = ucasemap_utf8ToUpper(map, buf.data(), static_cast<int32_t>(buf.size()), in, inLen, &status);
    }
    ucasemap_close(map);
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
