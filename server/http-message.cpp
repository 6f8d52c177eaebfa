#include "http-message.h"

#include <strings.h>

namespace webd {

namespace {

std::string FindHeader(const HeaderList &list, const std::string &name) {
    for (const auto &h : list)
        if (h.first.size() == name.size() && strcasecmp(h.first.c_str(), name.c_str()) == 0) return h.second;
    return "";
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

} // namespace

std::string HttpRequest::Header(const std::string &name) const { return FindHeader(headers, name); }
std::string HttpReply::Header(const std::string &name) const { return FindHeader(headers, name); }

void HttpReply::Set(const std::string &name, const std::string &value) {
    for (auto it = headers.begin(); it != headers.end();) {
        if (strcasecmp(it->first.c_str(), name.c_str()) == 0) it = headers.erase(it);
        else ++it;
    }
    headers.emplace_back(name, value);
}

std::string PercentDecode(const std::string &text, bool plusIsSpace) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        int hi, lo;
        if (c == '%' && i + 2 < text.size() && (hi = HexValue(text[i + 1])) >= 0 && (lo = HexValue(text[i + 2])) >= 0) {
            out += static_cast<char>(hi * 16 + lo);
            i += 2;
        } else if (c == '+' && plusIsSpace) {
            out += ' ';
        } else {
            out += c;  // a stray "%" stays as it is
        }
    }
    return out;
}

void SplitTarget(const std::string &target, std::string &path, std::string &query) {
    const size_t q = target.find('?');
    path = PercentDecode(target.substr(0, q), false);
    query = q == std::string::npos ? "" : target.substr(q + 1);
}

std::multimap<std::string, std::string> ParseFormText(const std::string &text) {
    std::multimap<std::string, std::string> fields;
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t end = text.find('&', pos);
        if (end == std::string::npos) end = text.size();
        const std::string part = text.substr(pos, end - pos);
        if (!part.empty()) {
            const size_t eq = part.find('=');
            fields.emplace(PercentDecode(part.substr(0, eq), true),
                           eq == std::string::npos ? "" : PercentDecode(part.substr(eq + 1), true));
        }
        pos = end + 1;
    }
    return fields;
}

} // namespace webd
