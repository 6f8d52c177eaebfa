// The recorded Windows-domain membership: flags, the domain list (joined
// domain first) and the organisational units.
#include "kova-dirsvc-admin.h"
#include "state-db.h"

#include "kova-internal/call-guard.h"
#include "kova/dirsvc.h"

#include <cctype>

using namespace kova_dirsvc;
using kova_internal::Guarded;

namespace {

bool ReadDomain(KovaDomainState &out) {
    StateSession s;
    std::map<std::string, std::string> kv;
    if (!s.Open() || !s.ReadAll(kv)) return false;
    DomainFlagsFromState(kv, out);
    return s.Domains(out.domains);
}

// Lists can only be read from a domain that is joined and answers.
bool ServiceAvailable(const KovaDomainState &st) {
    if (st.joined && st.reachable) return true;
    KOVA_FAIL(KOVA_ERR_DIRSVC);
    return false;
}

} // namespace

namespace kova_dirsvc {
void DomainFlagsFromState(const std::map<std::string, std::string> &kv, KovaDomainState &out) {
    out.joined = IsYes(kv, "domain_joined");
    out.trusted = IsYes(kv, "domain_trusted");
    out.reachable = IsYes(kv, "domain_reachable", true);
    out.ownDc = IsYes(kv, "domain_own_dc");
    out.domains.clear();
}
} // namespace kova_dirsvc

extern "C" int KOVAWinsIsJoined(void) {
    KOVA_FAULT_POINT("KOVAWinsIsJoined", int);
    return Guarded(0, [&]() -> int {
        KovaDomainState st;
        return ReadDomain(st) && st.joined ? 1 : 0;
    });
}

extern "C" int KOVAWinIsEnableTrustDomain(void) {
    KOVA_FAULT_POINT("KOVAWinIsEnableTrustDomain", int);
    return Guarded(0, [&]() -> int {
        KovaDomainState st;
        return ReadDomain(st) && st.joined && st.trusted ? 1 : 0;
    });
}

extern "C" int KOVAWinsIsKovaADS(void) {
    KOVA_FAULT_POINT("KOVAWinsIsKovaADS", int);
    return Guarded(0, [&]() -> int {
        KovaDomainState st;
        return ReadDomain(st) && st.joined && st.ownDc ? 1 : 0;
    });
}

extern "C" int KOVAWinsEnumAllDomains(PKLIBC_SZLIST *ppList) {
    KOVA_FAULT_POINT("KOVAWinsEnumAllDomains", int);
    return Guarded(-1, [&]() -> int {
        if (!ppList || !*ppList) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        KovaDomainState st;
        if (!ReadDomain(st) || !ServiceAvailable(st)) return -1;
        // Every domain that was joined, whether trusted domains are on or
        // not: each has its own cache, and all of them are searched.
        size_t n = st.domains.size();
        for (size_t i = 0; i < n; ++i)
            if (KLIBCSzListPush(ppList, st.domains[i].c_str()) < 0) return -1;
        return static_cast<int>(n);
    });
}

extern "C" int KOVAWinsEnumOU(PKLIBC_SZLIST *ppNames, PKLIBC_SZLIST *ppDetails) {
    KOVA_FAULT_POINT("KOVAWinsEnumOU", int);
    return Guarded(-1, [&]() -> int {
        if (!ppNames || !*ppNames || !ppDetails || !*ppDetails) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        KovaDomainState st;
        if (!ReadDomain(st) || !ServiceAvailable(st)) return -1;
        std::vector<std::pair<std::string, std::string>> ous;
        {
            StateSession s;
            if (!s.Open() || !s.Ous(ous)) return -1;
        }
        for (const auto &ou : ous) {
            if (KLIBCSzListPush(ppNames, ou.first.c_str()) < 0) return -1;
            // An empty detail is an empty slot, as the header describes.
            if (KLIBCSzListPush(ppDetails, ou.second.empty() ? nullptr : ou.second.c_str()) < 0) return -1;
        }
        return static_cast<int>(ous.size());
    });
}

bool KovaDirsvc::ValidDomainName(const std::string &name) noexcept {
    KOVA_FAULT_POINT_BOOL("KovaDirsvc::ValidDomainName");
    if (name.empty() || name.size() > 63 || name[0] == '.' || name[0] == '-') return false;
    for (char c : name)
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '.' && c != '-' && c != '_') return false;
    return true;
}

int KovaDirsvc::DomainGet(KovaDomainState &out) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::DomainGet", int);
    return Guarded(-1, [&]() -> int { return ReadDomain(out) ? 0 : -1; });
}

int KovaDirsvc::DomainSetFlag(const std::string &flag, bool value) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::DomainSetFlag", int);
    return Guarded(-1, [&]() -> int {
        static const std::map<std::string, std::string> keys = {
            {"joined", "domain_joined"}, {"trusted", "domain_trusted"}, {"reachable", "domain_reachable"}, {"own-dc", "domain_own_dc"}};
        auto it = keys.find(flag);
        if (it == keys.end()) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        StateSession s;
        if (!s.Open()) return -1;
        return s.Set(it->second, value ? "yes" : "no") ? 0 : -1;
    });
}

int KovaDirsvc::DomainAdd(const std::string &name) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::DomainAdd", int);
    return Guarded(-1, [&]() -> int {
        if (!ValidDomainName(name)) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        StateSession s;
        if (!s.Open() || !s.Begin()) return -1;
        kova_internal::Statement st(s.db(), "INSERT OR IGNORE INTO domains(name) VALUES (?1)");
        st.Bind(1, name);
        if (!st.ok() || st.Step() != SQLITE_DONE || !s.Set("domain_joined", "yes")) {
            s.Rollback();
            return -1;
        }
        return s.Commit() ? 0 : -1;
    });
}

int KovaDirsvc::DomainRemove(const std::string &name) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::DomainRemove", int);
    return Guarded(-1, [&]() -> int {
        StateSession s;
        if (!s.Open() || !s.Begin()) return -1;
        kova_internal::Statement del(s.db(), "DELETE FROM domains WHERE name = ?1");
        del.Bind(1, name);
        if (!del.ok() || del.Step() != SQLITE_DONE) {
            s.Rollback();
            return -1;
        }
        if (sqlite3_changes(s.db().get()) == 0) {
            s.Rollback();
            KOVA_FAIL(KOVA_ERR_NOENT);
            return -1;
        }
        std::vector<std::string> left;
        if (!s.Domains(left) || (left.empty() && !s.Set("domain_joined", "no"))) {
            s.Rollback();
            return -1;
        }
        return s.Commit() ? 0 : -1;
    });
}

int KovaDirsvc::OuAdd(const std::string &name, const std::string &detail) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::OuAdd", int);
    return Guarded(-1, [&]() -> int {
        if (name.empty()) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        StateSession s;
        if (!s.Open()) return -1;
        kova_internal::Statement st(s.db(), "INSERT INTO ous(name, detail) VALUES (?1, ?2)");
        st.Bind(1, name).Bind(2, detail);
        return st.ok() && st.Step() == SQLITE_DONE ? 0 : -1;
    });
}
