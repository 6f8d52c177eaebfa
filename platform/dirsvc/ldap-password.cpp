// Password checks of directory users: a simple bind as the user's DN
// against the bound server. The bind goes over StartTLS whenever the
// server offers it (its root DSE lists the extension), and then TLS must
// succeed: falling back to plain text there would let anyone on the path
// strip TLS and read the password.
#include "kova-dirsvc-admin.h"
#include "ldap-handles.h"

#include "kova-internal/call-guard.h"
#include "kova/errcode.h"

#include <ldap.h>

#include <memory>
#include <string>

using kova_internal::Guarded;
using kova_dirsvc::Ldap;
using kova_dirsvc::MsgFree;
using kova_dirsvc::ValsFree;

namespace {

constexpr int kTimeoutSec = 10;
const char kStartTlsOid[] = "1.3.6.1.4.1.1466.20037";


int Fail(int code) {
    KOVA_FAIL(code);
    return -1;
}

bool Unreachable(int rc) {
    return rc == LDAP_SERVER_DOWN || rc == LDAP_CONNECT_ERROR || rc == LDAP_TIMEOUT || rc == LDAP_UNAVAILABLE ||
           rc == LDAP_BUSY;
}

// 1 offered, 0 not, -1 the server could not be asked.
int OffersStartTls(LDAP *ld) {
    char attr[] = "supportedExtension";
    char *attrs[] = {attr, nullptr};
    struct timeval tv = {kTimeoutSec, 0};
    LDAPMessage *raw = nullptr;
    int rc = ldap_search_ext_s(ld, "", LDAP_SCOPE_BASE, "(objectClass=*)", attrs, 0, nullptr, nullptr, &tv, 1, &raw);
    std::unique_ptr<LDAPMessage, MsgFree> res(raw);
    if (Unreachable(rc)) return -1;
    if (rc != LDAP_SUCCESS) return 0;  // a root DSE we may not read offers nothing
    LDAPMessage *e = ldap_first_entry(ld, res.get());
    if (!e) return 0;
    std::unique_ptr<berval *, ValsFree> vals(ldap_get_values_len(ld, e, attr));
    for (berval **v = vals.get(); v && *v; ++v)
        if (std::string((*v)->bv_val, (*v)->bv_len) == kStartTlsOid) return 1;
    return 0;
}

} // namespace

int KovaDirsvc::LdapCheckPassword(const std::string &dn, const std::string &password) noexcept {
    KOVA_FAULT_POINT("KovaDirsvc::LdapCheckPassword", int);
    return Guarded(-1, [&]() -> int {
        // An empty password makes a simple bind "unauthenticated", which
        // servers accept for any DN: it proves nothing.
        if (dn.empty() || password.empty() || password.find('\0') != std::string::npos) return Fail(KOVA_ERR_PERM);
        KovaLdapConfig cfg;
        if (LdapGet(cfg) != 0) return -1;
        if (!cfg.bound) return Fail(KOVA_ERR_DIRSVC);
        LDAP *raw = nullptr;
        if (ldap_initialize(&raw, cfg.uri.c_str()) != LDAP_SUCCESS || !raw) return Fail(KOVA_ERR_DIRSVC);
        Ldap ld(raw);
        int version = LDAP_VERSION3;
        ldap_set_option(ld.get(), LDAP_OPT_PROTOCOL_VERSION, &version);
        struct timeval tv = {kTimeoutSec, 0};
        ldap_set_option(ld.get(), LDAP_OPT_NETWORK_TIMEOUT, &tv);
        ldap_set_option(ld.get(), LDAP_OPT_TIMEOUT, &tv);
        ldap_set_option(ld.get(), LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        if (cfg.uri.rfind("ldaps://", 0) != 0) {
            int offered = OffersStartTls(ld.get());
            if (offered < 0) return Fail(KOVA_ERR_DIRSVC);
            if (offered == 1 && ldap_start_tls_s(ld.get(), nullptr, nullptr) != LDAP_SUCCESS) return Fail(KOVA_ERR_DIRSVC);
        }
        berval cred;
        cred.bv_val = const_cast<char *>(password.data());
        cred.bv_len = password.size();
        int rc = ldap_sasl_bind_s(ld.get(), dn.c_str(), LDAP_SASL_SIMPLE, &cred, nullptr, nullptr, nullptr);
        if (rc == LDAP_SUCCESS) return 0;
        return Fail(Unreachable(rc) ? KOVA_ERR_DIRSVC : KOVA_ERR_PERM);
    });
}
