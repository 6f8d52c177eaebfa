// The synthetic accounts the benchmarks search, the same on every run (a
// fixed seed), in the platform root $KOVA_ROOT names.
#ifndef KOVA_BENCH_FILL_ACCOUNTS_H
#define KOVA_BENCH_FILL_ACCOUNTS_H

#include "kova-accountdb-admin.h"

#include <random>
#include <string>

namespace kova_bench {

// Capitalised words of random syllables for names and descriptions. One
// generator serves a whole fill, so what it yields depends on all earlier
// calls.
class Words {
public:
    Words() : rng_(42) {}
    std::string Word(int syllables);

private:
    std::mt19937 rng_;
};

// Adds `users` local users ("luser<n>", not internal) to the account
// database. They go straight into the table: adding them one call at a time
// would time password hashing, not the enumeration or search.
bool FillLocalUsers(int users);

// Adds `users` LDAP users "user0000000".. with a full name, mail and
// description to a cache being built.
// LDAP user i is "user%07d" with uidNumber kLdapFirstUid + i, gidNumber 100.
constexpr int kLdapFirstUid = 5000000;
bool AddLdapUsers(KovaAccountCacheBuilder &builder, int users, Words &words);

} // namespace kova_bench

#endif
