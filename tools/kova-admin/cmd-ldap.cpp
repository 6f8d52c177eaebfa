// kova-admin ldap commands: record a binding to an LDAP server and fill the
// LDAP account cache from it.
#include "cache-sink.h"
#include "command.h"

#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"
#include "kova/accountdb.h"

#include <cstdio>
#include <string>

using namespace kova_admin;

namespace {

int LdapBind(const std::vector<std::string> &args) {
    KovaLdapConfig cfg;
    cfg.uri = Option(args, "--uri");
    cfg.base = Option(args, "--base");
    cfg.bindDn = Option(args, "--binddn");
    cfg.password = Option(args, "--password");
    cfg.suffix = Option(args, "--suffix");
    if (cfg.uri.empty() || cfg.base.empty() || cfg.suffix.empty())
        return FailPlain("usage: ldap bind --uri URI --base DN [--binddn DN --password P] --suffix SUFFIX");
    // Only a server that answers (and accepts the credentials) is recorded.
    if (KovaDirsvc::LdapProbe(cfg.uri, cfg.bindDn, cfg.password) != 0) return Fail("cannot bind to " + cfg.uri);
    if (KovaDirsvc::LdapBind(cfg) != 0) return Fail("cannot record the LDAP binding");
    return 0;
}

// Reads the directory into a new cache; the old one stays until the new
// one is complete.
int LdapSync(const std::vector<std::string> &) {
    KovaLdapConfig cfg;
    if (KovaDirsvc::LdapGet(cfg) != 0) return Fail("cannot read the LDAP binding");
    if (!cfg.bound) return FailPlain("not bound to an LDAP server (run ldap bind first)");
    auto builder = KovaAccountCacheBuilder::Begin(KOVA_ACCOUNTDB_LDAP, "");
    if (!builder) return Fail("cannot start a new LDAP cache");
    // Entries without their numbers are cached (the search finds them) but
    // get no ids: say how many, since they cannot be used in rules.
    long long withoutIds = 0;
    const KovaDirSink cache = CacheSink(*builder);
    const KovaDirSink sink = [&](const KovaDirEntry &e) {
        if (e.id < 0 || (!e.group && e.gid < 0)) ++withoutIds;
        return cache(e);
    };
    int rc = KovaDirsvc::LdapRead(cfg.uri, cfg.base, cfg.bindDn, cfg.password, sink);
    if (rc != 0) return Fail("cannot read the directory at " + cfg.uri + "; the previous cache is kept");
    if (builder->Commit() != 0) return Fail("cannot replace the LDAP cache; the previous cache is kept");
    std::printf("synced %lld users and %lld groups\n", builder->users(), builder->groups());
    if (withoutIds)
        std::printf("%lld of them without uidNumber/gidNumber: found by the search, but not usable in rules or as owners\n",
                    withoutIds);
    return 0;
}

int LdapUnbind(const std::vector<std::string> &) {
    if (KovaDirsvc::LdapUnbind() != 0) return Fail("cannot record the unbinding");
    if (KovaAccountCache::RemoveLdap() != 0) return Fail("cannot remove the LDAP cache");
    return 0;
}

Registration r1({"ldap bind", "ldap bind --uri URI --base DN [--binddn DN --password P] --suffix SUFFIX",
                 "bind to an LDAP server", LdapBind});
Registration r2({"ldap sync", "ldap sync", "fill the LDAP account cache from the bound server", LdapSync});
Registration r3({"ldap unbind", "ldap unbind", "forget the LDAP binding and its cache", LdapUnbind});

} // namespace
