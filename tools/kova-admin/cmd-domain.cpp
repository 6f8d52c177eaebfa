// kova-admin domain commands: Windows-domain membership state and the
// per-domain account caches (filled from an LDAP server or an LDIF file).
#include "cache-sink.h"
#include "command.h"
#include "local-ids.h"

#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"
#include "kova/accountdb.h"
#include "kova/errcode.h"
#include "kova/klibc.h"

#include <algorithm>

#include <cstdio>
#include <cstdlib>
#include <string>

using namespace kova_admin;

namespace {

// Ranges handed out automatically: this size, from this base upwards.
constexpr long long kAutoRangeSize = 1000000;
constexpr long long kAutoRangeFirst = 1000000;

bool ParseNumber(const std::string &text, long long &out) {
    char *end = nullptr;
    long long v = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end || v < 0 || v > 0x7FFFFFFFLL) return false;
    out = v;
    return true;
}

// Refuses a range that a local account's id falls in; the library refuses
// overlaps between domains.
int SetRange(const KovaIdRange &r) {
    std::string holder;
    int local = LocalIdIn(r.base, r.size, holder);
    if (local < 0) return Fail("cannot read the local accounts");
    if (local > 0) return FailPlain("the range " + std::to_string(r.base) + ".." + std::to_string(r.base + r.size - 1) +
                                " holds the id of local " + holder);
    if (KovaDirsvc::RangeSet(r) != 0) {
        if (KLIBCErrGet() == KOVA_ERR_EXIST)
            return FailPlain("the range " + std::to_string(r.base) + ".." + std::to_string(r.base + r.size - 1) +
                        " overlaps the range of another domain");
        return FailPlain("the range must lie within 1024..2147483647 and not be empty");
    }
    return 0;
}

// A domain joined without a range gets the first free one of the automatic
// size above every range and local id; it is kept from then on, so ids stay
// as they are across re-syncs and re-joins.
int EnsureRange(const std::string &domain) {
    KovaIdRange have;
    int r = KovaDirsvc::RangeOfDomain(domain, have);
    if (r < 0) return Fail("cannot read the id ranges");
    if (r > 0) return 0;
    std::vector<KovaIdRange> all;
    if (KovaDirsvc::RangeList(all) != 0) return Fail("cannot read the id ranges");
    long long base = kAutoRangeFirst;
    for (const auto &x : all) base = std::max(base, x.base + x.size);
    base = (base + kAutoRangeSize - 1) / kAutoRangeSize * kAutoRangeSize;
    for (; base + kAutoRangeSize - 1 <= 0x7FFFFFFFLL; base += kAutoRangeSize) {
        std::string holder;
        int local = LocalIdIn(base, kAutoRangeSize, holder);
        if (local < 0) return Fail("cannot read the local accounts");
        if (local == 0) return SetRange({domain, base, kAutoRangeSize});
    }
    return FailPlain("no free id range is left for domain '" + domain + "'");
}

int DomainRange(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {"--base", "--size"});
    KovaIdRange r;
    if (pos.size() != 1 || !ParseNumber(Option(args, "--base"), r.base) ||
        !ParseNumber(Option(args, "--size", std::to_string(kAutoRangeSize)), r.size))
        return FailPlain("usage: domain range NAME --base N [--size N]");
    r.domain = pos[0];
    if (!KovaDirsvc::ValidDomainName(r.domain)) return FailPlain("invalid domain name '" + r.domain + "'");
    return SetRange(r);
}

int DomainRanges(const std::vector<std::string> &) {
    std::vector<KovaIdRange> all;
    if (KovaDirsvc::RangeList(all) != 0) return Fail("cannot read the id ranges");
    for (const auto &r : all) std::printf("%s\t%lld\t%lld\n", r.domain.c_str(), r.base, r.base + r.size - 1);
    return 0;
}

const std::vector<std::string> kJoinValues = {"--from-ldap", "--base", "--binddn", "--password", "--from-ldif"};

