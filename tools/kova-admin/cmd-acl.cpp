// kova-admin acl get|set|owner|remove: a path's ACL in text form with
// account names ("user:alice:allow:rwxpdDaARWcCo:fd--").
#include "command.h"

#include "kova/account.h"
#include "kova/acl.h"
#include "kova/klibc.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

namespace {

using kova_admin::Fail;
using kova_admin::FailPlain;

struct AclDeleter {
    void operator()(KOVA_ACL *p) const { KOVAACLFree(p); }
};
using AclPtr = std::unique_ptr<KOVA_ACL, AclDeleter>;

std::vector<std::string> Split(const std::string &text, char sep) {
    std::vector<std::string> out(1);
    for (char c : text) {
        if (c == sep)
            out.emplace_back();
        else
            out.back() += c;
    }
    return out;
}

std::string UserName(int uid) {
    PKOVA_USER u = nullptr;
    std::string name = std::to_string(uid);
    if (uid >= 0 && KOVAUserGetByUID(static_cast<unsigned int>(uid), &u) == 0 && u && u->szName) name = u->szName;
    KOVAUserFree(u);
    return name;
}

std::string GroupName(int gid) {
    PKOVA_GROUP g = nullptr;
    std::string name = std::to_string(gid);
    if (gid >= 0 && KOVAGroupGetByGID(static_cast<unsigned int>(gid), &g) >= 0 && g && g->szName) name = g->szName;
    KOVAGroupFree(g);
    return name;
}

// The name shown for an entry's principal.
std::string PrincipalName(int idType, int id) {
    switch (idType) {
    case KOVA_ACL_ID_USER: return UserName(id);
    case KOVA_ACL_ID_GROUP: return GroupName(id);
    case KOVA_ACL_ID_OWNER: return "Owner";
    case KOVA_ACL_ID_EVERYONE: return "Everyone";
    case KOVA_ACL_ID_AUTHUSER: return "Authenticated Users";
    case KOVA_ACL_ID_SYSTEM: return "SYSTEM";
    default: return "?";
    }
}

bool FormatEntry(const KOVA_ACL_ENTRY &e, std::string &out) {
    char type[64], access[32], perm[32], inherit[16];
    if (KOVAACLAcePrintIDType(e.idType, type, sizeof type) < 0 ||
        KOVAACLAcePrintAccessType(e.accessType, access, sizeof access) < 0 ||
        KOVAACLAcePrintPermission(e.permission, perm, sizeof perm) < 0 ||
        KOVAACLAcePrintInherit(e.inherit, inherit, sizeof inherit) < 0)
        return false;
    out = std::string(type) + ":" + PrincipalName(e.idType, e.id) + ":" + access + ":" + perm + ":" + inherit +
          "  (level " + std::to_string(e.level) + ")";
    return true;
}

// A principal's id: "#N" is the raw id N, whether or not an account holds
// it (a rule for an orphaned uid or gid); anything else is a name (local,
// "name@suffix" or "DOMAIN\name").
bool PrincipalId(bool group, const std::string &name, int &id) {
    if (name.size() > 1 && name[0] == '#') {
        char *end = nullptr;
        long v = std::strtol(name.c_str() + 1, &end, 10);
        if (*end || v < 0 || v > 0x7FFFFFFF || !std::isdigit(static_cast<unsigned char>(name[1]))) return false;
        id = static_cast<int>(v);
        return true;
    }
    return group ? KOVAGroupGetGID(name.c_str(), &id) >= 0 : KOVAUserGetUGID(name.c_str(), &id, nullptr) >= 0;
}

// "type:NAME:access:perm:inherit" -> entry; names resolved to ids.
bool ParseEntry(const std::string &text, KOVA_ACL_ENTRY &e, std::string &why) {
    auto f = Split(text, ':');
    if (f.size() != 5) {
        why = "an entry has five fields type:NAME:allow|deny:PERM:INHERIT: " + text;
        return false;
    }
    if (KOVAACLAceParseIDType(f[0].c_str(), &e) < 0 || KOVAACLAceParseAccessType(f[2].c_str(), &e) < 0 ||
        KOVAACLAceParsePermission(f[3].c_str(), &e) < 0 || KOVAACLAceParseInherit(f[4].c_str(), &e) < 0) {
        why = "malformed entry: " + text;
        return false;
    }
    e.id = -1;
    if (e.idType != KOVA_ACL_ID_USER && e.idType != KOVA_ACL_ID_GROUP) return true;
    if (!PrincipalId(e.idType == KOVA_ACL_ID_GROUP, f[1], e.id)) {
        why = std::string(e.idType == KOVA_ACL_ID_GROUP ? "no such group " : "no such user ") + f[1];
        return false;
    }
    return true;
}

int RunGet(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {});
    bool own = kova_admin::HasFlag(args, "--own"), inherited = kova_admin::HasFlag(args, "--inherited");
    if (pos.size() != 1 || (own && inherited)) return FailPlain("usage: acl get PATH [--own|--inherited]");
    const char *path = pos[0].c_str();
    KOVA_ACL_ID owner;
    if (KOVAACLOwnerIdGet(path, &owner) < 0) return Fail("cannot read the owner of " + pos[0]);
    int inAclMode = KOVAACLIsSupport(path, -1, KOVA_ACL_SUPPORT_MODE);
    if (inAclMode < 0) return Fail("cannot read " + pos[0]);
    PKOVA_ACL raw = nullptr;
    int rc = inAclMode ? KOVAACLGet(path, -1, own ? KOVA_ACL_GET_OWN : inherited ? KOVA_ACL_GET_INHERITED : KOVA_ACL_GET_ALL, &raw)
                       : KOVAACLDumpFromMode(path, -1, &raw);
    AclPtr acl(raw);
    if (rc < 0) return Fail("cannot read the ACL of " + pos[0]);
    std::printf("owner: %s:%s\n", owner.idType == KOVA_ACL_ID_GROUP ? "group" : "user",
                PrincipalName(owner.idType, owner.id).c_str());
    std::printf("mode: %s\n", inAclMode ? "acl" : "mode bits");
    std::printf("inherit: %s\n", acl->isInherited ? "yes" : "no");
    for (const KOVA_ACL_ENTRY *e = acl->pHead; e; e = e->pNext) {
        std::string line;
        if (!FormatEntry(*e, line)) return Fail("unprintable entry in " + pos[0]);
        std::printf("%s\n", line.c_str());
    }
    return 0;
}

