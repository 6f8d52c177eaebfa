// Helpers shared by the account-database and directory-account tests: an owning query handle, cache
// entries and a cache built of them, a count of the half-built caches a rebuild leaves in a directory, and
// name <-> id lookups through the platform's account calls.
#ifndef KOVA_TEST_ACCOUNTDB_FIXTURE_H
#define KOVA_TEST_ACCOUNTDB_FIXTURE_H

#include "temp-root.h"

#include "kova-accountdb-admin.h"
#include "kova/account.h"
#include "kova/accountdb.h"
#include "kova/klibc.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace kova_accountdb_test {

struct Closer {
    void operator()(PKOVA_ACCOUNTDB h) const { KOVAACCOUNTDBClose(h); }
};
using Handle = std::unique_ptr<KOVA_ACCOUNTDB, Closer>;

inline KovaCacheEntry U(const std::string &name, const std::string &desc = "", const std::string &mail = "",
                        const std::string &full = "", const std::string &dn = "", bool group = false) {
    KovaCacheEntry e;
    e.name = name;
    e.desc = desc;
    e.mail = mail;
    e.fullname = full;
    e.dn = dn;
    e.group = group;
    return e;
}

// Replaces the cache of a source (and domain) with these entries.
inline void Build(int selector, const std::string &domain, const std::vector<KovaCacheEntry> &entries) {
    auto b = KovaAccountCacheBuilder::Begin(selector, domain);
    ASSERT_TRUE(b);
    for (const auto &e : entries) ASSERT_EQ(b->Add(e), 0);
    ASSERT_EQ(b->Commit(), 0);
}

// Files of `dir` whose name marks a cache still being built (".new.").
inline int TempFiles(const std::string &dir) {
    int n = 0;
    for (const std::string &name : kova_test::ListDir(dir)) n += name.find(".new.") != std::string::npos;
    return n;
}

// -1 / "" when the lookup fails (the last error tells why).
inline int Uid(const std::string &name) {
    int uid = -1, gid = -1;
    return KOVAUserGetUGID(name.c_str(), &uid, &gid) == 0 ? uid : -1;
}
inline int Gid(const std::string &name) {
    PKOVA_GROUP g = nullptr;
    int gid = KOVAGroupGet(name.c_str(), &g) >= 0 ? static_cast<int>(g->gid) : -1;
    KOVAGroupFree(g);
    return gid;
}
inline std::string UserName(unsigned uid) {
    PKOVA_USER u = nullptr;
    std::string name = KOVAUserGetByUID(uid, &u) == 0 ? u->szName : "";
    KOVAUserFree(u);
    return name;
}
inline std::string GroupName(unsigned gid) {
    PKOVA_GROUP g = nullptr;
    std::string name = KOVAGroupGetByGID(gid, &g) >= 0 ? g->szName : "";
    KOVAGroupFree(g);
    return name;
}
// A user's gids as the group list call gives them; {"failed"} when it fails.
inline std::vector<std::string> GroupsOf(const std::string &user) {
    std::vector<std::string> out;
    PKLIBC_SZLIST l = KLIBGroupInfoListGet(user.c_str(), 0);
    if (!l) return {"failed"};
    for (int i = 0; i < l->nItem; ++i) out.push_back(KLIBCSzListGet(l, i));
    KLIBCSzListFree(l);
    return out;
}

} // namespace kova_accountdb_test

#endif
