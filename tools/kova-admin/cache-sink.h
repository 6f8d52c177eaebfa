// The bridge from a directory reader to an account cache under construction:
// every account the reader yields becomes one cache row, and a row the
// builder refuses stops the read.
#ifndef KOVA_ADMIN_CACHE_SINK_H
#define KOVA_ADMIN_CACHE_SINK_H

#include "kova-accountdb-admin.h"
#include "kova-dirsvc-admin.h"

namespace kova_admin {

// The builder must outlive the read the sink is given to. LDAP caches keep
// uidNumber / gidNumber, domain caches the RIDs (ids there are the range's
// base plus the RID, so re-syncing never changes them).
inline KovaDirSink CacheSink(KovaAccountCacheBuilder &builder, bool domain = false) {
    return [&builder, domain](const KovaDirEntry &e) {
        KovaCacheEntry c;
        c.group = e.group;
        c.name = e.name;
        c.desc = e.desc;
        c.mail = e.mail;
        c.fullname = e.fullname;
        c.dn = e.dn;
        c.id = domain ? e.rid : e.id;
        c.gid = domain ? e.primaryRid : e.gid;
        c.members = e.members;
        return builder.Add(c) == 0;
    };
}

} // namespace kova_admin

#endif