int RunSet(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {});
    if (pos.empty()) return FailPlain("usage: acl set PATH [--no-inherit] ENTRY...");
    AclPtr acl(KOVAACLAlloc(0));
    if (!acl) return Fail("out of memory");
    acl->isInherited = kova_admin::HasFlag(args, "--no-inherit") ? 0 : 1;
    for (size_t i = 1; i < pos.size(); ++i) {
        PKOVA_ACL_ENTRY e = KOVAACLAceAlloc();
        if (!e) return Fail("out of memory");
        std::string why;
        unsigned int state = 0;
        if (!ParseEntry(pos[i], *e, why) || !KOVAACLAceIsValid(e, &state)) {
            KOVAACLAceFree(e);
            return FailPlain(why.empty() ? "invalid entry: " + pos[i] : why);
        }
        if (KOVAACLAceAppend(acl.get(), e) < 0) {
            KOVAACLAceFree(e);
            return Fail("cannot build the ACL");
        }
    }
    if (KOVAACLSet(pos[0].c_str(), -1, acl.get()) < 0) return Fail("cannot set the ACL of " + pos[0]);
    return 0;
}

int RunOwner(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {});
    if (pos.size() != 2) return FailPlain("usage: acl owner PATH user:NAME|group:NAME");
    size_t colon = pos[1].find(':');
    std::string type = pos[1].substr(0, colon), name = colon == std::string::npos ? "" : pos[1].substr(colon + 1);
    KOVA_ACL_ID owner;
    if ((type == "user" || type == "group") && !name.empty()) {
        owner.idType = type == "user" ? KOVA_ACL_ID_USER : KOVA_ACL_ID_GROUP;
        if (!PrincipalId(type == "group", name, owner.id)) return FailPlain("no such " + type + " " + name);
    } else {
        return FailPlain("the owner is user:NAME or group:NAME");
    }
    if (KOVAACLOwnerIdSet(pos[0].c_str(), &owner) < 0) return Fail("cannot change the owner of " + pos[0]);
    return 0;
}

int RunRemove(const std::vector<std::string> &args) {
    auto pos = kova_admin::Positionals(args, {});
    if (pos.size() != 1) return FailPlain("usage: acl remove PATH");
    if (KOVAACLRemove(pos[0].c_str(), -1) < 0) return Fail("cannot remove the ACL of " + pos[0]);
    return 0;
}

kova_admin::Registration get({"acl get", "acl get PATH [--own|--inherited]",
                              "show a path's owner, inherit flag and entries", RunGet});
kova_admin::Registration set({"acl set", "acl set PATH [--no-inherit] ENTRY...",
                              "replace a path's own entries (ENTRY type:NAME:allow|deny:PERM:INHERIT; NAME may be #ID)", RunSet});
kova_admin::Registration owner({"acl owner", "acl owner PATH user:NAME|group:NAME (NAME or #ID)", "change a path's owner", RunOwner});
kova_admin::Registration remove({"acl remove", "acl remove PATH", "return a path to its mode bits", RunRemove});

} // namespace
