// String file parsing.
#include "string-file.h"

namespace kova_plm {

namespace {

std::string Trim(const std::string &s) {
    size_t b = s.find_first_not_of(" \t\r\n");
    if (b == std::string::npos) return std::string();
    size_t e = s.find_last_not_of(" \t\r\n");
    return s.substr(b, e - b + 1);
}

std::string Unquote(const std::string &raw) {
    if (raw.size() < 2 || raw.front() != '"' || raw.back() != '"') return raw;
    std::string out;
    for (size_t i = 1; i + 1 < raw.size(); ++i) {
        char c = raw[i];
        if (c == '\\' && i + 2 < raw.size()) {
            char n = raw[++i];
            switch (n) {
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case '"': out += '"'; break;
            case '\\': out += '\\'; break;
            default: out += '\\'; out += n; break;
            }
            continue;
        }
        out += c;
    }
    return out;
}

} // namespace

std::map<std::string, std::string> ReadSection(std::istream &in, const std::string &section) {
    std::map<std::string, std::string> keys;
    bool inSection = false;
    std::string line;
    while (std::getline(in, line)) {
        std::string t = Trim(line);
        if (t.empty() || t[0] == '#' || t[0] == ';') continue;
        if (t[0] == '[') {
            size_t close = t.find(']');
            inSection = close != std::string::npos && Trim(t.substr(1, close - 1)) == section;
            continue;
        }
        if (!inSection) continue;
        size_t eq = t.find('=');
        if (eq == std::string::npos) continue;
        std::string key = Trim(t.substr(0, eq));
        if (key.empty()) continue;
        keys[key] = Unquote(Trim(t.substr(eq + 1)));
    }
    return keys;
}

} // namespace kova_plm
