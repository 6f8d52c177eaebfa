// The recorded LDAP binding.
#include "kova-dirsvc-admin.h"
#include "state-db.h"

#include "kova-internal/call-guard.h"
#include "kova/dirsvc.h"

#include <cstring>

using namespace kova_dirsvc;
using kova_internal::Guarded;

namespace {
bool ReadLdap(KovaLdapConfig &out) {
    StateSession s;
    std::map<std::string, std::string> kv;
    if (!s.Open() || !s.ReadAll(kv)) return false;
    LdapFromState(kv, out);
    return true;
}
} // namespace

namespace kova_dirsvc {
void LdapFromState(std::map<std::string, std::string> &kv, KovaLdapConfig &out) {
    out.bound = IsYes(kv, "ldap_bound");
    out.uri = kv["ldap_uri"];
    out.base = kv["ldap_base"];
    out.bindDn = kv["ldap_binddn"];
    out.password = kv["ldap_password"];
    out.suffix = kv["ldap_suffix"];
}
} // namespace kova_dirsvc

extern "C" int KOVALDAPIsBinded(void) {
    KOVA_FAULT_POINT("KOVALDAPIsBinded", int);
    return Guarded(0, [&]() -> int {
        KovaLdapConfig cfg;
        return ReadLdap(cfg) && cfg.bound ? 1 : 0;
    });
}

extern "C" int KOVALDAPLoginSuffixGet(char *szBuf, int cbBuf) {
    KOVA_FAULT_POINT("KOVALDAPLoginSuffixGet", int);
    return Guarded(-1, [&]() -> int {
        if (!szBuf || cbBuf <= 0) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        KovaLdapConfig cfg;
        if (!ReadLdap(cfg)) return -1;
        if (!cfg.bound) {
            KOVA_FAIL(KOVA_ERR_DIRSVC);
            return -1;
        }
        if (cfg.suffix.size() >= static_cast<size_t>(cbBuf)) {
            KOVA_FAIL(KOVA_ERR_RANGE);
            return -1;
        }
        std::memcpy(szBuf, cfg.suffix.c_str(), cfg.suffix.size() + 1);
        return 0;
    });
}

int KovaDirsvc::LdapGet(KovaLdapConfig &out) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::LdapGet", int);
    return Guarded(-1, [&]() -> int { return ReadLdap(out) ? 0 : -1; });
}

int KovaDirsvc::LdapBind(const KovaLdapConfig &cfg) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::LdapBind", int);
    return Guarded(-1, [&]() -> int {
        if (cfg.uri.empty() || cfg.base.empty() || cfg.suffix.empty() || cfg.suffix.find('@') != std::string::npos) {
            KOVA_FAIL(KOVA_ERR_BADARG);
            return -1;
        }
        StateSession s;
        if (!s.Open() || !s.Begin()) return -1;
        bool ok = s.Set("ldap_uri", cfg.uri) && s.Set("ldap_base", cfg.base) && s.Set("ldap_binddn", cfg.bindDn) &&
                  s.Set("ldap_password", cfg.password) && s.Set("ldap_suffix", cfg.suffix) && s.Set("ldap_bound", "yes");
        if (!ok) {
            s.Rollback();
            return -1;
        }
        return s.Commit() ? 0 : -1;
    });
}

int KovaDirsvc::LdapUnbind() noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::LdapUnbind", int);
    return Guarded(-1, [&]() -> int {
        StateSession s;
        if (!s.Open()) return -1;
        // The password goes with the binding; the rest stays for reference.
        if (!s.Begin()) return -1;
        if (!s.Set("ldap_bound", "no") || !s.Set("ldap_password", "")) {
            s.Rollback();
            return -1;
        }
        return s.Commit() ? 0 : -1;
    });
}
