#include "names.h"


namespace kova_accounts {

namespace {
bool ValidUtf8NoControl(const unsigned char *s, size_t len) {
    size_t i = 0;
    while (i < len) {
        unsigned char c = s[i];
        if (c < 0x20 || c == 0x7F) return false;
        size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        if (n == 0 || i + n > len) return false;
        if (n == 2 && c < 0xC2) return false;  // overlong
        for (size_t k = 1; k < n; ++k)
            if ((s[i + k] & 0xC0) != 0x80) return false;
        i += n;
    }
    return true;
}
} // namespace

bool ValidAccountName(const std::string &name) {
    if (name.empty() || name.size() > 64) return false;
    if (name.front() == ' ' || name.back() == ' ') return false;
    if (name.find_first_of("/\\:@\"") != std::string::npos) return false;
    return ValidUtf8NoControl(reinterpret_cast<const unsigned char *>(name.data()), name.size());
}

bool ValidText(const char *text) { return !text || ValidText(std::string(text)); }

bool ValidText(const std::string &text) {
    return text.size() <= 1024 && ValidUtf8NoControl(reinterpret_cast<const unsigned char *>(text.data()), text.size());
}

} // namespace kova_accounts
