/*
 * Account-cache rebuilding (libkovaaccountdb.so.7), for kova-admin, tests
 * and benchmarks.
 *
 * Contract: a builder writes a complete new cache beside the current one
 * and Commit renames it into place, so readers see either the old cache or
 * the new one, never a mix; a builder destroyed without Commit (or a failed
 * Commit) removes its files and leaves the old cache untouched. Every call
 * is noexcept; int results are 0 on success, negative on failure with the
 * last error set.
 */
#ifndef KOVA_ACCOUNTDB_ADMIN_H
#define KOVA_ACCOUNTDB_ADMIN_H

#include <memory>
#include <string>
#include <vector>

#include "kova/export.h"

// The administration interface beside the public one: exported like it.
KOVA_API_BEGIN

// id and gid are -1 when the entry has none: LDAP caches keep uidNumber /
// gidNumber (and a user's primary gidNumber), domain caches the RID (and a
// user's primary group RID); members are the group's memberUid values and
// member DNs.
struct KovaCacheEntry {
    bool group = false;
    std::string name, desc, mail, fullname, dn;
    long long id = -1, gid = -1;
    std::vector<std::string> members{};  // initialised, so rows written without it are whole
};

class KovaAccountCacheBuilder {
public:
    // selector KOVA_ACCOUNTDB_LDAP (domain ignored) or KOVA_ACCOUNTDB_DOMAIN
    // (both the full and the enumeration cache of that domain). Null on
    // failure.
    static std::unique_ptr<KovaAccountCacheBuilder> Begin(int selector, const std::string &domain) noexcept;
    ~KovaAccountCacheBuilder();
    KovaAccountCacheBuilder(const KovaAccountCacheBuilder &) = delete;
    KovaAccountCacheBuilder &operator=(const KovaAccountCacheBuilder &) = delete;

    int Add(const KovaCacheEntry &entry) noexcept;
    // Orders the rows by name, builds the search index and replaces the
    // cache. The builder is spent afterwards, whatever the result.
    int Commit() noexcept;
    long long users() const { return users_; }
    long long groups() const { return groups_; }

    struct Impl;

private:
    explicit KovaAccountCacheBuilder(std::unique_ptr<Impl> impl);
    std::unique_ptr<Impl> impl_;
    long long users_ = 0, groups_ = 0;
};

class KovaAccountCache {
public:
    // Removes the LDAP cache (no error when there is none).
    static int RemoveLdap() noexcept;
    // Removes both caches of a domain and its catalogue entries.
    static int RemoveDomain(const std::string &domain) noexcept;
};

KOVA_API_END

#endif
