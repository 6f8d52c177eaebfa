#include "entry-map.h"

#include <algorithm>
#include <cctype>

namespace kova_dirsvc {

const char *const kWantedAttrs[] = {"objectClass", "uid",       "cn",        "mail",           "description",
                                    "displayName", "uidNumber", "gidNumber", "memberUid",      "member",
                                    "objectSid",   "sambaSID",  "primaryGroupID", "sambaPrimaryGroupSID", nullptr};

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

long long ParseId(const std::string &text) {
    if (text.empty() || text.size() > 10) return -1;
    long long v = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return -1;
        v = v * 10 + (c - '0');
    }
    return v <= 0x7FFFFFFF ? v : -1;
}

long long RidOfSid(const std::string &sid) {
    // Text form: S-1-5-21-a-b-c-RID.
    if (sid.size() > 2 && (sid[0] == 'S' || sid[0] == 's') && sid[1] == '-') {
        size_t dash = sid.rfind('-');
        if (dash == 1 || std::count(sid.begin(), sid.end(), '-') < 3) return -1;
        return ParseId(sid.substr(dash + 1));
    }
    // Binary form (objectSid as AD stores it): revision 1, sub-authority
    // count, 6-byte authority, then that many 32-bit little-endian parts.
    const auto *b = reinterpret_cast<const unsigned char *>(sid.data());
    if (sid.size() < 12 || b[0] != 1 || b[1] == 0 || sid.size() != 8 + 4 * static_cast<size_t>(b[1])) return -1;
    const unsigned char *last = b + sid.size() - 4;
    unsigned long long rid = last[0] | last[1] << 8 | last[2] << 16 | static_cast<unsigned long long>(last[3]) << 24;
    return rid <= 0x7FFFFFFF ? static_cast<long long>(rid) : -1;
}

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
    std::string sid = First(attrs, "objectsid");
    out.rid = RidOfSid(sid.empty() ? First(attrs, "sambasid") : sid);
    if (user) {
        out.id = ParseId(First(attrs, "uidnumber"));
        out.gid = ParseId(First(attrs, "gidnumber"));
        out.primaryRid = ParseId(First(attrs, "primarygroupid"));
        if (out.primaryRid < 0) out.primaryRid = RidOfSid(First(attrs, "sambaprimarygroupsid"));
        out.name = First(attrs, "uid");
        out.mail = First(attrs, "mail");
        out.fullname = First(attrs, "displayname");
        if (out.fullname.empty()) out.fullname = First(attrs, "cn");
    } else {
        out.group = true;
        out.name = First(attrs, "cn");
        out.id = ParseId(First(attrs, "gidnumber"));
        for (const char *a : {"memberuid", "member"}) {
            auto it = attrs.find(a);
            if (it != attrs.end())
                for (const auto &v : it->second)
                    if (!v.empty()) out.members.push_back(v);
        }
    }
    return !out.name.empty();
}

} // namespace kova_dirsvc
