#include "local-ids.h"

#include "kova/account.h"

namespace kova_admin {

namespace {
struct Scan {
    long long base, size;
    std::string holder;
};

bool Inside(const Scan &s, unsigned id) { return id >= s.base && id < s.base + s.size; }

int OnUser(const KLIB_USER_INFO *u, void *, void *ctx) {
    auto *s = static_cast<Scan *>(ctx);
    if (s->holder.empty() && Inside(*s, u->uid))
        s->holder = std::string("user ") + u->szName + " (uid " + std::to_string(u->uid) + ")";
    return 0;
}

int OnGroup(const KLIB_GROUP_INFO *g, void *, void *ctx) {
    auto *s = static_cast<Scan *>(ctx);
    if (s->holder.empty() && Inside(*s, g->gid))
        s->holder = std::string("group ") + g->szName + " (gid " + std::to_string(g->gid) + ")";
    return 0;
}
} // namespace

int LocalIdIn(long long base, long long size, std::string &holder) {
    Scan s{base, size, ""};
    const unsigned all = 0xFFFFFFFFu;
    if (KLIBUserInfoEnum(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, all, OnUser, &s) < 0 ||
        KLIBUserInfoEnumInternalUsers(0, all, nullptr, 1, 0, OnUser, &s) < 0 ||
        KLIBGroupInfoEnumByPrefix(KOVA_ACCOUNT_SRC_LOCAL, 0, 0, all, "", 0, OnGroup, &s) < 0)
        return -1;
    holder = s.holder;
    return holder.empty() ? 0 : 1;
}

} // namespace kova_admin
