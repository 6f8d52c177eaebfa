#include "directory.h"

#include "account-db.h"
#include "lookup.h"

#include "kova-accountdb-lookup.h"
#include "kova-dirsvc-admin.h"
#include "kova/account.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"
#include "kova-internal/fault-point.h"

#include <algorithm>
#include <cctype>

namespace kova_accounts {

namespace {

// Primary group of a domain user whose entry names none: "Domain Users".
constexpr long long kDomainUsersRid = 513;

bool SameText(const std::string &a, const std::string &b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}

bool UsableGid(long long gid) { return gid > 0 && gid <= kMaxAccountId && gid != KOVA_ADMIN_GID; }
bool UsableUid(long long uid) { return uid >= KOVA_UID_FIRST_USER && uid <= kMaxAccountId; }

// 1 when a local account holds the id, 0 when none, -1 on error.
int LocalHolds(bool group, unsigned id) {
    AccountSession s;
    if (!s.Open()) return -1;
    bool dbError = false;
    bool found = group ? FindGroupByGid(s, id, &dbError).has_value() : FindUserByUid(s, id, &dbError).has_value();
    if (dbError) return -1;
    return found ? 1 : 0;
}

// The LDAP suffix when bound, else "".
std::string LdapSuffix(const KovaDirSnapshot &st) { return st.ldap.bound ? st.ldap.suffix : ""; }

// The recorded spelling of a joined domain, "" when not joined.
std::string JoinedDomain(const KovaDirSnapshot &st, const std::string &name) {
    if (!st.domain.joined) return "";
    for (const auto &d : st.domain.domains)
        if (SameText(d, name)) return d;
    return "";
}

const KovaIdRange *RangeOfDomain(const KovaDirSnapshot &st, const std::string &domain) {
    for (const auto &r : st.ranges)
        if (SameText(r.domain, domain)) return &r;
    return nullptr;
}

const KovaIdRange *RangeOfId(const KovaDirSnapshot &st, long long id) {
    for (const auto &r : st.ranges)
        if (id >= r.base && id < r.base + r.size) return &r;
    return nullptr;
}

// Turns a cache row into an account with ids; 1 usable, 0 not, -1 error.
int Complete(const KovaDirSnapshot &st, bool group, int source, const std::string &qualifier, const KovaIdRange *range,
             const KovaCachedAccount &c, DirAccount &out) {
    long long id = c.id, gid = c.gid;
    if (range) {
        if (id < 0 || id >= range->size) return 0;
        id += range->base;
        if (!group) {
            long long rid = gid >= 0 ? gid : kDomainUsersRid;
            gid = rid < range->size ? range->base + rid : -1;
        }
    }
    if (group ? !UsableGid(id) : (!UsableUid(id) || !UsableGid(gid))) return 0;
    // Ids inside a domain's range are that domain's: an LDAP number there
    // would resolve back to the domain account.
    if (!range && (RangeOfId(st, id) || (!group && RangeOfId(st, gid)))) return 0;
    // A local account with the same id wins; the directory one then has none.
    int held = LocalHolds(group, static_cast<unsigned>(id));
    if (held != 0) return held < 0 ? -1 : 0;
    out = DirAccount();
    out.source = source;
    out.plain = c.name;
    out.dn = c.dn;
    std::string name = source == KOVA_ACCOUNT_SRC_LDAP ? c.name + "@" + qualifier : qualifier + "\\" + c.name;
    if (group) {
        out.group.name = name;
        out.group.gid = static_cast<unsigned>(id);
        if (!c.desc.empty()) out.group.desc = c.desc;
    } else {
        out.user.name = name;
        out.user.uid = static_cast<unsigned>(id);
        out.user.gid = static_cast<unsigned>(gid);
        if (!c.desc.empty()) out.user.desc = c.desc;
        if (!c.mail.empty()) out.user.email = c.mail;
    }
    if (source == KOVA_ACCOUNT_SRC_DOMAIN) out.domain = qualifier;
    return 1;
}

int FindByName(bool group, const std::string &name, DirAccount &out) {
    KovaDirSnapshot st;
    if (KovaDirsvc::Snapshot(st) != 0) return -1;
    size_t bs = name.find('\\');
    if (bs != std::string::npos) {
        std::string domain = JoinedDomain(st, name.substr(0, bs));
        if (domain.empty()) return 0;
        const KovaIdRange *range = RangeOfDomain(st, domain);
        if (!range) return 0;  // a domain without a range has no ids
        KovaCachedAccount c;
        int r = KovaAccountCacheLookup::ByName(KOVA_ACCOUNTDB_DOMAIN, domain, group, name.substr(bs + 1), c);
        if (r <= 0) return r;
        return Complete(st, group, KOVA_ACCOUNT_SRC_DOMAIN, domain, range, c, out);
    }
    std::string suffix = LdapSuffix(st);
    if (suffix.empty()) return 0;
    std::string plain = name;
    size_t at = name.rfind('@');
    if (at != std::string::npos) {
        if (!SameText(name.substr(at + 1), suffix)) return 0;
        plain = name.substr(0, at);
    }
    if (plain.empty()) return 0;
    KovaCachedAccount c;
    int r = KovaAccountCacheLookup::ByName(KOVA_ACCOUNTDB_LDAP, "", group, plain, c);
    if (r <= 0) return r;
    return Complete(st, group, KOVA_ACCOUNT_SRC_LDAP, suffix, nullptr, c, out);
}

int FindById(bool group, unsigned id, DirAccount &out) {
    KovaDirSnapshot st;
    if (KovaDirsvc::Snapshot(st) != 0) return -1;
    if (const KovaIdRange *range = RangeOfId(st, id)) {
        // Ranges are the domains' alone: an id inside one is never LDAP's.
        std::string domain = JoinedDomain(st, range->domain);
        if (domain.empty()) return 0;
        KovaCachedAccount c;
        int r = KovaAccountCacheLookup::ById(KOVA_ACCOUNTDB_DOMAIN, domain, group, id - range->base, c);
        if (r <= 0) return r;
        return Complete(st, group, KOVA_ACCOUNT_SRC_DOMAIN, domain, range, c, out);
    }
    std::string suffix = LdapSuffix(st);
    if (suffix.empty()) return 0;
    KovaCachedAccount c;
    int r = KovaAccountCacheLookup::ById(KOVA_ACCOUNTDB_LDAP, "", group, id, c);
    if (r <= 0) return r;
    return Complete(st, group, KOVA_ACCOUNT_SRC_LDAP, suffix, nullptr, c, out);
}

} // namespace

bool DirectoryForm(const std::string &name) { return name.find_first_of("@\\") != std::string::npos; }

int FindDirectoryUser(const std::string &name, DirAccount &out) { return FindByName(false, name, out); }
int FindDirectoryUserByUid(unsigned uid, DirAccount &out) { return FindById(false, uid, out); }
int FindDirectoryGroup(const std::string &name, DirAccount &out) { return FindByName(true, name, out); }
int FindDirectoryGroupByGid(unsigned gid, DirAccount &out) { return FindById(true, gid, out); }

bool DirectoryUserGids(const DirAccount &user, std::vector<unsigned> &gids) {
    gids.assign(1, user.user.gid);
    KovaCachedAccount c;
    c.name = user.plain;
    c.dn = user.dn;
    std::vector<long long> ids;
    bool domain = user.source == KOVA_ACCOUNT_SRC_DOMAIN;
    KovaIdRange range;
    if (domain && KovaDirsvc::RangeOfDomain(user.domain, range) <= 0) {
        KOVA_FAIL(KOVA_ERR_NOUSER);
        return false;
    }
    if (KovaAccountCacheLookup::GroupIdsOf(domain ? KOVA_ACCOUNTDB_DOMAIN : KOVA_ACCOUNTDB_LDAP, user.domain, c, ids) < 0)
        return false;
    std::vector<unsigned> more;
    for (long long id : ids) {
        if (domain) {
            if (id >= range.size) continue;
            id += range.base;
        }
        if (!UsableGid(id) || static_cast<unsigned>(id) == user.user.gid) continue;
        // A directory group sharing a local group's gid is not the local group.
        int held = LocalHolds(true, static_cast<unsigned>(id));
        if (held < 0) return false;
        if (held) continue;
        more.push_back(static_cast<unsigned>(id));
    }
    std::sort(more.begin(), more.end());
    more.erase(std::unique(more.begin(), more.end()), more.end());
    gids.insert(gids.end(), more.begin(), more.end());
    return true;
}

namespace {
template <typename Row, typename Local, typename Dir>
std::optional<Row> Either(Local local, Dir dir, Row DirAccount::*part, DirAccount *out, int absent) {
    bool dbError = false;
    std::optional<Row> row = local(&dbError);
    if (row || dbError) return row;
    DirAccount d;
    int r = dir(d);
    if (r < 0) return std::nullopt;
    if (r == 0) {
        KOVA_FAIL(absent);
        return std::nullopt;
    }
    if (out) *out = d;
    return d.*part;
}
} // namespace

std::optional<UserRow> RequireAnyUser(AccountSession &s, const std::string &name, DirAccount *dir) {
    if (dir) dir->source = 0;
    return Either<UserRow>(
        [&](bool *e) { return DirectoryForm(name) ? std::nullopt : FindUser(s, name, e); },
        [&](DirAccount &d) { return FindDirectoryUser(name, d); }, &DirAccount::user, dir, KOVA_ERR_NOUSER);
}

std::optional<UserRow> RequireAnyUserByUid(AccountSession &s, unsigned uid, DirAccount *dir) {
    if (dir) dir->source = 0;
    return Either<UserRow>([&](bool *e) { return FindUserByUid(s, uid, e); },
                           [&](DirAccount &d) { return FindDirectoryUserByUid(uid, d); }, &DirAccount::user, dir,
                           KOVA_ERR_NOUSER);
}

std::optional<GroupRow> RequireAnyGroup(AccountSession &s, const std::string &name) {
    return Either<GroupRow>(
        [&](bool *e) { return DirectoryForm(name) ? std::nullopt : FindGroup(s, name, e); },
        [&](DirAccount &d) { return FindDirectoryGroup(name, d); }, &DirAccount::group, nullptr, KOVA_ERR_NOGROUP);
}

std::optional<GroupRow> RequireAnyGroupByGid(AccountSession &s, unsigned gid) {
    return Either<GroupRow>([&](bool *e) { return FindGroupByGid(s, gid, e); },
                            [&](DirAccount &d) { return FindDirectoryGroupByGid(gid, d); }, &DirAccount::group, nullptr,
                            KOVA_ERR_NOGROUP);
}

bool AnyUserGids(AccountSession &s, const UserRow &row, const DirAccount &dir, std::vector<unsigned> &gids) {
    return dir.source ? DirectoryUserGids(dir, gids) : UserGids(s, row, gids);
}

} // namespace kova_accounts