int DomainJoin(const std::vector<std::string> &args) {
    auto pos = Positionals(args, kJoinValues);
    std::string uri = Option(args, "--from-ldap"), ldif = Option(args, "--from-ldif"), base = Option(args, "--base");
    if (pos.size() != 1 || uri.empty() == ldif.empty() || (!uri.empty() && base.empty()))
        return FailPlain("usage: domain join NAME (--from-ldap URI --base DN [--binddn DN --password P] | --from-ldif FILE)");
    const std::string &name = pos[0];
    if (!KovaDirsvc::ValidDomainName(name)) return FailPlain("invalid domain name '" + name + "'");
    auto builder = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_DOMAIN, name);
    if (!builder) return Fail("cannot start the caches of domain '" + name + "'");
    long long withoutIds = 0;
    const KovaDirSink cache = CacheSink(*builder, true);
    const KovaDirSink sink = [&](const KovaDirEntry &e) {
        if (e.rid < 0) ++withoutIds;
        return cache(e);
    };
    int rc = uri.empty() ? KovaDirsvc::LdifRead(ldif, sink)
                         : KovaDirsvc::LdapRead(uri, base, Option(args, "--binddn"), Option(args, "--password"), sink);
    if (rc != 0) return Fail("cannot read the accounts of domain '" + name + "'; nothing changed");
    if (builder->Commit() != 0) return Fail("cannot replace the caches of domain '" + name + "'");
    if (EnsureRange(name) != 0) return 1;
    if (KovaDirsvc::DomainAdd(name) != 0) return Fail("cannot record domain '" + name + "'");
    std::printf("joined %s: %lld users and %lld groups cached\n", name.c_str(), builder->users(), builder->groups());
    if (withoutIds)
        std::printf("%lld of them without a SID: found by the search, but not usable in rules or as owners\n", withoutIds);
    return 0;
}

int DomainSet(const std::vector<std::string> &args) {
    bool any = false;
    for (const char *flag : {"joined", "trusted", "reachable", "own-dc"}) {
        std::string key = std::string("--") + flag;
        bool present = false;
        for (const auto &a : args) present = present || a == key;
        if (!present) continue;
        std::string v = Option(args, key);
        if (v != "yes" && v != "no") return FailPlain(key + " takes yes or no");
        if (KovaDirsvc::DomainSetFlag(flag, v == "yes") != 0) return Fail("cannot set " + key);
        any = true;
    }
    if (!any) return FailPlain("usage: domain set [--joined yes|no] [--trusted yes|no] [--reachable yes|no] [--own-dc yes|no]");
    return 0;
}

int OuAdd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.empty() || pos.size() > 2) return FailPlain("usage: domain ou add NAME [DETAIL]");
    if (KovaDirsvc::OuAdd(pos[0], pos.size() > 1 ? pos[1] : "") != 0) return Fail("cannot add organisational unit '" + pos[0] + "'");
    return 0;
}

int DomainLeave(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 1) return FailPlain("usage: domain leave NAME");
    if (KovaDirsvc::DomainRemove(pos[0]) != 0) return Fail("not a member of domain '" + pos[0] + "'");
    if (KovaAccountCache::RemoveDomain(pos[0]) != 0) return Fail("cannot remove the caches of domain '" + pos[0] + "'");
    return 0;
}

Registration r1({"domain join", "domain join NAME (--from-ldap URI --base DN [--binddn DN --password P] | --from-ldif FILE)",
                 "join a domain and cache its accounts", DomainJoin});
Registration r2({"domain set", "domain set [--joined yes|no] [--trusted yes|no] [--reachable yes|no] [--own-dc yes|no]",
                 "change the domain state", DomainSet});
Registration r3({"domain ou add", "domain ou add NAME [DETAIL]", "add an organisational unit", OuAdd});
Registration r5({"domain range", "domain range NAME --base N [--size N]",
                 "set the id range of a domain (ids are base + RID)", DomainRange});
Registration r6({"domain ranges", "domain ranges", "list the id ranges: domain, first id, last id", DomainRanges});
Registration r4({"domain leave", "domain leave NAME", "leave a domain and drop its caches", DomainLeave});

} // namespace
