// kova-admin domain commands: Windows-domain membership state and the
// per-domain account caches (filled from an LDAP server or an LDIF file).
#include "cache-sink.h"
#include "command.h"

#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"
#include "kova/accountdb.h"

#include <cstdio>
#include <string>

using namespace kova_admin;

namespace {

const std::vector<std::string> kJoinValues = {"--from-ldap", "--base", "--binddn", "--password", "--from-ldif"};

int DomainJoin(const std::vector<std::string> &args) {
    auto pos = Positionals(args, kJoinValues);
    std::string uri = Option(args, "--from-ldap"), ldif = Option(args, "--from-ldif"), base = Option(args, "--base");
    if (pos.size() != 1 || uri.empty() == ldif.empty() || (!uri.empty() && base.empty()))
        return Fail("usage: domain join NAME (--from-ldap URI --base DN [--binddn DN --password P] | --from-ldif FILE)");
    const std::string &name = pos[0];
    if (!KovaDirsvc::ValidDomainName(name)) return Fail("invalid domain name '" + name + "'");
    auto builder = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_DOMAIN, name);
    if (!builder) return Fail("cannot start the caches of domain '" + name + "'");
    const KovaDirSink sink = CacheSink(*builder);
    int rc = uri.empty() ? KovaDirsvc::LdifRead(ldif, sink)
                         : KovaDirsvc::LdapRead(uri, base, Option(args, "--binddn"), Option(args, "--password"), sink);
    if (rc != 0) return Fail("cannot read the accounts of domain '" + name + "'; nothing changed");
    if (builder->Commit() != 0) return Fail("cannot replace the caches of domain '" + name + "'");
    if (KovaDirsvc::DomainAdd(name) != 0) return Fail("cannot record domain '" + name + "'");
    std::printf("joined %s: %lld users and %lld groups cached\n", name.c_str(), builder->users(), builder->groups());
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
        if (v != "yes" && v != "no") return Fail(key + " takes yes or no");
        if (KovaDirsvc::DomainSetFlag(flag, v == "yes") != 0) return Fail("cannot set " + key);
        any = true;
    }
    if (!any) return Fail("usage: domain set [--joined yes|no] [--trusted yes|no] [--reachable yes|no] [--own-dc yes|no]");
    return 0;
}

int OuAdd(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.empty() || pos.size() > 2) return Fail("usage: domain ou add NAME [DETAIL]");
    if (KovaDirsvc::OuAdd(pos[0], pos.size() > 1 ? pos[1] : "") != 0) return Fail("cannot add organisational unit '" + pos[0] + "'");
    return 0;
}

int DomainLeave(const std::vector<std::string> &args) {
    auto pos = Positionals(args, {});
    if (pos.size() != 1) return Fail("usage: domain leave NAME");
    if (KovaDirsvc::DomainRemove(pos[0]) != 0) return Fail("not a member of domain '" + pos[0] + "'");
    if (KovaAccountCache::RemoveDomain(pos[0]) != 0) return Fail("cannot remove the caches of domain '" + pos[0] + "'");
    return 0;
}

Registration r1({"domain join", "domain join NAME (--from-ldap URI --base DN [--binddn DN --password P] | --from-ldif FILE)",
                 "join a domain and cache its accounts", DomainJoin});
Registration r2({"domain set", "domain set [--joined yes|no] [--trusted yes|no] [--reachable yes|no] [--own-dc yes|no]",
                 "change the domain state", DomainSet});
Registration r3({"domain ou add", "domain ou add NAME [DETAIL]", "add an organisational unit", OuAdd});
Registration r4({"domain leave", "domain leave NAME", "leave a domain and drop its caches", DomainLeave});

} // namespace
