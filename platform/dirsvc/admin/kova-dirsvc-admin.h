/*
 * Directory-service administration (libkovawins.so.7), for kova-admin and
 * tests: changes the recorded LDAP and Windows-domain state and reads
 * accounts from an LDAP server or an LDIF file.
 *
 * Contract: every call is noexcept, returns 0 on success and a negative
 * value on failure with the last error set. State changes are atomic (one
 * SQLite transaction in <root>/etc/dirsvc.db).
 */
#ifndef KOVA_DIRSVC_ADMIN_H
#define KOVA_DIRSVC_ADMIN_H

#include <functional>
#include <string>
#include <vector>

#include "kova/export.h"

// The administration interface beside the public one: exported like it.
KOVA_API_BEGIN

struct KovaLdapConfig {
    bool bound = false;
    std::string uri, base, bindDn, password, suffix;
};

struct KovaDomainState {
    bool joined = false;
    bool trusted = false;
    bool reachable = true;
    bool ownDc = false;          // the domain controller is this platform's own
    std::vector<std::string> domains;  // joined domain first
};

// One account read from a directory. Numbers are -1 when the entry has
// none (or an unusable one: not a decimal in 0..2^31-1).
struct KovaDirEntry {
    bool group = false;
    std::string name, desc, mail, fullname, dn;
    long long id = -1;          // uidNumber (users) or gidNumber (groups)
    long long gid = -1;         // users: gidNumber, the primary group
    long long rid = -1;         // last part of objectSid / sambaSID
    long long primaryRid = -1;  // users: primaryGroupID (or the RID of sambaPrimaryGroupSID)
    // Groups: memberUid values (user names) and member DNs, in directory order.
    std::vector<std::string> members;
};

// An id range of a Windows domain: its accounts take base + RID, for RIDs
// below size.
struct KovaIdRange {
    std::string domain;
    long long base = 0, size = 0;
};
// Returns false to abort the read; the read then fails with the last error
// that the sink set.
using KovaDirSink = std::function<bool(const KovaDirEntry &)>;

// Everything the account lookups need from the recorded state, read at once.
struct KovaDirSnapshot {
    KovaLdapConfig ldap;
    KovaDomainState domain;
    std::vector<KovaIdRange> ranges;  // by base
};

class KovaDirsvc {
public:
    static int Snapshot(KovaDirSnapshot &out) noexcept;
    static int LdapGet(KovaLdapConfig &out) noexcept;
    // Records a binding (bound = yes); uri, base and suffix must not be empty.
    static int LdapBind(const KovaLdapConfig &cfg) noexcept;
    static int LdapUnbind() noexcept;

    static int DomainGet(KovaDomainState &out) noexcept;
    // Flags: "joined", "trusted", "reachable", "own-dc".
    static int DomainSetFlag(const std::string &flag, bool value) noexcept;
    // Adds a domain to the list (joined = yes); the first one is the joined
    // domain. Names: letters, digits, '.', '-', '_', 1..63 bytes.
    static int DomainAdd(const std::string &name) noexcept;
    // Removes it; an empty list means not joined.
    static int DomainRemove(const std::string &name) noexcept;
    static int OuAdd(const std::string &name, const std::string &detail) noexcept;

    // Simple bind (anonymous when bindDn is empty) to check that the
    // server answers: KOVA_ERR_DIRSVC when it cannot be reached, KOVA_ERR_PERM
    // when the credentials are refused.
    static int LdapProbe(const std::string &uri, const std::string &bindDn, const std::string &password) noexcept;
    // Reads every user (posixAccount / inetOrgPerson) and group (posixGroup /
    // groupOfNames) under base, in pages, handing each to sink.
    static int LdapRead(const std::string &uri, const std::string &base, const std::string &bindDn,
                        const std::string &password, const KovaDirSink &sink) noexcept;
    // The same from an LDIF file of entries.
    static int LdifRead(const std::string &path, const KovaDirSink &sink) noexcept;
    // The configured id ranges, ordered by base.
    static int RangeList(std::vector<KovaIdRange> &out) noexcept;
    // Sets (or replaces) a domain's range. Refused with KOVA_ERR_BADARG when
    // the range leaves 1024..2^31-1 or is empty, with KOVA_ERR_EXIST when it
    // overlaps another domain's range. Overlap with local accounts is the
    // caller's check (the account library knows them).
    static int RangeSet(const KovaIdRange &range) noexcept;
    // The range that holds id, or the range of a domain (case-insensitive);
    // 1 found, 0 none, -1 error.
    static int RangeOfId(long long id, KovaIdRange &out) noexcept;
    static int RangeOfDomain(const std::string &domain, KovaIdRange &out) noexcept;

    // Checks a password by a simple bind as dn against the bound server,
    // over StartTLS when the server offers it. 0 accepted; KOVA_ERR_PERM
    // refused (also an empty password, which LDAP would take as an
    // unauthenticated bind); KOVA_ERR_DIRSVC not reachable or not bound.
    static int LdapCheckPassword(const std::string &dn, const std::string &password) noexcept;

    // True for valid domain names (as DomainAdd takes them).
    static bool ValidDomainName(const std::string &name) noexcept;
};

KOVA_API_END

#endif
