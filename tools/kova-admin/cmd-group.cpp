// kova-admin group commands: local groups and memberships.
#include "command.h"

#include "kova/account.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace kova_admin;

namespace {

int GroupAdd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {"--gid", "--desc"});
    if (pos.size() != 1) return FailPlain("usage: group add NAME [--gid N] [--desc D]");
    int gid = -1;
    std::string gidText = Option(args, "--gid");
    if (!gidText.empty()) {
        char *end = nullptr;
        long v = std::strtol(gidText.c_str(), &end, 10);
        if (*end || v < 0 || v > 0x7FFFFFFF) return FailPlain("invalid gid '" + gidText + "'");
        gid = static_cast<int>(v);
    }
    bool hasDesc = false;
    for (const auto &a : args) hasDesc = hasDesc || a == "--desc";
    std::string desc = Option(args, "--desc");
    if (KOVAGroupAdd(pos[0].c_str(), gid, hasDesc ? desc.c_str() : nullptr) != 0) {
        if (KLIBCErrGet() != KOVA_ERR_EXIST) return Fail("cannot add group '" + pos[0] + "'");
        int existing = -1;
        if (KOVAGroupGetGID(pos[0].c_str(), &existing) >= 0) return FailPlain("group '" + pos[0] + "' already exists");
        return FailPlain("cannot add group '" + pos[0] + "': gid " + gidText +
                         " is taken (by another group or a domain's id range)");
    }
    return 0;
}

struct Members {
    unsigned gid;
    std::vector<std::string> names;
};

int CollectMember(const KLIB_USER_INFO *u, void *, void *ctx) {
    auto *m = static_cast<Members *>(ctx);
    PKLIBC_SZLIST groups = KLIBGroupInfoListGet(u->szName, 0);
    for (int i = 0; groups && i < groups->nItem; ++i) {
        const char *g = KLIBCSzListGet(groups, i);
        if (g && std::strtoul(g, nullptr, 10) == m->gid) {
            m->names.push_back(u->szName);
            break;
        }
    }
    KLIBCSzListFree(groups);
    return 0;
}

// One group: where it comes from, its gid and, for a local group, the
// local users in it (as primary group or by membership).
int GroupShow(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 1) return FailPlain("usage: group show NAME");
    PKOVA_GROUP g = nullptr;
    if (KOVAGroupGet(pos[0].c_str(), &g) < 0) return Fail("cannot show group '" + pos[0] + "'");
    std::string name = g->szName;
    bool local = name.find_first_of("@\\") == std::string::npos;
    std::printf("name: %s\nsource: %s\ngid: %u\ndescription: %s\n", g->szName,
                local ? "local" : name.find('@') != std::string::npos ? "ldap" : "domain", g->gid, g->szDesc ? g->szDesc : "");
    Members m{g->gid, {}};
    KOVAGroupFree(g);
    if (!local) return 0;
    if (KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, CollectMember, &m) < 0 ||
        KLIBUserInfoEnumInternalUsers(0, 0xFFFFFFFFu, "", 0, 0, CollectMember, &m) < 0)
        return Fail("cannot read the members of '" + pos[0] + "'");
    std::string line;
    for (const auto &n : m.names) line += (line.empty() ? "" : ", ") + n;
    std::printf("members: %s\n", line.c_str());
    return 0;
}

int GroupDel(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 1) return FailPlain("usage: group del NAME");
    if (KOVAGroupDelete(pos[0].c_str()) != 0) return Fail("cannot delete group '" + pos[0] + "'");
    return 0;
}

int MemberAdd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 2) return FailPlain("usage: group member add GROUP USER");
    if (KOVAGroupMemberAdd(pos[0].c_str(), pos[1].c_str()) != 0)
        return Fail("cannot add '" + pos[1] + "' to group '" + pos[0] + "'");
    return 0;
}

int MemberDel(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 2) return FailPlain("usage: group member del GROUP USER");
    if (KOVAGroupMemberRemove(pos[0].c_str(), pos[1].c_str()) != 0)
        return Fail("cannot remove '" + pos[1] + "' from group '" + pos[0] + "'");
    return 0;
}

int PrintGroup(const KLIB_GROUP_INFO *g, void *, void *) {
    std::printf("%s\t%u\t%s\n", g->szName, g->gid, g->szDesc ? g->szDesc : "");
    return 0;
}

int GroupList(const std::vector<std::string> &) {
    if (KLIBGroupInfoEnumByPrefix(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, 0xFFFFFFFFu, "", 0, PrintGroup, nullptr) < 0)
        return Fail("cannot list groups");
    return 0;
}

Registration r1({"group add", "group add NAME [--gid N] [--desc D]", "add a local group", GroupAdd});
Registration r2({"group del", "group del NAME", "delete a local group", GroupDel});
Registration r3({"group member add", "group member add GROUP USER", "add a user to a group", MemberAdd});
Registration r4({"group member del", "group member del GROUP USER", "remove a user from a group", MemberDel});
Registration r6({"group show", "group show NAME", "show a group (local, LDAP or domain) and its local members", GroupShow});
Registration r5({"group list", "group list", "list local groups (name gid desc)", GroupList});

} // namespace
