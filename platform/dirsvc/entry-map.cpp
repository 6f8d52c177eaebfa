#include "entry-map.h"

#include <cctype>

namespace kova_dirsvc {

const char *const kWantedAttrs[] = {"objectClass", "uid", "cn", "mail", "description", "displayName", nullptr};

std::string Lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

namespace {
std::string First(const Attrs &attrs, const char *name) {
    auto it = attrs.find(name);
    return (it == attrs.end() || it->second.empty()) ? std::string() : it->second.front();
}
} // namespace

bool MapEntry(const std::string &dn, const Attrs &attrs, KovaDirEntry &out) {
    bool user = false, group = false;
    auto oc = attrs.find("objectclass");
    if (oc == attrs.end()) return false;
    for (const auto &v : oc->second) {
        std::string c = Lower(v);
        user = user || c == "posixaccount" || c == "inetorgperson";
        group = group || c == "posixgroup" || c == "groupofnames";
    }
    if (!user && !group) return false;
    out = KovaDirEntry();
    out.dn = dn;
    out.desc = First(attrs, "description");
    if (user) {
        out.name = First(attrs, "uid");
        out.mail = First(attrs, "mail");
        out.fullname = First(attrs, "displayname");
        if (out.fullname.empty()) out.fullname = First(attrs, "cn");
    } else {
        out.group = true;
        out.name = First(attrs, "cn");
    }
    return !out.name.empty();
}

} // namespace kova_dirsvc
