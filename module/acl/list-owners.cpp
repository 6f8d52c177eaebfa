// list_owners version 1: the special principals, then local accounts,
// internal users, the Windows domain and LDAP, paged in that order by one
// offset and limit that every source shifts.
#include "acl.h"
#include "module-log.h"

#include "kova/account.h"
#include "kova/dirsvc.h"
#include "kova/klibc.h"

#include <strings.h>

#include <algorithm>
#include <list>
#include <new>
#include <string>

namespace {

struct OWNER {
    std::string type;
    std::string name;
};

typedef std::list<OWNER> OwnerList;

// Collects delivered entries of one enumeration. Appending may run out of
// memory; that must not unwind through the host's C frames, so it is
// recorded, the enumeration stopped, and rethrown after the call.
struct Collector {
    const char *type;
    OwnerList owners;
    bool outOfMemory = false;

    void Add(const char *name) {
        try {
            owners.push_back(OWNER{type, name ? name : ""});
        } catch (...) {
            outOfMemory = true;
        }
    }
    void RethrowIfFailed() const {
        if (outOfMemory) throw std::bad_alloc();
    }
};

int UserCallback(const KLIB_USER_INFO *info, void *, void *data) {
    Collector &c = *static_cast<Collector *>(data);
    if (info) c.Add(info->szName);
    return c.outOfMemory ? -1 : 0;
}

int GroupCallback(const KLIB_GROUP_INFO *info, void *, void *data) {
    Collector &c = *static_cast<Collector *>(data);
    if (info) c.Add(info->szName);
    return c.outOfMemory ? -1 : 0;
}

const char *Text(const char *s) { return s ? s : ""; }

// Shifts the window by one source: its delivered entries consume the limit
// (when one is set), its matches the offset.
void ShiftWindow(int &offset, int &limit, int matches, size_t delivered) {
    if (limit > 0) limit -= static_cast<int>(std::min<size_t>(delivered, static_cast<size_t>(limit)));
    offset = matches >= offset ? 0 : offset - matches;
}

// Users then groups of one source; returns their match counts' sum.
unsigned int EnumAccounts(int &offset, int &limit, int source, const std::string &prefix, OwnerList &list) {
    Collector users{"user", {}};
    int userCount = KLIBUserInfoEnumBySubstr(source, 0, static_cast<unsigned int>(offset),
                                             static_cast<unsigned int>(limit), prefix.c_str(), 1, UserCallback, &users);
    users.RethrowIfFailed();
    if (userCount < 0) {
        // The text names the prefix call this method was first built on.
        KOVA_LOG(LOG_ERR, "acl", 1153, "KLIBUserInfoEnumByPrefix failed. [0x%04X %s:%d]", KLIBCErrGet(),
                 Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
        return 0;
    }
    const size_t deliveredUsers = users.owners.size();
    list.splice(list.end(), users.owners);
    ShiftWindow(offset, limit, userCount, deliveredUsers);

    Collector groups{"group", {}};
    int groupCount = KLIBGroupInfoEnumBySubstr(source, 0, static_cast<unsigned int>(offset),
                                               static_cast<unsigned int>(limit), prefix.c_str(), 1, GroupCallback,
                                               &groups);
    groups.RethrowIfFailed();
    if (groupCount < 0) {
        KOVA_LOG(LOG_ERR, "acl", 1166, "KLIBGroupInfoEnumByPrefix failed. [0x%04X %s:%d]", KLIBCErrGet(),
                 Text(KLIBCErrorGetFile()), KLIBCErrorGetLine());
        return static_cast<unsigned int>(userCount);
    }
    const size_t deliveredGroups = groups.owners.size();
    list.splice(list.end(), groups.owners);
    ShiftWindow(offset, limit, groupCount, deliveredGroups);
    return static_cast<unsigned int>(userCount) + static_cast<unsigned int>(groupCount);
}

struct SpecialPrincipal {
    const char *flag;
    const char *type;
    const char *name;
    const char *prefixText;  // what a prefix is compared with
};

const SpecialPrincipal kSpecials[] = {
    {"include_owner", "owner", "Owner", "owner"},
    {"include_everyone", "everyone", "Everyone", "everyone"},
    {"include_builtin", "authenticated_user", "Authenticated Users", "Authenticated Users"},
    {"include_builtin", "system", "SYSTEM", "system"},
};

bool PrefixMatches(const std::string &prefix, const char *text) {
    return prefix.empty() || strncasecmp(prefix.c_str(), text, prefix.size()) == 0;
}

} // namespace

void ACLHandler::ListOwners() {
    const bool includeInternal = request_->GetParam("include_internal", false).asBool();
    int offset = request_->GetParam("offset", 0).asInt();
    int limit = request_->GetParam("limit", -1).asInt();
    const std::string prefix = request_->GetParam("prefix", "").asString();

    const int kLocal = KOVA_ACCOUNT_SRC_LOCAL, kDomain = KOVA_ACCOUNT_SRC_DOMAIN, kLdap = KOVA_ACCOUNT_SRC_LDAP;
    int mask = kLocal | kDomain | kLdap;
    if (request_->HasParam("auth_type")) {
        const std::string authType = request_->GetParam("auth_type", "").asString();
        if (authType == "local") {
            mask = kLocal;
        } else if (authType == "directory") {
            mask = kDomain | kLdap;
        } else if (authType != "all") {
            response_->SetError(403, Json::Value());
            return;
        }
    }
    if (KOVAWinsIsJoined() == 0) mask &= ~kDomain;
    if (KOVALDAPIsBinded() == 0) mask &= ~kLdap;

    OwnerList owners;
    unsigned int total = 0;
    for (const SpecialPrincipal &special : kSpecials) {
        if (!request_->GetParam(special.flag, false).asBool()) continue;
        if (!PrefixMatches(prefix, special.prefixText)) continue;
        ++total;
        // The limit only bounds the account sources: a special principal is
        // listed whenever the offset is used up.
        if (offset == 0) {
            owners.push_back(OWNER{special.type, special.name});
            if (limit > 0) --limit;
        }
        offset = std::max(offset, 1) - 1;
    }

    if (mask & kLocal) total += EnumAccounts(offset, limit, kLocal, prefix, owners);
    if (includeInternal) {
        Collector internals{"user", {}};
        int count = KLIBUserInfoEnumInternalUsers(static_cast<unsigned int>(offset), static_cast<unsigned int>(limit),
                                                  prefix.c_str(), 1, 1, UserCallback, &internals);
        internals.RethrowIfFailed();
        if (count >= 0) {
            const size_t delivered = internals.owners.size();
            owners.splice(owners.end(), internals.owners);
            ShiftWindow(offset, limit, count, delivered);
            total += static_cast<unsigned int>(count);
        }
    }
    if (mask & kDomain) total += EnumAccounts(offset, limit, kDomain, prefix, owners);
    if (mask & kLdap) total += EnumAccounts(offset, limit, kLdap, prefix, owners);

    Json::Value list(Json::arrayValue);
    for (const OWNER &owner : owners) {
        Json::Value item(Json::objectValue);
        item["type"] = owner.type;
        item["name"] = owner.name;
        list.append(item);
    }
    Json::Value result(Json::objectValue);
    result["owners"] = list;
    result["total"] = total;
    response_->SetSuccess(result);
}
