// kova-admin group commands: local groups and memberships.
#include "command.h"

#include "kova/account.h"

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace kova_admin;

namespace {

int GroupAdd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {"--gid", "--desc"});
    if (pos.size() != 1) return Fail("usage: group add NAME [--gid N] [--desc D]");
    int gid = -1;
    std::string gidText = Option(args, "--gid");
    if (!gidText.empty()) {
        char *end = nullptr;
        long v = std::strtol(gidText.c_str(), &end, 10);
        if (*end || v < 0 || v > 0x7FFFFFFF) return Fail("invalid gid '" + gidText + "'");
        gid = static_cast<int>(v);
    }
    bool hasDesc = false;
    for (const auto &a : args) hasDesc = hasDesc || a == "--desc";
    std::string desc = Option(args, "--desc");
    if (KOVAGroupAdd(pos[0].c_str(), gid, hasDesc ? desc.c_str() : nullptr) != 0) return Fail("cannot add group '" + pos[0] + "'");
    return 0;
}

int GroupDel(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 1) return Fail("usage: group del NAME");
    if (KOVAGroupDelete(pos[0].c_str()) != 0) return Fail("cannot delete group '" + pos[0] + "'");
    return 0;
}

int MemberAdd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 2) return Fail("usage: group member add GROUP USER");
    if (KOVAGroupMemberAdd(pos[0].c_str(), pos[1].c_str()) != 0)
        return Fail("cannot add '" + pos[1] + "' to group '" + pos[0] + "'");
    return 0;
}

int MemberDel(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 2) return Fail("usage: group member del GROUP USER");
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
Registration r5({"group list", "group list", "list local groups (name gid desc)", GroupList});

} // namespace
